// SPDX-License-Identifier: GPL-2.0
// The registry of restore disks. It owns a reference on each record and one on the module.
#include "jorlvolume-registry.h"

#include "../kernel-abstractions/log.h"
#include "../kernel-abstractions/memory.h"
#include "../kernel-abstractions/module.h"
#include "bucket-table.h"
#include "guards.h"
#include "jorl-manager-sysfs.h"
#include "jorl-volume.h"
#include "wt-logging.h"

static constexpr wt_log_group wt_group = WT_LOG_GROUP_JORLVOLUME_REGISTRY;

namespace
{

struct jorlvolume_info_bucket {
	jorlvolume_info *ptr; // null: the slot is empty
};

struct JorlVolumeBuckets {
	using Key = const void *;
	using Bucket = jorlvolume_info_bucket;
	enum {
		keeps_length = true
	};

	static bool occupied(const Bucket &bucket)
	{
		return bucket.ptr != nullptr;
	}
	static Key key(const Bucket &bucket)
	{
		return bucket.ptr;
	}
	// The kernel's multiplicative hash of 64-bit numbers.
	static uint32_t hash(Key handle, uint32_t bits)
	{
		return (reinterpret_cast<uint64_t>(handle) * 0x9e37fffffffc0001ull) >> (64 - bits);
	}
	static void duplicate(uint32_t index)
	{
		WT_WARN("[JRREG] Found duplicate entry at index %u\n", index);
	}
};

} // namespace

static ka_rwsem vol_info_rwsem; // guards the table and every slot
static BucketTable<JorlVolumeBuckets> vol_info_buckets;
static Atomic<uint32_t> disknum; // how many names were drawn

static void release_jorlvolume_info(ka_kobject *kobj)
{
	static_assert(__builtin_offsetof(jorlvolume_info, kobj) == 0);
	cleanup_jorlvolume_info(reinterpret_cast<jorlvolume_info *>(kobj));
}

ka_kobj_type g_kobj_jorlvolinfo_type = {
	release_jorlvolume_info, &g_jorlvol_sysfs_ops, g_jorlvol_sysfs_attrs, {}};

void jorlvolume_registry_setup()
{
	ka_rwsem_init(&vol_info_rwsem, "vol_info_rwsem");
}

int jorlvolume_registry_init()
{
	WriteLock lock(vol_info_rwsem);
	if (vol_info_buckets.exists())
		return 0;
	jorlvolume_info_bucket *first = vol_info_buckets.allocate_first();
	if (!first)
		return -KA_ENOMEM;
	vol_info_buckets.create(first);
	return 0;
}

jorlvolume_info *jorlvolume_info_get(jorlvolume_info *volume)
{
	ka_module_hold();
	ka_kobject_get(&volume->kobj);
	return volume;
}

void jorlvolume_info_put(jorlvolume_info *volume)
{
	ka_module_put();
	ka_kobject_put(&volume->kobj);
}

static void drop(jorlvolume_info *volume)
{
	ka_kobject_del(&volume->kobj);
	jorlvolume_info_put(volume);
}

int jorlvolume_registry_cleanup()
{
	WriteLock lock(vol_info_rwsem);
	if (!vol_info_buckets.exists())
		return 0;
	for (uint32_t i = 0; i < vol_info_buckets.size(); i++)
		if (vol_info_buckets[i].ptr)
			drop(vol_info_buckets[i].ptr);
	vol_info_buckets.destroy();
	return 0;
}

// The name's number in base 26, its lowest digit first.
void assign_disk_name(char name[JORL_DISK_NAME_SIZE])
{
	static constexpr char PREFIX[] = "zorvat-";
	uint32_t number = disknum.draw();
	memset(name, 0, JORL_DISK_NAME_SIZE);
	memcpy(name, PREFIX, sizeof(PREFIX) - 1);
	char *letter = name + sizeof(PREFIX) - 1;
	do {
		*letter++ = static_cast<char>('a' + number % 26);
		number /= 26;
	} while (number != 0);
}

bool jorlvolume_registry_has_home(wt_jorl_diskhandle_t handle)
{
	ReadLock lock(vol_info_rwsem);
	return !vol_info_buckets.exists() || vol_info_buckets.home_is_free(handle);
}

int add_jorlvolume_info(jorlvolume_info *volume)
{
	WriteLock lock(vol_info_rwsem);
	if (!vol_info_buckets.exists())
		return -KA_EINVAL;
	jorlvolume_info_bucket *bucket = vol_info_buckets.lookup_free(volume);
	if (bucket && bucket->ptr) {
		WT_WARN("[JRREG] Duplicate Entry for %p found\n", static_cast<void *>(volume));
		return -KA_EEXIST;
	}
	if (!bucket) {
		jorlvolume_info_bucket *larger = vol_info_buckets.allocate_larger();
		bucket = larger ? vol_info_buckets.grow(larger, volume) : nullptr;
	}
	if (!bucket)
		return -KA_ENOMEM;
	bucket->ptr = volume;
	return 0;
}

int remove_jorlvolume_info(wt_jorl_diskhandle_t handle)
{
	WriteLock lock(vol_info_rwsem);
	jorlvolume_info_bucket *bucket = vol_info_buckets.__lookup_bucket(handle);
	if (!bucket)
		return -KA_ENOENT;
	drop(bucket->ptr);
	// No tombstone: a record that had probed past this slot is not found by lookups from now
	// on.
	bucket->ptr = nullptr;
	return 0;
}

jorlvolume_info *lookup_jorlvolume_info(wt_jorl_diskhandle_t handle)
{
	ReadLock lock(vol_info_rwsem);
	jorlvolume_info_bucket *bucket = vol_info_buckets.__lookup_bucket(handle);
	return bucket ? jorlvolume_info_get(bucket->ptr) : nullptr;
}

void for_each_jorlvolume_info(void (*callback)(jorlvolume_info *volume, void *arg), void *arg)
{
	ka_down_read(&vol_info_rwsem);
	for (uint32_t i = 0; vol_info_buckets.exists() && i < vol_info_buckets.size(); i++) {
		jorlvolume_info *volume = vol_info_buckets[i].ptr;
		if (!volume)
			continue;
		jorlvolume_info_get(volume);
		ka_up_read(&vol_info_rwsem);
		callback(volume, arg);
		ka_down_read(&vol_info_rwsem);
		jorlvolume_info_put(volume);
	}
	ka_up_read(&vol_info_rwsem);
}
