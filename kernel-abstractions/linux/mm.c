/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Mappings of a process that are taken over to show pages in them.
 *
 * What the kernel needs of a taken mapping, above all its operations, is in a `takeover` and not in
 * the record of the driver. Every mapping with those operations, the one that was taken or one that
 * the process split off or moved, holds a reference on the takeover, and the record holds one. So a
 * process that ends while the record is given up, which nobody can wait for, finds all it needs.
 *
 * A takeover's mappings change only under the lock of the address space, or in its end, when nobody
 * can enter it any more.
 */
#include "../mm.h"
#include "../block.h"

#include <linux/file.h>
#include <linux/fs.h>
#include <linux/mm.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/wait.h>
#include <linux/workqueue.h>

#include "objects.h"
#include "takeovers.h"
#include "this-kernel.h"

/*
 * What a mapping must not be, since a page that is shown in it could not be told from its own: none
 * of these has plain memory that goes when it is zapped.
 */
#define UNFIT_FLAGS (VM_SPECIAL | VM_MIXEDMAP | VM_HUGETLB | KERNEL_VM_UNFIT)
/*
 * For raw pages; not inherited, not grown, and with VM_IO these cannot be undone with madvise. The
 * kernel adds the last when it maps a page.
 */
#define TAKEN_FLAGS (VM_PFNMAP | VM_IO | VM_DONTCOPY | VM_DONTEXPAND)
#define SHOWN_FLAGS (TAKEN_FLAGS | KERNEL_VM_SHOWN)

/* In ticks. Whoever does not wait for the disk itself unlocks an address space far sooner. */
#define LOCK_PATIENCE (10 * HZ)

struct takeover {
	atomic_t references;
	struct task_struct *process;
	struct mm_struct *mm;       /* pinned, not in use */
	struct vm_area_struct *vma; /* what was taken; null when that is gone */
	unsigned long flags;        /* its flags and operations before */
	const struct vm_operations_struct *before;
	struct vm_operations_struct operations;
	struct file *file; /* behind it, and which part of that it is */
	loff_t file_begin, file_length;
	atomic_t changes; /* mappings that came or went */

	unsigned long shown_from; /* where pages are shown; 0: nowhere */
	unsigned long *shown;     /* their frame numbers, KA_BIO_MAX_PAGES at most */
	size_t shown_pages;
	bool keeps_locked; /* the process, its address space, last time */
	int shown_changes; /* the changes until then */

	spinlock_t lock;            /* guards the next three */
	struct ka_mapping *mapping; /* of the record; null when that has let go */
	void (*closed)(struct ka_mapping *mapping, unsigned long start);
	bool stays_private; /* its private data, so that it cannot be taken again */

	struct work_struct settlement;
};

static atomic_t takeovers = ATOMIC_INIT(0);
static DECLARE_WAIT_QUEUE_HEAD(takeover_gone);

static struct takeover *takeover_in(const struct ka_mapping *mapping)
{
	return KA_OBJECT(const struct ka_kernel_mapping, mapping)->takeover;
}

static void put_takeover(struct takeover *takeover)
{
	if (!atomic_dec_and_test(&takeover->references))
		return;
	if (takeover->file)
		fput(takeover->file);
	mmdrop(takeover->mm);
	put_task_struct(takeover->process);
	kfree(takeover->shown);
	kfree(takeover);
	rcu_read_lock_sched();
	if (atomic_dec_and_test(&takeovers))
		wake_up(&takeover_gone);
	rcu_read_unlock_sched();
}

void kernel_wait_for_takeovers(void)
{
	wait_event(takeover_gone, !atomic_read(&takeovers));
	kernel_synchronize_sched();
}

/* --- The operations of a taken mapping ------------------------------------------------------- */

static void close_taken(struct vm_area_struct *vma);

/* The takeover that a mapping belongs to; null for others. */
static struct takeover *takeover_of(const struct vm_area_struct *vma)
{
	if (!vma->vm_ops || vma->vm_ops->close != close_taken)
		return NULL;
	return container_of(vma->vm_ops, struct takeover, operations);
}

static void count_in(struct takeover *takeover)
{
	atomic_inc(&takeover->references);
	atomic_inc(&takeover->changes);
}

/* Gives the mapping its operations back; it belongs to no takeover afterwards. */
static void count_out(struct takeover *takeover, struct vm_area_struct *vma)
{
	vma->vm_ops = takeover->before;
	if (takeover->vma == vma)
		takeover->vma = NULL;
	atomic_inc(&takeover->changes);
	put_takeover(takeover);
}

