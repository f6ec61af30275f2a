/* SPDX-License-Identifier: GPL-2.0 */
/* Disks of the driver's own. Their queues, and how they are allocated, differ by kernel. */
#include <linux/blkdev.h>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <linux/module.h>
#include <linux/string.h>

#include "../block.h"
#include "this-kernel.h"

int ka_register_blkdev(const char *name)
{
	return register_blkdev(0, name);
}

void ka_unregister_blkdev(unsigned int major, const char *name)
{
	unregister_blkdev(major, name);
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
	disk->flags |= KERNEL_DISK_WITHOUT_PARTITIONS;
	disk->fops = &disk_fops;
	strlcpy(disk->disk_name, name, sizeof(disk->disk_name));
	set_capacity(disk, capacity);
}

void ka_del_gendisk(struct gendisk *disk)
{
	del_gendisk(disk);
}

void ka_put_disk(struct gendisk *disk)
{
	put_disk(disk);
}
