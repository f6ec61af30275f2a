// SPDX-License-Identifier: GPL-2.0
// The table of log groups and its four operations.
#include "wt-logging.h"

#include "../kernel-abstractions/memory.h"

namespace
{

uint8_t verbosity_of(const wt_log_verb &verb)
{
	return __atomic_load_n(&verb.lgv_verbosity, __ATOMIC_RELAXED);
}

void set_verbosity(wt_log_verb &verb, unsigned int verbosity)
{
	__atomic_store_n(&verb.lgv_verbosity, static_cast<uint8_t>(verbosity), __ATOMIC_RELAXED);
}

void set_all(unsigned int verbosity)
{
	for (wt_log_verb &verb : wt_log_verbs)
		set_verbosity(verb, verbosity);
}

bool all_equal()
{
	for (const wt_log_verb &verb : wt_log_verbs)
		if (verbosity_of(verb) != verbosity_of(wt_log_verbs[0]))
			return false;
	return true;
}

} // namespace

// The names are the keys that user space sets verbosities by. Slots without a name are free; index
// 11 is reserved and stays free. 22 to 63 are free, and named by nobody.
// clang-format off
wt_log_verb wt_log_verbs[WT_LOG_GROUPS] = {
	{0, "wt-logging"},
	{0, "writetracker"},
	{0, "dm-patcher"},
	{0, "volume-registry"},
	{0, "udev-patcher"},
	{0, "volume-manager"},
	{0, "volume-tracker"},
	{0, "writetracker-sysfs"},
	{0, "volume-sysfs"},
	{0, "dm-processor"},
	{0, "volume-ioctl"},
	{0, ""},
	{0, "control-device"},
	{0, ""},
	{0, ""},
	{0, "jorl-manager"},
	{0, "jorlvolume-registry"},
	{0, "jorl-manager-sysfs"},
	{0, "jorl-volume"},
	{0, "jorl-netlink"},
	{0, "jorl-genlhandler"},
	{0, "kernel-abstractions"},
	{}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {},
	{}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {},
	{}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {},
	{0, "testcode"},
};
// clang-format on

int wt_logging_init(int lvl_default)
{
	if (lvl_default > static_cast<int>(WT_MAX_VERBOSITY))
		return -KA_EINVAL;
	set_all(static_cast<unsigned int>(lvl_default));
	return 0;
}

int wt_logging_update_all(unsigned int verbosity)
{
	if (verbosity > WT_MAX_VERBOSITY)
		return -KA_EINVAL;
	set_all(verbosity);
	return 0;
}

int wt_logging_update(const char *log_group, unsigned int verbosity)
{
	if (verbosity > WT_MAX_VERBOSITY)
		return -KA_EINVAL;
	for (wt_log_verb &verb : wt_log_verbs) {
		if (strncmp(verb.lgv_name, log_group, sizeof(verb.lgv_name) - 1) == 0) {
			set_verbosity(verb, verbosity);
			return 0;
		}
	}
	return -KA_ENOENT;
}

long wt_logging_print(char *page, size_t length)
{
	if (all_equal())
		return ka_snprintf(page, length, "%d\n", verbosity_of(wt_log_verbs[0]));

	size_t total = 0;
	for (unsigned int i = WT_LOG_GROUPS; i-- > 0;) {
		const wt_log_verb &verb = wt_log_verbs[i];
		if (verb.lgv_name[0] == '\0')
			continue;
		char line[47];
		size_t size = ka_snprintf(line, sizeof(line), "%s %d\n", verb.lgv_name,
					  verbosity_of(verb));
		// The lines that fitted stay in the page.
		if (total + size > length)
			return -KA_EFBIG;
		memcpy(page + total, line, size);
		total += size;
		if (total < length)
			page[total] = '\0';
	}
	return static_cast<long>(total);
}
