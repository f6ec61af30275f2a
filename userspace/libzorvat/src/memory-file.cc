// SPDX-License-Identifier: GPL-2.0
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/mman.h>
#include <zorvat/error.h>
#include <zorvat/memory-file.h>
#include <zorvat/system-read.h>

namespace zorvat
{

namespace
{

/* Where the kernel has no files in memory, as 2.6.32, one without a name serves. */
int nameless_file()
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

MemoryFile::MemoryFile(size_t size) : file_(nameless_file())
{
	if (!file_ || ftruncate(file_.get(), static_cast<off_t>(size)) != 0)
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
