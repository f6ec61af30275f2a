// SPDX-License-Identifier: GPL-2.0
// The files of the directory "restore-volumes" and of each restore disk's directory in it.
#ifndef WT_JORL_MANAGER_SYSFS_H
#define WT_JORL_MANAGER_SYSFS_H

#include "../kernel-abstractions/kobject.h"

// How the manager's files and a disk's are read, and their lists, which end with a null.
extern const ka_sysfs_ops g_jorl_sysfs_ops;
extern ka_attribute *const g_jorl_sysfs_attrs[];
extern const ka_sysfs_ops g_jorlvol_sysfs_ops;
extern ka_attribute *const g_jorlvol_sysfs_attrs[];

#endif
