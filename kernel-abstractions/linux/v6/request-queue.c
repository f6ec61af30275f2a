/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Disks of the driver's own: a request function over blk-mq.
 *
 * What the driver calls its queue is the adaptor here. Requests that the block layer hands in wait
 * in the adaptor's list until the request function fetches them. A disk of this kernel can enter
 * the system once, and takes its own queue along when it is deleted; so every gendisk that is put
 * behind an adaptor brings a fresh queue of the block layer's.
 */
#include <linux/blk-mq.h>
#include <linux/kref.h>
#include <linux/slab.h>

#include "../../block.h"
#include "../objects.h"
#include "this-kernel.h"

struct request_adaptor {
	struct kref references; /* the driver's and each disk's */
	struct blk_mq_tag_set tags;
	struct ka_disk_owner *owner;
	ka_request_fn *function;

	spinlock_t own_lock;
	spinlock_t *lock; /* the driver's or its own; guards the next two */
	struct list_head waiting;
	bool stopped;

	unsigned int logical_block_size;
	unsigned int physical_block_size;
	ka_sector_t capacity;
	bool has_used_disk; /* which entered the system already, or failed to */
};

static struct request_adaptor *adaptor_of(struct request_queue *queue)
{
	return (struct request_adaptor *)queue;
}

static struct request_queue *contract_queue(struct request_adaptor *adaptor)
{
	return (struct request_queue *)adaptor;
}

static void run(struct request_adaptor *adaptor)
{
	if (!adaptor->stopped)
		adaptor->function(contract_queue(adaptor));
}

/*
 * Nothing that ends a request calls back into here: the block layer leaves it to its work queue to
 * run a queue again.
 */
static blk_status_t queue_request(struct blk_mq_hw_ctx *hctx, const struct blk_mq_queue_data *data)
{
	struct request_adaptor *adaptor = hctx->queue->queuedata;
	unsigned long flags;

	spin_lock_irqsave(adaptor->lock, flags);
	blk_mq_start_request(data->rq);
	list_add_tail(&data->rq->queuelist, &adaptor->waiting);
	run(adaptor);
	spin_unlock_irqrestore(adaptor->lock, flags);
	return BLK_STS_OK;
}

static const struct blk_mq_ops adaptor_ops = {.queue_rq = queue_request};

/* --- The queue ------------------------------------------------------------------------------- */

/*
 * A scheduler would bound the pending requests by what suits disks, far below what the driver is
 * ready for.
 */
static int alloc_tags(struct blk_mq_tag_set *tags, unsigned int depth)
{
	tags->ops = &adaptor_ops;
	tags->nr_hw_queues = 1;
	tags->queue_depth = depth;
	tags->numa_node = NUMA_NO_NODE;
	tags->flags = BLK_MQ_F_SHOULD_MERGE | BLK_MQ_F_NO_SCHED_BY_DEFAULT;
	return blk_mq_alloc_tag_set(tags);
}

struct request_queue *ka_blk_init_queue(ka_request_fn *function, struct ka_spinlock *lock,
					unsigned int depth, struct ka_disk_owner *owner)
{
	struct request_adaptor *adaptor = kzalloc(sizeof(*adaptor), GFP_KERNEL);

	if (!adaptor)
		return NULL;
	kref_init(&adaptor->references);
	adaptor->function = function;
	adaptor->owner = owner;
	spin_lock_init(&adaptor->own_lock);
	adaptor->lock = lock ? KA_OBJECT(spinlock_t, lock) : &adaptor->own_lock;
	INIT_LIST_HEAD(&adaptor->waiting);
	kernel_queue_block_size(contract_queue(adaptor), SECTOR_SIZE, SECTOR_SIZE);
	if (!alloc_tags(&adaptor->tags, depth))
		return contract_queue(adaptor);
	kfree(adaptor);
	return NULL;
}

static void release_adaptor(struct kref *references)
{
	struct request_adaptor *adaptor =
		container_of(references, struct request_adaptor, references);

	blk_mq_free_tag_set(&adaptor->tags);
	kfree(adaptor);
}

void ka_blk_cleanup_queue(struct request_queue *queue)
{
	kref_put(&adaptor_of(queue)->references, release_adaptor);
}

struct ka_disk_owner *ka_queue_owner(struct request_queue *queue)
{
	return adaptor_of(queue)->owner;
}

