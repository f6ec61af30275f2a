// SPDX-License-Identifier: GPL-2.0
/*
 * The generic-netlink bus: families, requests, and message buffers, which hold real netlink
 * messages so that what does not fit does not fit.
 */
#include "kernel-abstractions/genetlink.h"

#include <cstring>
#include <deque>
#include <list>
#include <mutex>

#include "internal.h"

struct sk_buff {
	explicit sk_buff(size_t size) : data(new unsigned char[size]), capacity(size)
	{
	}

	std::unique_ptr<unsigned char[]> data; /* of just that size: overflows are seen */
	size_t capacity, length = 0;
};

struct genl_info {
	const model::GenlRequest *request;
};

namespace model
{
namespace
{

constexpr int eperm = 1, eopnotsupp = 95, econnrefused = 111;
constexpr unsigned int first_id = 0x1b;
constexpr size_t largest_attribute = 0xffff;

struct MessageHeader {
	uint32_t length;
	uint16_t type, flags;
	uint32_t seq, port;
	uint8_t cmd, version;
	uint16_t reserved;
};
static_assert(sizeof(MessageHeader) == KA_NLMSG_HDRLEN + KA_GENL_HDRLEN);

struct AttributeHeader {
	uint16_t length, type;
};
static_assert(sizeof(AttributeHeader) == KA_NLA_HDRLEN);

struct Family {
	ka_genl_family *family;
	std::vector<ka_genl_ops> ops;
};

struct Netlink {
	std::mutex handlers; /* one runs at a time */
	std::mutex lock;
	std::map<unsigned int, Family> families;
	std::list<sk_buff> buffers;
	std::map<uint32_t, std::vector<GenlMessage>> answers; /* by port */
	unsigned int next_id = first_id;
};

Netlink &state()
{
	static Netlink instance;
	return instance;
}

void answer(GenlMessage message)
{
	std::lock_guard guard(state().lock);
	uint32_t port = message.port;
	state().answers[port].push_back(std::move(message));
}

void acknowledge(const GenlRequest &request, int error)
{
	answer({.ack = true,
		.error = error,
		.family = 0,
		.port = request.port,
		.seq = request.seq,
		.cmd = request.cmd,
		.version = 0,
		.attributes = {},
		.capacity = 0});
}

GenlMessage parse(const sk_buff &skb)
{
	MessageHeader header{};
	memcpy(&header, skb.data.get(), std::min(skb.length, sizeof(header)));
	if (header.length != skb.length)
		violation("ka_genlmsg_unicast: the message was not ended");
	GenlMessage message{.ack = false,
			    .error = 0,
			    .family = header.type,
			    .port = header.port,
			    .seq = header.seq,
			    .cmd = header.cmd,
			    .version = header.version,
			    .attributes = {},
			    .capacity = skb.capacity};
	for (size_t at = sizeof(header); at < skb.length;) {
		AttributeHeader attribute;
		memcpy(&attribute, &skb.data[at], sizeof(attribute));
		auto *begin = &skb.data[at] + sizeof(attribute);
		size_t length = attribute.length - sizeof(attribute);
		message.attributes[attribute.type] = Bytes(begin, begin + length);
		at += ka_nla_total_size(length);
	}
	return message;
}

const ka_genl_ops *find_op(const GenlRequest &request, bool *known)
{
	std::lock_guard guard(state().lock);
	for (auto &[id, family] : state().families) {
		if (family.family->name != request.family)
			continue;
		*known = true;
		for (auto &op : family.ops)
			if (op.cmd == request.cmd)
				return &op;
	}
	return nullptr;
}

int dispatch(const GenlRequest &request)
{
	bool known = false;
	const ka_genl_ops *op = find_op(request, &known);
	if (!op)
		return known ? -eopnotsupp : -KA_ENOENT;
	if ((op->flags & KA_GENL_ADMIN_PERM) && !current().admin)
		return -eperm;
	sk_buff buffer(0);
	genl_info info{&request};
	CallIntoDriver call("a netlink request");
	return op->doit(&buffer, &info);
}

void free_buffer(sk_buff *skb)
{
	std::lock_guard guard(state().lock);
	state().buffers.remove_if([&](auto &other) { return &other == skb; });
}

/* Room for that much more in the buffer, zeroed; null when there is none. */
unsigned char *extend(sk_buff *skb, size_t size)
{
	if (size > skb->capacity - skb->length)
		return nullptr;
	unsigned char *begin = skb->data.get() + skb->length;
	memset(begin, 0, size);
	skb->length += size;
	return begin;
}

unsigned char *reserve(sk_buff *skb, int type, size_t length)
{
	if (length > largest_attribute - KA_NLA_HDRLEN)
		return nullptr;
	unsigned char *begin = extend(skb, ka_nla_total_size(length));
	if (!begin)
		return nullptr;
	AttributeHeader header{static_cast<uint16_t>(KA_NLA_HDRLEN + length),
			       static_cast<uint16_t>(type)};
	memcpy(begin, &header, sizeof(header));
	return begin + sizeof(header);
}

} // namespace

std::vector<GenlMessage> genl_send(const GenlRequest &request)
{
	std::lock_guard one_at_a_time(state().handlers);
	if (int error = dispatch(request))
		acknowledge(request, error);
	std::lock_guard guard(state().lock);
	return std::exchange(state().answers[request.port], {});
}

void reset_netlink()
{
	auto &n = state();
	n.families.clear();
	n.buffers.clear();
	n.answers.clear();
	n.next_id = first_id;
}

void report_netlink(Report &report)
{
	auto &n = state();
	std::lock_guard guard(n.lock);
	for (auto &[id, family] : n.families)
		report.push_back(std::string("netlink family ") + family.family->name);
	for (auto &buffer : n.buffers)
		report.push_back(printed("message buffer of %zu bytes", buffer.capacity));
}

} // namespace model

