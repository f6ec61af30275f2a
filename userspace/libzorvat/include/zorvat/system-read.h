// SPDX-License-Identifier: GPL-2.0
/* Reading into memory that may be gone: by system calls, which fail where a store would trap. */
#ifndef ZORVAT_SYSTEM_READ_H
#define ZORVAT_SYSTEM_READ_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace zorvat
{

/* Fills the memory from the file. Returns 0 or a positive error number; EIO at the file's end. */
int read_all(int fd, uint64_t offset, std::span<std::byte> memory) noexcept;

} // namespace zorvat

#endif
