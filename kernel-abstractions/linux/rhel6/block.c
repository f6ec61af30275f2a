/* SPDX-License-Identifier: GPL-2.0 */
/* Opening block devices, freezing, what is read of them, and the pointers that are exchanged. */
#include "../../block.h"

#include <linux/blkdev.h>
#include <linux/err.h>
#include <linux/fs.h>
#include <linux/genhd.h>

#include "../../module.h"
#include "../takeovers.h"

/* Nothing to set up here. */
int ka_init(void)
{
	return 0;
}

void ka_exit(void)
{
	kernel_wait_for_takeovers();
}

struct block_device *ka_open_by_devnum(ka_dev_t dev, unsigned int mode)
{
	return open_by_devnum(dev, (__force fmode_t)mode);
}

int ka_lookup_bdev(const char *path, ka_dev_t *dev)
{
	struct block_device *bdev = lookup_bdev(path);

	if (IS_ERR(bdev))
		return PTR_ERR(bdev);
	*dev = bdev->bd_dev;
	bdput(bdev);
	return 0;
}

struct super_block *ka_freeze_bdev(struct block_device *bdev)
{
	return freeze_bdev(bdev);
}

int ka_thaw_bdev(struct block_device *bdev, struct super_block *frozen)
{
	return IS_ERR(frozen) ? 0 : thaw_bdev(bdev, frozen);
}

struct gendisk *ka_bdev_disk(struct block_device *bdev)
{
	return bdev->bd_disk;
}

ka_sector_t ka_bdev_start(struct block_device *bdev)
{
	return bdev->bd_part->start_sect;
}

ka_sector_t ka_bdev_sectors(struct block_device *bdev)
{
	return bdev->bd_part->nr_sects;
}

int ka_bdev_partno(struct block_device *bdev)
{
	return bdev->bd_part->partno;
}

void ka_bdevname(struct block_device *bdev, char name[KA_BDEVNAME_SIZE])
{
	bdevname(bdev, name);
}

/* --- A queue's make-request function, a disk's table ----------------------------------------- */

ka_make_request_fn *ka_queue_make_request(struct request_queue *queue)
{
	return (ka_make_request_fn *)queue->make_request_fn;
}

ka_make_request_fn *ka_queue_cmpxchg_make_request(struct request_queue *queue,
						  ka_make_request_fn *from, ka_make_request_fn *to)
{
	return (ka_make_request_fn *)cmpxchg(&queue->make_request_fn, (make_request_fn *)from,
					     (make_request_fn *)to);
}

void ka_queue_set_make_request(struct request_queue *queue, ka_make_request_fn *function)
{
	queue->make_request_fn = (make_request_fn *)function;
}

/*
 * The kernel does not know who runs the function. It is not preempted between reading the pointer
 * and the function's first sleep: after a grace period everybody who read it is in the function,
 * asleep, or out of it.
 */
void ka_queue_drain_make_request(struct request_queue *queue)
{
	synchronize_sched();
}

const struct ka_block_device_operations *ka_disk_fops(struct gendisk *disk)
{
	return (const struct ka_block_device_operations *)disk->fops;
}

const struct ka_block_device_operations *
ka_disk_cmpxchg_fops(struct gendisk *disk, const struct ka_block_device_operations *from,
		     const struct ka_block_device_operations *to)
{
	return (const struct ka_block_device_operations *)cmpxchg(
		&disk->fops, (const struct block_device_operations *)from,
		(const struct block_device_operations *)to);
}
