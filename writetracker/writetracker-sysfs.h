// SPDX-License-Identifier: GPL-2.0
// The files of the driver's own directory in sysfs: version, verbosities, rediscovery.
#ifndef WT_WRITETRACKER_SYSFS_H
#define WT_WRITETRACKER_SYSFS_H

#include "../kernel-abstractions/kobject.h"

// How they are read and written, and their list, which ends with a null.
extern const ka_sysfs_ops g_wt_sysfs_ops;
extern ka_attribute *const g_wt_sysfs_attr[];

#endif
