// SPDX-License-Identifier: GPL-2.0
/*
 * Tasks, locks, completions and grace periods.
 *
 * The locks live in the storage that the contract gives them, need no destructor and order memory
 * exactly as their names promise and no more, so that a race of the driver's stays visible to the
 * thread sanitizer. What a kernel would hang or crash on throws where a lock is taken; where one
 * is released, often in a destructor, it is only noted.
 */
#include "kernel-abstractions/sync.h"

#include <mutex>
#include <thread>

#include "internal.h"

namespace model
{
namespace
{

constexpr uint32_t mutex_magic = 0x6d757478;
constexpr uint32_t rwsem_magic = 0x7277736d;
constexpr uint32_t spinlock_magic = 0x7370696e;
constexpr uint32_t completion_magic = 0x636f6d70;

/* state: 0 free, 1 held, 2 held and waited for. */
struct Mutex {
	std::atomic<uint32_t> state{0};
	uint32_t magic = mutex_magic;
	std::atomic<const Task *> owner{nullptr};
	const char *name;
};

/* state: the writer bit, the number of waiting writers (who hold off new readers), the readers. */
struct Rwsem {
	static constexpr uint32_t writer = 1u << 31;
	static constexpr uint32_t waiting = 1u << 16;
	static constexpr uint32_t readers = waiting - 1;

	std::atomic<uint32_t> state{0};
	uint32_t magic = rwsem_magic;
	const char *name;
};

struct Spinlock {
	std::atomic<uint32_t> held{0};
	uint32_t magic = spinlock_magic;
	const char *name;
};

/* In every state of the interrupts that a lock returned. */
constexpr unsigned long saved_flags = 0x1200;

struct Completion {
	std::atomic<uint32_t> done{0};
	uint32_t magic = completion_magic;
};

std::atomic<int> stray_unlocks;

/* All tasks; the lock is held across a grace period, which keeps them from going away. */
struct Tasks {
	std::mutex lock;
	std::vector<Task *> all;
};

Tasks &tasks()
{
	static auto *instance = new Tasks; /* outlives every thread */
	return *instance;
}

template <typename Lock> Lock &checked(Lock &lock, uint32_t magic, const char *call)
{
	if (lock.magic != magic)
		throw Bug(printed("%s: not initialised", call));
	return lock;
}

void take(const void *lock)
{
	current().held.push_back(lock);
}

/* Whether the caller had it. */
bool give_back(const void *lock)
{
	auto &held = current().held;
	auto found = std::find(held.rbegin(), held.rend(), lock);
	if (found == held.rend())
		return false;
	held.erase(std::next(found).base());
	return true;
}

void before_lock(const void *lock, const char *call, const char *name)
{
	might_sleep(call);
	if (is_held(lock))
		throw Bug(printed("%s: deadlock, %s is already held by this task", call, name));
}

void lock_mutex(ka_mutex *mutex, const char *call)
{
	auto &m = checked(in<Mutex>(mutex), mutex_magic, call);
	before_lock(mutex, call, m.name);
	uint32_t free = 0;
	if (!m.state.compare_exchange_strong(free, 1, std::memory_order_acquire)) {
		while (m.state.exchange(2, std::memory_order_acquire) != 0)
			m.state.wait(2);
	}
	m.owner.store(&current(), std::memory_order_relaxed);
	take(mutex);
}

} // namespace

Task::Task()
{
	std::lock_guard guard(tasks().lock);
	tasks().all.push_back(this);
}

Task::~Task()
{
	if (!held.empty() || atomic_depth > 0)
		violation("a thread ended with locks held or in atomic context");
	std::lock_guard guard(tasks().lock);
	std::erase(tasks().all, this);
}

Task &current()
{
	static thread_local Task task;
	return task;
}

void might_sleep(const char *call)
{
	if (current().atomic_depth > 0)
		throw Bug(printed("%s: may sleep, called in atomic context", call));
}

bool is_held(const void *lock)
{
	return std::ranges::find(current().held, lock) != current().held.end();
}

CallIntoDriver::CallIntoDriver(const char *name)
    : name_(name), held_(current().held.size()), atomic_depth_(current().atomic_depth)
{
}

CallIntoDriver::~CallIntoDriver()
{
	if (current().held.size() != held_)
		violation(printed("%s: a lock was not given back", name_));
	if (current().atomic_depth != atomic_depth_)
		violation(printed("%s: returned in atomic context", name_));
}

bool holds_lock_in(const Task &task, const void *memory, size_t size)
{
	auto begin = static_cast<const char *>(memory);
	return std::ranges::any_of(
		task.held, [&](const void *lock) { return lock >= begin && lock < begin + size; });
}

int take_stray_unlocks()
{
	return stray_unlocks.exchange(0);
}

void reset_sync()
{
	stray_unlocks = 0;
	current().held.clear();
	current().atomic_depth = 0;
	current().irqs_off = false;
	current().admin = true;
	if (current().read_depth > 0)
		current().read_sections++;
	current().read_depth = 0;
}

} // namespace model

