// SPDX-License-Identifier: GPL-2.0
/* The process's own TCP sockets, so that a test's server is a server. */
#include "kernel-abstractions/socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <list>
#include <mutex>

#include "internal.h"

struct socket {
	int fd = -1;
	bool connected = false;
};

namespace model
{
namespace
{

constexpr int enfile = 23;
constexpr int econnrefused = 111;

struct Sockets {
	std::mutex lock;
	std::list<struct socket> all;
};

Sockets &state()
{
	static Sockets instance;
	return instance;
}

void close_all_if(const std::function<bool(const struct socket &)> &condition)
{
	state().all.remove_if([&](auto &socket) {
		if (!condition(socket))
			return false;
		close(socket.fd);
		return true;
	});
}

int result_of(ssize_t transferred)
{
	return static_cast<int>(transferred < 0 ? -errno : transferred);
}

int connect_to(const struct socket &socket, uint32_t address, uint16_t port)
{
	sockaddr_in to = {};
	to.sin_family = AF_INET;
	to.sin_addr.s_addr = htonl(address);
	to.sin_port = htons(port);
	return result_of(connect(socket.fd, reinterpret_cast<sockaddr *>(&to), sizeof(to)));
}

} // namespace

int forget_sockets()
{
	std::lock_guard guard(state().lock);
	const size_t before = state().all.size();
	close_all_if([](auto &socket) { return !socket.connected; });
	return static_cast<int>(before - state().all.size());
}

/* Whoever uses one comes to an end first; the next boot closes it. */
void reset_sockets()
{
	std::lock_guard guard(state().lock);
	for (auto &socket : state().all)
		shutdown(socket.fd, SHUT_RDWR);
}

void close_sockets()
{
	std::lock_guard guard(state().lock);
	close_all_if([](auto &) { return true; });
}

void report_sockets(Report &report)
{
	std::lock_guard guard(state().lock);
	for (auto &socket : state().all)
		report.emplace_back(socket.connected ? "a connected socket" : "a socket");
}

} // namespace model

using namespace model;

struct socket *ka_sock_create_tcp(void)
{
	might_sleep("ka_sock_create_tcp");
	if (long error = injected("ka_sock_create_tcp", -enfile))
		return static_cast<struct socket *>(ka_err_ptr(error));
	const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
	if (fd < 0)
		return static_cast<struct socket *>(ka_err_ptr(-errno));
	std::lock_guard guard(state().lock);
	auto &made = state().all.emplace_back();
	made.fd = fd;
	return &made;
}

int ka_sock_connect(struct socket *socket, uint32_t address, uint16_t port)
{
	might_sleep("ka_sock_connect");
	const auto error = static_cast<int>(injected("ka_sock_connect", -econnrefused));
	if (error != 0 && error != -KA_EINPROGRESS)
		return error;
	const int result = connect_to(*socket, address, port);
	std::lock_guard guard(state().lock);
	socket->connected = result == 0;
	return result == 0 ? error : result;
}

/* A process of the model is killed with all its threads at once. */
void ka_sock_end_with_process(struct socket *, const ka_mapping *)
{
}

int ka_sock_sendmsg(struct socket *socket, const void *buffer, size_t length, size_t total)
{
	might_sleep("ka_sock_sendmsg");
	if (total < length)
		violation("ka_sock_sendmsg: more than the whole message");
	const long limit = injected("ka_sock_sendmsg", -KA_EPIPE);
	if (limit == -KA_EINTR)
		current().signal_pending = true;
	if (current().signal_pending)
		return -KA_EINTR;
	if (limit < 0)
		return static_cast<int>(limit);
	if (limit > 0)
		length = std::min(length, static_cast<size_t>(limit));
	return result_of(send(socket->fd, buffer, length, MSG_NOSIGNAL));
}

int ka_sock_recvmsg(struct socket *socket, void *buffer, size_t size)
{
	might_sleep("ka_sock_recvmsg");
	if (long error = injected("ka_sock_recvmsg", -KA_ECONNRESET))
		return static_cast<int>(error);
	return result_of(recv(socket->fd, buffer, size, MSG_WAITALL | MSG_NOSIGNAL));
}

void ka_sock_release(struct socket *socket)
{
	might_sleep("ka_sock_release");
	std::lock_guard guard(state().lock);
	const size_t before = state().all.size();
	close_all_if([&](auto &other) { return &other == socket; });
	if (before == state().all.size())
		violation("ka_sock_release: no such socket");
}