void kernel_queue_block_size(struct request_queue *queue, unsigned int logical,
			     unsigned int physical)
{
	adaptor_of(queue)->logical_block_size = logical;
	adaptor_of(queue)->physical_block_size = physical;
}

static void set_limits(struct request_adaptor *adaptor, struct request_queue *queue)
{
	blk_queue_logical_block_size(queue, adaptor->logical_block_size);
	blk_queue_physical_block_size(queue, adaptor->physical_block_size);
	blk_queue_virt_boundary(queue, PAGE_SIZE - 1);
	/* One page less: data that begins inside a page may end in one more. */
	blk_queue_max_hw_sectors(queue, (KA_BIO_MAX_PAGES - 1) * PAGE_SECTORS);
	blk_queue_max_segments(queue, KA_BIO_MAX_PAGES);
}

/* --- Requests -------------------------------------------------------------------------------- */

struct request *ka_blk_fetch_request(struct request_queue *queue)
{
	struct request_adaptor *adaptor = adaptor_of(queue);
	struct request *request =
		list_first_entry_or_null(&adaptor->waiting, struct request, queuelist);

	if (!request || adaptor->stopped)
		return NULL;
	list_del_init(&request->queuelist);
	return request;
}

void ka_blk_requeue_request(struct request_queue *queue, struct request *request)
{
	list_add(&request->queuelist, &adaptor_of(queue)->waiting);
}

void ka_blk_stop_queue(struct request_queue *queue)
{
	adaptor_of(queue)->stopped = true;
}

void ka_blk_start_queue(struct request_queue *queue)
{
	adaptor_of(queue)->stopped = false;
	run(adaptor_of(queue));
}

int ka_blk_end_request_cur(struct request *request, int error)
{
	blk_status_t status = errno_to_blk_status(error);

	if (blk_update_request(request, status, blk_rq_cur_bytes(request)))
		return 1;
	__blk_mq_end_request(request, status);
	return 0;
}

void ka_blk_end_request_all(struct request *request, int error)
{
	blk_mq_end_request(request, errno_to_blk_status(error));
}

int ka_request_is_fs(const struct request *request)
{
	return !blk_rq_is_passthrough((struct request *)request);
}

/* --- The disk -------------------------------------------------------------------------------- */

struct gendisk *ka_alloc_disk(int minors, struct request_queue *queue)
{
	static struct lock_class_key lock_class;
	struct request_adaptor *adaptor = adaptor_of(queue);
	struct gendisk *disk = __blk_mq_alloc_disk(&adaptor->tags, adaptor, &lock_class);

	if (IS_ERR(disk))
		return NULL;
	disk->minors = minors;
	adaptor->has_used_disk = false;
	kref_get(&adaptor->references);
	return disk;
}

/* A fresh disk in the place of a used one, which stays for those who still have it open. */
static struct gendisk *alloc_alike(struct request_adaptor *adaptor, struct gendisk *used)
{
	struct gendisk *disk = ka_alloc_disk(used->minors, contract_queue(adaptor));

	if (!disk)
		return NULL;
	set_disk_ro(disk, get_disk_ro(used));
	disk->major = used->major;
	disk->first_minor = used->first_minor;
	disk->flags = used->flags;
	disk->fops = used->fops;
	disk->private_data = used->private_data;
	strscpy(disk->disk_name, used->disk_name, sizeof(disk->disk_name));
	set_capacity(disk, adaptor->capacity);
	return disk;
}

int ka_add_disk(struct gendisk **disk)
{
	struct request_adaptor *adaptor = (*disk)->queue->queuedata;

	if (adaptor->has_used_disk) {
		struct gendisk *used = *disk;
		struct gendisk *fresh = alloc_alike(adaptor, used);

		if (!fresh)
			return -ENOMEM;
		*disk = fresh;
		ka_put_disk(used);
	}
	adaptor->capacity = get_capacity(*disk);
	adaptor->has_used_disk = true;
	set_limits(adaptor, (*disk)->queue);
	return add_disk(*disk);
}

void ka_del_gendisk(struct gendisk *disk)
{
	del_gendisk(disk);
}

void ka_put_disk(struct gendisk *disk)
{
	struct request_adaptor *adaptor = disk->queue->queuedata;

	put_disk(disk);
	kref_put(&adaptor->references, release_adaptor);
}