using namespace model;

void ka_mutex_init(ka_mutex *mutex, const char *name)
{
	new (mutex->storage) Mutex{.name = name};
}

void ka_mutex_lock(ka_mutex *mutex)
{
	injected("ka_mutex_lock", 0);
	lock_mutex(mutex, "ka_mutex_lock");
}

int ka_mutex_lock_interruptible(ka_mutex *mutex)
{
	if (long error = injected("ka_mutex_lock_interruptible", -KA_EINTR))
		return static_cast<int>(error);
	lock_mutex(mutex, "ka_mutex_lock_interruptible");
	return 0;
}

/*
 * An unlock by a task that does not hold the mutex does what it does on a kernel: it sets the mutex
 * free, whoever holds it.
 */
int ka_mutex_trylock(ka_mutex *mutex)
{
	auto &m = checked(in<Mutex>(mutex), mutex_magic, "ka_mutex_trylock");
	uint32_t free = 0;
	if (!m.state.compare_exchange_strong(free, 1, std::memory_order_acquire))
		return 0;
	m.owner.store(&current(), std::memory_order_relaxed);
	take(mutex);
	return 1;
}

void ka_mutex_unlock(ka_mutex *mutex)
{
	auto &m = in<Mutex>(mutex);
	bool mine = give_back(mutex) && m.owner.load(std::memory_order_relaxed) == &current();
	if (!mine)
		stray_unlocks++;
	m.owner.store(nullptr, std::memory_order_relaxed);
	if (m.state.exchange(0, std::memory_order_release) == 2)
		m.state.notify_one();
}

int ka_mutex_is_locked(ka_mutex *mutex)
{
	auto &m = checked(in<Mutex>(mutex), mutex_magic, "ka_mutex_is_locked");
	return m.state.load(std::memory_order_relaxed) != 0;
}

void ka_rwsem_init(ka_rwsem *sem, const char *name)
{
	new (sem->storage) Rwsem{.name = name};
}

void ka_down_read(ka_rwsem *sem)
{
	auto &s = checked(in<Rwsem>(sem), rwsem_magic, "ka_down_read");
	before_lock(sem, "ka_down_read", s.name);
	uint32_t state = s.state.load(std::memory_order_relaxed);
	for (;;) {
		if (state > Rwsem::readers) {
			s.state.wait(state);
			state = s.state.load(std::memory_order_relaxed);
		} else if (s.state.compare_exchange_weak(state, state + 1,
							 std::memory_order_acquire)) {
			break;
		}
	}
	take(sem);
}

void ka_up_read(ka_rwsem *sem)
{
	injected("ka_up_read", 0);
	auto &s = in<Rwsem>(sem);
	if (!give_back(sem))
		return violation("ka_up_read: not held");
	if (s.state.fetch_sub(1, std::memory_order_release) > Rwsem::readers)
		s.state.notify_all();
}