static void open_taken(struct vm_area_struct *vma)
{
	struct takeover *takeover = takeover_of(vma);

	count_in(takeover);
	if (takeover->before && takeover->before->open)
		takeover->before->open(vma);
}

/* In the end of the process this runs beside anything that the record does. */
static void close_taken(struct vm_area_struct *vma)
{
	struct takeover *takeover = takeover_of(vma);

	vma->vm_private_data = NULL;
	spin_lock(&takeover->lock);
	if (takeover->mapping && takeover->closed)
		takeover->closed(takeover->mapping, vma->vm_start);
	spin_unlock(&takeover->lock);
	vma->vm_ops = takeover->before;
	if (vma->vm_ops && vma->vm_ops->close)
		vma->vm_ops->close(vma);
	count_out(takeover, vma); /* the last thing, since the module may go then */
}

/* --- Into the address space and out of it ---------------------------------------------------- */

/* The address space's lock is held for writing. */
static struct vm_area_struct *next_mapping(struct takeover *takeover, struct vm_area_struct *vma)
{
	do {
		vma = find_vma(takeover->mm, vma ? vma->vm_end : 0);
	} while (vma && takeover_of(vma) != takeover);
	return vma;
}

/* Makes all of a takeover's mappings what they were. The address space's lock is held likewise. */
static void restore_mappings(struct takeover *takeover)
{
	struct vm_area_struct *vma = NULL;

	atomic_inc(&takeover->references);
	while ((vma = next_mapping(takeover, vma))) {
		kernel_zap_vma_ptes(vma, vma->vm_start, vma->vm_end - vma->vm_start);
		vma->vm_flags &= ~SHOWN_FLAGS | takeover->flags;
		vma->vm_private_data = takeover->stays_private ? &takeovers : NULL;
		count_out(takeover, vma);
	}
	put_takeover(takeover);
}

/*
 * What cannot be done where the record lets go of the mapping or of the address space: waiting for
 * its lock, which that task may hold itself (it closes a file of the disk in the middle of munmap),
 * and being its last user (the end of a process waits for reads of this disk if it has files of
 * the disk mapped, and the thread that serves them must not wait for that).
 */
static void settle(struct work_struct *settlement)
{
	struct takeover *takeover = container_of(settlement, struct takeover, settlement);
	struct mm_struct *mm = takeover->mm;

	kernel_mmap_write_lock(mm);
	if (!takeover->mapping)
		restore_mappings(takeover);
	kernel_mmap_write_unlock(mm);
	mmput(mm);
	put_takeover(takeover);
}

/* Hands one use of the address space to the settlement; false: that is on its way already. */
static bool settle_later(struct takeover *takeover)
{
	atomic_inc(&takeover->references);
	if (schedule_work(&takeover->settlement))
		return true;
	put_takeover(takeover);
	return false;
}

/* Ends the use. As long as a settlement is on its way, there is that user too. */
static void stop_using(struct takeover *takeover)
{
	while (!atomic_add_unless(&takeover->mm->mm_users, -1, 1))
		if (settle_later(takeover))
			return;
}

/* Locks the address space for writing; false when the process is gone or keeps it locked. */
static bool enter(struct takeover *takeover)
{
	if (!takeover || !kernel_mmget_not_zero(takeover->mm))
		return false;
	takeover->keeps_locked = !kernel_mmap_write_lock_in_time(
		takeover->mm, takeover->keeps_locked ? 1 : LOCK_PATIENCE);
	if (!takeover->keeps_locked)
		return true;
	stop_using(takeover);
	return false;
}

static void leave(struct takeover *takeover)
{
	kernel_mmap_write_unlock(takeover->mm);
	stop_using(takeover);
}

/* --- Taking and giving back ------------------------------------------------------------------ */

static struct takeover *alloc_takeover(struct ka_mapping *mapping,
				       void (*closed)(struct ka_mapping *mapping,
						      unsigned long start))
{
	struct takeover *takeover = kzalloc(sizeof(*takeover), GFP_KERNEL);

	if (!takeover)
		return NULL;
	takeover->shown = kcalloc(KA_BIO_MAX_PAGES, sizeof(*takeover->shown), GFP_KERNEL);
	if (!takeover->shown) {
		kfree(takeover);
		return NULL;
	}
	atomic_set(&takeover->references, 1); /* the record's */
	takeover->process = current->group_leader;
	get_task_struct(takeover->process);
	takeover->mm = current->mm;
	kernel_mmgrab(takeover->mm);
	spin_lock_init(&takeover->lock);
	takeover->mapping = mapping;
	takeover->closed = closed;
	INIT_WORK(&takeover->settlement, settle);
	atomic_inc(&takeovers);
	return takeover;
}

