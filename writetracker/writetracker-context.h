/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The driver-wide record. Valid C, since the module's parameters are bound to its fields where the
 * kernel's own macros are needed.
 */
#ifndef WT_WRITETRACKER_CONTEXT_H
#define WT_WRITETRACKER_CONTEXT_H

#include "../h/wt.h"
#include "../kernel-abstractions/kobject.h"
#include "../kernel-abstractions/sync.h"

KA_BEGIN_DECLS

#define WT_MAX_TRACKED_MAJORS 128

struct writetracker_context {
	struct ka_kobject kobj; /* the directory /sys/zorvat */
	int is_initialized;     /* 1 while kobj is live */
	const struct wt_version driver_version;
	struct ka_completion init_completion;   /* start-up has finished or was given up */
	struct ka_completion deinit_completion; /* kobj was released */

	/* Module parameters; user space may write them at any time. */
	unsigned int arg_def_verbosity;
	char *arg_dm_control_device; /* null: the default path */
	unsigned int arg_arr_tracked_major_numbers[WT_MAX_TRACKED_MAJORS];
	unsigned int arg_arr_tracked_major_numbers_count; /* 0: every major */
};

extern struct writetracker_context wt_context;

KA_END_DECLS

#endif
