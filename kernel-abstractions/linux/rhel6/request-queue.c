/* SPDX-License-Identifier: GPL-2.0 */
/* The queue of a disk of the driver's own, and the disk's entry into the system. */
#include <linux/blkdev.h>
#include <linux/genhd.h>

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

struct gendisk *ka_alloc_disk(int minors, struct request_queue *queue)
{
	struct gendisk *disk = alloc_disk(minors);

	if (disk)
		disk->queue = queue;
	return disk;
}

int ka_add_disk(struct gendisk *disk)
{
	add_disk(disk);
	return 0;
}
