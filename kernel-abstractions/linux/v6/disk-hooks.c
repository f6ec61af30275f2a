/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A queue's make-request function and a disk's operations table, which are one on this kernel: the
 * table carries the ioctl entries and the function that takes bios. A disk that the driver hooks
 * gets a copy of its table. Behind it the driver's two slots stay independent of each other, as
 * they were when the kernel had a pointer for each.
 *
 * When both slots hold what was found, the disk gets its own table back. A slot that is restored
 * alone leaves the copy in place, which then passes everything on.
 */
#include <linux/blk-mq.h>
#include <linux/hashtable.h>
#include <linux/kprobes.h>
#include <linux/module.h>
#include <linux/preempt.h>
#include <linux/slab.h>
#include <linux/srcu.h>
#include <linux/stop_machine.h>

#include "../../block.h"
#include "../../module.h"
#include "../objects.h"
#include "bio.h"

/* A table that was or is installed. Somebody may point to it for as long as its disk_hooks live. */
struct installed_table {
	struct installed_table *older;
	struct block_device_operations fops;
};

struct disk_hooks {
	struct hlist_node node;
	struct gendisk *disk;
	/* What the disk had: the tables are the driver's own, or of somebody who came before us. */
	const struct block_device_operations *own;   /* when it was first hooked */
	const struct block_device_operations *found; /* when `installed` was put over it */
	struct installed_table *installed;
	/* The driver's slots. */
	const struct ka_block_device_operations *fops;
	ka_make_request_fn *make_request;
	struct work_struct last_put;
	struct rcu_head rcu;
};

static DEFINE_HASHTABLE(hooked_disks, 8);
static DEFINE_MUTEX(hooks_mutex); /* every change */
DEFINE_STATIC_SRCU(hooks_srcu);   /* every bio on its way through take_bio */
static struct workqueue_struct *last_puts;
static void (*submit_to_blk_mq)(struct bio *bio);

static struct disk_hooks *find_hooks(struct gendisk *disk)
{
	struct disk_hooks *hooks;

	hash_for_each_possible_rcu (hooked_disks, hooks, node, (unsigned long)disk,
				    srcu_read_lock_held(&hooks_srcu) ||
					    lockdep_is_held(&hooks_mutex))
		if (hooks->disk == disk)
			return hooks;
	return NULL;
}

/* --- The way of a bio ------------------------------------------------------------------------ */

/* Runs when every task that saw the disk before has left the block layer. */
static void put_last_reference(struct work_struct *work)
{
	struct gendisk *disk = container_of(work, struct disk_hooks, last_put)->disk;

	synchronize_rcu_tasks();
	put_device(disk_to_dev(disk));
}

/*
 * The block layer holds a reference on the queue while a table's submit_bio runs, and blk-mq takes
 * one of its own. Somebody who freezes the queue in between waits for the first and keeps the
 * second from being taken, so the first is given up for the time of the call. It does not keep
 * the disk then; a reference on the device does, and it must not be the last one that goes here:
 * the block layer is going to touch the queue once more.
 */
static void submit_without_queue_reference(struct disk_hooks *hooks, struct gendisk *disk,
					   struct bio *bio)
{
	struct device *device = get_device(disk_to_dev(disk));
	struct request_queue *queue = disk->queue;

	percpu_ref_put(&queue->q_usage_counter);
	submit_to_blk_mq(bio);
	percpu_ref_get(&queue->q_usage_counter);
	if (!hooks)
		put_device(device);
	else if (!refcount_dec_not_one(&device->kobj.kref.refcount))
		queue_work(last_puts, &hooks->last_put);
}

/* Gives the bio to whom it would have gone without us. */
static void hand_on(struct disk_hooks *hooks, struct gendisk *disk, struct bio *bio)
{
	const struct block_device_operations *below =
		hooks ? READ_ONCE(hooks->found) : READ_ONCE(disk->fops);

	if (below->submit_bio)
		below->submit_bio(bio);
	else
		submit_without_queue_reference(hooks, disk, bio);
}

/* What stands in the slot of a queue that nobody hooked. */
static int make_request_of_disk(struct request_queue *queue, struct ka_bio *bio)
{
	bio->handed_on = true;
	hand_on(bio->hooks, bio->disk, bio->bio);
	return 0;
}

/*
 * Operations on zones have no length, or one that does not say where the data lands: the whole
 * zone counts.
 */
