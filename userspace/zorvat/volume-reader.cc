// SPDX-License-Identifier: GPL-2.0
#include "volume-reader.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <new>
#include <zorvat/file-descriptor.h>

#include "data-format.h"

namespace zorvat::agent
{

namespace
{

constexpr size_t page_bytes = 4096;

File open_directly(const std::filesystem::path &path, bool &direct)
{
	direct = bool(FileDescriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_DIRECT)));
	return File(path, direct ? O_RDONLY | O_DIRECT : O_RDONLY);
}

} // namespace

AlignedBuffer::AlignedBuffer(size_t size)
    : memory_(static_cast<std::byte *>(std::aligned_alloc(page_bytes, size))), size_(size)
{
	if (!memory_)
		throw std::bad_alloc();
}

void AlignedBuffer::Free::operator()(std::byte *memory) const
{
	std::free(memory);
}

DirectFile::DirectFile(const std::filesystem::path &path) : file_(open_directly(path, direct_))
{
}

/* An end that is not a sector's, of whatever size those are, is out of reach for direct reads. */
void DirectFile::read(uint64_t offset, std::span<std::byte> to)
try {
	file_.read(offset, to);
} catch (const Failure &failure) {
	if (!direct_ || failure.error_number() != EINVAL)
		throw;
	file_ = File(file_.path(), O_RDONLY);
	direct_ = false;
	file_.read(offset, to);
}

VolumeReader::VolumeReader(const std::filesystem::path &path, std::vector<BlockRun> runs,
			   uint64_t size)
    : file_(path), runs_(std::move(runs)), size_(size)
{
	for (size_t i = 0; i < depth; i++)
		slots_.emplace_back(max_frame_bytes);
	thread_ = std::thread([this] {
		try {
			read_all();
		} catch (...) {
			failure_ = std::current_exception();
		}
		const std::lock_guard lock(mutex_);
		ended_ = true;
		changed_.notify_all();
	});
}

VolumeReader::~VolumeReader()
{
	{
		const std::lock_guard lock(mutex_);
		unwanted_ = true;
		changed_.notify_all();
	}
	thread_.join();
}

std::optional<VolumeReader::Chunk> VolumeReader::next()
{
	std::unique_lock lock(mutex_);
	emptied_ = taken_;
	changed_.notify_all();
	changed_.wait(lock, [this] { return filled_ > taken_ || ended_; });
	if (filled_ == taken_) {
		if (failure_)
			std::rethrow_exception(failure_);
		return std::nullopt;
	}
	const Slot &slot = slots_[taken_++ % depth];
	return Chunk{slot.start, slot.buffer.bytes().first(slot.length)};
}

void VolumeReader::read_all()
{
	for (const BlockRun &run : runs_) {
		const uint64_t end = std::min((run.first + run.count) * block_bytes, size_);
		uint64_t length;
		for (uint64_t at = run.first * block_bytes; at < end; at += length) {
			length = std::min(end - at, max_frame_bytes - at % max_frame_bytes);
			if (!read_chunk(at, length))
				return;
		}
	}
}

bool VolumeReader::read_chunk(uint64_t start, size_t length)
{
	std::unique_lock lock(mutex_);
	changed_.wait(lock, [this] { return filled_ - emptied_ < depth || unwanted_; });
	if (unwanted_)
		return false;
	Slot &slot = slots_[filled_ % depth];
	lock.unlock();
	file_.read(start, slot.buffer.bytes().first(length));
	slot.start = start;
	slot.length = length;
	lock.lock();
	filled_++;
	changed_.notify_all();
	return true;
}

} // namespace zorvat::agent
