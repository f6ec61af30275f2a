// SPDX-License-Identifier: GPL-2.0
/* An open file that is closed when its owner goes. */
#ifndef ZORVAT_FILE_DESCRIPTOR_H
#define ZORVAT_FILE_DESCRIPTOR_H

#include <unistd.h>
#include <utility>

namespace zorvat
{

class FileDescriptor
{
public:
	/* Below 0: nothing is open. */
	explicit FileDescriptor(int fd = -1) noexcept : fd_(fd)
	{
	}
	FileDescriptor(FileDescriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1))
	{
	}
	FileDescriptor &operator=(FileDescriptor &&other) noexcept
	{
		std::swap(fd_, other.fd_);
		other.reset();
		return *this;
	}
	~FileDescriptor()
	{
		reset();
	}

	int get() const noexcept
	{
		return fd_;
	}
	explicit operator bool() const noexcept
	{
		return fd_ >= 0;
	}
	void reset() noexcept
	{
		if (fd_ >= 0)
			close(std::exchange(fd_, -1));
	}

private:
	int fd_;
};

} // namespace zorvat

#endif
