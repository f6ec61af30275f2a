// SPDX-License-Identifier: GPL-2.0
// The table of all block devices that the driver knows as volumes, by device number, and the
// reference-counted lifetime of their records.
#ifndef WT_VOLUME_REGISTRY_H
#define WT_VOLUME_REGISTRY_H

#include "../h/wt.h"
#include "../kernel-abstractions/block.h"
#include "../kernel-abstractions/kobject.h"
#include "../kernel-abstractions/sync.h"
#include "atomic.h"

struct hbitmap;

// One known volume. It is freed when the last reference on kobj goes; the registry holds one for
// as long as the volume is entered. What is atomic is read by the write hook without vi_mtx.
struct volume_info {
	ka_kobject kobj;
	ka_mutex vi_mtx;   // serialises all management operations
	char vi_dname[32]; // the kernel's name for the device
	ka_dev_t vi_devt;
	ka_dev_t vi_devt_parent; // the whole disk; vi_devt itself for one
	int vi_partno;           // 0 for a whole disk
	char vi_istracked;
	char vi_isremoved;    // on its way out of the registry: no tracking begins any more
	uint64_t vi_savetime; // opaque to the driver
	// The disk's operations with the driver's ioctl entries, and the table they replaced: null
	// while the disk is not patched.
	ka_block_device_operations vi_blockfops;
	Atomic<const ka_block_device_operations *> vi_blockfops_old;
	Atomic<ka_make_request_fn *> vi_mrqfn_old; // every bio is forwarded to it
	ka_make_request_fn *vi_mrqfn_new;          // found in the queue once the hook was installed
	request_queue *vi_queue;                   // with the hook; referenced while tracked
	Atomic<hbitmap *> vi_bitmap;               // live; null while not tracked
	hbitmap *vi_bitmap_snapshot;               // frozen at the last switch; may be null
	Atomic<ka_sector_t> vi_start;              // on the disk
	Atomic<ka_sector_t> vi_end;                // one past the last
	Atomic<uint32_t> vi_reqcount;              // write-hook calls in progress
	Atomic<uint32_t> vi_switchcount;
	ka_bin_attribute vi_cbt; // the file "cbt-bitmap"
	unsigned char vi_uuid[16];
};

// Prepares the registry's lock; once, before anything else here.
void volume_registry_setup();
// Creates the empty table; keeps one that exists. 0 or -ENOMEM.
int volume_registry_init();
// Takes every volume out of sysfs, drops the table's references and frees the table.
void volume_registry_cleanup();

// A zeroed record with one reference, not yet in sysfs. Null when memory is short.
volume_info *alloc_volume_info();

// The volume with one more reference, or null. Takes the registry's lock shared.
volume_info *lookup_volume_info(ka_dev_t dev);
// Returns when all lookups are over that had begun before.
void wait_for_volume_lookups();
volume_info *volume_info_get(volume_info *volume);
void volume_info_put(volume_info *volume);

// Enters the volume and adds its directory "major:minor" to sysfs. -EEXIST for a known device,
// -EINVAL without a table or when sysfs refuses, -ENOMEM, -EAGAIN while the driver goes away.
int add_volume_info(ka_dev_t dev, volume_info *volume);
// Takes the volume out. -ENOENT when it is not in the table.
int remove_volume_info(ka_dev_t dev);

// Calls back for every volume, with a reference and without the registry's lock: the callback may
// remove the volume that it is given.
void for_each_volume_info(void (*callback)(volume_info *volume));

// A counted reference that drops itself.
class VolumeRef
{
public:
	// Takes over the reference that the caller holds; null is allowed.
	explicit VolumeRef(volume_info *volume) : volume(volume)
	{
	}
	~VolumeRef()
	{
		reset(nullptr);
	}
	VolumeRef(const VolumeRef &) = delete;
	VolumeRef &operator=(const VolumeRef &) = delete;

	// Drops the reference held and takes over another.
	void reset(volume_info *other)
	{
		if (volume)
			volume_info_put(volume);
		volume = other;
	}
	// Gives the reference up without dropping it.
	volume_info *release()
	{
		volume_info *kept = volume;
		volume = nullptr;
		return kept;
	}
	volume_info *get() const
	{
		return volume;
	}
	volume_info *operator->() const
	{
		return volume;
	}
	explicit operator bool() const
	{
		return volume != nullptr;
	}

private:
	volume_info *volume;
};

#endif
