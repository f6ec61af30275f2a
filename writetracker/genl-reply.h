// SPDX-License-Identifier: GPL-2.0
// A generic-netlink reply under construction: one attribute, sent by unicast to whoever asked.
#ifndef WT_GENL_REPLY_H
#define WT_GENL_REPLY_H

#include "../kernel-abstractions/genetlink.h"
#include "control-device.h"

// The buffer is freed on every way out but a send.
class GenlReply
{
public:
	// A buffer for one attribute of that payload, with the request's command, port and
	// sequence number in its header.
	GenlReply(const genl_info *info, size_t payload)
	    : skb(payload <= MAX_PAYLOAD ? ka_alloc_skb(ka_genlmsg_size(payload)) : nullptr),
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
	// A buffer's size is an unsigned int to the kernel.
	static constexpr size_t MAX_PAYLOAD = 0x7fffff00;

	sk_buff *skb;
	uint32_t portid;
	void *header = nullptr;
};

#endif
