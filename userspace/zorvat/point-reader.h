// SPDX-License-Identifier: GPL-2.0
/* Reads the volume as it was at a restore point, through the whole chain of data files. */
#ifndef ZORVAT_AGENT_POINT_READER_H
#define ZORVAT_AGENT_POINT_READER_H

#include <memory>
#include <optional>
#include <vector>
#include <zorvat/block-source.h>
#include <zorvat/memory-file.h>

#include "data-reader.h"
#include "extent-map.h"
#include "repository.h"

namespace zorvat::agent
{

/*
 * Plain data of frames that were read lately, in a memory file: so that they can be handed on by
 * system calls as well.
 */
class FrameCache
{
public:
	static constexpr size_t slots = 12;

	/*
	 * Where the entry's frame is. No other file has that source. Throws what reading it from
	 * the file throws.
	 */
	uint64_t find_or_read(ExtentMap::Source source, DataReader &file, const IndexEntry &entry);
	/* Of max_frame_bytes. */
	uint64_t zeros() const
	{
		return slots * max_frame_bytes;
	}

	std::span<const std::byte> at(uint64_t offset, size_t length) const
	{
		return frames_.memory().subspan(offset, length);
	}
	/* As MemoryFile's. */
	int copy_to(std::span<std::byte> memory, uint64_t offset) const noexcept
	{
		return frames_.copy_to(memory, offset);
	}

private:
	struct Slot {
		uint64_t name = UINT64_MAX; // by source and first block
		uint64_t last_use = 0;
	};

	MemoryFile frames_{(slots + 1) * max_frame_bytes};
	Slot slots_[slots];
	uint64_t uses_ = 0;
};

/* Throws Failure(damaged) rather than deliver what does not fit its checksum. */
class PointReader
{
public:
	/* A run of the volume as it was found: in the cache, until the next run is asked for. */
	struct Run {
		uint64_t cache_offset;
		size_t length;
		bool zeros;
	};

	PointReader(const Repository &repository, const std::string &point);

	const Manifest &point() const
	{
		return chain_.front();
	}
	uint64_t size() const
	{
		return point().size;
	}
	size_t chain_length() const
	{
		return chain_.size();
	}
	/* Of the volume, that is not zeros. */
	uint64_t data_bytes() const
	{
		return data_bytes_;
	}

	/* The run that begins there; of max_frame_bytes at most, and within one frame. */
	Run find(uint64_t offset);
	/* A run that begins there and is zeros, of any length; 0: it is not. */
	uint64_t zeros_at(uint64_t offset) const;
	void read(uint64_t offset, std::span<std::byte> to);

	const FrameCache &cache() const
	{
		return *cache_;
	}

private:
	void open_chain(const Repository &repository, const std::string &point);
	void build_map();
	/* Of blocks that end there, in bytes; the last block may be shorter. */
	uint64_t end_of(uint64_t end_block) const;

	std::vector<Manifest> chain_; // the newest first
	std::vector<std::unique_ptr<DataReader>> sources_;
	std::optional<ExtentMap> map_;
	uint64_t data_bytes_ = 0;
	std::unique_ptr<FrameCache> cache_ = std::make_unique<FrameCache>();
};

/* For a disk server; the first error is told on standard error and to syslog, and are EIO to
 * readers. */
std::unique_ptr<BlockSource> make_source(PointReader reader);

} // namespace zorvat::agent

#endif
