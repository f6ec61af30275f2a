// SPDX-License-Identifier: GPL-2.0
// The volume manager: device events and the operations on one volume.
#include "volume-manager.h"

#include "../kernel-abstractions/memory.h"
#include "../kernel-abstractions/module.h"
#include "guards.h"
#include "volume-ioctl.h"
#include "volume-sysfs.h"
#include "volume-tracker.h"
#include "wt-logging.h"

static constexpr wt_log_group wt_group = WT_LOG_GROUP_VOLUME_MANAGER;

// Disks of this major change their size without an event.
static constexpr unsigned int SILENTLY_RESIZED_MAJOR = 199;

static bool is_whole_disk(const volume_info *volume)
{
	return volume->vi_partno == 0;
}

static uint64_t length_in_bytes(const volume_info *volume)
{
	return (volume->vi_end.get() - volume->vi_start.get()) * 512;
}

static hbitmap *readable_bitmap(const volume_info *volume)
{
	return volume->vi_bitmap_snapshot ? volume->vi_bitmap_snapshot : volume->vi_bitmap.get();
}

// A removed volume's file goes with the directory.
static void remove_bitmap_file(volume_info *volume)
{
	if (!volume->vi_isremoved)
		ka_sysfs_remove_bin_file(&volume->kobj, &volume->vi_cbt);
}

// Takes the volume's directory away, with vi_mtx held before and after. Whoever looked the volume
// up before and waits for vi_mtx finds it marked, and neither tracks it nor touches its directory.
// That goes without vi_mtx: its removal waits for the processes that use the files, and these wait
// for vi_mtx.
static void withdraw_directory(volume_info *volume)
{
	volume->vi_isremoved = 1;
	ka_mutex_unlock(&volume->vi_mtx);
	ka_kobject_del(&volume->kobj);
	ka_mutex_lock(&volume->vi_mtx);
}

static int forget_volume(const volume_info *volume)
{
	int err = remove_volume_info(volume->vi_devt);
	if (err != 0)
		WT_ERROR("Unable to remove volinfo object from registy\n");
	return err;
}

// Opens a device that must have a disk. False when there is nothing to do, with the result.
static bool open_disk_device(OpenDevice &device, ka_dev_t dev, int *result)
{
	device.open(dev);
	*result = device.error();
	if (*result != 0) {
		WT_ERROR("Unable to get the block device pointer to disk %d:%d\n", ka_major(dev),
			 ka_minor(dev));
		return false;
	}
	if (!ka_bdev_disk(device.get())) {
		WT_ERROR("!!!! %d:%d Doesnt contain a disk\n", ka_major(dev), ka_minor(dev));
		return false;
	}
	return true;
}

// --- Device events -----------------------------------------------------------------------------

// Fills a fresh record from its open device. -ENOTBLK for a removable disk.
static int describe_volume(volume_info *volume, block_device *bdev)
{
	const ka_dev_t dev = volume->vi_devt;
	WT_INFO("Adding volume %d:%d\n", ka_major(dev), ka_minor(dev));
	volume->vi_start.set(ka_bdev_start(bdev));
	volume->vi_end.set(ka_bdev_start(bdev) + ka_bdev_sectors(bdev));
	volume->vi_partno = ka_bdev_partno(bdev);
	volume->vi_devt_parent = ka_bdev_whole_dev(bdev);
	ka_bdevname(bdev, volume->vi_dname);
	if (ka_disk_is_removable(ka_bdev_disk(bdev))) {
		WT_INFO("Ignoring Device %d:%d as it corrosponds to a removable drive\n",
			ka_major(dev), ka_minor(dev));
		return -KA_ENOTBLK;
	}
	return 0;
}

