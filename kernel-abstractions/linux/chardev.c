/* SPDX-License-Identifier: GPL-2.0 */
/* Misc devices. */
#include "../chardev.h"

#include <linux/module.h>
#include <linux/string.h>

#include "objects.h"

int ka_misc_register(struct ka_miscdevice *device)
{
	struct ka_kernel_misc *kernel = KA_OBJECT(struct ka_kernel_misc, &device->kernel);
	int err;

	memset(kernel, 0, sizeof(*kernel));
	kernel->fops.owner = THIS_MODULE;
	kernel->fops.open = nonseekable_open;
	kernel->fops.unlocked_ioctl = device->unlocked_ioctl;
	kernel->fops.compat_ioctl = device->compat_ioctl;
	kernel->misc.minor = device->minor;
	kernel->misc.name = device->name;
	kernel->misc.nodename = device->nodename;
	kernel->misc.fops = &kernel->fops;
	err = misc_register(&kernel->misc);
	device->minor = kernel->misc.minor;
	return err;
}

void ka_misc_deregister(struct ka_miscdevice *device)
{
	misc_deregister(&KA_OBJECT(struct ka_kernel_misc, &device->kernel)->misc);
}
