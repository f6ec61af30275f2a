// SPDX-License-Identifier: GPL-2.0
/* Reads a data file, and believes nothing in it that its checksum does not confirm. */
#ifndef ZORVAT_AGENT_DATA_READER_H
#define ZORVAT_AGENT_DATA_READER_H

#include <functional>
#include <memory>
#include <vector>

#include "data-format.h"
#include "data-writer.h"
#include "files.h"

struct ZSTD_DCtx_s;

namespace zorvat::agent
{

/* What reading a frame takes; the readers of a chain share one. */
class FrameDecoder
{
public:
	FrameDecoder();

	/* Room for any frame as stored. */
	std::span<std::byte> buffer()
	{
		return stored_;
	}
	/* Returns how many bytes it became, or SIZE_MAX. */
	size_t decompress(std::span<const std::byte> stored, std::span<std::byte> plain);

private:
	std::unique_ptr<ZSTD_DCtx_s, size_t (*)(ZSTD_DCtx_s *)> decompressor_;
	std::vector<std::byte> stored_;
};

/*
 * All functions throw Failure(damaged) that names the file and the restore point. Not for several
 * threads at once.
 */
class DataReader
{
public:
	/* Checks header and footer, against what the manifest says. */
	DataReader(const fs::path &directory, const DataSummary &summary, uint64_t volume_size,
		   const std::string &point,
		   std::shared_ptr<FrameDecoder> decoder = std::make_shared<FrameDecoder>());

	uint64_t entries() const
	{
		return summary_.entries;
	}

	/* Reads the index from its beginning, and checks all of it by the end. */
	void for_each_entry(const std::function<void(uint64_t, const IndexEntry &)> &visit) const;
	/* By its number; of an index that for_each_entry() went through. */
	IndexEntry entry(uint64_t number) const;
	/* Fills the first entry.length bytes. Not for holes. */
	void read_frame(const IndexEntry &entry, std::span<std::byte> plain);
	/* The frame as stored; valid until the decoder's next frame. */
	std::span<const std::byte> read_stored(const IndexEntry &entry);

private:
	void check_header() const;
	void check_footer();
	void check_entry(const IndexEntry &entry, uint64_t covered, uint64_t offset) const;
	Failure damage(const std::string &what) const;

	DataSummary summary_;
	uint64_t volume_size_;
	std::string point_;
	File file_;
	uint64_t index_offset_ = 0;
	std::shared_ptr<FrameDecoder> decoder_;
};

} // namespace zorvat::agent

#endif
