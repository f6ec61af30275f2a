/* SPDX-License-Identifier: GPL-2.0 */
#ifndef KA_LINUX_TAKEOVERS_H
#define KA_LINUX_TAKEOVERS_H

#include <linux/sched.h>

#include "../mm.h"

/*
 * The first thread of the process that a mapping was taken from; null when none was taken. The
 * caller gets a reference.
 */
struct task_struct *kernel_get_process_of(const struct ka_mapping *mapping);

/* Of a process's first thread: it ends, or is on its way there and may wait for others before. */
static inline bool kernel_is_being_killed(struct task_struct *process)
{
	return fatal_signal_pending(process) || process->flags & (PF_EXITING | PF_SIGNALED);
}

/* Returns when no process has a mapping any more that would call into the module. May sleep. */
void ka_wait_for_takeovers(void);

#endif
