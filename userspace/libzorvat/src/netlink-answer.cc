// SPDX-License-Identifier: GPL-2.0
/* Reads netlink messages: acknowledgements, and replies with the attribute that is expected. */
#include "netlink-answer.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <netlink/attr.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>
#include <zorvat/error.h>

namespace zorvat
{

namespace
{

Error malformed(const Command &command, std::string_view flaw)
{
	return Error(Errc::bad_answer,
		     fmt::format("the driver's answer to command {} {}", command.index, flaw),
		     "load a driver of the same version as this program");
}

int read_acknowledgement(nlmsghdr *header, const Command &command)
{
	if (nlmsg_datalen(header) < static_cast<int>(sizeof(nlmsgerr)))
		throw malformed(command, "is a cut acknowledgement");
	int error = static_cast<const nlmsgerr *>(nlmsg_data(header))->error;
	if (error == 0 && command.reply_attribute != 0)
		throw malformed(command, "carries no record");
	return error;
}

void read_record(nlmsghdr *header, const Command &command, std::span<std::byte> record)
{
	if (!genlmsg_valid_hdr(header, 0))
		throw malformed(command, "is a cut message");
	auto *generic = static_cast<genlmsghdr *>(nlmsg_data(header));
	const nlattr *attribute = nla_find(genlmsg_attrdata(generic, 0),
					   genlmsg_attrlen(generic, 0), command.reply_attribute);
	std::span<std::byte> wanted = record.subspan(command.reply_offset);
	const size_t length = attribute ? nla_len(attribute) : 0;
	if (!attribute || (length < wanted.size() && !command.reply_varies))
		throw malformed(command, "lacks its record or has a short one");
	std::memcpy(wanted.data(), nla_data(attribute), std::min(length, wanted.size()));
}

} // namespace

std::optional<int> find_netlink_answer(std::span<const std::byte> datagram,
				       const NetlinkRequestId &request, const Command &command,
				       std::span<std::byte> record)
{
	/* libnl walks messages through pointers to non-const, and does not write. */
	auto *header = reinterpret_cast<nlmsghdr *>(const_cast<std::byte *>(datagram.data()));
	int left = static_cast<int>(datagram.size());
	for (; nlmsg_ok(header, left); header = nlmsg_next(header, &left)) {
		if (header->nlmsg_seq != request.sequence)
			continue;
		if (header->nlmsg_type == NLMSG_ERROR)
			return read_acknowledgement(header, command);
		if (header->nlmsg_type == request.family && command.reply_attribute != 0) {
			read_record(header, command, record);
			return 0;
		}
	}
	return std::nullopt;
}

} // namespace zorvat
