/* SPDX-License-Identifier: GPL-2.0 */
/* Deferred work. */
#include "../work.h"

#include <linux/jiffies.h>
#include <linux/lockdep.h>

#include "objects.h"

/* The contract counts in milliseconds. */
static unsigned long kernel_delay(unsigned long delay)
{
	return msecs_to_jiffies(delay);
}

static void run_work(struct work_struct *kernel_work)
{
	struct delayed_work *delayed = container_of(kernel_work, struct delayed_work, work);
	struct ka_delayed_work *work = KA_CONTAINER(delayed, struct ka_delayed_work, kernel);

	work->function(work);
}

void ka_init_delayed_work(struct ka_delayed_work *work,
			  void (*function)(struct ka_delayed_work *work))
{
	struct delayed_work *delayed = KA_OBJECT(struct delayed_work, &work->kernel);

	work->function = function;
	INIT_DELAYED_WORK(delayed, run_work);
	/* A class per function, whose address does for a key: works of one take the same locks. */
	lockdep_init_map(&delayed->work.lockdep_map, "ka_delayed_work",
			 (struct lock_class_key *)function, 0);
}

int ka_schedule_delayed_work(struct ka_delayed_work *work, unsigned long delay)
{
	return schedule_delayed_work(KA_OBJECT(struct delayed_work, &work->kernel),
				     kernel_delay(delay));
}

int ka_queue_delayed_work(struct workqueue_struct *queue, struct ka_delayed_work *work,
			  unsigned long delay)
{
	return queue_delayed_work(queue, KA_OBJECT(struct delayed_work, &work->kernel),
				  kernel_delay(delay));
}

void ka_cancel_delayed_work_sync(struct ka_delayed_work *work)
{
	cancel_delayed_work_sync(KA_OBJECT(struct delayed_work, &work->kernel));
}

struct workqueue_struct *ka_create_singlethread_workqueue(const char *name)
{
	return create_singlethread_workqueue(name);
}

void ka_flush_workqueue(struct workqueue_struct *queue)
{
	flush_workqueue(queue);
}

void ka_destroy_workqueue(struct workqueue_struct *queue)
{
	destroy_workqueue(queue);
}
