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
#include <linux/static_call.h>
#include <linux/stop_machine.h>

#include <asm/ibt.h>

#include "../../block.h"
#include "../../module.h"
#include "../objects.h"
#include "../takeovers.h"
#include "bio.h"

/* A table that was or is installed. Somebody may point to it for as long as its disk_hooks live. */
struct installed_table {
	struct installed_table *older;
	const struct block_device_operations *found; /* what it was put over */
	struct block_device_operations fops;
	const struct ka_block_device_operations *slot; /* what the driver takes for the table */
};

struct disk_hooks {
	struct hlist_node node;
	struct gendisk *disk;
	/* What the disk had when it was first hooked: its driver's table, or somebody's before us.
	 */
	const struct block_device_operations *own;
	struct installed_table *installed; /* the newest, put over somebody's over the next older */
	struct installed_table *removed;   /* tables that were installed */
	/* Whom bios go to that came by take_bio: the table below the one that has it. */
	const struct block_device_operations *below;
	ka_make_request_fn *make_request; /* the driver's slot for the queue's function */
	/* References on the disk that are given back late. */
	atomic_t late_puts;
	struct work_struct put_late;
	struct rcu_head rcu;
};

static DEFINE_HASHTABLE(hooked_disks, 8);
static DEFINE_MUTEX(hooks_mutex); /* every change */
DEFINE_STATIC_SRCU(hooks_srcu);   /* every bio on its way through take_bio, and free_disk */
static struct workqueue_struct *late_puts;

/* Called directly: it need not be a valid target of indirect calls where the kernel checks these.
 */
typedef void submit_bio_fn(struct bio *bio);
DEFINE_STATIC_CALL_NULL(submit_to_blk_mq, submit_bio_fn);

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
static void put_late(struct work_struct *work)
{
	struct disk_hooks *hooks = container_of(work, struct disk_hooks, put_late);
	struct gendisk *disk = hooks->disk;
	int count = atomic_xchg(&hooks->late_puts, 0);

	synchronize_rcu_tasks();
	while (count--)
		put_device(disk_to_dev(disk)); /* the last frees the hooks */
}

/*
 * The block layer holds a reference on the queue while a table's submit_bio runs, and blk-mq takes
 * one of its own. Somebody who freezes the queue in between waits for the first and keeps the
 * second from being taken, so the first is given up for the time of the call. It does not keep
 * the disk then; a reference on the device does, until let_go_of_disk.
 */
static void submit_without_queue_reference(struct gendisk *disk, struct bio *bio)
{
	struct request_queue *queue = disk->queue;

	get_device(disk_to_dev(disk));
	percpu_ref_put(&queue->q_usage_counter);
	static_call(submit_to_blk_mq)(bio);
	percpu_ref_get(&queue->q_usage_counter);
}

/*
 * Before take_bio returns: the block layer is going to touch the queue once more. The reference on
 * the queue, which was taken again, keeps the disk till then only if the disk's removal still has
 * to wait for it. So it does if the disk is not marked dead yet, since the mark comes first.
 * Otherwise the reference on the device is given back later.
 */
static void let_go_of_disk(struct disk_hooks *hooks, struct gendisk *disk)
{
	smp_mb(); /* the reference before the look at the mark */
	/* Without hooks somebody who has the disk open waits for this bio, in retire. */
	if (!hooks || !test_bit(GD_DEAD, &disk->state))
		put_device(disk_to_dev(disk));
	else if (atomic_inc_return(&hooks->late_puts) == 1)
		queue_work(late_puts, &hooks->put_late);
}

/* Gives the bio to whom it would have gone without us. */
static void hand_on(struct ka_bio *taken)
{
	struct disk_hooks *hooks = taken->hooks;
	const struct block_device_operations *below =
		hooks ? READ_ONCE(hooks->below) : READ_ONCE(taken->disk->fops);

	taken->handed_on = true;
	if (below->submit_bio) {
		below->submit_bio(taken->bio);
	} else {
		taken->holds_disk = true;
		submit_without_queue_reference(taken->disk, taken->bio);
	}
}

