/* SPDX-License-Identifier: GPL-2.0 */
/* Opening block devices, freezing, and what is read of them. */
#include "../../block.h"

#include <linux/blkdev.h>
#include <linux/device.h>
#include <linux/fs.h>

#include "../objects.h"

/* The class of all block devices, which is not exported; seen at the first device opened. */
static struct class *block_device_class;

/*
 * Opening the number of a device that is gone would run modprobe to get it a driver, and wait.
 * The caller may hold a lock that modprobe's own reads of a tracked disk need.
 */
static bool is_known_to_be_gone(dev_t dev)
{
	struct class *class = READ_ONCE(block_device_class);
	struct device *device;

	if (!class)
		return false;
	device = class_find_device_by_devt(class, dev);
	put_device(device);
	return !device;
}

struct block_device *ka_open_by_devnum(ka_dev_t dev, unsigned int mode)
{
	struct block_device *bdev;

	if (is_known_to_be_gone(dev))
		return ERR_PTR(-ENXIO);
	bdev = blkdev_get_by_dev(dev, (__force fmode_t)mode, NULL);
	if (!IS_ERR(bdev))
		WRITE_ONCE(block_device_class, disk_to_dev(bdev->bd_disk)->class);
	return bdev;
}

int ka_lookup_bdev(const char *path, ka_dev_t *dev)
{
	return lookup_bdev(path, dev);
}

struct super_block *ka_freeze_bdev(struct block_device *bdev)
{
	return ERR_PTR(freeze_bdev(bdev));
}

int ka_thaw_bdev(struct block_device *bdev, struct super_block *frozen)
{
	return IS_ERR(frozen) ? 0 : thaw_bdev(bdev);
}

/*
 * The NVMe driver tells its disks from others by the address of their operations table, and would
 * take a disk with another table for something else. Such disks cannot be hooked.
 */
static bool has_driver_that_checks_tables(const struct gendisk *disk)
{
	return strncmp(disk->disk_name, "nvme", 4) == 0;
}

struct gendisk *ka_bdev_disk(struct block_device *bdev)
{
	struct gendisk *disk = bdev->bd_disk;

	if (has_driver_that_checks_tables(disk)) {
		pr_warn_once("zorvat: NVMe disks (%s) cannot be tracked on this kernel\n",
			     disk->disk_name);
		return NULL;
	}
	return disk;
}

ka_sector_t ka_bdev_start(struct block_device *bdev)
{
	return bdev->bd_start_sect;
}

ka_sector_t ka_bdev_sectors(struct block_device *bdev)
{
	return bdev_nr_sectors(bdev);
}

int ka_bdev_partno(struct block_device *bdev)
{
	return bdev->bd_partno;
}

void ka_bdevname(struct block_device *bdev, char name[KA_BDEVNAME_SIZE])
{
	snprintf(name, KA_BDEVNAME_SIZE, "%pg", bdev);
}
