/* SPDX-License-Identifier: GPL-2.0 */
/* The running task and the passing of time. */
#ifndef KA_TASK_H
#define KA_TASK_H

#include "types.h"

KA_BEGIN_DECLS

/*
 * Time is counted in jiffies of a 1000 Hz kernel, one per millisecond, whatever the tick of the
 * kernel below. Wraps around; compare by difference. Any context.
 */
unsigned long ka_jiffies(void);
/* Gives up the processor once. */
void ka_schedule(void);
/* Busy wait. Any context. */
void ka_udelay(unsigned long microseconds);

/* The calling process. */
int ka_current_pid(void);
/* Whether the calling process has the system-administration capability. */
int ka_capable_sys_admin(void);

KA_END_DECLS

#endif
