/* SPDX-License-Identifier: GPL-2.0 */
/* Generic netlink: a family of one's own, requests, replies, acknowledgements. */
#ifndef KA_GENETLINK_H
#define KA_GENETLINK_H

#include "types.h"

KA_BEGIN_DECLS

struct genl_info;
struct sk_buff;

/* The sizes of the headers that a message begins with, and what an attribute adds to its data. */
#define KA_NLMSG_HDRLEN 16u
#define KA_GENL_HDRLEN  4u
#define KA_NLA_HDRLEN   4u

static inline size_t ka_nla_total_size(size_t payload)
{
	return (KA_NLA_HDRLEN + payload + 3) & ~(size_t)3;
}

/* The whole size of a message with one attribute. */
static inline size_t ka_genlmsg_size(size_t payload)
{
	return KA_NLMSG_HDRLEN + KA_GENL_HDRLEN + ka_nla_total_size(payload);
}

/* The sender needs the administrative network capability. */
#define KA_GENL_ADMIN_PERM 1u

/*
 * One command. The handler runs in the sender's context, one at a time for the whole family, and
 * may sleep. Attributes are parsed by type only: the handler checks lengths. A non-zero result is
 * an error that the netlink core acknowledges after the handler's own answers.
 */
struct ka_genl_ops {
	uint8_t cmd;
	unsigned int flags;
	int (*doit)(struct sk_buff *skb, struct genl_info *info);
};

/* The driver fills the fields before `kernel`; static storage. */
struct ka_genl_family {
	unsigned int id; /* 0 before registering; the number given afterwards */
	const char *name;
	unsigned int hdrsize, version, maxattr;
	struct {
		KA_STORAGE(GENL_FAMILY);
	} kernel;
};

/* ops: static storage, at most KA_GENL_MAX_OPS of them. On failure `id` may hold anything. */
#define KA_GENL_MAX_OPS 32
int ka_genl_register_family_with_ops(struct ka_genl_family *family, const struct ka_genl_ops *ops,
				     size_t count);
/* Leaves `id` as it is. */
void ka_genl_unregister_family(struct ka_genl_family *family);

/* Of a request, valid while its handler runs. */
uint8_t ka_genl_cmd(const struct genl_info *info);
uint32_t ka_genl_portid(const struct genl_info *info);
uint32_t ka_genl_seq(const struct genl_info *info);
/* The attribute's data and its length; null when the request has no such attribute. */
const void *ka_genl_attr(const struct genl_info *info, int type, size_t *length);
/* Acknowledges a request: 0 or a negative error number. */
void ka_netlink_ack(struct sk_buff *request, const struct genl_info *info, int error);

/*
 * A message buffer of that many bytes, headers included. Null when memory is short; a failure is
 * not reported in the kernel log. Freed by ka_kfree_skb or by sending it.
 */
struct sk_buff *ka_alloc_skb(size_t size);
void ka_kfree_skb(struct sk_buff *skb);
/* Begins the message. Null when it does not fit. */
void *ka_genlmsg_put(struct sk_buff *skb, uint32_t portid, uint32_t seq,
		     const struct ka_genl_family *family, uint8_t cmd);
/* Adds an attribute; -EMSGSIZE when it does not fit into the buffer or into an attribute. */
int ka_nla_put(struct sk_buff *skb, int type, size_t length, const void *data);
/* Reserves an attribute, zeroed; its data, or null when it does not fit. */
void *ka_nla_reserve(struct sk_buff *skb, int type, size_t length);
/* Completes the message; header is what ka_genlmsg_put returned. */
void ka_genlmsg_end(struct sk_buff *skb, void *header);
/* Sends to the port without blocking. Consumes the buffer whatever the result. */
int ka_genlmsg_unicast(struct sk_buff *skb, uint32_t portid);

KA_END_DECLS

#endif