// Enters a described volume into the registry and hooks a whole disk's ioctls.
static int register_volume(volume_info *volume)
{
	ka_mutex_init(&volume->vi_mtx, "&volinfo->vi_mtx");
	ka_generate_random_uuid(volume->vi_uuid);
	volume->vi_cbt = wt_cbt_binattr;
	volume->vi_cbt.private_data = volume;

	int err = add_volume_info(volume->vi_devt, volume);
	if (err != 0) {
		WT_ERROR("Unable to add volinfo object to registy\n");
		return err;
	}
	if (is_whole_disk(volume)) {
		MutexLock lock(volume->vi_mtx);
		err = volume_ioctl_patch(volume);
		if (err != 0) {
			WT_ERROR("Unable to patch the ioctl of the volume\n");
			return err; // the volume stays registered
		}
	}
	WT_INFO("Added volume %s\n", volume->vi_dname);
	return 0;
}

int volume_add(ka_dev_t dev)
{
	if (VolumeRef(lookup_volume_info(dev)))
		return 0;
	OpenDevice device;
	int err;
	if (!open_disk_device(device, dev, &err))
		return err;
	VolumeRef volume(alloc_volume_info());
	if (!volume) {
		WT_ERROR("Unable to allocate memory for volume info\n");
		return -KA_ENOMEM;
	}
	volume->vi_devt = dev;
	err = describe_volume(volume.get(), device.get());
	device.close();
	return err != 0 ? err : register_volume(volume.get());
}

// Ends the tracking of a volume that goes away with its device; the queue is left alone.
static int stop_tracking_of_removed(volume_info *volume)
{
	if (!volume->vi_istracked)
		return 0;
	int err = volume_info_stop_tracking(volume, false);
	if (err == 0)
		remove_bitmap_file(volume);
	WT_INFO("Tracking for volume %s being stopped\n", volume->vi_dname);
	if (err != 0)
		WT_ERROR("Unable to stop the volume tracking on the device\n");
	return err;
}

int volume_remove(ka_dev_t dev)
{
	VolumeRef volume(lookup_volume_info(dev));
	if (!volume)
		return -KA_EINVAL;
	MutexLock lock(volume->vi_mtx);
	int err = 0;
	if (is_whole_disk(volume.get())) {
		err = volume_ioctl_unpatch(volume.get());
		if (err != 0) {
			WT_ERROR("Unable to patch the unpatch ioctl of the volume\n");
			return err;
		}
	}
	err = stop_tracking_of_removed(volume.get());
	if (err != 0)
		return err;
	withdraw_directory(volume.get());
	err = forget_volume(volume.get());
	if (err == 0)
		WT_INFO("removed volume %d:%d\n", ka_major(dev), ka_minor(dev));
	return err;
}

// With vi_mtx held. A bitmap is of no use for another extent.
static int change_extent(volume_info *volume, ka_sector_t start, ka_sector_t end)
{
	int err = 0;
	if (volume->vi_istracked) {
		if (start == volume->vi_start.get() && end == volume->vi_end.get())
			return 0;
		err = volume_info_stop_tracking(volume, true);
		if (err == 0) {
			WT_INFO("Tracking for volume %s (%d:%d) being stopped due to volume "
				"resize\n",
				volume->vi_dname, ka_major(volume->vi_devt),
				ka_minor(volume->vi_devt));
			remove_bitmap_file(volume);
		} else {
			WT_ERROR("Unable to stop tracking for volume %s due to resize. Err=%d\n",
				 volume->vi_dname, err);
		}
	}
	volume->vi_start.set(start);
	volume->vi_end.set(end);
	return err;
}

int volume_change(ka_dev_t dev)
{
	OpenDevice device;
	int err;
	if (!open_disk_device(device, dev, &err))
		return err;
	const ka_sector_t start = ka_bdev_start(device.get());
	const ka_sector_t end = start + ka_bdev_sectors(device.get());
	device.close();

	VolumeRef volume(lookup_volume_info(dev));
	if (!volume)
		return -KA_EINVAL;
	MutexLock lock(volume->vi_mtx);
	return change_extent(volume.get(), start, end);
}

int volume_move(ka_dev_t)
{
	return 0;
}

int volume_online(ka_dev_t)
{
	return 0;
}

