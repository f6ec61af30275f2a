/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Readers of binary files that are removed. This kernel cannot remove a file without waiting for
 * its readers, and whoever removes one may hold the lock that a reader waits for, interruptibly. So
 * the reader is made to believe that a signal came. The kernel finds none when the reader returns
 * to user space, and takes the mark away.
 */
#include <linux/list.h>
#include <linux/sched.h>
#include <linux/spinlock.h>

#include "this-kernel.h"

static DEFINE_SPINLOCK(reads_lock);
static LIST_HEAD(reads);

/* The mark of a file that is being removed; creating a file clears its attribute. */
static bool is_going(const struct bin_attribute *battr)
{
	return battr->private != NULL;
}

int kernel_bin_read_begins(struct kernel_bin_read *read, struct kobject *kobj,
			   struct bin_attribute *battr)
{
	int error = 0;

	spin_lock(&reads_lock);
	if (is_going(battr)) {
		error = -ENODEV;
	} else {
		read->task = current;
		read->battr = battr;
		list_add(&read->entry, &reads);
	}
	spin_unlock(&reads_lock);
	return error;
}

ssize_t kernel_bin_read_ends(struct kernel_bin_read *read, ssize_t result)
{
	spin_lock(&reads_lock);
	list_del(&read->entry);
	if (is_going(read->battr) && result == -EINTR)
		result = -ENODEV;
	spin_unlock(&reads_lock);
	return result;
}

void kernel_bin_reads_give_way(struct bin_attribute *battr)
{
	struct kernel_bin_read *read;

	spin_lock(&reads_lock);
	battr->private = battr;
	list_for_each_entry (read, &reads, entry) {
		if (read->battr != battr)
			continue;
		set_tsk_thread_flag(read->task, TIF_SIGPENDING);
		wake_up_process(read->task);
	}
	spin_unlock(&reads_lock);
}
