// SPDX-License-Identifier: GPL-2.0
/*
 * What the driver offers in sysfs only: verbosities, rediscovery, the bitmap as bytes, the count of
 * switches. No handle is needed; any number of threads may call. All throw Error.
 */
#ifndef ZORVAT_SYSFS_H
#define ZORVAT_SYSFS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>
#include <zorvat/volume.h>

namespace zorvat
{

constexpr unsigned int max_verbosity = 8;

/* What a part of the driver writes to the kernel log: 0 nothing, 1 errors, 2 warnings, 3 all. */
struct LogGroup {
	std::string name;
	unsigned int verbosity;

	bool operator==(const LogGroup &) const = default;
};

struct Verbosity {
	std::optional<unsigned int> all; // the verbosity of all groups, if they agree
	std::vector<LogGroup> groups;    // each group, if they do not
};

Verbosity log_verbosity(const SystemPaths &paths = {});

/* 0 to max_verbosity. */
void set_log_verbosity(unsigned int verbosity, const SystemPaths &paths = {});

/* In order; those before one that the driver does not know stay set. */
void set_log_verbosity(const std::vector<LogGroup> &groups, const SystemPaths &paths = {});

/* Has the driver look for block devices that it missed. They are known about a second later. */
void refresh_volumes(const SystemPaths &paths = {});

/* How often the bitmap was switched since tracking began. Error(not_tracked). */
uint64_t switch_count(const Volume &volume, const SystemPaths &paths = {});

/* The largest bitmap that the driver hands out in sysfs: that of a volume just below 2 GiB. */
constexpr size_t max_sysfs_bitmap = 4096;

/*
 * The frozen bitmap if there is one, else the live one: a bit for each 64 KiB block, the first one
 * in the top bit of the first byte; 1 means that the block was not written. Spare bits at the end
 * belong to no block. Error(not_tracked); Error(unsupported) for a bitmap above max_sysfs_bitmap.
 */
std::vector<std::byte> read_bitmap(const Volume &volume, const SystemPaths &paths = {});

} // namespace zorvat

#endif
