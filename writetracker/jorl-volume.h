// SPDX-License-Identifier: GPL-2.0
// A restore disk: the block device, the thread that serves its requests, and its end. Data is not
// copied: the pages of a request are shown in the server's memory while it answers.
#ifndef WT_JORL_VOLUME_H
#define WT_JORL_VOLUME_H

#include "jorlvolume-registry.h"

int jorl_volume_init();
int jorl_volume_cleanup();

// Builds and registers a disk for the calling process, whose mapping at the address becomes the
// service area. It is not in the system yet. block_size is a multiple of 512. An error pointer on
// failure: -EINVAL for a service area or a block size that does not do, -ENOMEM, or another.
jorlvolume_info *alloc_jorlvolume_info(size_t block_size, size_t num_blocks, unsigned int is_rw,
				       const void *servicearea);

// With dvi_mtx held. Start: connects to the server at dvi_datalink_pid and enters the disk, whose
// partitions are read meanwhile. Stop: always 0; waits for the request that the server has.
int jorlvolume_start(jorlvolume_info *volume);
int jorlvolume_stop(jorlvolume_info *volume);

// The last reference is gone: frees everything.
void cleanup_jorlvolume_info(jorlvolume_info *volume);

#endif
