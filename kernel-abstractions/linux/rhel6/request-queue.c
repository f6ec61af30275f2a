/* SPDX-License-Identifier: GPL-2.0 */
/* Disks of the driver's own. */
#include <linux/blkdev.h>
#include <linux/genhd.h>
#include <linux/hdreg.h>
#include <linux/module.h>

#include "../../block.h"

struct request_queue *ka_blk_init_queue(ka_request_fn *function)
{
	return blk_init_queue(function, NULL); /* the queue's own lock */
}

void ka_blk_cleanup_queue(struct request_queue *queue)
{
	blk_cleanup_queue(queue);
}

struct request *ka_blk_fetch_request(struct request_queue *queue)
{
	return blk_fetch_request(queue);
}

int ka_blk_end_request_cur(struct request *request, int error)
{
	return __blk_end_request_cur(request, error);
}

int ka_register_blkdev(const char *name)
{
	return register_blkdev(0, name);
}

void ka_unregister_blkdev(unsigned int major, const char *name)
{
	unregister_blkdev(major, name);
}

struct gendisk *ka_alloc_disk(int minors, struct request_queue *queue)
{
	struct gendisk *disk = alloc_disk(minors);

	if (disk)
		disk->queue = queue;
	return disk;
}

static int getgeo(struct block_device *bdev, struct hd_geometry *kernel)
{
	const struct ka_disk_operations *operations = bdev_get_queue(bdev)->queuedata;
	struct ka_disk_geometry geometry = {};
	int err = operations->getgeo(bdev, &geometry);

	kernel->heads = geometry.heads;
	kernel->sectors = geometry.sectors;
	kernel->cylinders = geometry.cylinders;
	kernel->start = geometry.start;
	return err;
}

static const struct block_device_operations disk_fops = {
	.owner = THIS_MODULE,
	.getgeo = getgeo,
};

void ka_disk_describe(struct gendisk *disk, unsigned int major, const char *name,
		      const struct ka_disk_operations *operations, ka_sector_t capacity)
{
	disk->queue->queuedata = (void *)operations;
	set_disk_ro(disk, 1);
	disk->major = major;
	disk->first_minor = 0;
	disk->flags |= GENHD_FL_SUPPRESS_PARTITION_INFO;
	disk->fops = &disk_fops;
	strlcpy(disk->disk_name, name, sizeof(disk->disk_name));
	set_capacity(disk, capacity);
}

int ka_add_disk(struct gendisk *disk)
{
	add_disk(disk);
	return 0;
}

void ka_del_gendisk(struct gendisk *disk)
{
	del_gendisk(disk);
}

void ka_put_disk(struct gendisk *disk)
{
	put_disk(disk);
}
