// SPDX-License-Identifier: GPL-2.0
// Execution of the volume commands, and the hook in a disk's ioctl entries.
#include "volume-ioctl.h"

#include "../h/wt.h"
#include "../kernel-abstractions/memory.h"
#include "../kernel-abstractions/task.h"
#include "genl-reply.h"
#include "guards.h"
#include "volume-manager.h"
#include "volume-tracker.h"
#include "writetracker.h"
#include "wt-logging.h"

static constexpr wt_log_group wt_group = WT_LOG_GROUP_VOLUME_IOCTL;

int init_volume_ioctl()
{
	WT_INFO("Initializing the Volume IOCTL Subsystem\n");
	return 0;
}

int cleanup_volume_ioctl()
{
	WT_INFO("Cleaning up the Volume IOCTL Subsystem\n");
	return 0;
}

// --- What both transports share ----------------------------------------------------------------

// Level 1 starts tracking, 0 stops it; the record is updated.
static int start_or_stop(volume_info *volume, backUp *backup)
{
	switch (backup->level) {
	case 1:
		return volume_manager_start_tracking(volume, backup);
	case 0:
		return volume_manager_stop_tracking(volume, backup);
	default:
		return -KA_EINVAL;
	}
}

// A record for a reply: its padding leaves the kernel as well, and is zeroed with the rest.
template <typename Record> static void clear(Record *record)
{
	memset(record, 0, sizeof(*record));
}

// The level, and the length in sectors. Starting and stopping report the length in bytes.
static void get_level_and_length(volume_info *volume, backUp *backup)
{
	clear(backup);
	backup->level = volume_manager_backup_level(volume);
	backup->PartitionLength = volume->vi_end.get() - volume->vi_start.get();
}

static bmReg granularity()
{
	return {static_cast<int32_t>(WT_BLOCK_SECTORS)};
}

// The bytes of a wt_extents with room for that many. False when no size_t holds the number.
static bool extents_size(size_t capacity, size_t *size)
{
	return !__builtin_mul_overflow(capacity, sizeof(wt_extent), size) &&
	       !__builtin_add_overflow(*size, sizeof(wt_extents), size);
}

static int fill_extents(volume_info *volume, uint64_t start_from, size_t capacity,
			wt_extents *extents)
{
	extents->wtes_size = capacity;
	int count = volume_manager_get_extents(volume, start_from, extents);
	if (count < 0)
		WT_ERROR("Unable to retrive extents for volume %s Error=%d\n", volume->vi_dname,
			 count);
	return count;
}

// --- Ioctls ------------------------------------------------------------------------------------

static int ioctl_level(volume_info *volume, void *record)
{
	backUp backup;
	get_level_and_length(volume, &backup);
	if (ka_copy_to_user(record, &backup, sizeof(backup)) != 0) {
		WT_ERROR("Unable to copy volume tracking info to the usermode\n");
		return -KA_EACCES;
	}
	return 0;
}

static int ioctl_granularity(void *record)
{
	bmReg registers = granularity();
	// The copy's direction is the wrong way round, and stays so: callers of this road never got
	// an answer, and a kernel address is no place to copy to.
	if (ka_copy_to_user(&registers, record, sizeof(registers)) != 0) {
		WT_ERROR("Unable to copy bmReg to userland\n");
		return -KA_EACCES;
	}
	return 0;
}

static int ioctl_start(volume_info *volume, void *record)
{
	backUp backup;
	if (ka_copy_from_user(&backup, record, sizeof(backup)) != 0) {
		WT_ERROR("Unable to copy struct backUp from userland\n");
		return -KA_EACCES;
	}
	int err = start_or_stop(volume, &backup);
	if (err != 0)
		return err;
	if (ka_copy_to_user(record, &backup, sizeof(backup)) != 0) {
		WT_ERROR("Unable to copy struct backUp to userland\n");
		return -KA_EACCES;
	}
	return 0;
}

static int ioctl_bitmap_size(volume_info *volume, void *record)
{
	const auto size = static_cast<uint32_t>(volume_manager_get_bitmap_size(volume));
	auto *field = static_cast<char *>(record) + __builtin_offsetof(BITMAP, nBMSize);
	if (ka_copy_to_user(field, &size, sizeof(size)) != 0) {
		WT_ERROR("Unable to copy bitmapsize to userland\n");
		return -KA_EACCES;
	}
	return 0;
}