int volume_offline(ka_dev_t dev)
{
	VolumeRef volume(lookup_volume_info(dev));
	if (!volume)
		return -KA_EINVAL;
	backUp backup = {};
	int err = volume_manager_stop_tracking(volume.get(), &backup);
	// One release more than there were acquisitions. Deliberate: a volume that goes offline is
	// left unlocked whatever the stop did.
	ka_mutex_unlock(&volume->vi_mtx);
	return err;
}

// --- Operations for user space -----------------------------------------------------------------

static int follow_silent_resize(volume_info *volume)
{
	return ka_major(volume->vi_devt) == SILENTLY_RESIZED_MAJOR ? volume_change(volume->vi_devt)
								   : 0;
}

// With vi_mtx held, on an untracked volume.
static int begin_tracking(volume_info *volume, backUp *backup)
{
	if (volume->vi_isremoved)
		return -KA_EINVAL;
	if (!is_whole_disk(volume)) {
		WT_WARN("Tracking of partitions is not supported\n");
		return -KA_EINVAL;
	}
	int err = volume_info_start_tracking(volume);
	if (err != 0)
		return err;
	if (backup)
		backup->PartitionLength = length_in_bytes(volume);
	if (ka_sysfs_create_bin_file(&volume->kobj, &volume->vi_cbt) != 0)
		WT_WARN("Unable to create cbt-sysfs entry disk:%s\n", volume->vi_dname);
	volume->vi_switchcount.set(0);
	return 0;
}

int volume_manager_start_tracking(volume_info *volume, backUp *backup)
{
	follow_silent_resize(volume);
	InterruptibleMutexLock lock(volume->vi_mtx);
	if (lock.error() != 0)
		return lock.error();
	if (backup)
		backup->level = volume->vi_istracked;
	return volume->vi_istracked ? 0 : begin_tracking(volume, backup);
}

int volume_manager_stop_tracking(volume_info *volume, backUp *backup)
{
	InterruptibleMutexLock lock(volume->vi_mtx);
	if (lock.error() != 0)
		return lock.error();
	if (backup)
		backup->level = volume->vi_istracked;
	if (volume->vi_istracked) {
		int err = volume_info_stop_tracking(volume, true);
		if (err != 0)
			return err;
	}
	if (backup)
		backup->PartitionLength = length_in_bytes(volume);
	remove_bitmap_file(volume);
	volume->vi_switchcount.set(0);
	return 0;
}

int volume_manager_backup_level(volume_info *volume)
{
	follow_silent_resize(volume);
	InterruptibleMutexLock lock(volume->vi_mtx);
	return lock.error() != 0 ? lock.error() : volume->vi_istracked;
}

int volume_manager_volume_uuid(volume_info *volume, unsigned char uuid[16])
{
	InterruptibleMutexLock lock(volume->vi_mtx);
	if (lock.error() != 0)
		return lock.error();
	memcpy(uuid, volume->vi_uuid, sizeof(volume->vi_uuid));
	return 0;
}

int volume_manager_get_data(volume_info *volume, WI_DATA *data)
{
	InterruptibleMutexLock lock(volume->vi_mtx);
	if (lock.error() != 0)
		return lock.error();
	data->savetime = volume->vi_savetime;
	return 0;
}

int volume_manager_set_data(volume_info *volume, const WI_DATA *data)
{
	InterruptibleMutexLock lock(volume->vi_mtx);
	if (lock.error() == 0)
		volume->vi_savetime = data->savetime;
	return 0;
}

int64_t volume_manager_get_bitmap_size(volume_info *volume)
{
	InterruptibleMutexLock lock(volume->vi_mtx);
	if (lock.error() != 0)
		return lock.error();
	const hbitmap *bitmap = readable_bitmap(volume);
	return bitmap ? bitmap->size : 0;
}

// With an error in the log when there is none.
static const hbitmap *readable_bitmap_or_error(const volume_info *volume)
{
	const hbitmap *bitmap = readable_bitmap(volume);
	if (!bitmap)
		WT_ERROR("Tracking not enabled on disk %s\n", volume->vi_dname);
	return bitmap;
}

// Writes one word's bytes, at most `limit` of them, most significant first.
static void store_big_endian(char *to, uint64_t word, int64_t limit)
{
	for (int64_t i = 0; i < 8 && i < limit; i++)
		to[i] = static_cast<char>(word >> (56 - 8 * i));
}

