// SPDX-License-Identifier: GPL-2.0
/* Sets of blocks, as runs that ascend and neither touch nor overlap. */
#ifndef ZORVAT_AGENT_BLOCK_RUNS_H
#define ZORVAT_AGENT_BLOCK_RUNS_H

#include <cstdint>
#include <vector>
#include <zorvat/driver.h>

namespace zorvat::agent
{

struct BlockRun {
	uint64_t first;
	uint64_t count;

	bool operator==(const BlockRun &) const = default;
};

/* The blocks that the extents touch, up to the volume's end; size in bytes. */
std::vector<BlockRun> runs_of(const std::vector<Extent> &extents, uint64_t size);
std::vector<BlockRun> all_blocks(uint64_t size);
std::vector<BlockRun> union_of(const std::vector<BlockRun> &one,
			       const std::vector<BlockRun> &other);
/* In bytes, within a volume of that size. */
uint64_t bytes_of_runs(const std::vector<BlockRun> &runs, uint64_t size);

} // namespace zorvat::agent

#endif
