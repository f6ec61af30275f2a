// SPDX-License-Identifier: GPL-2.0
/*
 * Which data file of a chain holds each block of a restore point: two bytes for each block, however
 * long the chain is, so that reading through many increments costs as much as through one.
 */
#ifndef ZORVAT_AGENT_EXTENT_MAP_H
#define ZORVAT_AGENT_EXTENT_MAP_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace zorvat::agent
{

class DataReader;

class ExtentMap
{
public:
	/* A data file by its place in the chain, 0 the newest; or one of these. */
	using Source = uint16_t;
	static constexpr Source none = UINT16_MAX;
	static constexpr Source zeros = UINT16_MAX - 1; // holes, for who does not ask whose
	static constexpr size_t max_sources = zeros;

	/* As many blocks as possible that one source holds. */
	struct Run {
		uint64_t first; // block
		uint64_t end;
		Source source;
	};

	/* Of a volume of that many blocks. Throws Failure(failed): the chain is too long. */
	ExtentMap(uint64_t blocks, size_t sources);

	/*
	 * What a source holds; its holes are said to be in the source `holes`. Sources come from
	 * the newest to the oldest: what is held already stays. The file is one of a volume of as
	 * many blocks. Throws Failure(damaged).
	 */
	void add_older(const DataReader &file, Source source, Source holes);
	void add_older(uint64_t first, uint64_t count, Source source);

	Source source_of(uint64_t block) const
	{
		const Chunk &chunk = chunks_[block / chunk_blocks];
		return chunk.sources ? chunk.sources[block % chunk_blocks] : chunk.source;
	}
	/* Where the run that holds the block ends; at most the limit, a block as well. */
	uint64_t end_of_run(uint64_t block, uint64_t limit = UINT64_MAX) const;
	/* Ascending; what no source holds is left out. */
	void for_each_run(const std::function<void(const Run &)> &visit) const;
	/* Whether each block is held. */
	bool is_whole() const;

private:
	static constexpr uint64_t chunk_blocks = 1024;

	struct Chunk {
		std::unique_ptr<Source[]> sources; // of each block; null: all have the same
		Source source = none;
		uint16_t missing; // blocks that no source holds
	};

	size_t blocks_in(size_t chunk) const;
	void fill(size_t chunk, size_t from, size_t count, Source source);

	uint64_t blocks_;
	std::vector<Chunk> chunks_;
};

} // namespace zorvat::agent

#endif