static void widen_to_zones(struct ka_bio *bio)
{
	const sector_t capacity = get_capacity(bio->disk);
	const sector_t zone = bio->disk->queue->limits.chunk_sectors;

	switch (bio_op(bio->bio)) {
	case REQ_OP_ZONE_RESET_ALL:
		bio->sector = 0;
		bio->bytes = capacity << SECTOR_SHIFT;
		break;
	case REQ_OP_ZONE_APPEND:
	case REQ_OP_ZONE_OPEN:
	case REQ_OP_ZONE_CLOSE:
	case REQ_OP_ZONE_FINISH:
	case REQ_OP_ZONE_RESET:
		if (zone) {
			bio->sector = round_down(bio->sector, zone);
			bio->bytes = min(zone, capacity - bio->sector) << SECTOR_SHIFT;
		}
		break;
	default:
		break;
	}
}

/*
 * A function that does not take the bio is one that does not know the disk any more, as while it
 * is being unloaded. The disk goes on working all the same.
 */
static void make_request(struct disk_hooks *hooks, ka_make_request_fn *function,
			 struct gendisk *disk, struct bio *bio)
{
	struct ka_bio taken = {
		.bio = bio,
		.disk = disk,
		.hooks = hooks,
		.sector = bio->bi_iter.bi_sector,
		.bytes = bio->bi_iter.bi_size,
		.is_write = op_is_write(bio_op(bio)),
	};

	if (bdev_is_zoned(bio->bi_bdev))
		widen_to_zones(&taken);
	function(disk->queue, &taken);
	if (!taken.handed_on)
		hand_on(hooks, disk, bio);
}

/* The submit_bio of an installed table. */
static void take_bio(struct bio *bio)
{
	struct gendisk *disk = bio->bi_bdev->bd_disk;
	int section = srcu_read_lock(&hooks_srcu);
	struct disk_hooks *hooks = find_hooks(disk);
	ka_make_request_fn *function = hooks ? READ_ONCE(hooks->make_request) : NULL;

	if (function && function != make_request_of_disk)
		make_request(hooks, function, disk, bio);
	else
		hand_on(hooks, disk, bio);
	srcu_read_unlock(&hooks_srcu, section);
}

/* --- Putting tables in and taking them out --------------------------------------------------- */

static void free_hooks(struct rcu_head *rcu)
{
	struct disk_hooks *hooks = container_of(rcu, struct disk_hooks, rcu);

	while (hooks->installed) {
		struct installed_table *table = hooks->installed;

		hooks->installed = table->older;
		kfree(table);
	}
	kfree(hooks);
}

/*
 * The free_disk of an installed table: the disk is gone, and no bio comes any more. Whoever put the
 * last reference may hold what other disks' bios wait for, so nothing is waited for here.
 */
static void free_disk(struct gendisk *disk)
{
	const struct block_device_operations *own = NULL;
	struct disk_hooks *hooks;

	mutex_lock(&hooks_mutex);
	hooks = find_hooks(disk);
	if (hooks) {
		own = hooks->own;
		hash_del_rcu(&hooks->node);
		call_srcu(&hooks_srcu, &hooks->rcu, free_hooks);
	}
	mutex_unlock(&hooks_mutex);
	if (own && own->free_disk)
		own->free_disk(disk);
}

/* A table of the kernel's as the driver's slot holds it. */
static const struct ka_block_device_operations *in_slot(const struct block_device_operations *fops)
{
	return (const struct ka_block_device_operations *)fops;
}

static bool is_overlaid(const struct disk_hooks *hooks)
{
	return READ_ONCE(hooks->disk->fops) != &hooks->installed->fops;
}

/* Whether bios of the disk come to take_bio, if only through a table that copied ours. */
static bool takes_bios(const struct gendisk *disk)
{
	return READ_ONCE(disk->fops)->submit_bio == take_bio;
}

/* Puts a copy of the disk's present table over it. False when the table changed meanwhile. */
static bool install_table(struct disk_hooks *hooks)
{
	struct installed_table *table = kzalloc(sizeof(*table), GFP_NOIO | __GFP_NOFAIL);
	const struct block_device_operations *found = READ_ONCE(hooks->disk->fops);

	table->older = hooks->installed;
	table->fops = *found;
	table->fops.free_disk = free_disk;
	hooks->found = found;
	if (cmpxchg(&hooks->disk->fops, found, &table->fops) != found) {
		kfree(table);
		return false;
	}
	hooks->installed = table;
	hooks->fops = in_slot(found);
	return true;
}

static struct disk_hooks *hook_disk(struct gendisk *disk)
{
	struct disk_hooks *hooks = kzalloc(sizeof(*hooks), GFP_NOIO | __GFP_NOFAIL);

	hooks->disk = disk;
	hooks->make_request = make_request_of_disk;
	INIT_WORK(&hooks->last_put, put_last_reference);
	while (!install_table(hooks))
		;
	hooks->own = hooks->found;
	hash_add_rcu(hooked_disks, &hooks->node, (unsigned long)disk);
	return hooks;
}

