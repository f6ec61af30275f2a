/* SPDX-License-Identifier: GPL-2.0 */
/* 2.6.32 of RHEL 6: the calls of the common translations that differ from later kernels. */
#ifndef KA_RHEL6_THIS_KERNEL_H
#define KA_RHEL6_THIS_KERNEL_H

#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/fs.h>
#include <linux/genhd.h>
#include <linux/kernel.h>
#include <linux/mm.h>
#include <linux/netlink.h>
#include <linux/rcupdate.h>
#include <linux/sched.h>
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

static inline unsigned int kernel_kobject_references(const struct kobject *kobj)
{
	return atomic_read(&kobj->kref.refcount);
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

static inline size_t kernel_send_size(size_t length, size_t total)
{
	return total;
}

/* --- Address spaces -------------------------------------------------------------------------- */

#define KERNEL_VM_UNFIT (VM_NONLINEAR | VM_INSERTPAGE)
#define KERNEL_VM_SHOWN VM_RESERVED

static inline void kernel_mmgrab(struct mm_struct *mm)
{
	atomic_inc(&mm->mm_count);
}

static inline bool kernel_mmget_not_zero(struct mm_struct *mm)
{
	return atomic_inc_not_zero(&mm->mm_users);
}

static inline void kernel_mmap_write_lock(struct mm_struct *mm)
{
	down_write(&mm->mmap_sem);
}

/*
 * A fault may hold it and wait for this thread's work, for a free request say, and not even a
 * signal ends that.
 */
static inline bool kernel_mmap_write_lock_in_time(struct mm_struct *mm, int ticks)
{
	for (; ticks; ticks--) {
		if (down_write_trylock(&mm->mmap_sem))
			return true;
		schedule_timeout_uninterruptible(1);
	}
	return false;
}

static inline bool kernel_mmap_write_trylock(struct mm_struct *mm)
{
	return down_write_trylock(&mm->mmap_sem);
}

static inline void kernel_mmap_write_unlock(struct mm_struct *mm)
{
	up_write(&mm->mmap_sem);
}

/* Fails only for a mapping that is not one for raw pages. */
static inline void kernel_zap_vma_ptes(struct vm_area_struct *vma, unsigned long address,
				       unsigned long size)
{
	WARN_ON(zap_vma_ptes(vma, address, size));
}

/* A move cannot be refused: the copy, with the pages, belongs to the takeover like a split part. */
static inline void kernel_adapt_operations(struct vm_operations_struct *operations)
{
}

/*
 * Of a process's first thread: it ends, or is on its way there and may wait for others before. A
 * process whose first thread ends before the others is taken for one that is being killed; what
 * would tell, task->signal, can be freed at any moment here.
 */
static inline bool kernel_is_being_killed(struct task_struct *process)
{
	return fatal_signal_pending(process) || process->flags & (PF_EXITING | PF_SIGNALED);
}

/* --- Block devices --------------------------------------------------------------------------- */

#define kernel_for_each_segment(segment, bio, position)                                            \
	for (position = (bio)->bi_idx;                                                             \
	     position < (bio)->bi_vcnt && (segment = (bio)->bi_io_vec[position], true);            \
	     position++)
typedef int kernel_bio_position;

static inline sector_t kernel_bio_sector(const struct bio *bio)
{
	return bio->bi_sector;
}

static inline unsigned int kernel_bio_size(const struct bio *bio)
{
	return bio->bi_size;
}

/* What the release of a disk returns to the block layer. */
typedef int kernel_disk_release_t;

/* An open may come upon a disk that was deleted meanwhile: -ENXIO then. */
int kernel_disk_open_begins(struct gendisk *disk);
void kernel_disk_open_ends(void);

static inline void kernel_queue_block_size(struct request_queue *queue, unsigned int logical,
					   unsigned int physical)
{
	blk_queue_logical_block_size(queue, logical);
	blk_queue_physical_block_size(queue, physical);
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
