/* SPDX-License-Identifier: GPL-2.0 */
/* Kernel threads and wait queues. */
#include "../thread.h"

#include <linux/kthread.h>
#include <linux/sched.h>
#include <linux/string.h>

#include "objects.h"
#include "this-kernel.h"

struct task_struct *ka_kthread_create(int (*function)(void *arg), void *arg, const char *name)
{
	return kthread_create(function, arg, "%s", name);
}

void ka_wake_up_process(struct task_struct *thread)
{
	wake_up_process(thread);
}

int ka_kthread_stop(struct task_struct *thread)
{
	return kthread_stop(thread);
}

int ka_kthread_should_stop(void)
{
	return kthread_should_stop();
}

void ka_flush_signals(void)
{
	flush_signals(current);
}

void ka_cond_resched(void)
{
	cond_resched();
}

void ka_current_comm(char comm[KA_TASK_COMM_LEN])
{
	BUILD_BUG_ON(KA_TASK_COMM_LEN != TASK_COMM_LEN);
	strlcpy(comm, current->comm, KA_TASK_COMM_LEN);
}

void ka_init_waitqueue_head(struct ka_wait_queue *queue)
{
	init_waitqueue_head(KA_OBJECT(wait_queue_head_t, queue));
}

void ka_wake_up(struct ka_wait_queue *queue)
{
	wake_up(KA_OBJECT(wait_queue_head_t, queue));
}

int ka_wait_event_interruptible(struct ka_wait_queue *queue, int (*condition)(void *arg), void *arg)
{
	wait_queue_head_t *kernel = KA_OBJECT(wait_queue_head_t, queue);

	return wait_event_interruptible(*kernel, condition(arg)) ? -EINTR : 0;
}
