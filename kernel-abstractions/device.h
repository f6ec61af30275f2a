/* SPDX-License-Identifier: GPL-2.0 */
/* The device model: devices, their classes, the set of all devices and its uevents. */
#ifndef KA_DEVICE_H
#define KA_DEVICE_H

#include "block.h"
#include "types.h"

KA_BEGIN_DECLS

struct device;
struct ka_class; /* a device class, by identity */
struct kobject;
struct kobj_uevent_env;
struct kset;

/* The device object of a disk. */
struct device *ka_disk_device(struct gendisk *disk);
/* The device object of the disk that a block device lies on. */
struct device *ka_bdev_disk_device(struct block_device *bdev);
/* The device that contains the kernel object. */
struct device *ka_kobject_device(struct kobject *kobj);
/* One more reference; null in, null out. Any context. */
struct device *ka_get_device(struct device *device);
void ka_put_device(struct device *device);

/* Of a device that the caller has a reference on. Any context. */
ka_dev_t ka_device_devt(struct device *device);
const char *ka_device_name(struct device *device);
struct ka_class *ka_device_class(struct device *device); /* identity only; may be null */
struct kset *ka_device_kset(struct device *device);      /* may be null */
struct device *ka_device_parent(struct device *device);  /* may be null */

struct kset *ka_kset_get(struct kset *kset); /* null in, null out */
void ka_kset_put(struct kset *kset);
/* Calls the function for every object of the set, under the set's spinlock: it must not sleep. */
void ka_kset_for_each(struct kset *kset, void (*function)(struct kobject *kobj));

/* A table of uevent operations of a set. */
struct ka_kset_uevent_ops {
	KA_STORAGE(KSET_UEVENT_OPS);
};

/*
 * The uevent operation: called for every event of every object of the set, in the context of
 * whoever raises it (a process; may sleep). env holds the event's variables.
 */
typedef int ka_uevent_fn(struct kset *kset, struct kobject *kobj, struct kobj_uevent_env *env);

const struct ka_kset_uevent_ops *ka_kset_get_uevent_ops(struct kset *kset);
/* Compare and exchange of the set's pointer; returns what it was. */
const struct ka_kset_uevent_ops *ka_kset_cmpxchg_uevent_ops(struct kset *kset,
							    const struct ka_kset_uevent_ops *from,
							    const struct ka_kset_uevent_ops *to);
/*
 * Copies the whole table `from` (which may be null: an empty one) with the uevent operation
 * replaced. Only one such function is in use at a time.
 */
void ka_uevent_ops_copy_with_uevent(struct ka_kset_uevent_ops *to,
				    const struct ka_kset_uevent_ops *from, ka_uevent_fn *uevent);
/* Calls the table's uevent operation; 0 when the table is null or has none. */
int ka_uevent_ops_call(const struct ka_kset_uevent_ops *ops, struct kset *kset,
		       struct kobject *kobj, struct kobj_uevent_env *env);

/* The event's variables, each "NAME=value". Any context. */
int ka_uevent_variables(const struct kobj_uevent_env *env);
const char *ka_uevent_variable(const struct kobj_uevent_env *env, int index);

/*
 * The block device of the file system that the path (followed through links) lies on: stored in
 * *bdev, without a reference; null when that file system has none. An error of the path lookup.
 */
int ka_path_super_bdev(const char *path, struct block_device **bdev);

KA_END_DECLS

#endif
