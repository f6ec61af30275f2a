// SPDX-License-Identifier: GPL-2.0
#include "restore.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/fs.h>
#include <optional>
#include <sys/ioctl.h>

#include "data-writer.h"
#include "tracker.h"
#include "volume-reader.h"

namespace zorvat::agent
{

namespace
{

/*
 * Whether the driver tracks the device, or the disk that it is a partition of. One that is not
 * loaded tracks nothing.
 */
bool is_tracked(const fs::path &device)
{
	try {
		/* A name without a path would be a disk's name to the kernel. */
		const fs::path path = fs::absolute(device);
		const std::string disk = resolve_volume(path).whole_disk;
		return open_tracker(disk.empty() ? path.native() : "/dev/" + disk)->state().tracked;
	} catch (const Error &error) {
		if (error.code() == Errc::driver_not_loaded || error.code() == Errc::unknown_volume)
			return false;
		throw;
	}
}

/* The kernel grants O_EXCL to one holder: a mount, the device-mapper, swap, RAID, or us. */
File open_device(const RestoreRequest &request)
{
	if (!request.force && is_tracked(request.target))
		throw Failure(FailureCode::busy, request.target.native() +
							 " is tracked: all that is restored would "
							 "count as changed (--force)");
	const int exclusively = request.force ? 0 : O_EXCL;
	try {
		return File(request.target, O_RDWR | exclusively);
	} catch (const Failure &failure) {
		if (failure.error_number() != EBUSY)
			throw;
		throw Failure(FailureCode::busy,
			      request.target.native() + " is mounted or in use (--force)");
	}
}

/* what: of the target, as "is too small". */
Failure unusable(const RestoreRequest &request, const std::string &what)
{
	return Failure(FailureCode::usage, fmt::format("'{}' {}", request.target.native(), what));
}

bool is_in_repository(const fs::path &path)
{
	std::error_code ignored;
	for (fs::path directory = path; directory.has_relative_path();) {
		directory = directory.parent_path();
		if (fs::exists(directory / "repository.json", ignored) &&
		    fs::exists(directory / "points", ignored))
			return true;
	}
	return false;
}

/* Where the file is to be, through links; nothing is there, or a file. */
fs::path path_of_file(const RestoreRequest &request)
{
	std::error_code error;
	const fs::file_status status = fs::status(request.target, error);
	std::error_code ignored;
	if (!fs::exists(status) && fs::is_symlink(request.target, ignored))
		throw unusable(request, "is a link that leads nowhere");
	if (status.type() == fs::file_type::none)
		throw system_failure("cannot look at " + request.target.native(), error.value());
	if (request.target.empty() || (fs::exists(status) && !fs::is_regular_file(status)))
		throw unusable(request, "is neither a block device nor a file");
	fs::path path = fs::weakly_canonical(fs::absolute(request.target));
	/* A name with a typing error: a file of that size would fill the memory. */
	if (path.native().starts_with("/dev/"))
		throw Failure(FailureCode::usage,
			      path.native() + " is no device, and no file is made in /dev: name "
					      "another place");
	if (!path.has_filename() || !fs::is_directory(path.parent_path()))
		throw unusable(request, "is in no directory");
	if (is_in_repository(path))
		throw unusable(request, "is in a repository");
	return path;
}

/* Where the data go. */
class Target
{
public:
	Target(const RestoreRequest &request, uint64_t size) : request_(request)
	{
		std::error_code ignored;
		if (fs::is_block_file(request.target, ignored)) {
			device_ = open_device(request);
			if (device_.size() < size)
				throw unusable(request,
					       fmt::format("is too small: it has {} bytes, the "
							   "volume {}",
							   device_.size(), size));
			return;
		}
		const fs::path path = path_of_file(request);
		if (!request.force && fs::exists(path))
			throw Failure(FailureCode::busy,
				      request.target.native() + " exists (--force)");
		new_file_.emplace(path, NewFile::shared_directory);
		if (ftruncate(file().get(), static_cast<off_t>(size)) != 0)
			throw system_failure("cannot make " + request.target.native() +
						     " as long as the volume",
					     errno);
	}

	const File &file() const
	{
		return new_file_ ? new_file_->file() : device_;
	}

	/* A new file is zeros where nothing was written; a device has to be told. */
	void write_zeros(uint64_t offset, uint64_t length)
	{
		if (new_file_)
			return;
		uint64_t range[2] = {offset, length};
		if (ioctl(file().get(), BLKZEROOUT, range) != 0)
			throw system_failure("cannot write " + request_.target.native(), errno);
	}

