/* SPDX-License-Identifier: GPL-2.0 */
/* Disks of the driver's own. How their queues work, and how a disk comes and goes, differs. */
#include <linux/blkdev.h>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <linux/log2.h>
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

/* Buffered reads of a device put at least one block into each page and shift by the size's bits. */
static bool is_block_size(unsigned int bytes)
{
	return bytes >= 512 && bytes <= PAGE_SIZE && is_power_of_2(bytes);
}

int ka_blk_queue_block_size(struct request_queue *queue, unsigned short logical, size_t physical)
{
	if (!is_block_size(logical) || physical != logical) {
		pr_err("zorvat: block size %zu: not a power of two from 512 to %lu\n", physical,
		       PAGE_SIZE);
		return -EINVAL;
	}
	kernel_queue_block_size(queue, logical, physical);
	return 0;
}

/* --- Operations ------------------------------------------------------------------------------ */

static int open(struct block_device *bdev, fmode_t mode)
{
	struct ka_disk_owner *owner = bdev->bd_disk->private_data;
	int err = kernel_disk_open_begins(bdev->bd_disk);

	if (err)
		return err;
	if (owner->operations->open)
		err = owner->operations->open(owner);
	kernel_disk_open_ends();
	return err;
}

static int call_release(struct ka_disk_owner *owner)
{
	return owner->operations->release ? owner->operations->release(owner) : 0;
}

static kernel_disk_release_t release(struct gendisk *disk, fmode_t mode)
{
	return (kernel_disk_release_t)call_release(disk->private_data);
}

static int getgeo(struct block_device *bdev, struct hd_geometry *kernel)
{
	struct ka_disk_owner *owner = bdev->bd_disk->private_data;
	struct ka_disk_geometry geometry = {};
	int err = -ENOTTY;

	if (owner->operations->getgeo)
		err = owner->operations->getgeo(owner, &geometry);
	kernel->heads = geometry.heads;
	kernel->sectors = geometry.sectors;
	kernel->cylinders = geometry.cylinders;
	kernel->start = geometry.start;
	return err;
}

static const struct block_device_operations disk_fops = {
	.owner = THIS_MODULE,
	.open = open,
	.release = release,
	.getgeo = getgeo,
};

/* --- Disks ----------------------------------------------------------------------------------- */

void ka_disk_describe(struct gendisk *disk, struct ka_disk_owner *owner,
		      const struct ka_disk_description *description)
{
	set_disk_ro(disk, description->read_only);
	disk->major = description->major;
	disk->first_minor = 0;
	if (description->without_partitions)
		disk->flags |= KERNEL_DISK_WITHOUT_PARTITIONS;
	disk->fops = &disk_fops;
	disk->private_data = owner;
	strlcpy(disk->disk_name, description->name, sizeof(disk->disk_name));
	set_capacity(disk, description->capacity);
}

int ka_disk_is_read_only(const struct gendisk *disk)
{
	return get_disk_ro((struct gendisk *)disk);
}

/* --- Requests -------------------------------------------------------------------------------- */

struct bio *ka_request_first_bio(struct request *request)
{
	return request->bio;
}

struct bio *ka_request_next_bio(struct bio *bio)
{
	return bio->bi_next;
}

/* One that carries no data has no segments. */
static bool has_data(const struct bio *bio)
{
	return kernel_bio_size(bio) && bio_has_data((struct bio *)bio);
}

void ka_request_bio_extent(const struct bio *bio, struct ka_bio_extent *extent)
{
	extent->sector = kernel_bio_sector(bio);
	extent->bytes = kernel_bio_size(bio);
	extent->is_write = bio_data_dir((struct bio *)bio) == WRITE;
	extent->offset = has_data(bio) ? bio_offset((struct bio *)bio) : 0;
}

/*
 * The queue has the block layer see to it, but not everybody who makes bios asks the block layer.
 * Shown one after the other, the pages of any other bio would get the data in wrong places.
 */
static bool is_contiguous(struct bio *bio)
{
	struct bio_vec segment;
	kernel_bio_position position;
	unsigned int pages = 0;
	bool ended = false; /* inside a page */

	kernel_for_each_segment (segment, bio, position) {
		unsigned int end = segment.bv_offset + segment.bv_len;

		if (ended || end > PAGE_SIZE || (pages && segment.bv_offset))
			return false;
		ended = end < PAGE_SIZE;
		pages++;
	}
	return pages <= KA_BIO_MAX_PAGES;
}

int ka_request_bio_for_each_page(struct bio *bio, int (*callback)(void *arg, unsigned long pfn),
				 void *arg)
{
	struct bio_vec segment;
	kernel_bio_position position;
	int result;

	if (!has_data(bio))
		return 0;
	if (!is_contiguous(bio))
		return -EIO;
	kernel_for_each_segment (segment, bio, position) {
		result = callback(arg, page_to_pfn(segment.bv_page));
		if (result)
			return result;
	}
	return 0;
}
