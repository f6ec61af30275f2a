// SPDX-License-Identifier: GPL-2.0
// Stands between the processes that drive the device-mapper and the kernel's handler: every open of
// the control device passes through here, and shows its ioctls to the dm-processor before and after
// the kernel has run them.
#ifndef WT_DM_PATCHER_H
#define WT_DM_PATCHER_H

#include "dm-processor.h"

// One hooked open. Its memory stays when the file is closed.
struct dmp_handle_node {
	dmp_handle_node *dhn_node; // the next in its chain
	dmp_handle dhn_data;
	int refcount; // the map's, the opener's, and one per ioctl in progress
};

// Prepares the locks; once, before anything else here.
void dm_patcher_setup();

// Replaces the open operation of the character-device driver that serves the control node.
// -EAGAIN without a driver context, -EBUSY when it was done before (also when it was undone since),
// -ENOENT when the node cannot be opened.
int dm_patch();
// Puts the operations back, of files that are still open too. -EAGAIN as above, -EBUSY when nothing
// was patched, -ENOENT as above, -EEXIST when somebody else has replaced the operations.
int dm_unpatch();

#endif