void ka_down_write(ka_rwsem *sem)
{
	auto &s = checked(in<Rwsem>(sem), rwsem_magic, "ka_down_write");
	before_lock(sem, "ka_down_write", s.name);
	uint32_t state = s.state.fetch_add(Rwsem::waiting) + Rwsem::waiting;
	for (;;) {
		if (state & (Rwsem::writer | Rwsem::readers)) {
			s.state.wait(state);
			state = s.state.load(std::memory_order_relaxed);
		} else if (s.state.compare_exchange_weak(state,
							 (state - Rwsem::waiting) | Rwsem::writer,
							 std::memory_order_acquire)) {
			break;
		}
	}
	take(sem);
}

void ka_up_write(ka_rwsem *sem)
{
	auto &s = in<Rwsem>(sem);
	if (!give_back(sem))
		return violation("ka_up_write: not held");
	s.state.fetch_and(~Rwsem::writer, std::memory_order_release);
	s.state.notify_all();
}

void ka_spin_lock_init(ka_spinlock *lock, const char *name)
{
	new (lock->storage) Spinlock{.name = name};
}

unsigned long ka_spin_lock_irqsave(ka_spinlock *lock)
{
	auto &l = checked(in<Spinlock>(lock), spinlock_magic, "ka_spin_lock_irqsave");
	if (is_held(lock))
		throw Bug(printed("ka_spin_lock_irqsave: deadlock, %s is already held by this task",
				  l.name));
	while (l.held.exchange(1, std::memory_order_acquire) != 0)
		std::this_thread::yield();
	current().atomic_depth++;
	take(lock);
	return saved_flags + std::exchange(current().irqs_off, true);
}

void ka_spin_unlock_irqrestore(ka_spinlock *lock, unsigned long flags)
{
	if (!give_back(lock))
		return violation("ka_spin_unlock_irqrestore: not held");
	if (flags != saved_flags && flags != saved_flags + 1)
		violation("ka_spin_unlock_irqrestore: not what the lock returned");
	current().irqs_off = flags != saved_flags;
	current().atomic_depth--;
	in<Spinlock>(lock).held.store(0, std::memory_order_release);
}

void ka_init_completion(ka_completion *completion)
{
	new (completion->storage) Completion;
}

void ka_complete_all(ka_completion *completion)
{
	auto &c = checked(in<Completion>(completion), completion_magic, "ka_complete_all");
	c.done.store(1, std::memory_order_release);
	wake_waiters();
}

void ka_wait_for_completion(ka_completion *completion)
{
	auto &c = checked(in<Completion>(completion), completion_magic, "ka_wait_for_completion");
	might_sleep("ka_wait_for_completion");
	wait_until("ka_wait_for_completion",
		   [&] { return c.done.load(std::memory_order_acquire) != 0; });
}

void ka_rcu_read_lock_sched(void)
{
	Task &task = current();
	task.atomic_depth++;
	if (task.read_depth++ == 0)
		task.read_sections.fetch_add(1, std::memory_order_seq_cst);
}

void ka_rcu_read_unlock_sched(void)
{
	Task &task = current();
	if (task.read_depth == 0)
		return violation("ka_rcu_read_unlock_sched: no section");
	task.atomic_depth--;
	if (--task.read_depth == 0)
		task.read_sections.fetch_add(1, std::memory_order_release);
}

void ka_synchronize_sched(void)
{
	injected("ka_synchronize_sched", 0);
	might_sleep("ka_synchronize_sched");
	std::lock_guard guard(tasks().lock);
	for (Task *task : tasks().all) {
		uint64_t section = task->read_sections.fetch_add(0, std::memory_order_seq_cst);
		while (section % 2 == 1 &&
		       task->read_sections.load(std::memory_order_acquire) == section)
			std::this_thread::yield();
	}
}
