// SPDX-License-Identifier: GPL-2.0
/* The memory in which the driver shows the pages of a request to the disk's server. */
#ifndef ZORVAT_SERVICE_AREA_H
#define ZORVAT_SERVICE_AREA_H

#include <cstddef>
#include <span>

namespace zorvat
{

/*
 * Shared memory without content. It is never accessed but where a request says, and then by system
 * calls: an access of any other kind would give it pages of its own, where the driver's pages are
 * to appear, or trap. Children do not inherit it, and it is left out of core dumps.
 */
class ServiceArea
{
public:
	/* Throws Error. */
	explicit ServiceArea(size_t bytes);
	~ServiceArea();
	ServiceArea(const ServiceArea &) = delete;
	ServiceArea &operator=(const ServiceArea &) = delete;

	std::span<std::byte> memory() const
	{
		return memory_;
	}

private:
	std::span<std::byte> memory_;
};

} // namespace zorvat

#endif
