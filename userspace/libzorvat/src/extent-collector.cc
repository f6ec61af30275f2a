// SPDX-License-Identifier: GPL-2.0
/* Collects the pages of a changed-extent listing into one list that loses no block. */
#include "extent-collector.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

namespace zorvat
{

namespace
{

constexpr uint64_t sectors_per_block = 128;
constexpr uint64_t blocks_per_word = 64;

/* A write marks at most this many blocks beyond the last one that it touches. */
constexpr uint64_t blocks_marked_beyond_write = 2;

constexpr uint64_t blocks_of(uint64_t sectors)
{
	return sectors / sectors_per_block + (sectors % sectors_per_block != 0);
}

/*
 * The driver closes a run at the next unwritten block, so it never reports a run that reaches the
 * bitmap's last bit. That bit can be marked when too few spare bits follow the last block, or when
 * the volume has outgrown its bitmap.
 */
constexpr bool last_run_may_be_missing(uint64_t sectors, uint64_t bitmap_bits)
{
	return bitmap_bits < blocks_of(sectors) + blocks_marked_beyond_write + 1;
}

} // namespace

uint64_t bitmap_bits_for(uint64_t sectors)
{
	return (sectors / (sectors_per_block * blocks_per_word) + 1) * blocks_per_word;
}

ExtentCollector::ExtentCollector(uint64_t volume_sectors, uint64_t bitmap_bits)
    : volume_sectors_(volume_sectors), bitmap_bits_(bitmap_bits)
{
}

bool ExtentCollector::accept(std::span<const wt_extent> answer)
{
	for (const auto &[start, length] : answer) {
		if (length == 0) // the records from here on were not used
			return false;
		if (start < position_ || length > UINT64_MAX - start)
			throw Error(Errc::bad_answer,
				    fmt::format("the driver reported an extent of {} sectors at {} "
						"when asked for extents from {}",
						length, start, position_));
		position_ = start + length;
		append({start, length});
	}
	return position_ < volume_sectors_;
}

std::vector<Extent> ExtentCollector::finish() &&
{
	if (last_run_may_be_missing(volume_sectors_, bitmap_bits_) && position_ < volume_sectors_)
		extents_.push_back({position_, volume_sectors_ - position_, true});
	return std::move(extents_);
}

/* The blocks marked beyond a write may lie behind the volume's end. */
void ExtentCollector::append(Extent extent)
{
	if (extent.start >= volume_sectors_)
		return;
	extent.length = std::min(extent.length, volume_sectors_ - extent.start);

	/* A run that grew between two requests continues where the first answer ended. */
	if (!extents_.empty() && extents_.back().start + extents_.back().length == extent.start)
		extents_.back().length += extent.length;
	else
		extents_.push_back(extent);
}

} // namespace zorvat