static void take_vma(struct takeover *takeover, struct vm_area_struct *vma)
{
	takeover->vma = vma;
	takeover->flags = vma->vm_flags;
	takeover->before = vma->vm_ops;
	takeover->file = vma->vm_file;
	get_file(takeover->file);
	takeover->file_begin = (loff_t)vma->vm_pgoff << PAGE_SHIFT;
	takeover->file_length = vma->vm_end - vma->vm_start;
	if (vma->vm_ops)
		takeover->operations = *vma->vm_ops;
	takeover->operations.open = open_taken;
	takeover->operations.close = close_taken;
	kernel_adapt_operations(&takeover->operations);
	count_in(takeover);
	vma->vm_private_data = takeover->mapping;
	vma->vm_ops = &takeover->operations;
	vma->vm_flags |= TAKEN_FLAGS;
}

static bool is_fit(const struct vm_area_struct *vma)
{
	return vma->vm_file && (vma->vm_flags & VM_SHARED) && !(vma->vm_flags & UNFIT_FLAGS);
}

static int find_and_take(struct takeover *takeover, unsigned long address)
{
	struct vm_area_struct *vma = find_vma(current->mm, address);
	struct takeover *earlier;

	if (!vma)
		return -ENOENT;
	earlier = takeover_of(vma);
	if (earlier && !earlier->mapping)
		restore_mappings(earlier); /* its settlement is still to come */
	if (vma->vm_private_data || !is_fit(vma))
		return -EBUSY;
	take_vma(takeover, vma);
	return 0;
}

int ka_mapping_take(struct ka_mapping *mapping, const void *address,
		    void (*closed)(struct ka_mapping *mapping, unsigned long start))
{
	struct takeover *takeover;
	int err;

	if (!current->mm)
		return -ENOENT;
	takeover = alloc_takeover(mapping, closed);
	if (!takeover)
		return -ENOMEM;
	kernel_mmap_write_lock(current->mm);
	err = find_and_take(takeover, (unsigned long)address);
	kernel_mmap_write_unlock(current->mm);
	if (err)
		put_takeover(takeover);
	else
		KA_OBJECT(struct ka_kernel_mapping, mapping)->takeover = takeover;
	return err;
}

static void let_go(struct ka_mapping *mapping, bool stays_private)
{
	struct takeover *takeover = takeover_in(mapping);

	if (!takeover)
		return;
	spin_lock(&takeover->lock);
	takeover->mapping = NULL;
	takeover->stays_private = stays_private;
	spin_unlock(&takeover->lock);
	KA_OBJECT(struct ka_kernel_mapping, mapping)->takeover = NULL;

	if (kernel_mmget_not_zero(takeover->mm)) {
		if (kernel_mmap_write_trylock(takeover->mm)) {
			restore_mappings(takeover);
			leave(takeover);
		} else if (!settle_later(takeover)) {
			stop_using(takeover);
		}
	}
	put_takeover(takeover);
}

void ka_mapping_give_back(struct ka_mapping *mapping)
{
	let_go(mapping, false);
}

void ka_mapping_give_up(struct ka_mapping *mapping)
{
	let_go(mapping, true);
}

/* --- What is known of it, and pages ---------------------------------------------------------- */

struct task_struct *kernel_get_process_of(const struct ka_mapping *mapping)
{
	struct takeover *takeover = takeover_in(mapping);

	if (!takeover)
		return NULL;
	get_task_struct(takeover->process);
	return takeover->process;
}

int ka_mapping_is_taken(const struct ka_mapping *mapping)
{
	return takeover_in(mapping) != NULL;
}

static void read_bounds(struct ka_mapping *mapping, unsigned long *start, size_t *size)
{
	struct takeover *takeover = takeover_in(mapping);

	*start = 0;
	*size = 0;
	if (!enter(takeover))
		return;
	if (takeover->vma) {
		*start = takeover->vma->vm_start;
		*size = takeover->vma->vm_end - takeover->vma->vm_start;
	}
	leave(takeover);
}

