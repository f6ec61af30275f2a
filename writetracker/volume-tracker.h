// SPDX-License-Identifier: GPL-2.0
// The core of changed-block tracking: the write hook, the bitmap that it clears bits in, and the
// bitmap's conversion into extents. Except for the hook, the caller holds the volume's vi_mtx.
#ifndef WT_VOLUME_TRACKER_H
#define WT_VOLUME_TRACKER_H

#include "volume-registry.h"

// The bitmap's unit is a block of 128 sectors, 64 KiB. Sectors are the disk's own.
constexpr unsigned int WT_BLOCK_SHIFT = 7;
constexpr ka_sector_t WT_BLOCK_SECTORS = 1 << WT_BLOCK_SHIFT;
constexpr unsigned int WT_WORD_BLOCKS = 64;
constexpr ka_sector_t WT_WORD_SECTORS = WT_WORD_BLOCKS * WT_BLOCK_SECTORS;

// A bitmap. Block b is bit 63 - b % 64 of word b / 64, so a word's first block is its most
// significant bit. 1: not written since the bitmap was allocated; 0: written. Bits are only ever
// cleared.
struct hbitmap {
	int64_t size; // of `bitmap` in bytes, a multiple of 8
	uint64_t bitmap[];
};

// The make-request function of a tracked disk's queue: hands the bio on, then accounts for it.
extern "C" int writetracker_mrqfn(request_queue *queue, ka_bio *bio);

// A fresh, all-ones bitmap in vi_bitmap; the previous one is overwritten, not freed. 0 or -ENOMEM.
int volume_info_allocate_bitmap(volume_info *volume);
// Allocates the bitmap and installs the hook. -EINVAL when tracked already, the open's error, or
// -ENOMEM.
int volume_info_start_tracking(volume_info *volume);
// Takes the hook out of the queue (only if unpatch_mrfqn; otherwise the queue is left alone), waits
// for running hook calls and frees both bitmaps. -EINVAL when not tracked or when somebody hooked
// the queue after us (tracking then goes on), or the open's error.
int volume_info_stop_tracking(volume_info *volume, bool unpatch_mrfqn);
// Puts a fresh live bitmap in place and folds the old one into the frozen one. Writes on their way
// through the hook at the time may be in both; half a second is the most that is waited for them.
// -EINVAL when not tracked, -ENOMEM.
int volume_info_switch_bitmap(volume_info *volume);
// Writes the runs of written blocks from the sector `offset` on, in ascending order, into the
// array, whose capacity is wtes_size. Returns how many. A run that reaches the last bit of the
// bitmap is not reported.
int volume_info_get_extents(const hbitmap *bitmap, uint64_t offset, wt_extents *extents);

#endif
