/* SPDX-License-Identifier: GPL-2.0 */
/* 2.6.32 of RHEL 6: the calls of the common translations that differ from later kernels. */
#ifndef KA_RHEL6_THIS_KERNEL_H
#define KA_RHEL6_THIS_KERNEL_H

#include <linux/blkdev.h>
#include <linux/fs.h>
#include <linux/genhd.h>
#include <linux/kernel.h>
#include <linux/netlink.h>
#include <linux/rcupdate.h>
#include <linux/smp_lock.h>
#include <linux/sysfs.h>
#include <linux/uaccess.h>
#include <linux/vmalloc.h>
#include <net/genetlink.h>

#ifndef U16_MAX
#define U16_MAX ((u16)~0U)
#endif

#define KERNEL_DISK_WITHOUT_PARTITIONS GENHD_FL_SUPPRESS_PARTITION_INFO

/* The level's marker is text at the head of the format. */
static inline void kernel_vprintk(int level, const char *format, va_list args)
{
	char marked[256];

	snprintf(marked, sizeof(marked), "<%d>%s", level, format);
	vprintk(marked, args);
}

static inline void *kernel_vmalloc_quiet(size_t size)
{
	return __vmalloc(size, GFP_NOIO | __GFP_HIGHMEM | __GFP_NOWARN, PAGE_KERNEL);
}

static inline bool kernel_access_ok(const void *user, unsigned long size)
{
	return access_ok(VERIFY_WRITE, (const void __user *)user, size);
}

static inline void kernel_synchronize_sched(void)
{
	synchronize_sched();
}

/* The count of a mutex released once too often would let two in. */
static inline void kernel_mutex_unlock(struct mutex *mutex)
{
	if (mutex_is_locked(mutex))
		mutex_unlock(mutex);
}

static inline bool kernel_get_queue(struct request_queue *queue)
{
	return blk_get_request_queue(queue);
}

static inline struct kobject *kernel_kobject_get(struct kobject *kobj)
{
	return atomic_inc_not_zero(&kobj->kref.refcount) ? kobj : NULL;
}

/*
 * A read of a binary file. Removing a file waits for its readers here: those who wait for a lock,
 * which the remover may hold, are called away, and get -ENODEV. See sysfs.c.
 */
struct kernel_bin_read {
	struct list_head entry;
	struct task_struct *task;
	struct bin_attribute *battr;
};

int kernel_bin_read_begins(struct kernel_bin_read *read, struct kobject *kobj,
			   struct bin_attribute *battr);
ssize_t kernel_bin_read_ends(struct kernel_bin_read *read, ssize_t result);
void kernel_bin_reads_give_way(struct bin_attribute *battr);

static inline void kernel_filp_close(struct file *file)
{
	filp_close(file, NULL);
}

static inline u32 kernel_genl_portid(const struct genl_info *info)
{
	return info->snd_pid;
}

static inline int kernel_genl_register(struct genl_family *family, struct genl_ops *ops,
				       size_t count)
{
	family->id = GENL_ID_GENERATE;
	return genl_register_family_with_ops(family, ops, count);
}

static inline void kernel_netlink_ack(struct sk_buff *request, struct nlmsghdr *header, int error)
{
	netlink_ack(request, header, error);
}

static inline void *kernel_locked_ioctl_slot(struct block_device_operations *fops)
{
	return &fops->locked_ioctl;
}

/* What the kernel does with a table that has no other ioctl entry, as those of most disks. */
static inline int kernel_call_locked_ioctl(struct block_device_operations *fops,
					   struct block_device *bdev, unsigned int mode,
					   unsigned int cmd, unsigned long arg)
{
	int result;

	if (!fops->locked_ioctl)
		return -ENOIOCTLCMD;
	lock_kernel();
	result = fops->locked_ioctl(bdev, (__force fmode_t)mode, cmd, arg);
	unlock_kernel();
	return result;
}

#endif
