// SPDX-License-Identifier: GPL-2.0
// Diagnostics: every source module of the driver is a log group with a verbosity of its own, and
// every message is gated by the verbosity of the group that prints it.
#ifndef WT_LOGGING_H
#define WT_LOGGING_H

#include "../kernel-abstractions/log.h"
#include "../kernel-abstractions/module.h"

// A group's index in wt_log_verbs.
enum wt_log_group : unsigned int {
	WT_LOG_GROUP_WT_LOGGING = 0,
	WT_LOG_GROUP_WRITETRACKER = 1,
	WT_LOG_GROUP_DM_PATCHER = 2,
	WT_LOG_GROUP_VOLUME_REGISTRY = 3,
	WT_LOG_GROUP_UDEV_PATCHER = 4,
	WT_LOG_GROUP_VOLUME_MANAGER = 5,
	WT_LOG_GROUP_VOLUME_TRACKER = 6,
	WT_LOG_GROUP_WRITETRACKER_SYSFS = 7,
	WT_LOG_GROUP_VOLUME_SYSFS = 8,
	WT_LOG_GROUP_DM_PROCESSOR = 9,
	WT_LOG_GROUP_VOLUME_IOCTL = 10,
	WT_LOG_GROUP_CONTROL_DEVICE = 12,
	WT_LOG_GROUP_JORL_MANAGER = 15,
	WT_LOG_GROUP_JORLVOLUME_REGISTRY = 16,
	WT_LOG_GROUP_JORL_MANAGER_SYSFS = 17,
	WT_LOG_GROUP_JORL_VOLUME = 18,
	WT_LOG_GROUP_JORL_NETLINK = 19,
	WT_LOG_GROUP_JORL_GENLHANDLER = 20,
	WT_LOG_GROUP_KERNEL_ABSTRACTIONS = 21,
	WT_LOG_GROUP_TESTCODE = 64,
	WT_LOG_GROUPS = 65
};

constexpr unsigned int WT_MAX_VERBOSITY = 8;

struct wt_log_verb {
	uint8_t lgv_verbosity; // read and written without a lock
	char lgv_name[32];     // empty for a free slot
};

extern wt_log_verb wt_log_verbs[WT_LOG_GROUPS];

// Sets every group. -EINVAL for a value above 8, compared as signed here and as unsigned in
// wt_logging_update_all, with nothing changed.
int wt_logging_init(int lvl_default);
int wt_logging_update_all(unsigned int verbosity);
// Sets the first group of that name. -EINVAL for a value above 8, -ENOENT for an unknown name.
int wt_logging_update(const char *log_group, unsigned int verbosity);
// Writes one number if all groups agree, else a line per named group, last group first. The page
// starts as an empty string of `length` bytes. The length written, or -EFBIG when it overflows.
long wt_logging_print(char *page, size_t length);

inline bool wt_log_above(wt_log_group group, unsigned int threshold)
{
	return __atomic_load_n(&wt_log_verbs[group].lgv_verbosity, __ATOMIC_RELAXED) > threshold;
}

// The messages of a source file; it names its group by defining `wt_group`. The arguments are a
// format, which must be a literal, and its values.
#define WT_LOG_GATED(threshold, level, word, ...)                                                  \
	do {                                                                                       \
		if (wt_log_above(wt_group, threshold))                                             \
			ka_printk(level, "[" KA_MODULE_NAME "-" word "]:" __VA_ARGS__);            \
	} while (0)

#define WT_ERROR(...) WT_LOG_GATED(0, KA_LOG_ERR, "ERROR", __VA_ARGS__)
#define WT_WARN(...)  WT_LOG_GATED(1, KA_LOG_WARNING, "WARN", __VA_ARGS__)
#define WT_INFO(...)  WT_LOG_GATED(2, KA_LOG_INFO, "INFO", __VA_ARGS__)
// Ungated, without a colon or a line feed: what traces the restore-disk manager's references.
#define WT_TRACE(...)       ka_printk(KA_LOG_INFO, "[" KA_MODULE_NAME "][INFO]" __VA_ARGS__)
#define WT_TRACE_ERROR(...) ka_printk(KA_LOG_ERR, "[" KA_MODULE_NAME "][ERROR]" __VA_ARGS__)
#define WT_FATAL(...)       ka_printk(KA_LOG_EMERG, "[" KA_MODULE_NAME "-FATAL]:" __VA_ARGS__)

#endif
