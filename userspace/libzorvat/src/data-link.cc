// SPDX-License-Identifier: GPL-2.0
/* Messages of the data link. */
#include "data-link.h"

#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace zorvat
{

namespace
{

int check_command(const wt_netlinkmsg_hdr &request, const ServedDisk &disk)
{
	if (request.version != WT_NETLINK_VERSION)
		return EPROTO;
	if (static_cast<DiskHandle>(reinterpret_cast<uintptr_t>(request.diskhandle)) != disk.handle)
		return ENODEV;
	if (request.code == WT_NETLINK_CMD_WRITE)
		return EROFS;
	return request.code == WT_NETLINK_CMD_READ ? 0 : EOPNOTSUPP;
}

} // namespace

int parse_request(const wt_netlinkmsg_hdr &request, const ServedDisk &disk, ReadRequest &parsed)
{
	if (const int error = check_command(request, disk))
		return error;

	const uint64_t count = request.num_sectors; // a negative one is above every bound
	if (count > disk.blocks || request.offset_sector > disk.blocks - count)
		return EINVAL;
	if (count > disk.area.size() / disk.block_size)
		return EINVAL;
	const uint64_t length = count * disk.block_size;
	const uint64_t place = reinterpret_cast<uintptr_t>(request.io_buffer) -
			       reinterpret_cast<uintptr_t>(disk.area.data());
	if (place > disk.area.size() - length) // so is one before the area
		return EINVAL;

	parsed = {.offset = request.offset_sector * disk.block_size,
		  .memory = disk.area.subspan(place, length)};
	return 0;
}

wt_netlinkmsg_hdr make_reply(const wt_netlinkmsg_hdr &request, int error)
{
	wt_netlinkmsg_hdr reply = request;
	reply.version = WT_NETLINK_VERSION;
	reply.code = error ? WT_NETLINK_REP_ERR : WT_NETLINK_REP_OK;
	if (error)
		reply.num_sectors = -error;
	return reply;
}

DataLink::DataLink(FileDescriptor connection) : connection_(std::move(connection))
{
	/* Nobody gains from waiting for more: there is one answer at a time. */
	const int on = 1;
	setsockopt(connection_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

DataLink::Event DataLink::receive(wt_netlinkmsg_hdr &message)
{
	auto bytes = std::as_writable_bytes(std::span(&incoming_, 1)).subspan(received_);
	const ssize_t count = recv(connection_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
	if (count < 0)
		return errno == EAGAIN || errno == EINTR ? nothing : ended;
	if (count == 0)
		return ended;
	received_ += count;
	if (received_ < sizeof(incoming_))
		return nothing;
	received_ = 0;
	message = incoming_;
	return DataLink::message;
}

bool DataLink::send(const wt_netlinkmsg_hdr &message)
{
	auto bytes = std::as_bytes(std::span(&message, 1));
	while (!bytes.empty()) {
		const ssize_t count =
			::send(connection_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
		if (count < 0 && errno == EINTR)
			continue;
		if (count < 0)
			return false;
		bytes = bytes.subspan(count);
	}
	return true;
}

} // namespace zorvat
