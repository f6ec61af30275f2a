/* SPDX-License-Identifier: GPL-2.0 */
/* Block devices and tables of block-device operations. */
#include "../block.h"

#include <linux/fs.h>

#include "objects.h"
#include "this-kernel.h"

void ka_blkdev_put(struct block_device *bdev, unsigned int mode)
{
	blkdev_put(bdev, (__force fmode_t)mode);
}

int ka_fsync_bdev(struct block_device *bdev)
{
	return fsync_bdev(bdev);
}

ka_dev_t ka_bdev_dev(struct block_device *bdev)
{
	return bdev->bd_dev;
}

struct request_queue *ka_bdev_queue(struct block_device *bdev)
{
	return bdev_get_queue(bdev);
}

struct request_queue *ka_get_queue(struct request_queue *queue)
{
	return kernel_get_queue(queue) ? queue : NULL;
}

void ka_put_queue(struct request_queue *queue)
{
	if (queue)
		blk_put_queue(queue);
}

ka_dev_t ka_bdev_whole_dev(struct block_device *bdev)
{
	return disk_devt(bdev->bd_disk);
}

int ka_disk_is_removable(struct gendisk *disk)
{
	return disk->flags & GENHD_FL_REMOVABLE;
}

/* The kernel's slot for an entry; null when it has no such entry. */
static ka_bdev_ioctl_fn **ioctl_slot(struct block_device_operations *fops,
				     enum ka_ioctl_entry entry)
{
	switch (entry) {
	case KA_IOCTL:
		return (ka_bdev_ioctl_fn **)&fops->ioctl;
	case KA_LOCKED_IOCTL:
		return (ka_bdev_ioctl_fn **)kernel_locked_ioctl_slot(fops);
	default:
		return (ka_bdev_ioctl_fn **)&fops->compat_ioctl;
	}
}

void ka_fops_copy_with_ioctls(struct ka_block_device_operations *to,
			      const struct ka_block_device_operations *from,
			      ka_bdev_ioctl_fn *const entries[KA_IOCTL_ENTRIES])
{
	struct block_device_operations *fops = KA_OBJECT(struct block_device_operations, to);
	int entry;

	*fops = *KA_OBJECT(const struct block_device_operations, from);
	for (entry = 0; entry < KA_IOCTL_ENTRIES; entry++) {
		ka_bdev_ioctl_fn **slot = ioctl_slot(fops, entry);

		if (slot)
			*slot = entries[entry];
	}
}

int ka_fops_call_ioctl(const struct ka_block_device_operations *from, enum ka_ioctl_entry entry,
		       struct block_device *bdev, unsigned int mode, unsigned int cmd,
		       unsigned long arg)
{
	struct block_device_operations *fops = (struct block_device_operations *)from->storage;
	ka_bdev_ioctl_fn **slot = ioctl_slot(fops, entry);

	if (slot && *slot)
		return (*slot)(bdev, mode, cmd, arg);
	if (entry == KA_IOCTL)
		return kernel_call_locked_ioctl(fops, bdev, mode, cmd, arg);
	return -ENOIOCTLCMD;
}
