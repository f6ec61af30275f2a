// SPDX-License-Identifier: GPL-2.0
/* The road by generic netlink: one socket, on which one request at a time waits for its answer. */
#ifndef ZORVAT_NETLINK_TRANSPORT_H
#define ZORVAT_NETLINK_TRANSPORT_H

#include <memory>
#include <mutex>
#include <string>
#include <zorvat/transport.h>

struct nl_sock;

namespace zorvat
{

class Netlink final : public Transport
{
public:
	/* Throws Error when there is no such family. */
	explicit Netlink(const std::string &family);

	int execute(const Command &command, const Target &target,
		    std::span<std::byte> record) const override;

private:
	struct FreeSocket {
		void operator()(nl_sock *socket) const;
	};

	uint32_t send(const Command &command, const Target &target,
		      std::span<const std::byte> record) const;
	void wait_for_datagram(const Command &command) const;

	std::unique_ptr<nl_sock, FreeSocket> socket_;
	uint16_t family_ = 0;
	mutable std::mutex one_request_at_a_time_;
};

} // namespace zorvat

#endif
