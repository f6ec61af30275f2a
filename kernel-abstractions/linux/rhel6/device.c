/* SPDX-License-Identifier: GPL-2.0 */
/* Uevent operations. */
#include "../../device.h"

#include <linux/kobject.h>
#include <linux/string.h>

#include "../objects.h"

void ka_uevent_ops_copy_with_uevent(struct ka_kset_uevent_ops *to,
				    const struct ka_kset_uevent_ops *from, ka_uevent_fn *uevent)
{
	struct kset_uevent_ops *ops = KA_OBJECT(struct kset_uevent_ops, to);

	if (from)
		*ops = *KA_OBJECT(const struct kset_uevent_ops, from);
	else
		memset(ops, 0, sizeof(*ops));
	ops->uevent = uevent;
}

int ka_uevent_ops_call(const struct ka_kset_uevent_ops *ops, struct kset *kset,
		       struct kobject *kobj, struct kobj_uevent_env *env)
{
	const struct kset_uevent_ops *kernel = (const struct kset_uevent_ops *)ops;

	return kernel && kernel->uevent ? kernel->uevent(kset, kobj, env) : 0;
}
