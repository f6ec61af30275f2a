// SPDX-License-Identifier: GPL-2.0
/* Reads a data file, and believes nothing in it that its checksum does not confirm. */
#ifndef ZORVAT_AGENT_DATA_READER_H
#define ZORVAT_AGENT_DATA_READER_H

#include <functional>
#include <memory>
#include <vector>

#include "data-format.h"
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
 * What was not written so is Failure(damaged), which names the file and the restore point; what
 * cannot be read is another Failure. Not for several threads at once.
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
	/* By its number. For this and the next one, for_each_entry() has gone through the index. */
	IndexEntry entry(uint64_t number) const;
	/* The one that holds the byte of the volume. Looking for ascending ones is cheap. */
	IndexEntry entry_at(uint64_t position);
	/* Fills the first entry.length bytes. Not for holes. */
	void read_frame(const IndexEntry &entry, std::span<std::byte> plain);
	/* The frame as stored; valid until the decoder's next frame. */
	std::span<const std::byte> read_stored(const IndexEntry &entry);

private:
	void check_header() const;
	void check_footer();
	void check_entry(const IndexEntry &entry, uint64_t covered, uint64_t offset) const;
	void read_entries(uint64_t first, std::span<std::byte> to) const;
	bool is_unharmed(const IndexEntry &entry) const;
	bool is_in_window(uint64_t position) const;
	void move_window(uint64_t first);
	uint64_t find_near(uint64_t position) const;
	Failure damage(const std::string &what) const;

	DataSummary summary_;
	uint64_t volume_size_;
	std::string point_;
	File file_;
	uint64_t index_offset_ = 0;
	std::shared_ptr<FrameDecoder> decoder_;
	/* The part of the index that was needed last. */
	std::vector<IndexEntry> window_;
	uint64_t window_first_ = 0; // entry
};

} // namespace zorvat::agent

#endif
