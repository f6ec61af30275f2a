/* SPDX-License-Identifier: GPL-2.0 */
/* Registering a family together with its operations. */
#include "../../genetlink.h"

#include <linux/string.h>

#include "../objects.h"

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
	kernel->family.id = GENL_ID_GENERATE;
	kernel->family.hdrsize = family->hdrsize;
	kernel->family.version = family->version;
	kernel->family.maxattr = family->maxattr;
	err = genl_register_family_with_ops(&kernel->family, kernel->ops, count);
	family->id = err ? 0 : kernel->family.id;
	return err;
}

void ka_genl_unregister_family(struct ka_genl_family *family)
{
	genl_unregister_family(&KA_OBJECT(struct ka_kernel_genl, &family->kernel)->family);
}
