// SPDX-License-Identifier: GPL-2.0
// The layer through which everything outside the tracking core acts on volumes. Every operation
// takes the volume's vi_mtx; all may sleep.
#ifndef WT_VOLUME_MANAGER_H
#define WT_VOLUME_MANAGER_H

#include "volume-registry.h"

// --- Device events. Called on the discovery's work queue, one at a time.
// --------------------------

// Registers the device as a volume; 0 also when it is known. -ENOTBLK for a removable disk, the
// open's error, -ENOMEM, or the registry's.
int volume_add(ka_dev_t dev);
// Forgets the volume. -EINVAL when it is not known.
int volume_remove(ka_dev_t dev);
// Takes over the device's present extent on its disk; tracking ends if that changed.
int volume_change(ka_dev_t dev);
int volume_move(ka_dev_t dev);
int volume_online(ka_dev_t dev);
// Ends the tracking of a volume that can no longer be tracked.
int volume_offline(ka_dev_t dev);

// --- Operations for user space. All wait interruptibly: -EINTR.
// -----------------------------------

// The backUp record may be null: level gets the level found, PartitionLength the length in bytes.
// Starting a tracked volume and stopping an untracked one change nothing and return 0.
// -EINVAL for a partition.
int volume_manager_start_tracking(volume_info *volume, backUp *backup);
int volume_manager_stop_tracking(volume_info *volume, backUp *backup);
// 1 when the volume is tracked, 0 when not.
int volume_manager_backup_level(volume_info *volume);
int volume_manager_volume_uuid(volume_info *volume, unsigned char uuid[16]);
// The save time. Setting returns 0 even when it was interrupted and nothing was stored.
int volume_manager_get_data(volume_info *volume, WI_DATA *data);
int volume_manager_set_data(volume_info *volume, const WI_DATA *data);

// The next three read the frozen bitmap if there is one, else the live one.

// Its size in bytes; 0 when there is none.
int64_t volume_manager_get_bitmap_size(volume_info *volume);
// Copies its words, most significant byte first, always from the first word on: the offset only
// bounds the count. Offset and count must be multiples of 8. Returns the bytes copied, or -EINVAL.
int64_t volume_manager_get_bitmap(volume_info *volume, char *buffer, int64_t offset, size_t count);
// The number of extents written into the array of capacity wtes_size, or -EINVAL.
int volume_manager_get_extents(volume_info *volume, uint64_t offset, wt_extents *extents);

// Discards the frozen bitmap; -EINVAL when there is none.
int volume_manager_clear_bitmap(volume_info *volume);
// Freezes what was written so far. 0 without effect on an untracked volume.
int volume_manager_switch_bitmap(volume_info *volume);
// The same for a volume that LVM has suspended: -EBUSY when its mutex stays taken for a second.
int volume_manager_switch_suspended(volume_info *volume);
// The number of switches since tracking began, or -EINVAL when not tracked.
int volume_manager_getswitchcount(volume_info *volume);

// Takes every volume out of the registry, ending its tracking. At unload.
int volume_manager_cleanup();

#endif
