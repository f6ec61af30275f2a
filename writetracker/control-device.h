// SPDX-License-Identifier: GPL-2.0
// The two doors for user space: the control device's ioctls and the generic-netlink family. A
// request is checked here, its volume found, and handed to the unit that executes it.
#ifndef WT_CONTROL_DEVICE_H
#define WT_CONTROL_DEVICE_H

#include "../kernel-abstractions/genetlink.h"

// The registered family, for those who build replies.
extern const ka_genl_family *wt_genl_family;

// Opens the doors that are not open yet. The misc device's or the family's registration error.
int init_control_device();
// Closes those that are open. Always 0.
int cleanup_control_device();

#endif