static int ioctl_data(volume_info *volume, void *record)
{
	WI_DATA data;
	if (ka_copy_from_user(&data, record, sizeof(data)) != 0) {
		WT_ERROR("Unable to copy WI_DATA from userland\n");
		return -KA_EACCES;
	}
	// Unlike netlink, this road does not look at the manager's result.
	if (data.bRequest == 0) {
		volume_manager_set_data(volume, &data);
		return 0;
	}
	volume_manager_get_data(volume, &data);
	if (ka_copy_to_user(record, &data, sizeof(data)) != 0) {
		WT_ERROR("Unable to copy Wi_DATA to userland\n");
		return -KA_EACCES;
	}
	return 0;
}

// Fills the array and copies it behind the request's header. The count or an error.
static int copy_extents_out(volume_info *volume, uint64_t start_from, size_t capacity,
			    wt_extents *extents, void *record)
{
	int count = fill_extents(volume, start_from, capacity, extents);
	if (count < 0)
		return count;
	auto *reply =
		static_cast<char *>(record) + __builtin_offsetof(wt_extents_request, wer_extents);
	const size_t size = sizeof(wt_extents) + static_cast<size_t>(count) * sizeof(wt_extent);
	if (ka_copy_to_user(reply, extents, size) != 0) {
		WT_ERROR("Unable to copy extents of volume %s to the user memory\n",
			 volume->vi_dname);
		return -KA_EACCES;
	}
	return count;
}

static int ioctl_extents(volume_info *volume, void *record)
{
	wt_extents_request request;
	if (ka_copy_from_user(&request, record, WT_EXTENTS_REQUEST_HEADER_SIZE) != 0) {
		WT_ERROR("Unable to wt_extents request from usermode\n");
		return -KA_EACCES;
	}
	const size_t capacity = request.wer_extents.wtes_size;
	size_t size;
	auto *extents = static_cast<wt_extents *>(extents_size(capacity, &size) ? ka_vmalloc(size)
										: nullptr);
	if (!extents) {
		WT_ERROR("Unable to allocate memory to copy wt_extents\n");
		return -KA_ENOMEM;
	}
	int result = copy_extents_out(volume, request.wer_start_from, capacity, extents, record);
	ka_vfree(extents);
	return result;
}

static int ioctl_uuid(volume_info *volume, void *record)
{
	wt_volume_uuid_t uuid;
	int err = volume_manager_volume_uuid(volume, uuid);
	if (err != 0) {
		WT_ERROR("Unable to fetch the  uuid for the  volume %s Error=%d\n",
			 volume->vi_dname, err);
		return err;
	}
	if (ka_copy_to_user(record, uuid, sizeof(uuid)) != 0) {
		WT_ERROR("Unable to copy uuid of volume %s to the user memory\n", volume->vi_dname);
		return -KA_EACCES;
	}
	return 0;
}

int process_volume_ioctl(volume_info *volume, unsigned int index, void *record)
{
	switch (index) {
	case WT_IS_DRIVER_PRESENT_IOCTL_INDEX:
	case WT_STOP_IOCTL_INDEX:
		return 0;
	case WT_GET_DRIVER_VERSION_IOCTL_INDEX:
		return copy_driver_version(wt_group, record);
	case WT_GET_BACKUP_LEVEL_IOCTL_INDEX:
		return ioctl_level(volume, record);
	case WT_BMCONFIG_IOCTL_INDEX:
		return ioctl_granularity(record);
	case WT_START_IOCTL_INDEX:
		return ioctl_start(volume, record);
	case WT_BMSIZE_IOCTL_INDEX:
		return ioctl_bitmap_size(volume, record);
	case WT_DATA_IOCTL_INDEX:
		return ioctl_data(volume, record);
	case WT_GET_EXTENTS_IOCTL_INDEX:
		return ioctl_extents(volume, record);
	case WT_CLEAR_SNAPSHOT_BITMAP_IOCTL_INDEX:
		return volume_manager_clear_bitmap(volume);
	case WT_SWITCH_VOLUME_CBT_IOCTL_INDEX:
		return volume_manager_switch_bitmap(volume);
	case WT_GET_VOLUME_UUID_IOCTL_INDEX:
		return ioctl_uuid(volume, record);
	default:
		return -KA_ENOIOCTLCMD;
	}
}

// --- Generic netlink ---------------------------------------------------------------------------

// A request about a volume.
struct VolumeRequest : GenlRequest {
	volume_info *volume;
};

static int netlink_present(const VolumeRequest &request)
{
	return request.acknowledge();
}

static int netlink_level(const VolumeRequest &request)
{
	backUp backup;
	get_level_and_length(request.volume, &backup);
	return request.reply(WT_GENATTR_BACKUP, &backup, sizeof(backup));
}

static int netlink_granularity(const VolumeRequest &request)
{
	const bmReg registers = granularity();
	return request.reply(WT_GENATTR_BMREG, &registers, sizeof(registers));
}

