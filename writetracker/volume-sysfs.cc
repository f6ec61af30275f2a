// SPDX-License-Identifier: GPL-2.0
// "cbt-bitmap": the frozen bitmap, else the live one, as bytes. The first block is the top bit of
// the first byte; a set bit means a block that was not written.
#include "volume-sysfs.h"

#include "volume-manager.h"

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
