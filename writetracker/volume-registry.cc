// SPDX-License-Identifier: GPL-2.0
// The volume registry.
//
// The write hook looks a volume up for every bio, so lookups share a lock, and whoever holds it
// exclusively waits for nothing: not for memory, which may have to be made by writing to a tracked
// disk, nor for the locks of sysfs, whose holders may wait for memory. What adding and removing
// wait for, they wait for under a mutex of their own, which keeps the table as it is meanwhile.
#include "volume-registry.h"

#include "bucket-table.h"
#include "guards.h"
#include "volume-sysfs.h"
#include "writetracker.h"
#include "wt-logging.h"

static constexpr wt_log_group wt_group = WT_LOG_GROUP_VOLUME_REGISTRY;

namespace
{

struct volume_info_bucket {
	ka_dev_t vib_dev;
	volume_info *vib_volinfo; // null: the slot is empty
};

struct VolumeBuckets {
	using Key = ka_dev_t;
	using Bucket = volume_info_bucket;
	enum {
		keeps_length = false
	};

	static bool occupied(const Bucket &bucket)
	{
		return bucket.vib_volinfo != nullptr;
	}
	static Key key(const Bucket &bucket)
	{
		return bucket.vib_dev;
	}
	// The kernel's multiplicative hash of 32-bit numbers.
	static uint32_t hash(Key dev, uint32_t bits)
	{
		return (dev * 0x9E370001u) >> (32 - bits);
	}
	static void duplicate(uint32_t index)
	{
		WT_WARN("Found duplicate entry at index %d\n", index);
	}
};

} // namespace

static ka_mutex vol_info_change_mtx; // whoever changes the table has it all the while
static ka_rwsem vol_info_rwsem;      // guards the table and every slot; taken inside the mutex
static BucketTable<VolumeBuckets> vol_info_buckets;

static volume_info *volume_of(ka_kobject *kobj)
{
	static_assert(__builtin_offsetof(volume_info, kobj) == 0);
	return reinterpret_cast<volume_info *>(kobj);
}

// Bitmaps and hook are gone by then: stopping the tracking freed them.
static void release_volume_info(ka_kobject *kobj)
{
	volume_info *volume = volume_of(kobj);
	ka_put_queue(volume->vi_queue); // of a queue whose hook could not be removed
	ka_vfree(volume);
}

static ka_kobj_type kobj_volinfo_type = {release_volume_info, &g_vol_sysfs_ops, g_attr_wt, {}};

void volume_registry_setup()
{
	ka_mutex_init(&vol_info_change_mtx, "vol_info_change_mtx");
	ka_rwsem_init(&vol_info_rwsem, "vol_info_rwsem");
}

int volume_registry_init()
{
	MutexLock change(vol_info_change_mtx);
	if (vol_info_buckets.exists())
		return 0;
	volume_info_bucket *first = vol_info_buckets.allocate_first();
	if (!first)
		return -KA_ENOMEM;
	WriteLock lock(vol_info_rwsem);
	vol_info_buckets.create(first);
	return 0;
}

// From here on lookups find the volume, or no longer find it.
static void fill_bucket(volume_info_bucket &bucket, const volume_info_bucket &with)
{
	WriteLock lock(vol_info_rwsem);
	bucket = with;
}

void volume_registry_cleanup()
{
	MutexLock change(vol_info_change_mtx);
	if (!vol_info_buckets.exists())
		return;
	for (uint32_t i = 0; i < vol_info_buckets.size(); i++) {
		volume_info *volume = vol_info_buckets[i].vib_volinfo;
		if (!volume)
			continue;
		fill_bucket(vol_info_buckets[i], {});
		ka_kobject_del(&volume->kobj);
		ka_kobject_put(&volume->kobj);
	}
	WriteLock lock(vol_info_rwsem);
	vol_info_buckets.destroy();
}

volume_info *alloc_volume_info()
{
	auto *volume = static_cast<volume_info *>(ka_vmalloc(sizeof(volume_info)));
	if (!volume)
		return nullptr;
	memset(static_cast<void *>(volume), 0, sizeof(*volume));
	ka_mutex_init(&volume->vi_mtx, "&ret->vi_mtx");
	ka_kobject_init(&volume->kobj, &kobj_volinfo_type);
	return volume;
}

