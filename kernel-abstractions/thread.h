/* SPDX-License-Identifier: GPL-2.0 */
/* Kernel threads of the driver's own, and how they wait. */
#ifndef KA_THREAD_H
#define KA_THREAD_H

#include "types.h"

KA_BEGIN_DECLS

struct task_struct;

#define KA_TASK_COMM_LEN 16

/* A thread that does not run yet; an error pointer on failure. The name is cut to what fits. */
struct task_struct *ka_kthread_create(int (*function)(void *arg), void *arg, const char *name);
void ka_wake_up_process(struct task_struct *thread);
/*
 * Asks the thread to stop, wakes it and waits for its end: its result, or -EINTR when it never ran.
 * The pointer is not valid afterwards. A thread of the driver's ends in no other way.
 */
int ka_kthread_stop(struct task_struct *thread);

/* Of the calling thread. */
int ka_kthread_should_stop(void);
void ka_flush_signals(void);
void ka_cond_resched(void);
void ka_current_comm(char comm[KA_TASK_COMM_LEN]);

struct ka_wait_queue {
	KA_STORAGE(WAIT_QUEUE);
};

void ka_init_waitqueue_head(struct ka_wait_queue *queue);
/* Any context. */
void ka_wake_up(struct ka_wait_queue *queue);
/*
 * Sleeps until the condition holds, looking at each wake-up of the queue or of the thread: 0, or
 * -EINTR when a signal is pending. The condition must not sleep.
 */
int ka_wait_event_interruptible(struct ka_wait_queue *queue, int (*condition)(void *arg),
				void *arg);

KA_END_DECLS

#endif
