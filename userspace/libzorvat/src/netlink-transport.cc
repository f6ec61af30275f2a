// SPDX-License-Identifier: GPL-2.0
/* Commands as generic-netlink messages of the driver's family. */
#include "netlink-transport.h"

#include <cerrno>
#include <cstdlib>
#include <fmt/format.h>
#include <netlink/attr.h>
#include <netlink/errno.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <poll.h>
#include <zorvat/error.h>

#include "failures.h"
#include "netlink-answer.h"
#include "wt.h"

namespace zorvat
{

namespace
{

/* The largest attribute is 64 KiB; a message has little besides. */
constexpr int receive_buffer_bytes = 128 * 1024;

/*
 * The kernel executes a request while it is being sent, so the answer is there when sending
 * returns. This is only the limit after which a driver that never answers is given up.
 */
constexpr int answer_timeout_ms = 10'000;

template <auto release> struct Release {
	template <typename T> void operator()(T *object) const
	{
		release(object);
	}
};
using Message = std::unique_ptr<nl_msg, Release<nlmsg_free>>;
using Datagram = std::unique_ptr<unsigned char, Release<std::free>>;

template <typename T> T *require_memory(T *object)
{
	if (!object)
		throw std::bad_alloc();
	return object;
}

/* Passes a result of libnl's on, or throws when it is an error. */
int require(int result, std::string_view doing)
{
	if (result < 0)
		throw Error(Errc::system, fmt::format("cannot {}: {}", doing, nl_geterror(result)));
	return result;
}

int resolve_family(nl_sock *socket, const std::string &name)
{
	int family = genl_ctrl_resolve(socket, name.c_str());
	if (family == -NLE_OBJ_NOTFOUND)
		throw driver_unreachable("netlink family " + name, ENOENT);
	return require(family, "resolve netlink family " + name);
}

void put_target(nl_msg *message, const Target &target)
{
	int result = 0;
	if (auto *disk = std::get_if<DiskHandle>(&target))
		result = nla_put(message, WT_GENATTR_JORL_DISKHANDLE, sizeof(*disk), disk);
	else if (auto *volume = std::get<const Volume *>(target))
		result = nla_put_u32(message, WT_GENATTR_DISKHANDLE,
				     volume->device.kernel_encoding());
	require(result, "build a request");
}

} // namespace

void Netlink::FreeSocket::operator()(nl_sock *socket) const
{
	nl_socket_free(socket);
}

Netlink::Netlink(const std::string &family) : socket_(require_memory(nl_socket_alloc()))
{
	/* The driver answers every request itself: an acknowledgement on top would be a second */
	nl_socket_disable_auto_ack(socket_.get());
	require(genl_connect(socket_.get()), "open a generic netlink socket");
	require(nl_socket_set_buffer_size(socket_.get(), receive_buffer_bytes, 0),
		"enlarge the netlink socket's receive buffer");
	require(nl_socket_set_msg_buf_size(socket_.get(), receive_buffer_bytes),
		"enlarge the netlink message buffer");
	family_ = static_cast<uint16_t>(resolve_family(socket_.get(), family));
}

int Netlink::execute(const Command &command, const Target &target,
		     std::span<std::byte> record) const
{
	std::lock_guard lock(one_request_at_a_time_);
	uint32_t sequence = send(command, target, record.first(command.request_size));
	for (;;) {
		wait_for_datagram(command);
		sockaddr_nl sender{};
		unsigned char *bytes = nullptr;
		int length = require(nl_recv(socket_.get(), &sender, &bytes, nullptr),
				     "receive the driver's answer");
		Datagram datagram(bytes);
		if (sender.nl_pid != 0) // not from the kernel
			continue;
		auto answer =
			find_netlink_answer(std::as_bytes(std::span(bytes, bytes ? length : 0)),
					    {sequence, family_}, command, record);
		if (answer)
			return *answer;
	}
}

/* Returns the request's sequence number. */
uint32_t Netlink::send(const Command &command, const Target &target,
		       std::span<const std::byte> record) const
{
	Message message(require_memory(nlmsg_alloc()));
	uint32_t sequence = nl_socket_use_seq(socket_.get());
	require_memory(genlmsg_put(message.get(), NL_AUTO_PORT, sequence, family_, 0, NLM_F_REQUEST,
				   static_cast<uint8_t>(command.index), WT_GENL_FAMILY_VERSION));
	put_target(message.get(), target);
	if (command.request_attribute != 0)
		require(nla_put(message.get(), command.request_attribute,
				static_cast<int>(record.size()), record.data()),
			"build a request");
	require(nl_send_auto(socket_.get(), message.get()), "send a request to the driver");
	return sequence;
}

void Netlink::wait_for_datagram(const Command &command) const
{
	pollfd readable{.fd = nl_socket_get_fd(socket_.get()), .events = POLLIN, .revents = 0};
	int ready;
	do {
		ready = poll(&readable, 1, answer_timeout_ms);
	} while (ready < 0 && errno == EINTR);
	if (ready < 0)
		throw Error(
			Errc::system,
			fmt::format("cannot wait for the driver's answer: {}", error_text(errno)),
			{}, errno);
	if (ready == 0)
		throw Error(Errc::bad_answer,
			    fmt::format("the driver did not answer command {} within {} seconds",
					command.index, answer_timeout_ms / 1000),
			    "see the kernel log", ETIMEDOUT);
}

std::unique_ptr<Transport> open_netlink()
{
	return std::make_unique<Netlink>(WT_GENL_FAMILY_NAME);
}

} // namespace zorvat
