/* SPDX-License-Identifier: GPL-2.0 */
/* The running task and the passing of time. */
#include "../task.h"

#include <linux/capability.h>
#include <linux/delay.h>
#include <linux/jiffies.h>
#include <linux/sched.h>

unsigned long ka_jiffies(void)
{
	return get_jiffies_64() * 1000 / HZ;
}

void ka_schedule(void)
{
	schedule();
}

void ka_udelay(unsigned long microseconds)
{
	udelay(microseconds);
}

int ka_current_pid(void)
{
	return current->pid;
}

int ka_capable_sys_admin(void)
{
	return capable(CAP_SYS_ADMIN);
}
