/* SPDX-License-Identifier: GPL-2.0 */
/* Deferred work: the kernel's shared work queue and queues of the driver's own. */
#ifndef KA_WORK_H
#define KA_WORK_H

#include "types.h"

KA_BEGIN_DECLS

struct workqueue_struct;

/* Work that starts after a delay. The function runs in a kernel thread and may sleep. */
struct ka_delayed_work {
	void (*function)(struct ka_delayed_work *work);
	struct {
		KA_STORAGE(DELAYED_WORK);
	} kernel;
};

/* The work is not pending afterwards; it must not be pending before, but may be running. */
void ka_init_delayed_work(struct ka_delayed_work *work,
			  void (*function)(struct ka_delayed_work *work));
/*
 * Queue on the shared queue or on one's own, to run after that many jiffies. Returns 1, or 0 when
 * the work was pending already. Any context.
 */
int ka_schedule_delayed_work(struct ka_delayed_work *work, unsigned long delay);
int ka_queue_delayed_work(struct workqueue_struct *queue, struct ka_delayed_work *work,
			  unsigned long delay);
/* The work does not run any more: it is cancelled if pending and waited for if running. */
void ka_cancel_delayed_work_sync(struct ka_delayed_work *work);

/* A queue whose works run one at a time in the order queued. Null when memory is short. */
struct workqueue_struct *ka_create_singlethread_workqueue(const char *name);
/* Returns when all works queued before the call are done; delayed works that wait do not count. */
void ka_flush_workqueue(struct workqueue_struct *queue);
/* No work may be waiting for its delay. */
void ka_destroy_workqueue(struct workqueue_struct *queue);

KA_END_DECLS

#endif
