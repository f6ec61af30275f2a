/* SPDX-License-Identifier: GPL-2.0 */
/* Devices, their classes and sets. The uevent operations differ by kernel. */
#include "../device.h"

#include <linux/device.h>
#include <linux/namei.h>

#include "objects.h"
#include "this-kernel.h"

struct device *ka_disk_device(struct gendisk *disk)
{
	return disk_to_dev(disk);
}

struct device *ka_bdev_disk_device(struct block_device *bdev)
{
	return disk_to_dev(bdev->bd_disk);
}

struct device *ka_kobject_device(struct kobject *kobj)
{
	return container_of(kobj, struct device, kobj);
}

struct device *ka_get_device(struct device *device)
{
	return get_device(device);
}

void ka_put_device(struct device *device)
{
	put_device(device);
}

ka_dev_t ka_device_devt(struct device *device)
{
	return device->devt;
}

const char *ka_device_name(struct device *device)
{
	return dev_name(device);
}

struct ka_class *ka_device_class(struct device *device)
{
	return (struct ka_class *)device->class;
}

struct kset *ka_device_kset(struct device *device)
{
	return device->kobj.kset;
}

struct device *ka_device_parent(struct device *device)
{
	return device->parent;
}

struct kset *ka_kset_get(struct kset *kset)
{
	return kset_get(kset);
}

void ka_kset_put(struct kset *kset)
{
	kset_put(kset);
}

void ka_kset_for_each(struct kset *kset, void (*function)(struct kobject *kobj))
{
	struct kobject *kobj;

	spin_lock(&kset->list_lock);
	list_for_each_entry (kobj, &kset->list, entry)
		function(kobj);
	spin_unlock(&kset->list_lock);
}

const struct ka_kset_uevent_ops *ka_kset_get_uevent_ops(struct kset *kset)
{
	return (const struct ka_kset_uevent_ops *)kset->uevent_ops;
}

const struct ka_kset_uevent_ops *ka_kset_cmpxchg_uevent_ops(struct kset *kset,
							    const struct ka_kset_uevent_ops *from,
							    const struct ka_kset_uevent_ops *to)
{
	return (const struct ka_kset_uevent_ops *)cmpxchg(&kset->uevent_ops,
							  (const struct kset_uevent_ops *)from,
							  (const struct kset_uevent_ops *)to);
}

int ka_uevent_variables(const struct kobj_uevent_env *env)
{
	return env->envp_idx;
}

const char *ka_uevent_variable(const struct kobj_uevent_env *env, int index)
{
	return env->envp[index];
}

int ka_path_super_bdev(const char *path, struct block_device **bdev)
{
	struct path found;
	int err = kern_path(path, LOOKUP_FOLLOW, &found);

	if (err)
		return err;
	*bdev = found.dentry->d_sb->s_bdev;
	path_put(&found);
	return 0;
}
