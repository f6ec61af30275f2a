// SPDX-License-Identifier: GPL-2.0
/*
 * Puts the driver's answers about changed extents together: follows full answers, clips to the
 * volume, and adds what the driver could not tell.
 */
#ifndef ZORVAT_EXTENT_COLLECTOR_H
#define ZORVAT_EXTENT_COLLECTOR_H

#include <cstdint>
#include <span>
#include <vector>
#include <zorvat/driver.h>

#include "wt.h"

namespace zorvat
{

/* Bits in the bitmap that the driver makes for a volume of this length. */
uint64_t bitmap_bits_for(uint64_t sectors);

class ExtentCollector
{
public:
	/* bitmap_bits: how many blocks, from the first on, the driver's bitmap can describe. */
	ExtentCollector(uint64_t volume_sectors, uint64_t bitmap_bits);

	/* The sector from which to ask next. */
	uint64_t position() const
	{
		return position_;
	}

	/*
	 * Takes one answer, with all the records that there was room for. Returns whether to ask
	 * on. Throws Error(bad_answer) when the extents do not ascend from position().
	 */
	bool accept(std::span<const wt_extent> answer);

	/* The whole list, once accept() returned false. */
	std::vector<Extent> finish() &&;

private:
	void append(Extent extent);

	uint64_t volume_sectors_;
	uint64_t bitmap_bits_;
	uint64_t position_ = 0;
	std::vector<Extent> extents_;
};

} // namespace zorvat

#endif