/* Puts the table that was found back. -EBUSY when the disk does not have ours any more. */
static int exchange_table(struct disk_hooks *hooks)
{
	const struct block_device_operations *ours = &hooks->installed->fops;

	return cmpxchg(&hooks->disk->fops, ours, hooks->found) == ours ? 0 : -EBUSY;
}

static int restore_table(void *data)
{
	struct disk_hooks *hooks = data;
	struct gendisk *disk = hooks->disk;

	if (!test_bit(GD_DEAD, &disk->state) &&
	    (waitqueue_active(&disk->queue->mq_freeze_wq) || blk_queue_pm_only(disk->queue)))
		return -EAGAIN;
	return exchange_table(hooks);
}

/*
 * The block layer looks at a table's submit_bio twice: to see whether there is one, and, once it
 * has entered the queue, to call it. Between the two looks the disk must not get a table without
 * one. A task is there for a few instructions only, unless the queue is frozen: then it sleeps
 * there. So: no freeze may begin; those who slept there before must have moved on; and no other
 * processor runs while the pointer is written.
 */
static int restore_table_without_submit(struct disk_hooks *hooks)
{
	struct request_queue *queue = hooks->disk->queue;
	int err = -EAGAIN;

	mutex_lock(&queue->mq_freeze_lock);
	if (test_bit(GD_DEAD, &hooks->disk->state) ||
	    (!queue->mq_freeze_depth && !blk_queue_pm_only(queue))) {
		synchronize_rcu_tasks();
		err = stop_machine(restore_table, hooks, NULL);
	}
	mutex_unlock(&queue->mq_freeze_lock);
	return err;
}

/* Gives the disk the table back that ours lies on. -EBUSY when another lies on ours. */
static int remove_table(struct disk_hooks *hooks)
{
	int err;

	if (hooks->found->submit_bio || !hooks->installed->fops.submit_bio)
		return exchange_table(hooks);
	while ((err = restore_table_without_submit(hooks)) == -EAGAIN)
		schedule_timeout_uninterruptible(1);
	return err;
}

/*
 * Lets go of the disk if the driver does not need it hooked any more. Returns what to retire once
 * hooks_mutex is free, or null.
 */
static struct disk_hooks *release_if_unused(struct disk_hooks *hooks)
{
	if (hooks->make_request != make_request_of_disk || is_overlaid(hooks) ||
	    hooks->fops != in_slot(hooks->found) || remove_table(hooks) != 0)
		return NULL;
	hash_del_rcu(&hooks->node);
	return hooks;
}

/* Frees what was released, when every bio that came by it is through. */
static void retire(struct disk_hooks *hooks)
{
	if (!hooks)
		return;
	synchronize_rcu_tasks(); /* those on the way into the read section of take_bio */
	synchronize_srcu(&hooks_srcu);
	synchronize_rcu_tasks(); /* those on the way out */
	flush_work(&hooks->last_put);
	free_hooks(&hooks->rcu);
}

/* --- The two slots --------------------------------------------------------------------------- */

static const struct ka_block_device_operations *fops_slot(struct gendisk *disk,
							  const struct disk_hooks *hooks)
{
	if (hooks && !is_overlaid(hooks))
		return hooks->fops;
	return in_slot(READ_ONCE(disk->fops));
}

const struct ka_block_device_operations *ka_disk_fops(struct gendisk *disk)
{
	const struct ka_block_device_operations *fops;

	mutex_lock(&hooks_mutex);
	fops = fops_slot(disk, find_hooks(disk));
	mutex_unlock(&hooks_mutex);
	return fops;
}

/* Tables are copied whole, but only their ioctl entries are the driver's to replace. */
static void set_ioctl_entries(struct disk_hooks *hooks, const struct block_device_operations *from)
{
	WRITE_ONCE(hooks->installed->fops.ioctl, from->ioctl);
	WRITE_ONCE(hooks->installed->fops.compat_ioctl, from->compat_ioctl);
}

const struct ka_block_device_operations *
ka_disk_cmpxchg_fops(struct gendisk *disk, const struct ka_block_device_operations *from,
		     const struct ka_block_device_operations *to)
{
	const struct ka_block_device_operations *current_fops;
	struct disk_hooks *released = NULL;
	struct disk_hooks *hooks;

	mutex_lock(&hooks_mutex);
	hooks = find_hooks(disk);
	current_fops = fops_slot(disk, hooks);
	if (current_fops == from) {
		if (!hooks)
			hooks = hook_disk(disk);
		set_ioctl_entries(hooks, (const struct block_device_operations *)to);
		hooks->fops = to;
		released = release_if_unused(hooks);
	}
	mutex_unlock(&hooks_mutex);
	retire(released);
	return current_fops;
}

