/* SPDX-License-Identifier: GPL-2.0 */
/* What a make-request function reads of a bio: the bio's own fields, as they are at the moment. */
#include <linux/bio.h>
#include <linux/genhd.h>
#include <linux/uaccess.h>

#include "../../block.h"

static const struct bio *kernel_bio(const struct ka_bio *bio)
{
	return (const struct bio *)bio;
}

/*
 * The whole disk's, whose queue has the bio. This kernel maps bios with data from the partition to
 * the disk before the queue sees them, but leaves a flush, which has no position, at the partition.
 */
ka_dev_t ka_bio_dev(const struct ka_bio *bio)
{
	return disk_devt(kernel_bio(bio)->bi_bdev->bd_disk);
}

int ka_bio_is_write(const struct ka_bio *bio)
{
	return kernel_bio(bio)->bi_rw & 1;
}

ka_sector_t ka_bio_sector(const struct ka_bio *bio)
{
	return kernel_bio(bio)->bi_sector;
}

unsigned int ka_bio_segments(const struct ka_bio *bio)
{
	return kernel_bio(bio)->bi_vcnt;
}

/*
 * Read after the bio was handed on, when it may be complete and its memory somebody else's: then
 * the segments are wherever that memory says, which need not exist.
 */
uint64_t ka_bio_segment_bytes(const struct ka_bio *bio)
{
	unsigned int bytes;

	if (probe_kernel_address(&bio_iovec(kernel_bio(bio))->bv_len, bytes))
		return ka_bio_bytes(bio);
	return bytes;
}

uint64_t ka_bio_bytes(const struct ka_bio *bio)
{
	return kernel_bio(bio)->bi_size;
}