/* What stands in the slot of a queue that nobody hooked. */
static int make_request_of_disk(struct request_queue *queue, struct ka_bio *bio)
{
	hand_on(bio);
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
 * The submit_bio of an installed table. A function that does not take the bio is one that does not
 * know the disk any more, as while it is being unloaded. The disk goes on working all the same.
 */
static void take_bio(struct bio *bio)
{
	struct gendisk *disk = bio->bi_bdev->bd_disk;
	int section = srcu_read_lock(&hooks_srcu);
	struct disk_hooks *hooks = find_hooks(disk);
	ka_make_request_fn *function = hooks ? READ_ONCE(hooks->make_request) : NULL;
	struct ka_bio taken = {
		.bio = bio,
		.disk = disk,
		.hooks = hooks,
		.sector = bio->bi_iter.bi_sector,
		.bytes = bio->bi_iter.bi_size,
		.is_write = op_is_write(bio_op(bio)),
	};

	if (function && function != make_request_of_disk) {
		if (bdev_is_zoned(bio->bi_bdev))
			widen_to_zones(&taken);
		function(disk->queue, &taken);
	}
	if (!taken.handed_on)
		hand_on(&taken);
	if (taken.holds_disk)
		let_go_of_disk(hooks, disk);
	srcu_read_unlock(&hooks_srcu, section);
}

/* --- Putting tables in and taking them out --------------------------------------------------- */

static void free_tables(struct installed_table *table)
{
	struct installed_table *older;

	for (; table; table = older) {
		older = table->older;
		kfree(table);
	}
}

static void free_hooks(struct rcu_head *rcu)
{
	struct disk_hooks *hooks = container_of(rcu, struct disk_hooks, rcu);

	free_tables(hooks->installed);
	free_tables(hooks->removed);
	kfree(hooks);
}

/*
 * The free_disk of an installed table: the disk is gone, and no bio comes any more. Whoever put the
 * last reference may hold what other disks' bios wait for, so nothing is waited for here. The read
 * section is for ka_exit: nobody may be in here when the module goes.
 */
static void free_disk(struct gendisk *disk)
{
	const struct block_device_operations *own = NULL;
	int section = srcu_read_lock(&hooks_srcu);
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
	srcu_read_unlock(&hooks_srcu, section);
}

/* Its memory stays: somebody may still point to it. */
static void forget_newest_table(struct disk_hooks *hooks)
{
	struct installed_table *table = hooks->installed;

	hooks->installed = table->older;
	table->older = hooks->removed;
	hooks->removed = table;
}

/* A table of the kernel's as the driver's slot holds it. */
static const struct ka_block_device_operations *in_slot(const struct block_device_operations *fops)
{
	return (const struct ka_block_device_operations *)fops;
}

/*
 * The hooks of a disk under hooks_mutex. A table of somebody else's that lay between two of ours
 * may have been taken out by putting the older one back: what was above is not installed any more.
 */
static struct disk_hooks *current_hooks(struct gendisk *disk)
{
	struct disk_hooks *hooks = find_hooks(disk);
	struct installed_table *table = hooks ? hooks->installed : NULL;

	while (table && READ_ONCE(disk->fops) != &table->fops)
		table = table->older;
	while (table && hooks->installed != table)
		forget_newest_table(hooks);
	return hooks;
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

/* Whether a table put over ours has take_bio to call, for it found it in one of ours. */
static bool is_asked_by_others(const struct disk_hooks *hooks)
{
	const struct installed_table *table;

	for (table = hooks->installed; table; table = table->older)
		if (table->fops.submit_bio == take_bio)
			return is_overlaid(hooks);
	return false;
}

/* Tables are copied whole, but only their ioctl entries are the driver's to replace. */
static void set_slot(struct installed_table *table, const struct ka_block_device_operations *to)
{
	const struct block_device_operations *fops = (const struct block_device_operations *)to;

	WRITE_ONCE(table->fops.ioctl, fops->ioctl);
	WRITE_ONCE(table->fops.compat_ioctl, fops->compat_ioctl);
	table->slot = to;
}

/* Puts a copy of the disk's present table over it. False when the table changed meanwhile. */
static bool install_table(struct disk_hooks *hooks)
{
	struct installed_table *table = kzalloc(sizeof(*table), GFP_NOIO | __GFP_NOFAIL);
	const struct block_device_operations *found = READ_ONCE(hooks->disk->fops);

	table->older = hooks->installed;
	table->found = found;
	table->slot = in_slot(found);
	table->fops = *found;
	table->fops.free_disk = free_disk;
	if (cmpxchg(&hooks->disk->fops, found, &table->fops) != found) {
		kfree(table);
		return false;
	}
	hooks->installed = table;
	return true;
}

static struct disk_hooks *hook_disk(struct gendisk *disk)
{
	struct disk_hooks *hooks = kzalloc(sizeof(*hooks), GFP_NOIO | __GFP_NOFAIL);

	hooks->disk = disk;
	hooks->make_request = make_request_of_disk;
	INIT_WORK(&hooks->put_late, put_late);
	while (!install_table(hooks))
		;
	hooks->own = hooks->installed->found;
	hooks->below = hooks->own;
	hash_add_rcu(hooked_disks, &hooks->node, (unsigned long)disk);
	return hooks;
}

/* Puts the table that was found back. -EBUSY when the disk does not have ours any more. */
static int exchange_table(struct disk_hooks *hooks)
{
	const struct installed_table *table = hooks->installed;

	return cmpxchg(&hooks->disk->fops, &table->fops, table->found) == &table->fops ? 0 : -EBUSY;
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

/* Gives the disk the table back that our newest lies on. -EBUSY when another lies on ours. */
static int remove_table(struct disk_hooks *hooks)
{
	struct installed_table *table = hooks->installed;
	int err;

	if (table->found->submit_bio || !table->fops.submit_bio)
		err = exchange_table(hooks);
	else
		while ((err = restore_table_without_submit(hooks)) == -EAGAIN)
			schedule_timeout_uninterruptible(1);
	if (err)
		return err;
	forget_newest_table(hooks);
	return 0;
}

/*
 * Lets go of the disk if the driver does not need it hooked any more. Returns what to retire once
 * hooks_mutex is free, or null. A table of somebody else's that lay between two of ours still
 * points to the older one, which stays until that table goes.
 */
static struct disk_hooks *release_if_unused(struct disk_hooks *hooks)
{
	if (hooks->make_request != make_request_of_disk || is_overlaid(hooks) ||
	    hooks->installed->slot != in_slot(hooks->installed->found) ||
	    remove_table(hooks) != 0 || hooks->installed)
		return NULL;
	hash_del_rcu(&hooks->node);
	return hooks;
}

/* Returns when whoever was in take_bio or free_disk, or about to enter them, has left. */
static void wait_for_readers(void)
{
	synchronize_rcu_tasks(); /* those on the way into the read section */
	synchronize_srcu(&hooks_srcu);
	synchronize_rcu_tasks(); /* those on the way out */
}

/* Frees what was released, when every bio that came by it is through. */
static void retire(struct disk_hooks *hooks)
{
	if (!hooks)
		return;
	wait_for_readers();
	flush_work(&hooks->put_late);
	free_hooks(&hooks->rcu);
}

/* --- The two slots --------------------------------------------------------------------------- */

static const struct ka_block_device_operations *fops_slot(struct gendisk *disk,
							  const struct disk_hooks *hooks)
{
	if (hooks && !is_overlaid(hooks))
		return hooks->installed->slot;
	return in_slot(READ_ONCE(disk->fops));
}

const struct ka_block_device_operations *ka_disk_fops(struct gendisk *disk)
{
	const struct ka_block_device_operations *fops;

	mutex_lock(&hooks_mutex);
	fops = fops_slot(disk, current_hooks(disk));
	mutex_unlock(&hooks_mutex);
	return fops;
}

const struct ka_block_device_operations *
ka_disk_cmpxchg_fops(struct gendisk *disk, const struct ka_block_device_operations *from,
		     const struct ka_block_device_operations *to)
{
	const struct ka_block_device_operations *current_fops;
	struct disk_hooks *released = NULL;
	struct disk_hooks *hooks;

	mutex_lock(&hooks_mutex);
	hooks = current_hooks(disk);
	current_fops = fops_slot(disk, hooks);
	if (current_fops == from) {
		if (!hooks)
			hooks = hook_disk(disk);
		set_slot(hooks->installed, to);
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
	function = make_request_slot(queue->disk, current_hooks(queue->disk));
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
	/* Another table of ours would call that of others, which calls ours. */
	if (is_asked_by_others(hooks))
		return hooks;
	while (is_overlaid(hooks) && !takes_bios(disk))
		install_table(hooks);
	if (!takes_bios(disk)) {
		/* Without the short cut for single pages these come as bios. */
		WRITE_ONCE(hooks->installed->fops.rw_page, NULL);
		WRITE_ONCE(hooks->below, hooks->installed->found);
		smp_store_release(&hooks->installed->fops.submit_bio, take_bio);
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
	hooks = current_hooks(disk);
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
	hooks = current_hooks(queue->disk);
	if (hooks)
		released = release_if_unused(hooks);
	mutex_unlock(&hooks_mutex);
	retire(released);
}

/* --- Load and unload ------------------------------------------------------------------------- */

/*
 * blk_mq_submit_bio is what a disk without submit_bio gets its bios by. It is not exported. A probe
 * knows its address; disabled, it leaves the function's code alone while others run it. It lies
 * behind the landing pad for indirect calls that a kernel with such pads puts first.
 */
static submit_bio_fn *start_of_function(const struct kprobe *probe)
{
	const void *pad = (const void *)probe->addr - ENDBR_INSN_SIZE;

	return is_endbr(*(const u32 *)pad) ? (submit_bio_fn *)pad : (submit_bio_fn *)probe->addr;
}

int ka_init(void)
{
	struct kprobe probe = {
		.symbol_name = "blk_mq_submit_bio",
		.flags = KPROBE_FLAG_DISABLED,
	};
	int err = register_kprobe(&probe);

	if (err) {
		pr_err("zorvat: cannot load: this kernel has no usable blk_mq_submit_bio (%d)\n",
		       err);
		return err;
	}
	unregister_kprobe(&probe);
	static_call_update(submit_to_blk_mq, start_of_function(&probe));
	late_puts = alloc_workqueue("zorvat-late-puts", 0, 0);
	if (!late_puts) {
		pr_err("zorvat: cannot load: out of memory\n");
		return -ENOMEM;
	}
	return 0;
}

/* The driver's functions are not called any more, by whatever table of ours. */
static void reset_slots(struct disk_hooks *hooks)
{
	struct installed_table *table;

	for (table = hooks->installed; table; table = table->older)
		set_slot(table, in_slot(table->found));
	WRITE_ONCE(hooks->make_request, make_request_of_disk);
}

/* Keeps the disk for a while; null if its last reference is gone, and free_disk about to run. */
static struct device *get_disk_device(struct gendisk *disk)
{
	struct device *device = disk_to_dev(disk);

	return kobject_get_unless_zero(&device->kobj) ? device : NULL;
}

/*
 * Unhooks a disk that could not be unhooked before: it still exists, but cannot be opened any more,
 * or had another table over ours. Under hooks_mutex the memory of a hooked disk is there, since
 * free_disk waits for the mutex; its queue may be gone. False if there is no such disk now.
 */
static bool abandon_one(void)
{
	struct disk_hooks *released = NULL;
	struct device *device = NULL;
	struct disk_hooks *hooks;
	int bucket;

	mutex_lock(&hooks_mutex);
	hash_for_each (hooked_disks, bucket, hooks, node) {
		current_hooks(hooks->disk);
		reset_slots(hooks);
		device = is_overlaid(hooks) ? NULL : get_disk_device(hooks->disk);
		if (device) {
			released = release_if_unused(hooks);
			break;
		}
	}
	mutex_unlock(&hooks_mutex);
	retire(released);
	put_device(device);
	return device;
}

static void announce_overlaid_disks(void)
{
	struct disk_hooks *hooks;
	int bucket;

	mutex_lock(&hooks_mutex);
	hash_for_each (hooked_disks, bucket, hooks, node)
		if (is_overlaid(hooks))
			pr_crit("zorvat: %s: somebody else's operations point to the driver: "
				"unloading waits until they are gone\n",
				hooks->disk->disk_name);
	mutex_unlock(&hooks_mutex);
}

/*
 * No table of ours may be on a disk, or below somebody else's table, when the module goes. Whoever
 * is in free_disk is waited for like those in take_bio.
 */
void ka_exit(void)
{
	while (abandon_one())
		;
	announce_overlaid_disks();
	while (!hash_empty(hooked_disks))
		if (!abandon_one())
			schedule_timeout_idle(HZ / 20);
	wait_for_readers();
	kernel_wait_for_takeovers();
	destroy_workqueue(late_puts);
	srcu_barrier(&hooks_srcu);
}
