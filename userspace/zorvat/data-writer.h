// SPDX-License-Identifier: GPL-2.0
/* Writes a data file: volume data in, frames, index and footer out. */
#ifndef ZORVAT_AGENT_DATA_WRITER_H
#define ZORVAT_AGENT_DATA_WRITER_H

#include <memory>
#include <optional>
#include <vector>

#include "data-format.h"
#include "files.h"

struct ZSTD_CCtx_s;

namespace zorvat::agent
{

constexpr int default_compression = 3;

/* Whether all bytes are zeros. Not for none. */
bool is_zero(std::span<const std::byte> bytes);

/*
 * Ranges come in ascending order and do not overlap. The memory it takes does not depend on their
 * number: the index waits in a file of its own. Throws Failure.
 */
class DataWriter
{
public:
	DataWriter(const fs::path &directory, const std::string &name, uint64_t volume_size,
		   int compression = default_compression);
	~DataWriter();
	DataWriter(const DataWriter &) = delete;
	DataWriter &operator=(const DataWriter &) = delete;

	/* At most max_frame_bytes, from the beginning of a block. Blocks of zeros become holes. */
	void add(uint64_t start, std::span<const std::byte> plain);
	void add_hole(uint64_t start, uint64_t length);
	/* A frame of another data file, as it is stored there. */
	void add_stored(const IndexEntry &entry, std::span<const std::byte> stored);

	/* Completes the file and gives it its name. */
	DataSummary finish();

private:
	void add_frame(uint64_t start, std::span<const std::byte> plain);
	void append_frame(IndexEntry entry, std::span<const std::byte> stored);
	void append_to_index(const IndexEntry &entry);
	void end_hole();
	void spill_index();
	void copy_index_into_file();

	std::string name_;
	int compression_;
	NewFile file_;
	File index_; // without a name
	std::unique_ptr<ZSTD_CCtx_s, size_t (*)(ZSTD_CCtx_s *)> compressor_;
	std::vector<std::byte> compressed_;
	std::vector<IndexEntry> recent_; // not in index_ yet
	std::optional<IndexEntry> hole_; // may grow
	RunningHash128 index_hash_;
	uint64_t entries_ = 0;
	uint64_t spilled_ = 0; // bytes
	uint64_t position_ = 0;
};

} // namespace zorvat::agent

#endif