volume_info *volume_info_get(volume_info *volume)
{
	return ka_kobject_get(&volume->kobj) ? volume : nullptr;
}

void volume_info_put(volume_info *volume)
{
	ka_kobject_put(&volume->kobj);
}

volume_info *lookup_volume_info(ka_dev_t dev)
{
	ReadLock lock(vol_info_rwsem);
	volume_info_bucket *bucket = vol_info_buckets.__lookup_bucket(dev);
	return bucket ? volume_info_get(bucket->vib_volinfo) : nullptr;
}

void wait_for_volume_lookups()
{
	WriteLock lock(vol_info_rwsem);
}

// The slot for a device that is to be added: an empty one, its own if it is in the table already,
// or null when there is no room and none can be made.
static volume_info_bucket *bucket_for(ka_dev_t dev)
{
	volume_info_bucket *bucket = vol_info_buckets.lookup_free(dev);
	if (bucket)
		return bucket;
	volume_info_bucket *larger = vol_info_buckets.allocate_larger();
	if (!larger)
		return nullptr;
	WriteLock lock(vol_info_rwsem);
	return vol_info_buckets.grow(larger, dev);
}

// Stores the volume in its free slot and makes its directory, whose files need lookups that find
// it; undone as a whole on failure.
static int enter_volume(volume_info_bucket &bucket, ka_dev_t dev, volume_info *volume)
{
	if (!volume_info_get(volume))
		return -KA_EINVAL;
	char name[24];
	ka_snprintf(name, sizeof(name), "%d:%d", ka_major(dev), ka_minor(dev));
	fill_bucket(bucket, {dev, volume});
	if (ka_kobject_add(&volume->kobj, &wt_context.kobj, name) != 0) {
		fill_bucket(bucket, {});
		volume_info_put(volume);
		return -KA_EINVAL;
	}
	return 0;
}

int add_volume_info(ka_dev_t dev, volume_info *volume)
{
	MutexLock change(vol_info_change_mtx);
	ContextRef context;
	if (!context)
		return -KA_EAGAIN;
	if (!vol_info_buckets.exists())
		return -KA_EINVAL;

	volume_info_bucket *bucket = bucket_for(dev);
	if (!bucket)
		return -KA_ENOMEM;
	if (bucket->vib_volinfo) {
		WT_WARN("Duplicate Entry for %d:%d found\n", ka_major(dev), ka_minor(dev));
		return -KA_EEXIST;
	}
	return enter_volume(*bucket, dev, volume);
}

// An open may read from the disk, whose hook still has to find the volume then.
static bool can_be_opened(ka_dev_t dev)
{
	return OpenDevice(dev).error() == 0;
}

int remove_volume_info(ka_dev_t dev)
{
	const bool is_present = can_be_opened(dev);
	MutexLock change(vol_info_change_mtx);
	volume_info_bucket *bucket = vol_info_buckets.__lookup_bucket(dev);
	if (!bucket)
		return -KA_ENOENT;

	volume_info *volume = bucket->vib_volinfo;
	// No tombstone: an entry that had probed past this slot is not found by lookups from now
	// on.
	fill_bucket(*bucket, {});
	ka_kobject_del(&volume->kobj);
	// A device that cannot be opened any more may still be in somebody's hands, with a table of
	// operations that lies in the record: the record is left to it for good.
	if (is_present)
		ka_kobject_put(&volume->kobj);
	return 0;
}

void for_each_volume_info(void (*callback)(volume_info *volume))
{
	KA_BUG_ON(!callback);
	ka_down_read(&vol_info_rwsem);
	for (uint32_t i = 0; vol_info_buckets.exists() && i < vol_info_buckets.size(); i++) {
		volume_info *volume = vol_info_buckets[i].vib_volinfo;
		if (!volume)
			continue;
		VolumeRef ref(volume_info_get(volume));
		ka_up_read(&vol_info_rwsem);
		callback(volume);
		ka_down_read(&vol_info_rwsem);
	}
	ka_up_read(&vol_info_rwsem);
}
