/* SPDX-License-Identifier: GPL-2.0 */
/* Character devices: misc devices of the driver's own. */
#ifndef KA_CHARDEV_H
#define KA_CHARDEV_H

#include "types.h"

KA_BEGIN_DECLS

struct file;

#define KA_MISC_DYNAMIC_MINOR 255

typedef long ka_ioctl_fn(struct file *file, unsigned int cmd, unsigned long arg);

/*
 * A misc device that takes ioctls and nothing else: no read, write or mmap, not seekable, the
 * module as owner. The driver fills the fields before `kernel`; static storage.
 */
struct ka_miscdevice {
	int minor; /* KA_MISC_DYNAMIC_MINOR before registering; the minor given afterwards */
	const char *name;
	const char *nodename; /* the node below /dev */
	ka_ioctl_fn *unlocked_ioctl;
	ka_ioctl_fn *compat_ioctl;
	struct {
		KA_STORAGE(MISCDEVICE);
	} kernel;
};

/* On failure `minor` may hold anything. */
int ka_misc_register(struct ka_miscdevice *misc);
/* Leaves `minor` as it is. */
void ka_misc_deregister(struct ka_miscdevice *misc);

KA_END_DECLS

#endif