static int netlink_start(const VolumeRequest &request)
{
	const auto *asked = request.attribute<backUp>(WT_GENATTR_BACKUP);
	if (!asked)
		return request.invalid();
	backUp backup;
	memcpy(&backup, asked, sizeof(backup));
	int err = start_or_stop(request.volume, &backup);
	return err != 0 ? err : request.reply(WT_GENATTR_BACKUP, &backup, sizeof(backup));
}

static int netlink_bitmap_size(const VolumeRequest &request)
{
	BITMAP bitmap;
	clear(&bitmap);
	bitmap.nBMSize = static_cast<uint32_t>(volume_manager_get_bitmap_size(request.volume));
	return request.reply(WT_GENATTR_BITMAP, &bitmap, sizeof(bitmap));
}

static int netlink_data(const VolumeRequest &request)
{
	WI_DATA data;
	clear(&data);
	data.bRequest = 1;
	const auto *asked = request.attribute<WI_DATA>(WT_GENATTR_WI_DATA);
	if (asked)
		memcpy(&data, asked, sizeof(data));
	if (data.bRequest == 0)
		return request.acknowledge_or_error(volume_manager_set_data(request.volume, &data));
	int err = volume_manager_get_data(request.volume, &data);
	return err != 0 ? err : request.reply(WT_GENATTR_WI_DATA, &data, sizeof(data));
}

static int netlink_extents(const VolumeRequest &request)
{
	const auto *asked = request.attribute<wt_extents_request>(WT_GENATTR_BACKUP);
	if (!asked)
		return request.invalid();
	uint64_t start_from;
	size_t capacity, size;
	memcpy(&start_from, &asked->wer_start_from, sizeof(start_from));
	memcpy(&capacity, &asked->wer_extents.wtes_size, sizeof(capacity));
	if (!extents_size(capacity, &size))
		return request.out_of_memory();

	GenlReply reply(request.info, size);
	if (!reply.is_valid())
		return request.out_of_memory();
	// The attribute keeps its full length whatever the count: what is not used stays zero.
	void *room = reply.reserve(WT_GENATTR_BACKUP, size);
	if (!room)
		return -KA_EMSGSIZE;
	// An attribute's data is aligned to four bytes only, which is enough on this architecture.
	int count =
		fill_extents(request.volume, start_from, capacity, static_cast<wt_extents *>(room));
	return count < 0 ? count : request.send(reply);
}

static int netlink_clear(const VolumeRequest &request)
{
	return request.acknowledge_or_error(volume_manager_clear_bitmap(request.volume));
}

static int netlink_switch(const VolumeRequest &request)
{
	return request.acknowledge_or_error(volume_manager_switch_bitmap(request.volume));
}

static int netlink_uuid(const VolumeRequest &request)
{
	wt_volume_uuid_t uuid;
	int err = volume_manager_volume_uuid(request.volume, uuid);
	return err != 0 ? err : request.reply(WT_GENATTR_VOLUME_UUID_T, uuid, sizeof(uuid));
}

namespace
{

struct netlink_command {
	const char *name;
	int (*run)(const VolumeRequest &request); // null: not served
};

} // namespace

// By command index.
static constexpr netlink_command netlink_commands[WT_MAX_VOLUME_IOCTL_INDEX] = {
	{nullptr, nullptr},
	{"WT_IS_DRIVER_PRESENT_IOCTL_INDEX", netlink_present},
	{"WT_GET_DRIVER_VERSION_IOCTL_INDEX", nullptr},
	{"WT_GET_BACKUP_LEVEL_IOCTL_INDEX", netlink_level},
	{"WT_BMCONFIG_IOCTL_INDEX", netlink_granularity},
	{"WT_START_IOCTL_INDEX", netlink_start},
	{"WT_BMSIZE_IOCTL_INDEX", netlink_bitmap_size},
	{"WT_BITMAP_IOCTL_INDEX", nullptr},
	{"WT_STOP_IOCTL_INDEX", netlink_present},
	{"WT_DATA_IOCTL_INDEX", netlink_data},
	{"WT_GET_EXTENTS_IOCTL_INDEX", netlink_extents},
	{"WT_CLEAR_SNAPSHOT_BITMAP_IOCTL_INDEX", netlink_clear},
	{"WT_SWITCH_VOLUME_CBT_IOCTL_INDEX", netlink_switch},
	{"WT_GET_VOLUME_UUID_IOCTL_INDEX", netlink_uuid},
};

int process_volume_gen_netlink_msg(volume_info *volume, sk_buff *skb, genl_info *info)
{
	const unsigned int index = ka_genl_cmd(info);
	if (index >= WT_MAX_VOLUME_IOCTL_INDEX || !netlink_commands[index].run)
		return -KA_ENOIOCTLCMD;
	return netlink_commands[index].run(
		{{skb, info, wt_group, netlink_commands[index].name}, volume});
}

