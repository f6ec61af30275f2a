// SPDX-License-Identifier: GPL-2.0
/* Maps the service area. */
#include "service-area.h"

#include <cerrno>
#include <fmt/format.h>
#include <sys/mman.h>
#include <zorvat/error.h>

namespace zorvat
{

namespace
{

Error failure(int number)
{
	return Error(Errc::system,
		     fmt::format("cannot map memory for a restore disk: {}", error_text(number)),
		     {}, number);
}

} // namespace

ServiceArea::ServiceArea(size_t bytes)
{
	void *address = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
			     MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
	if (address == MAP_FAILED)
		throw failure(errno);
	memory_ = {static_cast<std::byte *>(address), bytes};
	if (madvise(address, bytes, MADV_DONTFORK) != 0 ||
	    madvise(address, bytes, MADV_DONTDUMP) != 0) {
		const int number = errno;
		munmap(address, bytes);
		throw failure(number);
	}
}

ServiceArea::~ServiceArea()
{
	munmap(memory_.data(), memory_.size());
}

} // namespace zorvat