int64_t volume_manager_get_bitmap(volume_info *volume, char *buffer, int64_t offset, size_t count)
{
	InterruptibleMutexLock lock(volume->vi_mtx);
	if (lock.error() != 0)
		return lock.error();
	const hbitmap *bitmap = readable_bitmap_or_error(volume);
	if (!bitmap)
		return -KA_EINVAL;
	if (bitmap->size <= offset)
		return 0;
	int64_t n = static_cast<int64_t>(count);
	if (n + offset > bitmap->size)
		n = bitmap->size - offset;
	if (n == 0)
		return 0;
	// Only a count of exactly nothing ends the copy.
	const uint64_t *word = bitmap->bitmap;
	for (int64_t left = n; left != 0; left -= 8) {
		store_big_endian(buffer, atomic_read(word++), left);
		buffer += 8;
	}
	return n;
}

int volume_manager_get_extents(volume_info *volume, uint64_t offset, wt_extents *extents)
{
	InterruptibleMutexLock lock(volume->vi_mtx);
	if (lock.error() != 0)
		return lock.error();
	const hbitmap *bitmap = readable_bitmap_or_error(volume);
	if (!bitmap)
		return -KA_EINVAL;
	return volume_info_get_extents(bitmap, offset, extents);
}

int volume_manager_clear_bitmap(volume_info *volume)
{
	hbitmap *detached;
	{
		InterruptibleMutexLock lock(volume->vi_mtx);
		if (lock.error() != 0) {
			WT_ERROR("Unable to take the volume mutex for clearing snap-cbt.Error:%d\n",
				 lock.error());
			return lock.error();
		}
		detached = volume->vi_bitmap_snapshot;
		volume->vi_bitmap_snapshot = nullptr;
		__atomic_thread_fence(__ATOMIC_RELEASE);
	}
	if (!detached)
		return -KA_EINVAL;
	ka_vfree(detached);
	return 0;
}

// With vi_mtx held.
static int switch_bitmap(volume_info *volume)
{
	if (!volume->vi_istracked)
		return 0;
	int err = volume_info_switch_bitmap(volume);
	if (err != 0)
		return err;
	WT_INFO("Switched CBT bitmap for disk:%s\n", volume->vi_dname);
	volume->vi_switchcount.increment();
	return 0;
}

int volume_manager_switch_bitmap(volume_info *volume)
{
	InterruptibleMutexLock lock(volume->vi_mtx);
	return lock.error() != 0 ? lock.error() : switch_bitmap(volume);
}

int volume_manager_switch_suspended(volume_info *volume)
{
	PatientMutexLock lock(volume->vi_mtx);
	return lock ? switch_bitmap(volume) : -KA_EBUSY;
}

int volume_manager_getswitchcount(volume_info *volume)
{
	InterruptibleMutexLock lock(volume->vi_mtx);
	if (lock.error() != 0)
		return lock.error();
	return volume->vi_istracked ? static_cast<int>(volume->vi_switchcount.get()) : -KA_EINVAL;
}

// --- Unload ------------------------------------------------------------------------------------

static void volume_manager_cleanup_helper(volume_info *volume)
{
	MutexLock lock(volume->vi_mtx);
	// First, so that nobody starts tracking what is left to the end of the driver.
	if (volume->vi_istracked)
		remove_bitmap_file(volume);
	withdraw_directory(volume);
	if (is_whole_disk(volume) && volume_ioctl_unpatch(volume) != 0) {
		WT_ERROR("Unable to patch the unpatch ioctl of the volume\n");
		return;
	}
	if (volume->vi_istracked) {
		int err = volume_info_stop_tracking(volume, true);
		WT_INFO("Tracking for volume %s being stopped\n", volume->vi_dname);
		if (err != 0)
			WT_ERROR("Unable to stop the volume tracking on the device.\n");
	}
	forget_volume(volume);
}

int volume_manager_cleanup()
{
	for_each_volume_info(volume_manager_cleanup_helper);
	return 0;
}
