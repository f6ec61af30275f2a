// SPDX-License-Identifier: GPL-2.0
/* The two listening sockets of a disk's server, and the question for its port. */
#include "listeners.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <fstream>
#include <netinet/in.h>
#include <optional>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <zorvat/disk-server.h>

namespace zorvat
{

namespace
{

struct UnixAddress {
	sockaddr_un name{};
	socklen_t length;

	/* An abstract name: it begins with a zero byte, and its length counts. */
	explicit UnixAddress(std::string_view abstract_name)
	    : length(offsetof(sockaddr_un, sun_path) + 1 + abstract_name.size())
	{
		name.sun_family = AF_UNIX;
		std::ranges::copy(abstract_name.substr(0, sizeof(name.sun_path) - 1),
				  &name.sun_path[1]);
	}
	const sockaddr *get() const
	{
		return reinterpret_cast<const sockaddr *>(&name);
	}
};

std::string teller_name(const std::string &disk, pid_t server)
{
	return fmt::format("zorvat-disk/{}/{}", server, disk);
}

Error failure(std::string_view purpose)
{
	return Error(Errc::system, fmt::format("cannot {}: {}", purpose, error_text(errno)), {},
		     errno);
}

FileDescriptor listen_at(int family, const sockaddr *address, socklen_t length,
			 std::string_view purpose)
{
	constexpr int backlog = 16;
	FileDescriptor socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
	if (!socket || bind(socket.get(), address, length) != 0 ||
	    listen(socket.get(), backlog) != 0)
		throw failure(purpose);
	return socket;
}

Error no_server(const DiskAttributes &disk)
{
	return Error(Errc::refused,
		     fmt::format("{} has no server: process {} does not serve it", disk.name,
				 disk.server),
		     "destroy the disk if its server is gone, else name the port");
}

/* The user in whose name the other end of a connection on this machine was made. */
std::optional<uid_t> owner_of_peer(const sockaddr_in &peer, uint16_t our_port)
{
	std::ifstream sockets("/proc/net/tcp");
	for (std::string line; std::getline(sockets, line);) {
		unsigned int address, port, remote_address, remote_port, owner;
		const int fields = std::sscanf(
			line.c_str(), " %*u: %8x:%4x %8x:%4x %*x %*x:%*x %*x:%*x %*x %u", &address,
			&port, &remote_address, &remote_port, &owner);
		if (fields == 5 && address == peer.sin_addr.s_addr &&
		    port == ntohs(peer.sin_port) && remote_address == htonl(INADDR_LOOPBACK) &&
		    remote_port == our_port)
			return owner;
	}
	return std::nullopt;
}

} // namespace

DriverListener::DriverListener()
{
	sockaddr_in address{};
	address.sin_family = AF_INET;
	address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	auto *generic = reinterpret_cast<sockaddr *>(&address);
	socklen_t length = sizeof(address);
	socket_ = listen_at(AF_INET, generic, length, "listen for the driver on 127.0.0.1");
	if (getsockname(socket_.get(), generic, &length) != 0)
		throw failure("find a free port on 127.0.0.1");
	port_ = ntohs(address.sin_port);
}

FileDescriptor DriverListener::accept() const
{
	sockaddr_in peer{};
	socklen_t length = sizeof(peer);
	FileDescriptor connection(
		accept4(socket_.get(), reinterpret_cast<sockaddr *>(&peer), &length, SOCK_CLOEXEC));
	if (!connection)
		return connection;
	const auto owner = owner_of_peer(peer, port_);
	if (!owner || (*owner != 0 && *owner != geteuid()))
		connection.reset();
	return connection;
}

PortTeller::PortTeller(const std::string &disk, uint16_t port) : port_(port)
{
	const UnixAddress address(teller_name(disk, getpid()));
	socket_ = listen_at(AF_UNIX, address.get(), address.length,
			    "listen for those who resume the disk");
}

void PortTeller::answer() const
{
	const FileDescriptor asker(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
	const std::string text = fmt::format("{}\n", port_);
	if (asker)
		send(asker.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

uint16_t ask_server_port(const DiskAttributes &disk)
{
	const UnixAddress address(teller_name(disk.name, disk.server));
	const timeval patience{.tv_sec = 5, .tv_usec = 0};
	FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
	if (!socket)
		throw failure("ask for the port of a disk's server");
	setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
	if (connect(socket.get(), address.get(), address.length) != 0)
		throw no_server(disk);

	/* Anybody can take the name, but not the process number. */
	ucred peer{};
	socklen_t length = sizeof(peer);
	char text[8] = "";
	unsigned int port = 0;
	if (getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 ||
	    peer.pid != disk.server ||
	    recv(socket.get(), text, sizeof(text) - 1, MSG_WAITALL) <= 0 ||
	    std::sscanf(text, "%5u\n", &port) != 1 || port == 0 || port > UINT16_MAX)
		throw no_server(disk);
	return port;
}

} // namespace zorvat
