// SPDX-License-Identifier: GPL-2.0
/* Allocations, from malloc so that the address sanitizer sees every overflow, and user memory. */
#include "kernel-abstractions/memory.h"

#include <cstdlib>
#include <mutex>

#include "internal.h"

namespace model
{
namespace
{

constexpr size_t page = 4096;
constexpr size_t largest = size_t{1} << 30;

struct UserRange {
	size_t size;
	UserMemory::Access access;
};

struct Memory {
	std::mutex lock;
	std::map<const char *, size_t> allocations;
	std::map<const char *, UserRange> user;
	std::atomic<uint64_t> count{0};
	std::function<void()> reclaim;
	int mismatched = 0;
	std::vector<const void *> forgiven;
};

Memory &state()
{
	static Memory instance;
	return instance;
}

const char *first_byte(const void *address)
{
	return static_cast<const char *>(address);
}

/* How many of the bytes at the address the process lets itself be read or written. */
size_t user_bytes(const void *address, size_t size, bool writes)
{
	auto &m = state();
	auto range = m.user.upper_bound(first_byte(address));
	if (range == m.user.begin())
		return 0;
	--range;
	size_t offset = first_byte(address) - range->first;
	bool allowed = range->second.access == UserMemory::Access::read_write ||
		       (!writes && range->second.access == UserMemory::Access::read_only);
	if (!allowed || offset >= range->second.size)
		return 0;
	return std::min(size, range->second.size - offset);
}

unsigned long copy(void *to, const void *from, unsigned long size, bool to_user)
{
	const char *call = to_user ? "ka_copy_to_user" : "ka_copy_from_user";
	might_sleep(call);
	if (injected(call, -KA_EFAULT))
		return size;
	std::lock_guard guard(state().lock);
	size_t copied = user_bytes(to_user ? to : from, size, to_user);
	if (copied > 0)
		memcpy(to, from, copied);
	return size - copied;
}

void release(const void *memory, const char *call, bool mismatched)
{
	if (!memory)
		return;
	size_t size;
	{
		std::lock_guard guard(state().lock);
		auto found = state().allocations.find(first_byte(memory));
		if (found == state().allocations.end())
			return violation(printed("%s: not allocated", call));
		if (holds_lock_in(current(), memory, found->second))
			violation(printed("%s: a lock in it is held", call));
		size = found->second;
		state().allocations.erase(found);
		state().mismatched += mismatched;
	}
	forget_objects_in(memory, size);
	free(const_cast<void *>(memory));
}

} // namespace

void make_room()
{
	static thread_local bool running;
	if (running || !state().reclaim)
		return;
	running = true;
	state().reclaim();
	running = false;
}

uint64_t allocations()
{
	return state().count;
}

void on_reclaim(std::function<void()> action)
{
	state().reclaim = std::move(action);
}

int take_mismatched_releases()
{
	std::lock_guard guard(state().lock);
	return std::exchange(state().mismatched, 0);
}

int forget_memory(size_t size)
{
	std::lock_guard guard(state().lock);
	int count = 0;
	for (auto &[address, allocated] : state().allocations) {
		if (allocated != size)
			continue;
		state().forgiven.push_back(address);
		count++;
	}
	return count;
}

void forgive_memory_around(const void *address)
{
	std::lock_guard guard(state().lock);
	state().forgiven.push_back(address);
}

void reset_memory()
{
	auto &m = state();
	for (auto &[address, size] : m.allocations)
		free(const_cast<char *>(address));
	m.allocations.clear();
	m.reclaim = nullptr;
	m.mismatched = 0;
	m.forgiven.clear();
}

void report_memory(Report &report)
{
	auto &m = state();
	std::lock_guard guard(m.lock);
	for (auto &memory : m.allocations) {
		bool forgiven = std::ranges::any_of(m.forgiven, [&](const void *inside) {
			return inside >= memory.first && inside < memory.first + memory.second;
		});
		if (!forgiven)
			report.push_back(printed("memory: %zu bytes", memory.second));
	}
}

UserMemory::UserMemory(size_t size, Access access)
    : memory_(std::make_unique<unsigned char[]>(size)), size_(size)
{
	std::lock_guard guard(state().lock);
	state().user[first_byte(memory_.get())] = {size, access};
}

UserMemory::~UserMemory()
{
	std::lock_guard guard(state().lock);
	state().user.erase(first_byte(memory_.get()));
}

void UserMemory::set_access(Access access)
{
	std::lock_guard guard(state().lock);
	state().user[first_byte(memory_.get())].access = access;
}

unsigned char *UserMemory::data()
{
	return memory_.get();
}

size_t UserMemory::size() const
{
	return size_;
}

unsigned long UserMemory::address() const
{
	return reinterpret_cast<unsigned long>(memory_.get());
}

void UserMemory::fill(unsigned char byte)
{
	memset(memory_.get(), byte, size_);
}

void UserMemory::read(void *to, size_t size, size_t offset) const
{
	memcpy(to, memory_.get() + offset, size);
}

void UserMemory::write(const void *from, size_t size, size_t offset)
{
	memcpy(memory_.get() + offset, from, size);
}

} // namespace model

using namespace model;

void *ka_vmalloc(size_t size)
{
	might_sleep("ka_vmalloc");
	state().count++;
	if (injected("ka_vmalloc", -KA_ENOMEM) || size == 0 || size > largest)
		return nullptr;
	make_room();
	void *memory = nullptr;
	if (posix_memalign(&memory, page, size) != 0)
		return nullptr;
	memset(memory, 0xa5, size); /* not cleared, and it shows */
	std::lock_guard guard(state().lock);
	state().allocations[first_byte(memory)] = size;
	return memory;
}

void ka_vfree(const void *memory)
{
	release(memory, "ka_vfree", false);
}

void ka_kfree(const void *memory)
{
	release(memory, "ka_kfree", true);
}

unsigned long ka_copy_from_user(void *to, const void *from_user, unsigned long size)
{
	return copy(to, from_user, size, false);
}

unsigned long ka_copy_to_user(void *to_user, const void *from, unsigned long size)
{
	return copy(to_user, from, size, true);
}