static ka_make_request_fn *make_request_slot(struct gendisk *disk, const struct disk_hooks *hooks)
{
	return hooks && takes_bios(disk) ? hooks->make_request : make_request_of_disk;
}

ka_make_request_fn *ka_queue_make_request(struct request_queue *queue)
{
	ka_make_request_fn *function;

	mutex_lock(&hooks_mutex);
	function = make_request_slot(queue->disk, find_hooks(queue->disk));
	mutex_unlock(&hooks_mutex);
	return function;
}

/*
 * With full preemption a task may be preempted between the block layer's two looks at submit_bio
 * for any time, and no table may be taken out: the module stays.
 */
static void stay_if_preemptible(void)
{
	static bool stays;

	if (!preempt_model_full() || stays)
		return;
	stays = true;
	__module_get(THIS_MODULE);
	pr_warn("zorvat: cannot be unloaded any more: this kernel runs with full preemption\n");
}

/* Makes bios of the disk come to take_bio. */
static struct disk_hooks *begin_to_take_bios(struct gendisk *disk, struct disk_hooks *hooks)
{
	if (!hooks)
		hooks = hook_disk(disk);
	while (is_overlaid(hooks) && !takes_bios(disk))
		install_table(hooks);
	if (!takes_bios(disk)) {
		/* Without the short cut for single pages these come as bios. */
		WRITE_ONCE(hooks->installed->fops.rw_page, NULL);
		WRITE_ONCE(hooks->installed->fops.submit_bio, take_bio);
		stay_if_preemptible();
	}
	return hooks;
}

ka_make_request_fn *ka_queue_cmpxchg_make_request(struct request_queue *queue,
						  ka_make_request_fn *from, ka_make_request_fn *to)
{
	struct gendisk *disk = queue->disk;
	ka_make_request_fn *function;
	struct disk_hooks *hooks;

	mutex_lock(&hooks_mutex);
	hooks = find_hooks(disk);
	function = make_request_slot(disk, hooks);
	if (function == from && function != to) {
		hooks = begin_to_take_bios(disk, hooks);
		WRITE_ONCE(hooks->make_request, to);
	}
	mutex_unlock(&hooks_mutex);
	return function;
}

void ka_queue_set_make_request(struct request_queue *queue, ka_make_request_fn *function)
{
	struct disk_hooks *hooks;

	mutex_lock(&hooks_mutex);
	hooks = find_hooks(queue->disk);
	if (hooks)
		WRITE_ONCE(hooks->make_request, function);
	mutex_unlock(&hooks_mutex);
}

void ka_queue_drain_make_request(struct request_queue *queue)
{
	struct disk_hooks *released = NULL;
	struct disk_hooks *hooks;

	synchronize_srcu(&hooks_srcu);
	mutex_lock(&hooks_mutex);
	hooks = find_hooks(queue->disk);
	if (hooks)
		released = release_if_unused(hooks);
	mutex_unlock(&hooks_mutex);
	retire(released);
}

/* --- Load and unload ------------------------------------------------------------------------- */

/* blk_mq_submit_bio is what a disk without submit_bio gets its bios by. It is not exported. */
int ka_init(void)
{
	struct kprobe probe = {.symbol_name = "blk_mq_submit_bio"};
	int err = register_kprobe(&probe);

	if (err) {
		pr_err("zorvat: cannot load: this kernel has no usable blk_mq_submit_bio (%d)\n",
		       err);
		return err;
	}
	submit_to_blk_mq = (void *)probe.addr;
	unregister_kprobe(&probe);
	last_puts = alloc_workqueue("zorvat-last-puts", 0, 0);
	if (!last_puts) {
		pr_err("zorvat: cannot load: out of memory\n");
		return -ENOMEM;
	}
	return 0;
}

/* A disk that could not be unhooked because it cannot be opened, but still exists. */
static struct disk_hooks *abandon_one(void)
{
	struct disk_hooks *hooks;
	int bucket;

	hash_for_each (hooked_disks, bucket, hooks, node) {
		if (is_overlaid(hooks))
			continue;
		set_ioctl_entries(hooks, hooks->found);
		hooks->fops = in_slot(hooks->found);
		WRITE_ONCE(hooks->make_request, make_request_of_disk);
		if (release_if_unused(hooks))
			return hooks;
	}
	return NULL;
}

void ka_exit(void)
{
	struct disk_hooks *hooks;
	int bucket;

	do {
		mutex_lock(&hooks_mutex);
		hooks = abandon_one();
		mutex_unlock(&hooks_mutex);
		retire(hooks);
	} while (hooks);
	hash_for_each (hooked_disks, bucket, hooks, node)
		pr_crit("zorvat: %s: operations replaced by somebody else point here\n",
			hooks->disk->disk_name);
	destroy_workqueue(last_puts);
	srcu_barrier(&hooks_srcu);
}
