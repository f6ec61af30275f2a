// SPDX-License-Identifier: GPL-2.0
#include "block-runs.h"

#include <algorithm>
#include <iterator>

#include "data-format.h"

namespace zorvat::agent
{

namespace
{

constexpr uint64_t sectors_per_block = block_bytes / 512;

/* To runs that ascend by their first block. */
void append(std::vector<BlockRun> &runs, uint64_t first, uint64_t end)
{
	if (first >= end)
		return;
	if (!runs.empty() && runs.back().first + runs.back().count >= first)
		runs.back().count = std::max(runs.back().count, end - runs.back().first);
	else
		runs.push_back({first, end - first});
}

} // namespace

std::vector<BlockRun> runs_of(const std::vector<Extent> &extents, uint64_t size)
{
	std::vector<BlockRun> runs;
	for (const Extent &extent : extents)
		append(runs, extent.start / sectors_per_block,
		       std::min((extent.start + extent.length + sectors_per_block - 1) /
					sectors_per_block,
				blocks_of(size)));
	return runs;
}

std::vector<BlockRun> all_blocks(uint64_t size)
{
	return {{0, blocks_of(size)}};
}

std::vector<BlockRun> union_of(const std::vector<BlockRun> &one, const std::vector<BlockRun> &other)
{
	std::vector<BlockRun> sorted, runs;
	std::ranges::merge(one, other, std::back_inserter(sorted), {}, &BlockRun::first,
			   &BlockRun::first);
	for (const BlockRun &run : sorted)
		append(runs, run.first, run.first + run.count);
	return runs;
}

uint64_t bytes_of_runs(const std::vector<BlockRun> &runs, uint64_t size)
{
	uint64_t bytes = 0;
	for (const BlockRun &run : runs)
		bytes += std::min((run.first + run.count) * block_bytes, size) -
			 run.first * block_bytes;
	return bytes;
}

} // namespace zorvat::agent
