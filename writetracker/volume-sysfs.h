// SPDX-License-Identifier: GPL-2.0
// The files of a volume's directory in sysfs.
#ifndef WT_VOLUME_SYSFS_H
#define WT_VOLUME_SYSFS_H

#include "../kernel-abstractions/kobject.h"

// The template of a volume's binary file "cbt-bitmap"; its copy's private pointer is the volume.
extern const ka_bin_attribute wt_cbt_binattr;

#endif
