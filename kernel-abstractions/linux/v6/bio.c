/* SPDX-License-Identifier: GPL-2.0 */
/* What a make-request function reads of a bio. */
#include "bio.h"

ka_dev_t ka_bio_dev(const struct ka_bio *bio)
{
	return disk_devt(bio->disk);
}

int ka_bio_is_write(const struct ka_bio *bio)
{
	return bio->is_write;
}

ka_sector_t ka_bio_sector(const struct ka_bio *bio)
{
	return bio->sector;
}

/* The segments are the business of the bio's owner here: the whole bio counts. */
unsigned int ka_bio_segments(const struct ka_bio *bio)
{
	return 0;
}

uint64_t ka_bio_segment_bytes(const struct ka_bio *bio)
{
	return bio->bytes;
}

uint64_t ka_bio_bytes(const struct ka_bio *bio)
{
	return bio->bytes;
}