using namespace model;

int ka_genl_register_family_with_ops(ka_genl_family *family, const ka_genl_ops *ops, size_t count)
{
	might_sleep("ka_genl_register_family_with_ops");
	std::lock_guard guard(state().lock);
	family->id = state().next_id++;
	if (long error = injected("ka_genl_register_family_with_ops", -KA_EEXIST))
		return static_cast<int>(error);
	if (count > KA_GENL_MAX_OPS)
		return -KA_EINVAL;
	state().families[family->id] = {family, {ops, ops + count}};
	return 0;
}

void ka_genl_unregister_family(ka_genl_family *family)
{
	might_sleep("ka_genl_unregister_family");
	std::lock_guard guard(state().lock);
	if (state().families.erase(family->id) == 0)
		violation("ka_genl_unregister_family: not registered");
}

uint8_t ka_genl_cmd(const genl_info *info)
{
	return info->request->cmd;
}

uint32_t ka_genl_portid(const genl_info *info)
{
	return info->request->port;
}

uint32_t ka_genl_seq(const genl_info *info)
{
	return info->request->seq;
}

const void *ka_genl_attr(const genl_info *info, int type, size_t *length)
{
	auto found = info->request->attributes.find(type);
	if (found == info->request->attributes.end())
		return nullptr;
	*length = found->second.size();
	return found->second.data();
}

void ka_netlink_ack(sk_buff *, const genl_info *info, int error)
{
	acknowledge(*info->request, error);
}

sk_buff *ka_alloc_skb(size_t size)
{
	might_sleep("ka_alloc_skb");
	constexpr size_t largest = size_t{1} << 22; /* what one contiguous piece may be */
	if (injected("ka_alloc_skb", -KA_ENOMEM) || size > largest)
		return nullptr;
	std::lock_guard guard(state().lock);
	return &state().buffers.emplace_back(size);
}

void ka_kfree_skb(sk_buff *skb)
{
	if (skb)
		free_buffer(skb);
}

void *ka_genlmsg_put(sk_buff *skb, uint32_t portid, uint32_t seq, const ka_genl_family *family,
		     uint8_t cmd)
{
	if (injected("ka_genlmsg_put", -KA_EMSGSIZE))
		return nullptr;
	unsigned char *begin = extend(skb, sizeof(MessageHeader));
	if (!begin)
		return nullptr;
	MessageHeader header{.length = 0,
			     .type = static_cast<uint16_t>(family->id),
			     .flags = 0,
			     .seq = seq,
			     .port = portid,
			     .cmd = cmd,
			     .version = static_cast<uint8_t>(family->version),
			     .reserved = 0};
	memcpy(begin, &header, sizeof(header));
	return begin;
}

int ka_nla_put(sk_buff *skb, int type, size_t length, const void *data)
{
	if (long error = injected("ka_nla_put", -KA_EMSGSIZE))
		return static_cast<int>(error);
	unsigned char *to = reserve(skb, type, length);
	if (!to)
		return -KA_EMSGSIZE;
	memcpy(to, data, length);
	return 0;
}

void *ka_nla_reserve(sk_buff *skb, int type, size_t length)
{
	if (injected("ka_nla_reserve", -KA_EMSGSIZE))
		return nullptr;
	return reserve(skb, type, length);
}

void ka_genlmsg_end(sk_buff *skb, void *header)
{
	auto length = static_cast<uint32_t>(skb->data.get() + skb->length -
					    static_cast<unsigned char *>(header));
	memcpy(header, &length, sizeof(length));
}

int ka_genlmsg_unicast(sk_buff *skb, uint32_t portid)
{
	long error = injected("ka_genlmsg_unicast", -econnrefused);
	if (!error) {
		GenlMessage message = parse(*skb);
		message.port = portid;
		answer(std::move(message));
	}
	free_buffer(skb);
	return static_cast<int>(error);
}
