/* SPDX-License-Identifier: GPL-2.0 */
/* What the loader sees: parameters and module information. */
#include "../module.h"

#include <linux/module.h>
#include <linux/moduleparam.h>
#include <linux/random.h>

#include "../../writetracker/writetracker-context.h"
#include "this-kernel.h"

/* The loader stores the parameters right in the driver's context. */
module_param_array_named(tracked_majors, wt_context.arg_arr_tracked_major_numbers, uint,
			 &wt_context.arg_arr_tracked_major_numbers_count, 0644);
MODULE_PARM_DESC(tracked_majors, "Defines what disk major numbers to track");
module_param_named(verbosity, wt_context.arg_def_verbosity, uint, 0644);
MODULE_PARM_DESC(verbosity, "Overrides the default syslog verbosity");
module_param_named(dm_control_path, wt_context.arg_dm_control_device, charp, 0644);
MODULE_PARM_DESC(dm_control_path,
		 "Overrides the default DM control device path (/dev/mapper/control)");

MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Changed-block tracking and restore disks for block-level backup");
MODULE_INFO(is_debug, "no");

int ka_module_get(void)
{
	return try_module_get(THIS_MODULE);
}

void ka_module_put(void)
{
	module_put(THIS_MODULE);
}

void ka_module_hold(void)
{
	__module_get(THIS_MODULE);
}

void ka_generate_random_uuid(unsigned char uuid[16])
{
	generate_random_uuid(uuid);
}
