/* SPDX-License-Identifier: GPL-2.0 */
/* Uevent operations: the set is no longer an argument, and the tables' members are constant. */
#include "../../device.h"

#include <linux/kobject.h>
#include <linux/string.h>

#include "../objects.h"

static ka_uevent_fn *uevent_function;

static int call_uevent_function(struct kobject *kobj, struct kobj_uevent_env *env)
{
	return uevent_function(kobj->kset, kobj, env);
}

void ka_uevent_ops_copy_with_uevent(struct ka_kset_uevent_ops *to,
				    const struct ka_kset_uevent_ops *from, ka_uevent_fn *uevent)
{
	const struct kset_uevent_ops *found = (const struct kset_uevent_ops *)from;
	const struct kset_uevent_ops replaced = {
		.filter = found ? found->filter : NULL,
		.name = found ? found->name : NULL,
		.uevent = call_uevent_function,
	};

	uevent_function = uevent;
	memcpy(to->storage, &replaced, sizeof(replaced));
}

int ka_uevent_ops_call(const struct ka_kset_uevent_ops *ops, struct kset *kset,
		       struct kobject *kobj, struct kobj_uevent_env *env)
{
	const struct kset_uevent_ops *kernel = (const struct kset_uevent_ops *)ops;

	return kernel && kernel->uevent ? kernel->uevent(kobj, env) : 0;
}
