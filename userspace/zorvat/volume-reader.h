// SPDX-License-Identifier: GPL-2.0
/* Reads runs of a volume past the page cache, ahead of whoever works on what was read. */
#ifndef ZORVAT_AGENT_VOLUME_READER_H
#define ZORVAT_AGENT_VOLUME_READER_H

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <thread>
#include <vector>

#include "block-runs.h"
#include "files.h"

namespace zorvat::agent
{

/* Memory as direct reads want it. */
class AlignedBuffer
{
public:
	explicit AlignedBuffer(size_t size);
	std::span<std::byte> bytes() const
	{
		return {memory_.get(), size_};
	}

private:
	struct Free {
		void operator()(std::byte *memory) const;
	};
	std::unique_ptr<std::byte, Free> memory_;
	size_t size_;
};

/* A file or block device, read directly where its file system can do that. */
class DirectFile
{
public:
	explicit DirectFile(const std::filesystem::path &path);
	/* The offset is a multiple of a block; the memory comes from an AlignedBuffer. */
	void read(uint64_t offset, std::span<std::byte> to);

private:
	File file_;
	bool direct_;
};

class VolumeReader
{
public:
	/* What was read: at most max_frame_bytes, not across a multiple of it. */
	struct Chunk {
		uint64_t start;
		std::span<const std::byte> bytes;
	};

	/* Runs ascend and do not overlap. size: of the volume. */
	VolumeReader(const std::filesystem::path &path, std::vector<BlockRun> runs, uint64_t size);
	~VolumeReader();
	VolumeReader(const VolumeReader &) = delete;
	VolumeReader &operator=(const VolumeReader &) = delete;

	/* Nothing after the last one. Valid until the next call. Throws Failure. */
	std::optional<Chunk> next();

private:
	static constexpr size_t depth = 4;

	struct Slot {
		explicit Slot(size_t size) : buffer(size)
		{
		}
		AlignedBuffer buffer;
		uint64_t start = 0;
		size_t length = 0;
	};

	void read_all();
	bool read_chunk(uint64_t start, size_t length);

	DirectFile file_;
	std::vector<BlockRun> runs_;
	uint64_t size_;
	std::vector<Slot> slots_;

	std::mutex mutex_;
	std::condition_variable changed_;
	uint64_t filled_ = 0;  // slots that were filled since the beginning
	uint64_t taken_ = 0;   // and those that next() has given out
	uint64_t emptied_ = 0; // and are free again
	bool ended_ = false;   // nothing more comes
	bool unwanted_ = false;
	std::exception_ptr failure_;
	std::thread thread_;
};

} // namespace zorvat::agent

#endif
