// SPDX-License-Identifier: GPL-2.0
// Discovery of block devices: the driver inserts itself into the uevents of the set of all devices
// and hands the events of block devices to the volume manager, from a work queue of its own.
#ifndef WT_UDEV_PATCHER_H
#define WT_UDEV_PATCHER_H

#include "../kernel-abstractions/device.h"

// Events, in the order of disk_actions.
enum disk_event {
	DISK_NO_EVENT = -1,
	DISK_ADD,
	DISK_REMOVE,
	DISK_CHANGE,
	DISK_MOVE,
	DISK_ONLINE,
	DISK_OFFLINE,
	DISK_EVENTS
};

// Prepares the patch state's lock; once, before anything else here.
void udev_patcher_setup();
// Takes over the devices set's uevents and announces the block devices that exist. Does nothing
// when patched already. -ENOMEM, the root path's lookup error, -EINVAL when the block class cannot
// be found.
int udev_patch();
// Gives the uevents back and waits until no event is in work. Harmless when not patched. Stops the
// kernel when somebody replaced the operations since.
void udev_unpatch();
// Announces all existing block devices again. Always 0.
int udev_refresh_devices();
// Queues one event. -EINTR when not patched, -EAGAIN when there is no room. May sleep.
int udev_schedule_event(disk_event event, ka_dev_t dev);
// 1 when no operations were ever saved.
int udev_ispatched();

#endif
