// SPDX-License-Identifier: GPL-2.0
// A server of one restore disk: a thread behind a loopback socket that speaks the data link.
#ifndef WT_TEST_DISK_SERVER_H
#define WT_TEST_DISK_SERVER_H

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "h/wt.h"

class DiskServer
{
public:
	// What it does with a request that it read from the connection.
	using Behaviour = std::function<void(int connection, const wt_netlinkmsg_hdr &request)>;

	explicit DiskServer(size_t block_size = 512)
	    : block_size_(block_size), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
	{
		sockaddr_in at = {};
		at.sin_family = AF_INET;
		at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
		auto *address = reinterpret_cast<sockaddr *>(&at);
		socklen_t size = sizeof(at);
		if (bind(listener_, address, size) != 0 || listen(listener_, 8) != 0 ||
		    getsockname(listener_, address, &size) != 0)
			throw std::runtime_error("no loopback port");
		port_ = ntohs(at.sin_port);
		thread_ = std::thread([this] { run(); });
	}
	~DiskServer()
	{
		kill();
		thread_.join();
		close(listener_);
	}
	DiskServer(const DiskServer &) = delete;
	DiskServer &operator=(const DiskServer &) = delete;

	unsigned int port() const
	{
		return port_;
	}
	// From the next request on; null: it serves.
	void behave(Behaviour behaviour)
	{
		std::lock_guard guard(lock_);
		behaviour_ = std::move(behaviour);
	}
	// All messages so far.
	std::vector<wt_netlinkmsg_hdr> messages()
	{
		std::lock_guard guard(lock_);
		return messages_;
	}
	// Ends as a process does: its connections are closed.
	void kill()
	{
		std::lock_guard guard(lock_);
		killed_ = true;
		shutdown(listener_, SHUT_RDWR);
		if (connection_ >= 0)
			shutdown(connection_, SHUT_RDWR);
	}

	// What the disk holds at that byte.
	static char content(uint64_t position)
	{
		return static_cast<char>((position * 0x9e3779b97f4a7c15) >> 56);
	}
	static std::vector<char> content(uint64_t position, size_t bytes)
	{
		std::vector<char> all(bytes);
		for (size_t i = 0; i < bytes; i++)
			all[i] = content(position + i);
		return all;
	}

	// Behaviours. To serve: the data goes where the request says.
	static Behaviour replies(uint32_t code, int64_t status)
	{
		return [=](int connection, wt_netlinkmsg_hdr message) {
			message.code = code;
			message.num_sectors = status;
			reply(connection, message);
		};
	}
	// Then it closes the connection.
	static Behaviour replies_short(size_t bytes)
	{
		return [=](int connection, const wt_netlinkmsg_hdr &message) {
			reply(connection, message, bytes);
			shutdown(connection, SHUT_RDWR);
		};
	}
	static void stays_silent(int, const wt_netlinkmsg_hdr &)
	{
	}
	static void reply(int connection, const wt_netlinkmsg_hdr &message,
			  size_t bytes = sizeof(wt_netlinkmsg_hdr))
	{
		if (send(connection, &message, bytes, MSG_NOSIGNAL) < 0)
			return; // the driver has closed the connection
	}
	void serve(int connection, const wt_netlinkmsg_hdr &request) const
	{
		const std::vector<char> data =
			content(request.offset_sector * block_size_,
				static_cast<size_t>(request.num_sectors) * block_size_);
		std::copy(data.begin(), data.end(), static_cast<char *>(request.io_buffer));
		replies(WT_NETLINK_REP_OK, 0)(connection, request);
	}

private:
	void run()
	{
		for (;;) {
			const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
			{
				std::lock_guard guard(lock_);
				connection_ = connection;
				if (killed_ && connection >= 0)
					shutdown(connection, SHUT_RDWR);
			}
			if (connection < 0)
				return;
			talk(connection);
			std::lock_guard guard(lock_);
			connection_ = -1;
			close(connection);
		}
	}

	void talk(int connection)
	{
		wt_netlinkmsg_hdr message;
		while (recv(connection, &message, sizeof(message), MSG_WAITALL) ==
		       sizeof(message)) {
			Behaviour behaviour;
			{
				std::lock_guard guard(lock_);
				messages_.push_back(message);
				behaviour = behaviour_;
			}
			if (message.code != WT_NETLINK_CMD_READ)
				continue;
			if (behaviour)
				behaviour(connection, message);
			else
				serve(connection, message);
		}
	}

	const size_t block_size_;
	const int listener_;
	unsigned int port_ = 0;
	std::mutex lock_;
	Behaviour behaviour_;
	std::vector<wt_netlinkmsg_hdr> messages_;
	int connection_ = -1;
	bool killed_ = false;
	std::thread thread_;
};

#endif
