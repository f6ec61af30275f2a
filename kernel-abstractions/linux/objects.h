/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The kernel's own types behind the contract's storage. kernel-sizes.c takes their sizes from here;
 * every translation reaches a kernel object through KA_OBJECT.
 */
#ifndef KA_LINUX_OBJECTS_H
#define KA_LINUX_OBJECTS_H

#include <linux/blkdev.h>
#include <linux/completion.h>
#include <linux/fs.h>
#include <linux/kobject.h>
#include <linux/miscdevice.h>
#include <linux/mutex.h>
#include <linux/rwsem.h>
#include <linux/spinlock.h>
#include <linux/sysfs.h>
#include <linux/wait.h>
#include <linux/workqueue.h>
#include <net/genetlink.h>

#if __GNUC__ == 4 && __GNUC_MINOR__ < 6 /* RHEL 6's own compiler has no such word yet */
#define _Static_assert(condition, message) extern int ka_assertion[(condition) ? 1 : -1]
#endif

#define KA_GENL_OPS_ROOM 32

/* A misc device with its table of file operations. */
struct ka_kernel_misc {
	struct miscdevice misc;
	struct file_operations fops;
};

/* A generic-netlink family with its operations. */
struct ka_kernel_genl {
	struct genl_family family;
	struct genl_ops ops[KA_GENL_OPS_ROOM];
};

/* A mapping taken over; what is known of it is kept apart, since the kernel may need it longer. */
struct takeover;
struct ka_kernel_mapping {
	struct takeover *takeover; /* null: nothing taken */
};

/* Every storage of the contract, with the type that lies in it. */
#define KA_FOR_EACH_OBJECT(X)                                                                      \
	X(MUTEX, struct mutex)                                                                     \
	X(RWSEM, struct rw_semaphore)                                                              \
	X(COMPLETION, struct completion)                                                           \
	X(SPINLOCK, spinlock_t)                                                                    \
	X(WAIT_QUEUE, wait_queue_head_t)                                                           \
	X(MAPPING, struct ka_kernel_mapping)                                                       \
	X(KOBJECT, struct kobject)                                                                 \
	X(KOBJ_TYPE, struct kobj_type)                                                             \
	X(ATTRIBUTE, struct attribute)                                                             \
	X(BIN_ATTRIBUTE, struct bin_attribute)                                                     \
	X(DELAYED_WORK, struct delayed_work)                                                       \
	X(BLOCK_DEVICE_OPERATIONS, struct block_device_operations)                                 \
	X(KSET_UEVENT_OPS, struct kset_uevent_ops)                                                 \
	X(FILE_OPERATIONS, struct file_operations)                                                 \
	X(MISCDEVICE, struct ka_kernel_misc)                                                       \
	X(GENL_FAMILY, struct ka_kernel_genl)

#ifndef KA_MAKING_SIZES
#include "../types.h"

#define KA_CHECK_SIZE(NAME, type)                                                                  \
	_Static_assert(sizeof(type) == KA_SIZEOF_##NAME && __alignof__(type) <= 8,                 \
		       #type " does not fit its storage");
KA_FOR_EACH_OBJECT(KA_CHECK_SIZE)
#undef KA_CHECK_SIZE

/* The kernel object in the storage of a contract object, and the way back. */
#define KA_OBJECT(type, object)            ((type *)(object)->storage)
#define KA_CONTAINER(pointer, type, field) container_of((void *)(pointer), type, field.storage)
#endif

#endif