// --- The hook in a disk's ioctl entries ----------------------------------------------------------

// The whole disk's volume of the device, or none.
static volume_info *lookup_whole_disk(ka_dev_t dev)
{
	VolumeRef volume(lookup_volume_info(dev));
	while (volume && volume->vi_devt != volume->vi_devt_parent)
		volume.reset(lookup_volume_info(volume->vi_devt_parent));
	return volume.release();
}

// Serves the driver's commands and passes every other to the entry that the disk had.
static int filter_ioctl(enum ka_ioctl_entry entry, block_device *bdev, unsigned int mode,
			unsigned int cmd, unsigned long arg)
{
	// The table's owner is the disk's driver: nothing else keeps this module while the ioctl,
	// which may last as long as the disk does, comes back through here.
	ModulePin pin;
	VolumeRef volume(lookup_whole_disk(ka_bdev_dev(bdev)));
	if (!volume)
		return -KA_ENOIOCTLCMD;
	const unsigned int index = WT_IOCTL_INDEX_OF(cmd);
	if (WT_IOCTL_TYPE_OF(cmd) != WT_IOCTL_TYPE || index >= WT_MAX_VOLUME_IOCTL_INDEX) {
		const ka_block_device_operations *saved = volume->vi_blockfops_old.get();
		volume.reset(nullptr);
		return saved ? ka_fops_call_ioctl(saved, entry, bdev, mode, cmd, arg)
			     : -KA_ENOIOCTLCMD;
	}
	if (!ka_capable_sys_admin()) {
		volume.release(); // deliberate: this reference is kept for good
		return -KA_EACCES;
	}
	return process_volume_ioctl(volume.get(), index, reinterpret_cast<void *>(arg));
}

extern "C" {

static int filter_volume_ioctl(block_device *bdev, unsigned int mode, unsigned int cmd,
			       unsigned long arg)
{
	return filter_ioctl(KA_IOCTL, bdev, mode, cmd, arg);
}

static int filter_volume_locked_ioctl(block_device *bdev, unsigned int mode, unsigned int cmd,
				      unsigned long arg)
{
	return filter_ioctl(KA_LOCKED_IOCTL, bdev, mode, cmd, arg);
}

static int filter_volume_compat_ioctl(block_device *bdev, unsigned int mode, unsigned int cmd,
				      unsigned long arg)
{
	return filter_ioctl(KA_COMPAT_IOCTL, bdev, mode, cmd, arg);
}
}

static constexpr ka_bdev_ioctl_fn *ioctl_filters[KA_IOCTL_ENTRIES] = {
	filter_volume_ioctl, filter_volume_locked_ioctl, filter_volume_compat_ioctl};

int volume_ioctl_patch(volume_info *volume)
{
	KA_BUG_ON(!ka_mutex_is_locked(&volume->vi_mtx));
	if (volume->vi_blockfops_old.get())
		return 0;
	OpenDevice device(volume->vi_devt);
	if (device.error() != 0) {
		WT_ERROR("Unable to patch volume %s\n", volume->vi_dname);
		return device.error();
	}
	gendisk *disk = ka_bdev_disk(device.get());
	const ka_block_device_operations *current;
	do {
		current = ka_disk_fops(disk);
		KA_BUG_ON(!current);
		volume->vi_blockfops_old.set(current);
		ka_fops_copy_with_ioctls(&volume->vi_blockfops, current, ioctl_filters);
	} while (ka_disk_cmpxchg_fops(disk, current, &volume->vi_blockfops) != current);
	return 0;
}

int volume_ioctl_unpatch(volume_info *volume)
{
	KA_BUG_ON(!ka_mutex_is_locked(&volume->vi_mtx));
	const ka_block_device_operations *saved = volume->vi_blockfops_old.get();
	if (!saved)
		return 0;
	OpenDevice device(volume->vi_devt);
	if (device.error() == -KA_ENXIO)
		return 0;
	if (device.error() != 0) {
		WT_ERROR("Unable to unpatch volume %s Err:%d\n", volume->vi_dname, device.error());
		return device.error();
	}
	if (ka_disk_cmpxchg_fops(ka_bdev_disk(device.get()), &volume->vi_blockfops, saved) !=
	    &volume->vi_blockfops) {
		WT_WARN("Block ops ioctl already patched cannot unpatch!!!\n");
		return -KA_EBUSY;
	}
	// Who read the disk's pointer before is through with the table, which goes with the record.
	ka_synchronize_sched();
	volume->vi_blockfops_old.set(nullptr);
	return 0;
}
