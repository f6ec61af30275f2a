// SPDX-License-Identifier: GPL-2.0
// What sysfs shows of the restore disks. All files are read-only; none ends in a line feed.
#include "jorl-manager-sysfs.h"

#include "control-device.h"
#include "jorl-manager.h"
#include "wt-logging.h"

static constexpr size_t SHOW_LIMIT = 2048;
static constexpr unsigned short READ_ONLY = 0444;

namespace
{

struct jorlmanager_sysfs_entry {
	ka_attribute attr;
	// The length of the text, or a negative error.
	long (*show)(char *page);
	long (*store)(const char *page, size_t length); // none has one
};

struct jorlvolume_sysfs_entry {
	ka_attribute attr;
	long (*show)(jorlvolume_info *volume, char *page);
	long (*store)(jorlvolume_info *volume, const char *page, size_t length); // none has one
};

template <typename Entry> const Entry *entry_of(ka_attribute *attribute)
{
	static_assert(__builtin_offsetof(Entry, attr) == 0);
	return reinterpret_cast<Entry *>(attribute);
}

} // namespace

// --- The manager's files -------------------------------------------------------------------------

static long ref_count_show(char *page)
{
	JorlManagerRef manager(JorlManagerRef::IF_UP);
	if (!manager)
		return -KA_EAGAIN;
	const long length = ka_snprintf(page, SHOW_LIMIT, "%u", JorlManagerRef::others());
	// The last one takes the directory with it, which waits for its readers.
	manager.drop_later();
	return length;
}

static long genl_protocol_family_show(char *page)
{
	const ka_genl_family *family = wt_genl_family;
	if (!family || family->id == 0)
		return -KA_EAGAIN;
	return ka_snprintf(page, SHOW_LIMIT, "%s:%u", family->name, family->id);
}

static jorlmanager_sysfs_entry ref_count = {{"ref-count", READ_ONLY, {}}, ref_count_show, nullptr};
static jorlmanager_sysfs_entry genl_protocol_family = {
	{"genl-protocol-family", READ_ONLY, {}}, genl_protocol_family_show, nullptr};

ka_attribute *const g_jorl_sysfs_attrs[] = {&ref_count.attr, &genl_protocol_family.attr, nullptr};

extern "C" {

static long jorl_attr_show(ka_kobject *, ka_attribute *attribute, char *page)
{
	const auto *entry = entry_of<jorlmanager_sysfs_entry>(attribute);
	return entry->show ? entry->show(page) : -KA_EIO;
}

static long jorl_attr_store(ka_kobject *, ka_attribute *attribute, const char *page, size_t length)
{
	const auto *entry = entry_of<jorlmanager_sysfs_entry>(attribute);
	return entry->store ? entry->store(page, length) : -KA_EIO;
}

} // extern "C"

const ka_sysfs_ops g_jorl_sysfs_ops = {jorl_attr_show, jorl_attr_store};

// --- A disk's files ------------------------------------------------------------------------------

static long volume_name_show(jorlvolume_info *volume, char *page)
{
	return ka_snprintf(page, KA_SYSFS_PAGE, "%s", volume->dvi_name);
}

static long major_id_show(jorlvolume_info *volume, char *page)
{
	return ka_snprintf(page, KA_SYSFS_PAGE, "%d", volume->dvi_major);
}

static long sectors_show(jorlvolume_info *volume, char *page)
{
	return ka_snprintf(page, KA_SYSFS_PAGE, "%lu", volume->dvi_sectors);
}

static long block_size_show(jorlvolume_info *volume, char *page)
{
	return ka_snprintf(page, KA_SYSFS_PAGE, "%lu", volume->dvi_block_size);
}

static long datalink_portid_show(jorlvolume_info *volume, char *page)
{
	return ka_snprintf(page, KA_SYSFS_PAGE, "%u", volume->dvi_datalink_pid);
}

static long service_pid_show(jorlvolume_info *volume, char *page)
{
	return ka_snprintf(page, KA_SYSFS_PAGE, "%d", volume->dvi_pid);
}

// As the target kernel's "%p" prints it; later ones print something else there.
static long volume_handle_show(jorlvolume_info *volume, char *page)
{
	return ka_snprintf(page, KA_SYSFS_PAGE, "%016lx", reinterpret_cast<unsigned long>(volume));
}

static jorlvolume_sysfs_entry volume_name = {
	{"volume-name", READ_ONLY, {}}, volume_name_show, nullptr};
static jorlvolume_sysfs_entry major_id = {{"major-id", READ_ONLY, {}}, major_id_show, nullptr};
static jorlvolume_sysfs_entry sectors = {{"sectors", READ_ONLY, {}}, sectors_show, nullptr};
static jorlvolume_sysfs_entry block_size = {
	{"block-size", READ_ONLY, {}}, block_size_show, nullptr};
static jorlvolume_sysfs_entry datalink_portid = {
	{"datalink-portid", READ_ONLY, {}}, datalink_portid_show, nullptr};
static jorlvolume_sysfs_entry service_pid = {
	{"serivce-pid", READ_ONLY, {}}, service_pid_show, nullptr};
static jorlvolume_sysfs_entry volume_handle = {
	{"volume-handle", READ_ONLY, {}}, volume_handle_show, nullptr};

ka_attribute *const g_jorlvol_sysfs_attrs[] = {
	&volume_name.attr,     &major_id.attr,    &sectors.attr,       &block_size.attr,
	&datalink_portid.attr, &service_pid.attr, &volume_handle.attr, nullptr};

extern "C" {

static long jorlvol_attr_show(ka_kobject *kobj, ka_attribute *attribute, char *page)
{
	const auto *entry = entry_of<jorlvolume_sysfs_entry>(attribute);
	if (!entry->show)
		return -KA_EIO;
	// The file keeps the directory, and that keeps the record: nothing here can be the last.
	JorlVolumeRef volume(jorlvolume_info_get(reinterpret_cast<jorlvolume_info *>(kobj)));
	return volume ? entry->show(volume.get(), page) : -KA_EINVAL;
}

static long jorlvol_attr_store(ka_kobject *kobj, ka_attribute *attribute, const char *page,
			       size_t length)
{
	const auto *entry = entry_of<jorlvolume_sysfs_entry>(attribute);
	if (!entry->store)
		return -KA_EIO;
	JorlVolumeRef volume(jorlvolume_info_get(reinterpret_cast<jorlvolume_info *>(kobj)));
	return volume ? entry->store(volume.get(), page, length) : -KA_EINVAL;
}

} // extern "C"

const ka_sysfs_ops g_jorlvol_sysfs_ops = {jorlvol_attr_show, jorlvol_attr_store};
