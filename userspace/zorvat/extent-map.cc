// SPDX-License-Identifier: GPL-2.0
#include "extent-map.h"

#include <algorithm>
#include <fmt/format.h>
#include <span>

#include "data-reader.h"
#include "failure.h"

namespace zorvat::agent
{

ExtentMap::ExtentMap(uint64_t blocks, size_t sources)
    : blocks_(blocks), chunks_((blocks + chunk_blocks - 1) / chunk_blocks)
{
	if (sources > max_sources)
		throw Failure(FailureCode::failed,
			      fmt::format("{} restore points build on each other: these are more "
					  "than the {} that can be read",
					  sources, max_sources));
	for (size_t i = 0; i < chunks_.size(); i++)
		chunks_[i].missing = blocks_in(i);
}

size_t ExtentMap::blocks_in(size_t chunk) const
{
	return std::min(chunk_blocks, blocks_ - chunk * chunk_blocks);
}

void ExtentMap::add_older(const DataReader &file, Source source, Source holes)
{
	file.for_each_entry([&](uint64_t, const IndexEntry &entry) {
		add_older(entry.start / block_bytes, blocks_of(entry.length),
			  entry.is_hole() ? holes : source);
	});
}

void ExtentMap::add_older(uint64_t first, uint64_t count, Source source)
{
	const uint64_t end = first + count;
	for (uint64_t block = first; block < end;) {
		const size_t chunk = block / chunk_blocks;
		const uint64_t next = std::min(end, (chunk + 1) * chunk_blocks);
		fill(chunk, block % chunk_blocks, next - block, source);
		block = next;
	}
}

void ExtentMap::fill(size_t number, size_t from, size_t count, Source source)
{
	Chunk &chunk = chunks_[number];
	const size_t length = blocks_in(number);
	if (chunk.missing == 0)
		return;
	if (count == length && chunk.missing == length) {
		chunk.source = source;
		chunk.missing = 0;
		return;
	}
	if (!chunk.sources) {
		chunk.sources = std::make_unique_for_overwrite<Source[]>(length);
		std::fill_n(chunk.sources.get(), length, none);
	}
	const std::span<Source> all(chunk.sources.get(), length);
	for (Source &held : all.subspan(from, count)) {
		if (held == none) {
			held = source;
			chunk.missing--;
		}
	}
	/* As when a full point comes in frames: none is to keep an array. */
	if (chunk.missing == 0 && std::ranges::count(all, all[0]) == std::ssize(all)) {
		chunk.source = all[0];
		chunk.sources.reset();
	}
}

uint64_t ExtentMap::end_of_run(uint64_t block, uint64_t limit) const
{
	const Source source = source_of(block);
	limit = std::min(limit, blocks_);
	while (block < limit) {
		const size_t number = block / chunk_blocks;
		const uint64_t next = std::min(limit, (number + 1) * chunk_blocks);
		const Chunk &chunk = chunks_[number];
		if (!chunk.sources && chunk.source == source)
			block = next;
		for (; block < next; block++)
			if (source_of(block) != source)
				return block;
	}
	return limit;
}

void ExtentMap::for_each_run(const std::function<void(const Run &)> &visit) const
{
	for (uint64_t block = 0, end = 0; block < blocks_; block = end) {
		const Source source = source_of(block);
		end = end_of_run(block);
		if (source != none)
			visit({block, end, source});
	}
}

bool ExtentMap::is_whole() const
{
	return std::ranges::all_of(chunks_, [](const Chunk &chunk) { return chunk.missing == 0; });
}

} // namespace zorvat::agent
