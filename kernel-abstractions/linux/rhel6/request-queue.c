/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The queue of a disk of the driver's own, and the disk's coming and going.
 *
 * This kernel lets a disk go without a look at its requests, and those who have it open may go on
 * asking. So the queue has a gate before the driver's request function: closed when the disk goes,
 * it answers with errors in the driver's place, and the way out waits for what the driver fetched.
 */
#include <linux/blkdev.h>
#include <linux/genhd.h>
#include <linux/mutex.h>
#include <linux/slab.h>
#include <linux/wait.h>

#include "../../block.h"
#include "../objects.h"
#include "this-kernel.h"

/* What the queue's queuedata points at. The queue's lock guards the middle part. */
struct queue_gate {
	struct ka_disk_owner *owner;
	ka_request_fn *function;

	bool is_closed;
	unsigned int fetched; /* requests that the driver has */
	wait_queue_head_t none_fetched;

	sector_t capacity; /* of the disk, which forgets it when it goes */
};

static struct queue_gate *gate_of(struct request_queue *queue)
{
	return queue->queuedata;
}

static void run_gate(struct request_queue *queue)
{
	struct request *request;

	if (!gate_of(queue)->is_closed) {
		gate_of(queue)->function(queue);
		return;
	}
	while ((request = blk_fetch_request(queue)))
		__blk_end_request_all(request, -EIO);
}

/* --- The queue ------------------------------------------------------------------------------- */

/*
 * Only whole pages have something added to them. A bio that begins inside a page is one segment
 * long then, and the next one goes on with whole pages.
 */
static int mergeable_bytes(struct request_queue *queue, struct bvec_merge_data *bio,
			   struct bio_vec *segment)
{
	if (bio->bi_size && (bio->bi_size % PAGE_SIZE || segment->bv_offset))
		return 0;
	return segment->bv_len;
}

struct request_queue *ka_blk_init_queue(ka_request_fn *function, struct ka_spinlock *lock,
					unsigned int depth, struct ka_disk_owner *owner)
{
	struct queue_gate *gate = kzalloc(sizeof(*gate), GFP_KERNEL);
	struct request_queue *queue;

	if (!gate)
		return NULL;
	gate->function = function;
	gate->owner = owner;
	init_waitqueue_head(&gate->none_fetched);
	queue = blk_init_queue(run_gate, lock ? KA_OBJECT(spinlock_t, lock) : NULL);
	if (!queue) {
		kfree(gate);
		return NULL;
	}
	queue->queuedata = gate;
	if (queue->nr_requests > depth)
		queue->nr_requests = depth;
	blk_queue_merge_bvec(queue, mergeable_bytes);
	blk_queue_max_hw_sectors(queue, (KA_BIO_MAX_PAGES - 1) * (PAGE_SIZE / 512));
	return queue;
}

void ka_blk_cleanup_queue(struct request_queue *queue)
{
	struct queue_gate *gate = gate_of(queue);

	blk_cleanup_queue(queue);
	kfree(gate);
}

struct ka_disk_owner *ka_queue_owner(struct request_queue *queue)
{
	return gate_of(queue)->owner;
}

/* --- Requests -------------------------------------------------------------------------------- */

struct request *ka_blk_fetch_request(struct request_queue *queue)
{
	struct request *request = blk_queue_stopped(queue) ? NULL : blk_fetch_request(queue);

	if (request)
		gate_of(queue)->fetched++;
	return request;
}

static void count_out(struct request_queue *queue)
{
	if (--gate_of(queue)->fetched == 0)
		wake_up(&gate_of(queue)->none_fetched);
}

void ka_blk_requeue_request(struct request_queue *queue, struct request *request)
{
	blk_requeue_request(queue, request);
	count_out(queue);
}

void ka_blk_stop_queue(struct request_queue *queue)
{
	blk_stop_queue(queue);
}

void ka_blk_start_queue(struct request_queue *queue)
{
	blk_start_queue(queue);
}

int ka_blk_end_request_cur(struct request *request, int error)
{
	struct request_queue *queue = request->q;

	if (__blk_end_request_cur(request, error))
		return 1;
	count_out(queue);
	return 0;
}

void ka_blk_end_request_all(struct request *request, int error)
{
	struct request_queue *queue = request->q;

	__blk_end_request_all(request, error);
	count_out(queue);
}

int ka_request_is_fs(const struct request *request)
{
	return request->cmd_type == REQ_TYPE_FS;
}

/* --- The disk -------------------------------------------------------------------------------- */

/* Held while the driver is told of an open: its record stays until it has taken a reference. */
static DEFINE_MUTEX(opens_mutex);

int kernel_disk_open_begins(struct gendisk *disk)
{
	mutex_lock(&opens_mutex);
	if (disk->flags & GENHD_FL_UP)
		return 0;
	mutex_unlock(&opens_mutex);
	return -ENXIO;
}

void kernel_disk_open_ends(void)
{
	mutex_unlock(&opens_mutex);
}

static void wait_for_opens(void)
{
	mutex_lock(&opens_mutex);
	mutex_unlock(&opens_mutex);
}

struct gendisk *ka_alloc_disk(int minors, struct request_queue *queue)
{
	struct gendisk *disk = alloc_disk(minors);

	if (disk)
		disk->queue = queue;
	return disk;
}

/* Whether it was in the system, now or before. */
static bool was_added(struct gendisk *disk)
{
	return disk_devt(disk) != 0;
}

/* Every entry takes a reference on the queue, of which the disk's end drops a single one. */
int ka_add_disk(struct gendisk **disk)
{
	struct request_queue *queue = (*disk)->queue;
	struct queue_gate *gate = gate_of(queue);
	bool again = was_added(*disk);

	if (again)
		set_capacity(*disk, gate->capacity);
	else
		gate->capacity = get_capacity(*disk);
	spin_lock_irq(queue->queue_lock);
	gate->is_closed = false;
	spin_unlock_irq(queue->queue_lock);
	add_disk(*disk);
	if (again)
		blk_put_queue(queue);
	return 0;
}

static bool has_fetched(struct request_queue *queue)
{
	bool result;

	spin_lock_irq(queue->queue_lock);
	result = gate_of(queue)->fetched != 0;
	spin_unlock_irq(queue->queue_lock);
	return result;
}

void ka_del_gendisk(struct gendisk *disk)
{
	struct request_queue *queue = disk->queue;

	del_gendisk(disk);
	wait_for_opens();
	spin_lock_irq(queue->queue_lock);
	gate_of(queue)->is_closed = true;
	blk_start_queue(queue);
	spin_unlock_irq(queue->queue_lock);
	wait_event(gate_of(queue)->none_fetched, !has_fetched(queue));
}

/* A disk that never entered the system has no reference on its queue to drop. */
void ka_put_disk(struct gendisk *disk)
{
	if (!was_added(disk))
		disk->queue = NULL;
	put_disk(disk);
}
