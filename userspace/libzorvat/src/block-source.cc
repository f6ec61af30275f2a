// SPDX-License-Identifier: GPL-2.0
/* Images and block devices as sources, and which kind of source a name means. */
#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/fs.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <zorvat/block-source.h>
#include <zorvat/error.h>
#include <zorvat/file-descriptor.h>
#include <zorvat/system-read.h>

namespace zorvat
{

namespace
{

Error cannot_serve(const std::string &path, std::string_view reason, int number = 0)
{
	return Error(Errc::bad_image, fmt::format("cannot serve '{}': {}", path, reason), {},
		     number);
}

uint64_t size_of(int fd, const std::string &path)
{
	struct stat status;
	uint64_t bytes = 0;
	if (fstat(fd, &status) != 0)
		throw cannot_serve(path, error_text(errno), errno);
	if (S_ISREG(status.st_mode))
		return status.st_size;
	if (!S_ISBLK(status.st_mode))
		throw cannot_serve(path, "it is neither a file nor a block device");
	if (ioctl(fd, BLKGETSIZE64, &bytes) != 0)
		throw cannot_serve(path, error_text(errno), errno);
	return bytes;
}

/* The kernel copies from its cache of the file straight into the memory. */
class Image final : public BlockSource
{
public:
	/* Opened without waiting, in case it is a pipe. */
	explicit Image(const std::string &path)
	    : file_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK))
	{
		if (!file_)
			throw cannot_serve(path, error_text(errno), errno);
		size_ = size_of(file_.get(), path);
	}

	uint64_t size() const override
	{
		return size_;
	}

	int read(uint64_t offset, std::span<std::byte> memory) noexcept override
	{
		return read_all(file_.get(), offset, memory);
	}

private:
	FileDescriptor file_;
	uint64_t size_;
};

} // namespace

int read_all(int fd, uint64_t offset, std::span<std::byte> memory) noexcept
{
	while (!memory.empty()) {
		const ssize_t count =
			pread(fd, memory.data(), memory.size(), static_cast<off_t>(offset));
		if (count < 0 && errno == EINTR)
			continue;
		if (count < 0)
			return errno;
		if (count == 0) // cut since it was opened
			return EIO;
		memory = memory.subspan(count);
		offset += count;
	}
	return 0;
}

std::unique_ptr<BlockSource> open_image(const std::string &path)
{
	return std::make_unique<Image>(path);
}

std::unique_ptr<BlockSource> open_source(const std::string &name)
{
	constexpr std::array schemes = {
		"nbd:", "nbds:", "nbd+unix:", "nbds+unix:", "nbd+vsock:", "nbds+vsock:"};
	const bool is_nbd = std::ranges::any_of(
		schemes, [&](std::string_view scheme) { return name.starts_with(scheme); });
	return is_nbd ? open_nbd(name) : open_image(name);
}

} // namespace zorvat
