/* SPDX-License-Identifier: GPL-2.0 */
/* 6.1 and later: the calls of the common translations that differ from 2.6.32. */
#ifndef KA_V6_THIS_KERNEL_H
#define KA_V6_THIS_KERNEL_H

#include <linux/bio.h>
#include <linux/blk-mq.h>
#include <linux/blkdev.h>
#include <linux/file.h>
#include <linux/fs.h>
#include <linux/mm.h>
#include <linux/module.h>
#include <linux/netlink.h>
#include <linux/printk.h>
#include <linux/rcupdate.h>
#include <linux/sysfs.h>
#include <linux/uaccess.h>
#include <linux/vmalloc.h>
#include <linux/workqueue.h>
#include <net/genetlink.h>

#define KERNEL_DISK_WITHOUT_PARTITIONS GENHD_FL_NO_PART

static inline void kernel_vprintk(int level, const char *format, va_list args)
{
	vprintk_emit(0, level, NULL, format, args);
}

static inline void *kernel_vmalloc_quiet(size_t size)
{
	unsigned int flags = memalloc_noio_save();
	void *memory = __vmalloc(size, GFP_KERNEL | __GFP_NOWARN);

	memalloc_noio_restore(flags);
	return memory;
}

static inline bool kernel_access_ok(const void *user, unsigned long size)
{
	return access_ok((const void __user *)user, size);
}

static inline void kernel_synchronize_sched(void)
{
	synchronize_rcu();
}

static inline void kernel_mutex_unlock(struct mutex *mutex)
{
	mutex_unlock(mutex);
}

static inline bool kernel_get_queue(struct request_queue *queue)
{
	return blk_get_queue(queue);
}

static inline struct kobject *kernel_kobject_get(struct kobject *kobj)
{
	return kobject_get_unless_zero(kobj);
}

static inline unsigned int kernel_kobject_references(const struct kobject *kobj)
{
	return kref_read(&kobj->kref);
}

/* A read of a binary file: the file's removal goes ahead meanwhile. */
struct kernel_bin_read {
	struct kernfs_node *protection;
};

static inline int kernel_bin_read_begins(struct kernel_bin_read *read, struct kobject *kobj,
					 struct bin_attribute *battr)
{
	read->protection = kobj->sd ? sysfs_break_active_protection(kobj, &battr->attr) : NULL;
	return 0;
}

static inline ssize_t kernel_bin_read_ends(struct kernel_bin_read *read, ssize_t result)
{
	if (read->protection)
		sysfs_unbreak_active_protection(read->protection);
	return result;
}

static inline void kernel_bin_reads_give_way(struct bin_attribute *battr)
{
}

struct kernel_file_to_close {
	struct work_struct work;
	struct file *file;
};

static inline void kernel_close_file(struct work_struct *work)
{
	struct file *file = container_of(work, struct kernel_file_to_close, work)->file;

	get_file(file);
	filp_close(file, NULL);
	__fput_sync(file);
}

/* A process releases its files on its way back to user space, which is too late; a kernel thread
 * can do it at once. */
static inline void kernel_filp_close(struct file *file)
{
	struct kernel_file_to_close close = {.file = file};

	INIT_WORK_ONSTACK(&close.work, kernel_close_file);
	schedule_work(&close.work);
	flush_work(&close.work);
	destroy_work_on_stack(&close.work);
}

static inline u32 kernel_genl_portid(const struct genl_info *info)
{
	return info->snd_portid;
}

static inline int kernel_genl_register(struct genl_family *family, struct genl_ops *ops,
				       size_t count)
{
	size_t i;

	for (i = 0; i < count; i++)
		ops[i].validate = GENL_DONT_VALIDATE_STRICT | GENL_DONT_VALIDATE_DUMP;
	family->module = THIS_MODULE;
	family->ops = ops;
	family->n_ops = count;
	family->resv_start_op = U8_MAX; /* headers are not checked for reserved bits, as ever */
	return genl_register_family(family);
}

static inline void kernel_netlink_ack(struct sk_buff *request, struct nlmsghdr *header, int error)
{
	netlink_ack(request, header, error, NULL);
}

/* The length must be that of the buffers. */
static inline size_t kernel_send_size(size_t length, size_t total)
{
	return length;
}

/* --- Address spaces -------------------------------------------------------------------------- */

/* A mapping that userfaultfd watches has marks where it has no pages, which a zap leaves there. */
#define KERNEL_VM_UNFIT (VM_UFFD_MISSING | VM_UFFD_WP | VM_UFFD_MINOR)
#define KERNEL_VM_SHOWN VM_DONTDUMP

static inline void kernel_mmgrab(struct mm_struct *mm)
{
	mmgrab(mm);
}

static inline bool kernel_mmget_not_zero(struct mm_struct *mm)
{
	return mmget_not_zero(mm);
}

static inline void kernel_mmap_write_lock(struct mm_struct *mm)
{
	mmap_write_lock(mm);
}

/* A fault that holds it and waits for this thread's work ends when the process is killed. */
static inline bool kernel_mmap_write_lock_in_time(struct mm_struct *mm, int ticks)
{
	mmap_write_lock(mm);
	return true;
}

static inline bool kernel_mmap_write_trylock(struct mm_struct *mm)
{
	return mmap_write_trylock(mm);
}

static inline void kernel_mmap_write_unlock(struct mm_struct *mm)
{
	mmap_write_unlock(mm);
}

static inline void kernel_zap_vma_ptes(struct vm_area_struct *vma, unsigned long address,
				       unsigned long size)
{
	zap_vma_ptes(vma, address, size);
}

static inline int kernel_refuse_move(struct vm_area_struct *vma)
{
	return -EINVAL;
}

/*
 * A move takes the pages along, and would end in the close of the mapping that was taken. And a
 * file system that is asked before a raw page is written looks for the page in its file.
 */
static inline void kernel_adapt_operations(struct vm_operations_struct *operations)
{
	operations->mremap = kernel_refuse_move;
	operations->pfn_mkwrite = NULL;
}

/* Of a process's first thread: the process ends, though its threads may wait for others before. */
static inline bool kernel_is_being_killed(struct task_struct *process)
{
	return READ_ONCE(process->signal->flags) & SIGNAL_GROUP_EXIT ||
	       !atomic_read(&process->signal->live);
}

/* --- Block devices --------------------------------------------------------------------------- */

#define kernel_for_each_segment(segment, bio, position) bio_for_each_segment(segment, bio, position)
typedef struct bvec_iter kernel_bio_position;

static inline sector_t kernel_bio_sector(const struct bio *bio)
{
	return bio->bi_iter.bi_sector;
}

static inline unsigned int kernel_bio_size(const struct bio *bio)
{
	return bio->bi_iter.bi_size;
}

/* What the release of a disk returns to the block layer. */
typedef void kernel_disk_release_t;

/* A disk that is going is not opened. */
static inline int kernel_disk_open_begins(struct gendisk *disk)
{
	return 0;
}

static inline void kernel_disk_open_ends(void)
{
}

void kernel_queue_block_size(struct request_queue *queue, unsigned int logical,
			     unsigned int physical);

/* There is no ioctl under the big kernel lock any more. */
static inline void *kernel_locked_ioctl_slot(struct block_device_operations *fops)
{
	return NULL;
}

static inline int kernel_call_locked_ioctl(struct block_device_operations *fops,
					   struct block_device *bdev, unsigned int mode,
					   unsigned int cmd, unsigned long arg)
{
	return -ENOIOCTLCMD;
}

#endif
