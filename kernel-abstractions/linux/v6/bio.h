/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A bio as it was submitted to a disk. The bio itself may be completed and freed before the driver
 * below returns, so everything that is read afterwards is kept here, on the submitter's stack.
 */
#ifndef KA_V6_BIO_H
#define KA_V6_BIO_H

#include <linux/bio.h>
#include <linux/blkdev.h>

#include "../../block.h"

struct ka_bio {
	struct bio *bio;
	struct gendisk *disk;
	struct disk_hooks *hooks; /* of the disk, while the bio is on its way */
	ka_sector_t sector;
	uint64_t bytes;
	bool is_write;
	bool handed_on;  /* somebody below has the bio now */
	bool holds_disk; /* with a reference on its device, in place of the queue's */
};

#endif
