// SPDX-License-Identifier: GPL-2.0
/* Memory that is a file, too: what is stored in it can be handed on by system calls. */
#ifndef ZORVAT_MEMORY_FILE_H
#define ZORVAT_MEMORY_FILE_H

#include <cstddef>
#include <span>
#include <zorvat/file-descriptor.h>

namespace zorvat
{

class MemoryFile
{
public:
	/* In bytes; all of it is zeros. Throws Error(system). */
	explicit MemoryFile(size_t size);
	~MemoryFile();
	MemoryFile(const MemoryFile &) = delete;
	MemoryFile &operator=(const MemoryFile &) = delete;

	std::span<std::byte> memory() const noexcept
	{
		return memory_;
	}

	/*
	 * Fills memory that can be gone at any moment with what is at the offset. Returns 0 or a
	 * positive error number.
	 */
	int copy_to(std::span<std::byte> memory, size_t offset) const noexcept;

private:
	FileDescriptor file_;
	std::span<std::byte> memory_;
};

} // namespace zorvat

#endif
