// SPDX-License-Identifier: GPL-2.0
// The files of a volume's directory in sysfs.
#ifndef WT_VOLUME_SYSFS_H
#define WT_VOLUME_SYSFS_H

#include "../kernel-abstractions/kobject.h"

// The text files, there for as long as the volume is registered: how they are read and written, and
// their list, which ends with a null.
extern const ka_sysfs_ops g_vol_sysfs_ops;
extern ka_attribute *const g_attr_wt[];

// The template of a volume's binary file "cbt-bitmap"; its copy's private pointer is the volume.
extern const ka_bin_attribute wt_cbt_binattr;

#endif