unsigned long ka_mapping_start(struct ka_mapping *mapping)
{
	struct takeover *takeover = takeover_in(mapping);
	unsigned long start;
	size_t size;

	if (takeover && takeover->shown_from)
		return takeover->shown_from;
	read_bounds(mapping, &start, &size);
	return start;
}

size_t ka_mapping_size(struct ka_mapping *mapping)
{
	unsigned long start;
	size_t size;

	read_bounds(mapping, &start, &size);
	return size;
}

/* Whether nothing was moved, split or unmapped since the first page was shown. */
static bool is_in_place(struct takeover *takeover)
{
	return !takeover->shown_from || takeover->shown_changes == atomic_read(&takeover->changes);
}

/*
 * The process may have put a page of its own there, and a page is mapped only where there is none.
 * A mapping of one page would be taken for one of raw pages from end to end, which the kernel keeps
 * its books of elsewhere.
 */
static int show_page(struct takeover *takeover, size_t offset, unsigned long pfn)
{
	struct vm_area_struct *vma = takeover->vma;
	size_t size = vma && is_in_place(takeover) ? vma->vm_end - vma->vm_start : 0;
	size_t page = offset >> PAGE_SHIFT;
	unsigned long address;
	int err;

	if (size <= PAGE_SIZE || offset > size - PAGE_SIZE || page >= KA_BIO_MAX_PAGES)
		return -EIO;
	address = vma->vm_start + offset;
	kernel_zap_vma_ptes(vma, address, PAGE_SIZE);
	err = remap_pfn_range(vma, address, pfn, PAGE_SIZE, vma->vm_page_prot);
	if (err)
		return err;
	if (!takeover->shown_from) {
		takeover->shown_from = vma->vm_start;
		takeover->shown_changes = atomic_read(&takeover->changes);
	}
	takeover->shown[page] = pfn;
	takeover->shown_pages = max(takeover->shown_pages, page + 1);
	return 0;
}

int ka_mapping_show_page(struct ka_mapping *mapping, size_t offset, unsigned long pfn)
{
	struct takeover *takeover = takeover_in(mapping);
	int err;

	if (!enter(takeover))
		return -EIO;
	err = show_page(takeover, offset, pfn);
	leave(takeover);
	return err;
}

/*
 * Whether the process, which may be gone without a word, could see all that was shown to it, and
 * nothing else there. Pages can be taken out by others: by whoever cuts the file short or makes
 * holes in it. Then the process may have filled pages of its own. Nobody puts ours back, so what is
 * there now was there all the time.
 */
static bool was_seen(struct takeover *takeover)
{
	size_t page;

	if (!takeover->vma || !is_in_place(takeover) || kernel_is_being_killed(takeover->process))
		return false;
	for (page = 0; page < takeover->shown_pages; page++) {
		unsigned long address = takeover->vma->vm_start + (page << PAGE_SHIFT);
		unsigned long pfn;

		if (follow_pfn(takeover->vma, address, &pfn) || pfn != takeover->shown[page])
			return false;
	}
	return true;
}

/* With the address space's lock. Usually there is no more to it than the pages that were shown. */
static void zap_mappings(struct takeover *takeover)
{
	struct vm_area_struct *vma = takeover->vma;

	if (!takeover->shown_pages)
		return;
	if (vma && is_in_place(takeover)) {
		kernel_zap_vma_ptes(vma, vma->vm_start, takeover->shown_pages << PAGE_SHIFT);
		return;
	}
	vma = NULL;
	while ((vma = next_mapping(takeover, vma)))
		kernel_zap_vma_ptes(vma, vma->vm_start, vma->vm_end - vma->vm_start);
}

/*
 * Where the lock cannot be had, all that shows this part of the file loses it, as when a file is
 * cut short, but for private copies of its pages.
 */
int ka_mapping_zap(struct ka_mapping *mapping)
{
	struct takeover *takeover = takeover_in(mapping);
	bool seen = false;

	if (!takeover)
		return -EIO;
	if (enter(takeover)) {
		seen = was_seen(takeover);
		zap_mappings(takeover);
		leave(takeover);
	} else {
		unmap_mapping_range(takeover->file->f_mapping, takeover->file_begin,
				    takeover->file_length, 0);
	}
	takeover->shown_from = 0;
	takeover->shown_pages = 0;
	return seen ? 0 : -EIO;
}
