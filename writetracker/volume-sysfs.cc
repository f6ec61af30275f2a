// SPDX-License-Identifier: GPL-2.0
// The files of a volume's directory in sysfs, a text interface to the operations of the volume
// manager, and "cbt-bitmap", the bitmap as bytes.
#include "volume-sysfs.h"

#include "../kernel-abstractions/memory.h"
#include "scan.h"
#include "volume-manager.h"
#include "wt-logging.h"

static constexpr wt_log_group wt_group = WT_LOG_GROUP_VOLUME_SYSFS;

namespace
{

struct volume_sysfs_entry {
	ka_attribute attr;
	// The length of the text, or a negative error. Null: the file cannot be read.
	long (*show)(volume_info *volume, char *page);
	// The length taken, or a negative error. Null: the file cannot be written.
	long (*store)(volume_info *volume, const char *page, size_t length);
};

const volume_sysfs_entry *entry_of(ka_attribute *attribute)
{
	static_assert(__builtin_offsetof(volume_sysfs_entry, attr) == 0);
	return reinterpret_cast<volume_sysfs_entry *>(attribute);
}

volume_info *volume_of(ka_kobject *kobj)
{
	static_assert(__builtin_offsetof(volume_info, kobj) == 0);
	return reinterpret_cast<volume_info *>(kobj);
}

// What a store returns that ended with err.
long taken(int err, size_t length)
{
	return err != 0 ? err : static_cast<long>(length);
}

} // namespace

// --- Entries -----------------------------------------------------------------------------------

static long last_backup_time_show(volume_info *volume, char *page)
{
	WI_DATA data = {};
	int err = volume_manager_get_data(volume, &data);
	if (err != 0)
		return err;
	return ka_snprintf(page, KA_SYSFS_PAGE, "%lu\n", data.savetime);
}

static long last_backup_time_store(volume_info *volume, const char *page, size_t length)
{
	WI_DATA data = {};
	if (!scan_unsigned(&page, &data.savetime))
		return -KA_EINVAL;
	return taken(volume_manager_set_data(volume, &data), length);
}

static long is_tracked_show(volume_info *volume, char *page)
{
	// An error is shown as the number it is.
	return ka_snprintf(page, KA_SYSFS_PAGE, "%d\n", volume_manager_backup_level(volume));
}

static long is_tracked_store(volume_info *volume, const char *page, size_t length)
{
	backUp backup = {};
	if (!scan_signed(&page, &backup.level))
		return -KA_EINVAL;
	if (backup.level == volume_manager_backup_level(volume))
		return static_cast<long>(length);
	if (static_cast<unsigned int>(backup.level) > 1)
		return -KA_EINVAL;
	return taken(backup.level == 1 ? volume_manager_start_tracking(volume, &backup)
				       : volume_manager_stop_tracking(volume, &backup),
		     length);
}

static long volume_name_show(volume_info *volume, char *page)
{
	return ka_snprintf(page, KA_SYSFS_PAGE, "%s\n", volume->vi_dname);
}

static long volume_extents_show(volume_info *volume, char *page)
{
	return ka_snprintf(page, KA_SYSFS_PAGE, "%lu %lu\n", volume->vi_start.get(),
			   volume->vi_end.get());
}

static long clear_bitmap_store(volume_info *volume, const char *page, size_t length)
{
	int confirmed = 0;
	if (!scan_signed(&page, &confirmed) || confirmed == 0)
		return -KA_EINVAL;
	return taken(volume_manager_clear_bitmap(volume), length);
}

// Lists the extents, as many as the array takes at a time. The length is that of the whole text as
// far as it was made: it exceeds the page when the last line did not fit, and then the page ends in
// " ...".
static long list_extents(volume_info *volume, wt_extents *extents, char *page)
{
	long length = 0;
	uint64_t offset = 0;
	while (length < KA_SYSFS_PAGE) {
		const int count = volume_manager_get_extents(volume, offset, extents);
		if (count <= 0)
			return count < 0 ? count : length;
		for (int i = 0; i < count && length < KA_SYSFS_PAGE; i++) {
			const wt_extent &extent = extents->wtes_extents[i];
			length += ka_snprintf(page + length, KA_SYSFS_PAGE - length, "%lu:%lu\n",
					      extent.wte_start, extent.wte_length);
			offset = extent.wte_start + extent.wte_length;
		}
	}
	constexpr char mark[] = " ...";
	memcpy(page + KA_SYSFS_PAGE - sizeof(mark), mark, sizeof(mark));
	return length;
}

