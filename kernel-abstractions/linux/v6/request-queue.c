/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Disks of the driver's own: a request function over blk-mq. Requests that the block layer hands in
 * wait in a list until the request function fetches them.
 */
#include <linux/blk-mq.h>
#include <linux/slab.h>

#include "../../block.h"

#define QUEUE_DEPTH 64

struct request_adaptor {
	struct blk_mq_tag_set tags;
	ka_request_fn *function;
	spinlock_t lock; /* the queue's lock, and the list's */
	struct list_head waiting;
};

static struct request_adaptor *adaptor_of(struct request_queue *queue)
{
	return container_of(queue->tag_set, struct request_adaptor, tags);
}

static blk_status_t queue_request(struct blk_mq_hw_ctx *hctx, const struct blk_mq_queue_data *data)
{
	struct request_queue *queue = hctx->queue;
	struct request_adaptor *adaptor = adaptor_of(queue);
	unsigned long flags;

	spin_lock_irqsave(&adaptor->lock, flags);
	list_add_tail(&data->rq->queuelist, &adaptor->waiting);
	adaptor->function(queue);
	spin_unlock_irqrestore(&adaptor->lock, flags);
	return BLK_STS_OK;
}

static const struct blk_mq_ops adaptor_ops = {.queue_rq = queue_request};

struct request_queue *ka_blk_init_queue(ka_request_fn *function)
{
	struct request_adaptor *adaptor = kzalloc(sizeof(*adaptor), GFP_KERNEL);
	struct request_queue *queue;

	if (!adaptor)
		return NULL;
	adaptor->function = function;
	spin_lock_init(&adaptor->lock);
	INIT_LIST_HEAD(&adaptor->waiting);
	adaptor->tags.ops = &adaptor_ops;
	adaptor->tags.nr_hw_queues = 1;
	adaptor->tags.queue_depth = QUEUE_DEPTH;
	adaptor->tags.numa_node = NUMA_NO_NODE;
	if (blk_mq_alloc_tag_set(&adaptor->tags))
		goto free_adaptor;
	queue = blk_mq_init_queue(&adaptor->tags);
	if (!IS_ERR(queue))
		return queue;
	blk_mq_free_tag_set(&adaptor->tags);
free_adaptor:
	kfree(adaptor);
	return NULL;
}

void ka_blk_cleanup_queue(struct request_queue *queue)
{
	struct request_adaptor *adaptor = adaptor_of(queue);

	blk_mq_destroy_queue(queue);
	blk_put_queue(queue);
	blk_mq_free_tag_set(&adaptor->tags);
	kfree(adaptor);
}

struct request *ka_blk_fetch_request(struct request_queue *queue)
{
	struct request_adaptor *adaptor = adaptor_of(queue);
	struct request *request =
		list_first_entry_or_null(&adaptor->waiting, struct request, queuelist);

	if (request) {
		list_del_init(&request->queuelist);
		blk_mq_start_request(request);
	}
	return request;
}

int ka_blk_end_request_cur(struct request *request, int error)
{
	blk_status_t status = errno_to_blk_status(error);

	if (blk_update_request(request, status, blk_rq_cur_bytes(request)))
		return 1;
	__blk_mq_end_request(request, status);
	return 0;
}

struct gendisk *ka_alloc_disk(int minors, struct request_queue *queue)
{
	static struct lock_class_key lock_class;
	struct gendisk *disk = blk_mq_alloc_disk_for_queue(queue, &lock_class);

	if (disk)
		disk->minors = minors;
	return disk;
}

int ka_add_disk(struct gendisk *disk)
{
	return add_disk(disk);
}
