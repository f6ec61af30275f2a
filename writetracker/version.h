// SPDX-License-Identifier: GPL-2.0
// The driver's version. The build adds its date and branch in build-info.h.
#ifndef WT_VERSION_H
#define WT_VERSION_H

#define WT_VERSION_MAJOR       0
#define WT_VERSION_MINOR       1
#define WT_VERSION_MAINTENANCE 0
#define WT_VERSION_BUILD       1

#endif
