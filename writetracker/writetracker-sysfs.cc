// SPDX-License-Identifier: GPL-2.0
// The files of the driver's own directory in sysfs: version, verbosities, rediscovery.
#include "writetracker-sysfs.h"

#include "../kernel-abstractions/memory.h"
#include "scan.h"
#include "udev-patcher.h"
#include "writetracker.h"
#include "wt-logging.h"

static constexpr wt_log_group wt_group = WT_LOG_GROUP_WRITETRACKER_SYSFS;

static constexpr size_t VERSION_LIMIT = 2048;
static constexpr size_t LINE_SIZE = 47;  // with the terminating NUL
static constexpr size_t GROUP_SIZE = 31; // likewise

namespace
{

struct writetracker_sysfs_entry {
	ka_attribute attr;
	// The length of the text, or a negative error. Null: the file cannot be read.
	long (*show)(char *page);
	// The length taken, or a negative error. Null: the file cannot be written.
	long (*store)(const char *page, size_t length);
};

const writetracker_sysfs_entry *entry_of(ka_attribute *attribute)
{
	static_assert(__builtin_offsetof(writetracker_sysfs_entry, attr) == 0);
	return reinterpret_cast<writetracker_sysfs_entry *>(attribute);
}

bool ends_line(char c)
{
	return c == '\0' || c == '\n';
}

} // namespace

static long wt_version_show(char *page)
{
	ContextRef context;
	if (!context)
		return -KA_EAGAIN;
	return ka_snprintf(page, VERSION_LIMIT, "%s", wt_context.driver_version.wtv_str);
}

static long wt_verbosity_show(char *page)
{
	return wt_logging_print(page, KA_SYSFS_PAGE);
}

// One line, "group level". The text ends with a NUL.
static int set_group(const char *text, size_t length)
{
	char line[LINE_SIZE] = {};
	if (length >= sizeof(line)) {
		WT_WARN("SYSFS: Input-Line Too Big\n");
		return -KA_ENOMEM;
	}
	memcpy(line, text, length);

	size_t end = 0;
	while (line[end] != '\0' && !is_space(line[end]))
		end++;
	char group[GROUP_SIZE] = {};
	if (end >= sizeof(group)) {
		line[end] = '\0';
		WT_WARN("SYSFS: Log Group Too Big: %s\n", line);
		return -KA_ENOMEM;
	}
	memcpy(group, line, end);

	// A line that is only a name is followed by the zeroes of its buffer: no level.
	const char *level = line + end + 1, *rest = level;
	unsigned int verbosity = 0;
	if (!scan_unsigned(&rest, &verbosity) || verbosity > WT_MAX_VERBOSITY ||
	    wt_logging_update(group, verbosity) != 0) {
		WT_WARN("Invalid Verbosity Level %s or log-group %s\n", level, group);
		return -KA_EINVAL;
	}
	return 0;
}

// Lines before one that fails stay applied.
static int set_groups(const char *text, const char *end)
{
	while (text < end) {
		while (text < end && is_space(*text))
			text++;
		const char *line = text;
		while (!ends_line(*text))
			text++;
		if (text != line) {
			int err = set_group(line, static_cast<size_t>(text - line));
			if (err != 0)
				return err;
		}
		text++;
	}
	return 0;
}

static long wt_verbosity_store(const char *page, size_t length)
{
	const char *rest = page;
	unsigned int verbosity = 0;
	if (scan_unsigned(&rest, &verbosity)) {
		if (wt_logging_update_all(verbosity) != 0) {
			WT_WARN("Invalid Verbosity Level %d\n", static_cast<int>(verbosity));
			return -KA_EINVAL;
		}
		return static_cast<long>(length);
	}
	int err = set_groups(page, page + length);
	return err != 0 ? err : static_cast<long>(length);
}

static long wt_refresh_volumes_store(const char *, size_t length)
{
	int err = udev_refresh_devices();
	if (err != 0) {
		WT_WARN("[WT-SYSFS] Unable to refresh system volume set. Error %d\n", err);
		return err;
	}
	return static_cast<long>(length);
}

static writetracker_sysfs_entry log_verbosity = {
	{"log-verbosity", 0644, {}}, wt_verbosity_show, wt_verbosity_store};
static writetracker_sysfs_entry version = {{"version", 0444, {}}, wt_version_show, nullptr};
static writetracker_sysfs_entry refresh_volume_set = {
	{"refresh-volume-set", 0200, {}}, nullptr, wt_refresh_volumes_store};

ka_attribute *const g_wt_sysfs_attr[] = {&log_verbosity.attr, &version.attr,
					 &refresh_volume_set.attr, nullptr};

static long wt_attr_show(ka_kobject *, ka_attribute *attribute, char *page)
{
	const writetracker_sysfs_entry *entry = entry_of(attribute);
	return entry->show ? entry->show(page) : -KA_EIO;
}

static long wt_attr_store(ka_kobject *, ka_attribute *attribute, const char *page, size_t length)
{
	const writetracker_sysfs_entry *entry = entry_of(attribute);
	return entry->store ? entry->store(page, length) : -KA_EIO;
}

const ka_sysfs_ops g_wt_sysfs_ops = {wt_attr_show, wt_attr_store};
