/* SPDX-License-Identifier: GPL-2.0 */
/* Registering a family: its operations are part of it. */
#include "../../genetlink.h"

#include <linux/module.h>
#include <linux/string.h>

#include "../objects.h"

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
		kernel->ops[i].validate = GENL_DONT_VALIDATE_STRICT | GENL_DONT_VALIDATE_DUMP;
	}
	strscpy(kernel->family.name, family->name, sizeof(kernel->family.name));
	kernel->family.hdrsize = family->hdrsize;
	kernel->family.version = family->version;
	kernel->family.maxattr = family->maxattr;
	kernel->family.module = THIS_MODULE;
	kernel->family.ops = kernel->ops;
	kernel->family.n_ops = count;
	/* Headers are not checked for reserved bits, as ever. */
	kernel->family.resv_start_op = U8_MAX;
	err = genl_register_family(&kernel->family);
	family->id = err ? 0 : kernel->family.id;
	return err;
}

void ka_genl_unregister_family(struct ka_genl_family *family)
{
	genl_unregister_family(&KA_OBJECT(struct ka_kernel_genl, &family->kernel)->family);
}
