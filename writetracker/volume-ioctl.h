// SPDX-License-Identifier: GPL-2.0
// The volume commands, whichever road they arrive by: the control device, generic netlink, or an
// ioctl on the disk's own device. For the last one the disk's ioctl entries are replaced.
#ifndef WT_VOLUME_IOCTL_H
#define WT_VOLUME_IOCTL_H

#include "../kernel-abstractions/genetlink.h"
#include "volume-registry.h"

int init_volume_ioctl();
int cleanup_volume_ioctl();

// Runs the command on the volume. `record` is the command's record in the calling process. 0 (the
// number of extents for WT_GET_EXTENTS_IOCTL_INDEX) or a negative error; -ENOIOCTLCMD for an index
// that is not a volume command's, -EACCES when a copy from or to the process fails.
int process_volume_ioctl(volume_info *volume, unsigned int index, void *record);

// Runs the request's command on the volume. 0 when it was answered, by a reply or an
// acknowledgement; otherwise the error that the caller acknowledges.
int process_volume_gen_netlink_msg(volume_info *volume, sk_buff *skb, genl_info *info);

// Put the driver's ioctl entries in front of a whole disk's own, and take them away again. With
// vi_mtx held. Unpatching returns -EBUSY when somebody replaced the disk's table since.
int volume_ioctl_patch(volume_info *volume);
int volume_ioctl_unpatch(volume_info *volume);

#endif
