// SPDX-License-Identifier: GPL-2.0
// Generic-netlink requests and their answers: acknowledgements, and replies of one attribute that
// are sent by unicast to whoever asked.
#ifndef WT_GENL_REPLY_H
#define WT_GENL_REPLY_H

#include "../kernel-abstractions/genetlink.h"
#include "control-device.h"
#include "wt-logging.h"

// A buffer's size is an unsigned int to the kernel.
constexpr size_t GENL_MAX_PAYLOAD = 0x7fffff00;

// The buffer is freed on every way out but a send.
class GenlReply
{
public:
	// A buffer for one attribute of that payload, with the request's command, port and
	// sequence number in its header.
	GenlReply(const genl_info *info, size_t payload)
	    : skb(payload <= GENL_MAX_PAYLOAD ? ka_alloc_skb(ka_genlmsg_size(payload)) : nullptr),
	      portid(ka_genl_portid(info))
	{
		if (skb)
			header = ka_genlmsg_put(skb, portid, ka_genl_seq(info), wt_genl_family,
						ka_genl_cmd(info));
	}
	~GenlReply()
	{
		if (skb)
			ka_kfree_skb(skb);
	}
	GenlReply(const GenlReply &) = delete;
	GenlReply &operator=(const GenlReply &) = delete;

	// False when there was no memory.
	bool is_valid() const
	{
		return skb && header;
	}
	// 0 or -EMSGSIZE.
	int put(int type, size_t length, const void *data)
	{
		return ka_nla_put(skb, type, length, data);
	}
	// Zeroed room for the attribute's data, or null when it does not fit.
	void *reserve(int type, size_t length)
	{
		return ka_nla_reserve(skb, type, length);
	}
	// 0 or the send's error.
	int send()
	{
		ka_genlmsg_end(skb, header);
		sk_buff *message = skb;
		skb = nullptr;
		return ka_genlmsg_unicast(message, portid);
	}

private:
	sk_buff *skb;
	uint32_t portid;
	void *header = nullptr;
};

// One request on its way through the command that it carries.
struct GenlRequest {
	sk_buff *skb;
	genl_info *info;
	wt_log_group wt_group; // of the unit that serves it
	const char *command;   // the index's name, for messages

	int acknowledge() const
	{
		ka_netlink_ack(skb, info, 0);
		return 0;
	}
	// Acknowledges success; an error is left to the caller.
	int acknowledge_or_error(int err) const
	{
		return err != 0 ? err : acknowledge();
	}
	// The attribute if it holds at least the record's size, else null.
	template <typename Record> const Record *attribute(int type) const
	{
		size_t length;
		const void *data = ka_genl_attr(info, type, &length);
		return data && length >= sizeof(Record) ? static_cast<const Record *>(data)
							: nullptr;
	}
	int invalid() const
	{
		WT_ERROR("Invalid gen-netlink message %s\n", command);
		return -KA_EINVAL;
	}
	int out_of_memory() const
	{
		WT_ERROR("Unable to allocate enough memory for response of command %s\n", command);
		return -KA_ENOMEM;
	}
	int send(GenlReply &reply) const
	{
		int err = reply.send();
		if (err != 0)
			WT_WARN("Unable to send reply of gen-netlink message. error(%d)\n", err);
		return err;
	}
	int reply(int type, const void *data, size_t length) const
	{
		GenlReply reply(info, length);
		if (!reply.is_valid())
			return out_of_memory();
		if (reply.put(type, length, data) != 0)
			return -KA_EMSGSIZE;
		return send(reply);
	}
};

#endif