static long change_extents_show(volume_info *volume, char *page)
{
	constexpr size_t capacity = 10;
	constexpr size_t size = sizeof(wt_extents) + capacity * sizeof(wt_extent);
	auto *extents = static_cast<wt_extents *>(ka_vmalloc(size));
	if (!extents) {
		WT_ERROR("Unable to allocated memory to store wt_extents\n");
		return -KA_ENOMEM;
	}
	memset(extents, 0, size);
	extents->wtes_size = capacity;
	const long length = list_extents(volume, extents, page);
	ka_vfree(extents);
	return length;
}

static long wt_volume_uuid_show(volume_info *volume, char *page)
{
	unsigned char u[16];
	int err = volume_manager_volume_uuid(volume, u);
	if (err != 0)
		return err;
	return ka_snprintf(page, KA_SYSFS_PAGE,
			   "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x\n",
			   u[0], u[1], u[2], u[3], u[4], u[5], u[6], u[7], u[8], u[9], u[10], u[11],
			   u[12], u[13], u[14], u[15]);
}

static long cbt_switch_count_show(volume_info *volume, char *page)
{
	const long count = volume_manager_getswitchcount(volume);
	return count < 0 ? count : ka_snprintf(page, KA_SYSFS_PAGE, "%ld\n", count);
}

static volume_sysfs_entry last_backup_time = {
	{"last-backup-time", 0644, {}}, last_backup_time_show, last_backup_time_store};
static volume_sysfs_entry is_tracked = {
	{"tracking-enabled", 0644, {}}, is_tracked_show, is_tracked_store};
static volume_sysfs_entry volume_name = {{"volume-name", 0444, {}}, volume_name_show, nullptr};
static volume_sysfs_entry volume_extents = {
	{"volume-extents", 0444, {}}, volume_extents_show, nullptr};
static volume_sysfs_entry clear_bitmap = {{"clear-bitmap", 0200, {}}, nullptr, clear_bitmap_store};
static volume_sysfs_entry change_extents = {
	{"changed-extents", 0444, {}}, change_extents_show, nullptr};
static volume_sysfs_entry wt_volume_uuid = {
	{"volume-uuid", 0444, {}}, wt_volume_uuid_show, nullptr};
static volume_sysfs_entry cbt_switch_count = {
	{"cbt-switch-count", 0444, {}}, cbt_switch_count_show, nullptr};

ka_attribute *const g_attr_wt[] = {
	&last_backup_time.attr, &is_tracked.attr,       &volume_name.attr,
	&volume_extents.attr,   &clear_bitmap.attr,     &change_extents.attr,
	&wt_volume_uuid.attr,   &cbt_switch_count.attr, nullptr,
};

// --- Dispatchers -------------------------------------------------------------------------------

static long vol_attr_show(ka_kobject *kobj, ka_attribute *attribute, char *page)
{
	const volume_sysfs_entry *entry = entry_of(attribute);
	if (!entry->show)
		return -KA_EIO;
	VolumeRef volume(volume_info_get(volume_of(kobj)));
	return volume ? entry->show(volume.get(), page) : -KA_EINVAL;
}

static long vol_attr_store(ka_kobject *kobj, ka_attribute *attribute, const char *page,
			   size_t length)
{
	const volume_sysfs_entry *entry = entry_of(attribute);
	if (!entry->store)
		return -KA_EIO;
	VolumeRef volume(volume_info_get(volume_of(kobj)));
	return volume ? entry->store(volume.get(), page, length) : -KA_EINVAL;
}

const ka_sysfs_ops g_vol_sysfs_ops = {vol_attr_show, vol_attr_store};

// --- The bitmap --------------------------------------------------------------------------------

// The frozen bitmap, else the live one. The first block is the top bit of the first byte; a set bit
// means a block that was not written.
static long cbt_read(file *, ka_kobject *, ka_bin_attribute *attribute, char *buffer,
		     long long offset, size_t count)
{
	auto *volume = static_cast<volume_info *>(attribute->private_data);
	if (!volume)
		return -KA_EINVAL;
	// The copy works in whole words and would run past a buffer that does not end with one.
	constexpr size_t word = sizeof(uint64_t);
	if (offset % static_cast<long long>(word) != 0 || count < word)
		return -KA_EINVAL;
	return volume_manager_get_bitmap(volume, buffer, offset, count - count % word);
}

const ka_bin_attribute wt_cbt_binattr = {"cbt-bitmap", 0044, 0, nullptr, cbt_read, {}};
