/* SPDX-License-Identifier: GPL-2.0 */
/* What a make-request function reads of a bio: the bio's own fields, as they are at the moment. */
#include <linux/bio.h>

#include "../../block.h"

static const struct bio *kernel_bio(const struct ka_bio *bio)
{
	return (const struct bio *)bio;
}

ka_dev_t ka_bio_dev(const struct ka_bio *bio)
{
	return kernel_bio(bio)->bi_bdev->bd_dev;
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

uint64_t ka_bio_segment_bytes(const struct ka_bio *bio)
{
	return bio_iovec(kernel_bio(bio))->bv_len;
}

uint64_t ka_bio_bytes(const struct ka_bio *bio)
{
	return kernel_bio(bio)->bi_size;
}