	void flush()
	{
		file().flush();
	}
	void complete()
	{
		if (new_file_)
			new_file_->commit(request_.force ? NewFile::replace : NewFile::keep);
	}

private:
	const RestoreRequest &request_;
	File device_;
	std::optional<NewFile> new_file_;
};

/*
 * Tells what was written from anything else: 8 bytes for each MiB of the volume. In a sum of the
 * checksums of its blocks, they may come in portions of any size. Blocks of zeros count nothing, so
 * that none has to be made up where a hole is.
 */
class WrittenSums
{
public:
	explicit WrittenSums(uint64_t size) : sums_((size + bytes_per_sum - 1) / bytes_per_sum)
	{
	}

	/* The offset is a multiple of a block. */
	void add(uint64_t offset, std::span<const std::byte> bytes)
	{
		for (size_t done = 0; done < bytes.size(); done += block_bytes)
			sums_[(offset + done) / bytes_per_sum] +=
				sum_of_block(offset + done, bytes.subspan(done));
	}
	/* The bytes are all that the volume has of one sum. */
	bool fit(uint64_t offset, std::span<const std::byte> bytes) const
	{
		uint64_t sum = 0;
		for (size_t done = 0; done < bytes.size(); done += block_bytes)
			sum += sum_of_block(offset + done, bytes.subspan(done));
		return sum == sums_[offset / bytes_per_sum];
	}

	static constexpr size_t bytes_per_sum = 1 << 20;

private:
	/* Of the first block of the bytes. Elsewhere, the same block has another sum. */
	static uint64_t sum_of_block(uint64_t offset, std::span<const std::byte> bytes)
	{
		bytes = bytes.first(std::min<size_t>(block_bytes, bytes.size()));
		return is_zero(bytes) ? 0 : hash64(bytes, offset);
	}

	std::vector<uint64_t> sums_;
};

constexpr uint64_t zeros_at_once = uint64_t{256} << 20;

class Restore
{
public:
	Restore(PointReader &reader, const RestoreRequest &request, Progress &progress)
	    : reader_(reader), request_(request), progress_(progress),
	      target_(request, reader.size())
	{
	}

	RestoreResult run()
	{
		const auto start = std::chrono::steady_clock::now();
		write_all();
		target_.flush();
		if (request_.verify)
			verify();
		target_.complete();
		const std::chrono::duration<double> seconds =
			std::chrono::steady_clock::now() - start;
		return {bytes_written_, seconds.count()};
	}

private:
	void write_all();
	void verify();

	PointReader &reader_;
	const RestoreRequest &request_;
	Progress &progress_;
	Target target_;
	WrittenSums written_{request_.verify ? reader_.size() : 0};
	uint64_t bytes_written_ = 0;
};

void Restore::write_all()
{
	progress_.begin("restore", reader_.size());
	for (uint64_t offset = 0; offset < reader_.size();) {
		uint64_t length = std::min(reader_.zeros_at(offset), zeros_at_once);
		if (length > 0) {
			target_.write_zeros(offset, length);
		} else {
			const auto run = reader_.find(offset);
			const auto bytes = reader_.cache().at(run.cache_offset, run.length);
			target_.file().write(offset, bytes);
			length = bytes.size();
			bytes_written_ += length;
			if (request_.verify)
				written_.add(offset, bytes);
		}
		offset += length;
		progress_.advance(length);
	}
	progress_.end();
}

/* What the disk has, not what the cache remembers, as far as direct reads are possible. */
void Restore::verify()
{
	DirectFile file(target_.file().path());
	const AlignedBuffer buffer(WrittenSums::bytes_per_sum);
	progress_.begin("verify", reader_.size());
	for (uint64_t offset = 0; offset < reader_.size();) {
		const auto bytes = buffer.bytes().first(
			std::min<uint64_t>(buffer.bytes().size(), reader_.size() - offset));
		file.read(offset, bytes);
		if (!written_.fit(offset, bytes))
			throw Failure(FailureCode::failed,
				      fmt::format("{} does not have in bytes {} to {} what was "
						  "written there",
						  request_.target.native(), offset,
						  offset + bytes.size()));
		offset += bytes.size();
		progress_.advance(bytes.size());
	}
	progress_.end();
}

} // namespace

RestoreResult restore(PointReader &reader, const RestoreRequest &request, Progress &progress)
{
	return Restore(reader, request, progress).run();
}

} // namespace zorvat::agent
