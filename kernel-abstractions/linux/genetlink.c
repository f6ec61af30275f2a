/* SPDX-License-Identifier: GPL-2.0 */
/* The family, its requests, replies and acknowledgements. */
#include "../genetlink.h"

#include <linux/skbuff.h>
#include <linux/string.h>
#include <net/genetlink.h>

#include "objects.h"
#include "this-kernel.h"

_Static_assert(KA_GENL_MAX_OPS == KA_GENL_OPS_ROOM, "the family holds the operations allowed");

int ka_genl_register_family_with_ops(struct ka_genl_family *family, const struct ka_genl_ops *ops,
				     size_t count)
{
	struct ka_kernel_genl *kernel = KA_OBJECT(struct ka_kernel_genl, &family->kernel);
	size_t i;
	int err;

	if (count > KA_GENL_OPS_ROOM)
		return -EINVAL;
	memset(kernel, 0, sizeof(*kernel));
	for (i = 0; i < count; i++) {
		kernel->ops[i].cmd = ops[i].cmd;
		kernel->ops[i].flags = ops[i].flags & KA_GENL_ADMIN_PERM ? GENL_ADMIN_PERM : 0;
		kernel->ops[i].doit = ops[i].doit;
	}
	strlcpy(kernel->family.name, family->name, sizeof(kernel->family.name));
	kernel->family.hdrsize = family->hdrsize;
	kernel->family.version = family->version;
	kernel->family.maxattr = family->maxattr;
	err = kernel_genl_register(&kernel->family, kernel->ops, count);
	family->id = err ? 0 : kernel->family.id;
	return err;
}

void ka_genl_unregister_family(struct ka_genl_family *family)
{
	genl_unregister_family(&KA_OBJECT(struct ka_kernel_genl, &family->kernel)->family);
}

uint8_t ka_genl_cmd(const struct genl_info *info)
{
	return info->genlhdr->cmd;
}

uint32_t ka_genl_portid(const struct genl_info *info)
{
	return kernel_genl_portid(info);
}

uint32_t ka_genl_seq(const struct genl_info *info)
{
	return info->snd_seq;
}

const void *ka_genl_attr(const struct genl_info *info, int type, size_t *length)
{
	const struct nlattr *attr = info->attrs[type];

	if (!attr)
		return NULL;
	*length = nla_len(attr);
	return nla_data(attr);
}

void ka_netlink_ack(struct sk_buff *request, const struct genl_info *info, int error)
{
	kernel_netlink_ack(request, info->nlhdr, error);
}

struct sk_buff *ka_alloc_skb(size_t size)
{
	return alloc_skb(size, GFP_KERNEL | __GFP_NOWARN);
}

void ka_kfree_skb(struct sk_buff *skb)
{
	kfree_skb(skb);
}

void *ka_genlmsg_put(struct sk_buff *skb, uint32_t portid, uint32_t seq,
		     const struct ka_genl_family *family, uint8_t cmd)
{
	return genlmsg_put(skb, portid, seq,
			   &KA_OBJECT(struct ka_kernel_genl, &family->kernel)->family, 0, cmd);
}

/* Longer data would not fit the attribute's 16-bit length. */
static bool fits_attribute(size_t length)
{
	return length <= U16_MAX - NLA_HDRLEN;
}

int ka_nla_put(struct sk_buff *skb, int type, size_t length, const void *data)
{
	return fits_attribute(length) ? nla_put(skb, type, length, data) : -EMSGSIZE;
}

void *ka_nla_reserve(struct sk_buff *skb, int type, size_t length)
{
	struct nlattr *attr = fits_attribute(length) ? nla_reserve(skb, type, length) : NULL;

	if (!attr)
		return NULL;
	return memset(nla_data(attr), 0, length);
}

void ka_genlmsg_end(struct sk_buff *skb, void *header)
{
	genlmsg_end(skb, header);
}

int ka_genlmsg_unicast(struct sk_buff *skb, uint32_t portid)
{
	return genlmsg_unicast(&init_net, skb, portid);
}
