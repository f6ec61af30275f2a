// SPDX-License-Identifier: GPL-2.0
/* Finds the driver's answer in what arrives on a generic-netlink socket. */
#ifndef ZORVAT_NETLINK_ANSWER_H
#define ZORVAT_NETLINK_ANSWER_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <zorvat/transport.h>

namespace zorvat
{

struct NetlinkRequestId {
	uint32_t sequence;
	uint16_t family;
};

/*
 * Looks for the answer to one request in a datagram and stores the answer's record in record, from
 * the command's reply_offset on.
 *
 * Returns 0 or the driver's negative error number; nothing when the datagram holds no answer to
 * this request. That is usual: the driver acknowledges a failed request, and so does the generic
 * netlink core, which leaves a second acknowledgement for whoever reads next.
 * Throws Error(bad_answer).
 */
std::optional<int> find_netlink_answer(std::span<const std::byte> datagram,
				       const NetlinkRequestId &request, const Command &command,
				       std::span<std::byte> record);

} // namespace zorvat

#endif
