// SPDX-License-Identifier: GPL-2.0
/*
 * Page frames, and a process's address space in which they can be shown.
 *
 * The frames are pages of a file in memory. The kernel has all of it mapped; to show a frame, that
 * page of the file is mapped at the process's address too, so a test's server thread reads and
 * writes the very page. Where nothing is shown the address faults.
 */
#include "kernel-abstractions/mm.h"

#include <sys/mman.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <list>
#include <mutex>

#include "internal.h"

namespace model
{
namespace
{

constexpr size_t page_size = 4096;
constexpr size_t frames = 16384;
constexpr int pattern = 0x5a;

struct Taken;

/* An area of the address space: a whole mapping, or a part that was split off one. */
struct Area {
	unsigned long start, end;
	const void *private_data = nullptr;
	Taken *taken = nullptr; /* its operations are those for this one */
};

/* What a contract's mapping has taken over. Pins the address space. */
struct Taken {
	ka_mapping *mapping;
	void (*closed)(ka_mapping *mapping, unsigned long start);
	Area *area; /* null: gone, though parts may be left */
};

/* In the contract's storage; all zero at first. */
struct Mapping {
	Taken *taken;
};

struct Mm {
	Mm();

	int fd;
	char *bytes;
	std::atomic<unsigned long> used{0};
	std::mutex lock; /* the address space's */
	std::list<Area> areas;
	std::list<Taken> taken;
	std::map<unsigned long, unsigned long> shown; /* frames, by address */
};

void map(unsigned long address, size_t size, int flags, int fd, size_t offset)
{
	const int protection = fd < 0 ? PROT_NONE : PROT_READ | PROT_WRITE;
	void *at = reinterpret_cast<void *>(address);
	if (mmap(at, size, protection, flags | MAP_FIXED, fd, static_cast<off_t>(offset)) != at)
		throw Bug("mmap failed");
}

Mm::Mm() : fd(memfd_create("frames", MFD_CLOEXEC))
{
	if (fd < 0 || ftruncate(fd, frames * page_size) != 0)
		throw Bug("no memory for the page frames");
	bytes = static_cast<char *>(
		mmap(nullptr, frames * page_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
}

Mm &state()
{
	static Mm instance;
	return instance;
}

/* Holds the address space's lock, under which nothing else of it may be asked for. */
class MmLock
{
public:
	explicit MmLock(const char *call)
	{
		might_sleep(call);
		state().lock.lock();
	}
	~MmLock()
	{
		state().lock.unlock();
	}
	MmLock(const MmLock &) = delete;
	MmLock &operator=(const MmLock &) = delete;
};

void hide(unsigned long start, unsigned long end)
{
	auto &shown = state().shown;
	for (auto page = shown.lower_bound(start); page != shown.end() && page->first < end;
	     page = shown.erase(page))
		map(page->first, page_size, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
}

void tell_closed(const Area &area, unsigned long start)
{
	if (!area.taken || !area.taken->closed)
		return;
	CallIntoDriver call("a mapping's close");
	current().atomic_depth++;
	area.taken->closed(area.taken->mapping, start);
	current().atomic_depth--;
}

/* The part from there on becomes an area of its own. */
void split_off(Area &area, unsigned long from)
{
	Area upper = area;
	upper.start = area.end = from;
	state().areas.push_back(upper);
}

/* Takes [start, end), which overlaps the area, out of it; whether nothing is left. */
bool cut(Area &area, unsigned long start, unsigned long end)
{
	start = std::max(start, area.start);
	end = std::min(end, area.end);
	hide(start, end);
	tell_closed(area, start);
	if (start == area.start && end == area.end) {
		if (area.taken && area.taken->area == &area)
			area.taken->area = nullptr;
		return true;
	}
	if (start > area.start && end < area.end)
		split_off(area, end);
	if (start == area.start)
		area.start = end;
	else
		area.end = start;
	return false;
}

void unmap(unsigned long start, unsigned long end)
{
	for (auto area = state().areas.begin(); area != state().areas.end();) {
		const bool overlaps = area->start < end && start < area->end;
		area = overlaps && cut(*area, start, end) ? state().areas.erase(area)
							  : std::next(area);
	}
}

Area *first_that_ends_above(unsigned long address)
{
	Area *first = nullptr;
	for (auto &area : state().areas)
		if (area.end > address && (!first || area.start < first->start))
			first = &area;
	return first;
}

void restore(ka_mapping *mapping, bool clear_private_data)
{
	MmLock lock("ka_mapping_give_back");
	Taken *taken = std::exchange(in<Mapping>(mapping).taken, nullptr);
	if (!taken)
		return;
	for (auto &area : state().areas) {
		if (area.taken != taken)
			continue;
		area.taken = nullptr;
		if (clear_private_data)
			area.private_data = nullptr;
	}
	state().taken.remove_if([&](auto &other) { return &other == taken; });
}

Area *area_of(ka_mapping *mapping)
{
	const Taken *taken = in<Mapping>(mapping).taken;
	return taken ? taken->area : nullptr;
}

} // namespace

unsigned long new_page()
{
	const unsigned long n = state().used++;
	if (n >= frames)
		throw Bug("the page frames are used up");
	const unsigned long pfn = n * 7919 % frames; /* no two in a row */
	memset(page_bytes(pfn), pattern, page_size);
	return pfn;
}

char *page_bytes(unsigned long pfn)
{
	return state().bytes + pfn * page_size;
}

ProcessMapping::ProcessMapping(size_t bytes) : size_(bytes)
{
	void *at =
		mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
	if (at == MAP_FAILED)
		throw Bug("mmap failed");
	start_ = reinterpret_cast<unsigned long>(at);
	MmLock lock("mmap");
	state().areas.push_back({start_, start_ + bytes});
}

ProcessMapping::~ProcessMapping()
{
	unmap();
	munmap(address(), size_);
}

void *ProcessMapping::address(size_t offset) const
{
	return reinterpret_cast<void *>(start_ + offset);
}

void ProcessMapping::unmap(size_t offset, size_t bytes)
{
	MmLock lock("munmap");
	model::unmap(start_ + offset, start_ + std::min(bytes, size_ - offset) + offset);
}

void ProcessMapping::split(size_t offset)
{
	MmLock lock("mprotect");
	for (auto &area : state().areas)
		if (area.start < start_ + offset && start_ + offset < area.end)
			return split_off(area, start_ + offset);
}

void ProcessMapping::set_private_data(const void *data)
{
	MmLock lock("mmap");
	for (auto &area : state().areas)
		if (area.start >= start_ && area.end <= start_ + size_)
			area.private_data = data;
}

bool ProcessMapping::is_shown(size_t offset) const
{
	MmLock lock("is_shown");
	return state().shown.contains((start_ + offset) & ~(page_size - 1));
}

size_t shown_pages()
{
	MmLock lock("shown_pages");
	return state().shown.size();
}

void reset_mm()
{
	auto &m = state();
	hide(0, ULONG_MAX);
	for (auto &area : m.areas)
		area.taken = nullptr;
	m.taken.clear();
	m.used = 0;
}

void report_mm(Report &report)
{
	MmLock lock("leaks");
	for (size_t i = 0; i < state().taken.size(); i++)
		report.emplace_back("a mapping was not given back");
	if (!state().shown.empty())
		report.push_back(printed("%zu pages are shown", state().shown.size()));
}

} // namespace model

using namespace model;

int ka_mapping_take(ka_mapping *mapping, const void *address,
		    void (*closed)(ka_mapping *mapping, unsigned long start))
{
	if (long error = injected("ka_mapping_take", -KA_ENOENT))
		return static_cast<int>(error);
	MmLock lock("ka_mapping_take");
	if (in<Mapping>(mapping).taken)
		throw Bug("ka_mapping_take: has taken one before");
	Area *area = first_that_ends_above(reinterpret_cast<unsigned long>(address));
	if (!area)
		return -KA_ENOENT;
	if (area->private_data)
		return -KA_EBUSY;
	area->private_data = mapping;
	area->taken = &state().taken.emplace_back(Taken{mapping, closed, area});
	in<Mapping>(mapping).taken = area->taken;
	return 0;
}

void ka_mapping_give_back(ka_mapping *mapping)
{
	restore(mapping, true);
}

void ka_mapping_give_up(ka_mapping *mapping)
{
	restore(mapping, false);
}

int ka_mapping_is_taken(const ka_mapping *mapping)
{
	return in<Mapping>(mapping).taken != nullptr;
}

unsigned long ka_mapping_start(ka_mapping *mapping)
{
	MmLock lock("ka_mapping_start");
	const Area *area = area_of(mapping);
	return area ? area->start : 0;
}

size_t ka_mapping_size(ka_mapping *mapping)
{
	MmLock lock("ka_mapping_size");
	const Area *area = area_of(mapping);
	return area ? area->end - area->start : 0;
}

int ka_mapping_show_page(ka_mapping *mapping, size_t offset, unsigned long pfn)
{
	if (long error = injected("ka_mapping_show_page", -KA_ENOMEM))
		return static_cast<int>(error);
	MmLock lock("ka_mapping_show_page");
	const Area *area = area_of(mapping);
	if (!area || area->end - area->start < page_size ||
	    offset > area->end - area->start - page_size)
		return -KA_EIO;
	const unsigned long address = area->start + offset;
	if (address % page_size != 0 || pfn >= frames)
		throw Bug("ka_mapping_show_page: not a page");
	map(address, page_size, MAP_SHARED, state().fd, pfn * page_size);
	state().shown[address] = pfn;
	return 0;
}

int ka_mapping_zap(ka_mapping *mapping)
{
	const long error = injected("ka_mapping_zap", -KA_EINVAL);
	MmLock lock("ka_mapping_zap");
	const Taken *taken = in<Mapping>(mapping).taken;
	for (auto &area : state().areas)
		if (taken && area.taken == taken)
			hide(area.start, area.end);
	if (!area_of(mapping))
		return -KA_EIO;
	return static_cast<int>(error);
}
