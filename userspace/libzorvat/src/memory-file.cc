// SPDX-License-Identifier: GPL-2.0
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <zorvat/error.h>
#include <zorvat/memory-file.h>
#include <zorvat/system-read.h>

namespace zorvat
{

namespace
{

/* Where the kernel has no files in memory, as 2.6.32, one without a name serves. */
int open_nameless()
{
	const int file = memfd_create("zorvat", MFD_CLOEXEC);
	if (file >= 0 || errno != ENOSYS)
		return file;
	std::FILE *stream = std::tmpfile();
	if (!stream)
		return -1;
	const int duplicate = fcntl(fileno(stream), F_DUPFD_CLOEXEC, 0);
	std::fclose(stream);
	return duplicate;
}

Error failure()
{
	return Error(Errc::system, "cannot get a memory file: " + error_text(errno), {}, errno);
}

} // namespace

/* With its space: on a full disk, a store in a hole would end the process. */
MemoryFile::MemoryFile(size_t size) : file_(open_nameless())
{
	if (!file_)
		throw failure();
	errno = posix_fallocate(file_.get(), 0, static_cast<off_t>(size));
	if (errno != 0)
		throw failure();
	void *address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(), 0);
	if (address == MAP_FAILED)
		throw failure();
	memory_ = {static_cast<std::byte *>(address), size};
}

MemoryFile::~MemoryFile()
{
	munmap(memory_.data(), memory_.size());
}

int MemoryFile::copy_to(std::span<std::byte> memory, size_t offset) const noexcept
{
	return read_all(file_.get(), offset, memory);
}

} // namespace zorvat
