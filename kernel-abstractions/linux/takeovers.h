/* SPDX-License-Identifier: GPL-2.0 */
#ifndef KA_LINUX_TAKEOVERS_H
#define KA_LINUX_TAKEOVERS_H

#include "../mm.h"

struct task_struct;

/*
 * The first thread of the process that a mapping was taken from; null when none was taken. The
 * caller gets a reference.
 */
struct task_struct *kernel_get_process_of(const struct ka_mapping *mapping);

/* Returns when no process has a mapping any more that would call into the module. May sleep. */
void kernel_wait_for_takeovers(void);

#endif
