/* SPDX-License-Identifier: GPL-2.0 */
/* What the areas of the model kernel share: tasks, failures, reports, storage of objects. */
#ifndef MODEL_INTERNAL_H
#define MODEL_INTERNAL_H

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "model.h"

struct task_struct;

namespace model
{

/* A thread as the kernel sees it. Registered while it lives. */
struct Task {
	Task();
	~Task();

	bool admin = true;
	bool worker = false;
	bool irqs_off = false;
	int atomic_depth = 0; /* sections in which it must not sleep */
	int read_depth = 0;   /* scheduler read sections */
	/* Odd while in a scheduler read section. */
	std::atomic<uint64_t> read_sections{0};
	std::vector<const void *> held; /* locks, as taken */

	task_struct *kthread = nullptr;
	bool signal_pending = false;
	bool woken = false; /* since it last looked at what it waits for */
};

Task &current();
/* Real time after which a wait that makes no progress is called a hang. */
constexpr auto hang = std::chrono::seconds(30);
/* Throws when the caller must not sleep. */
void might_sleep(const char *call);
/* Whether the caller has the lock. */
bool is_held(const void *lock);
/* One call into the driver, which must leave the task as it found it. */
class CallIntoDriver
{
public:
	explicit CallIntoDriver(const char *name);
	~CallIntoDriver();
	CallIntoDriver(const CallIntoDriver &) = delete;
	CallIntoDriver &operator=(const CallIntoDriver &) = delete;

private:
	const char *name_;
	size_t held_;
	int atomic_depth_;
};

/* An error noticed where nothing can be thrown, as in an unlock; leaks() tells. */
void violation(const std::string &text);

/*
 * A contract call that can be told to fail: runs the actions due before it and returns 0, or the
 * negative error with which it fails, `usual` if the test gave none.
 */
long injected_slow(const char *call, long usual);
extern std::atomic<int> armed; /* interpositions that wait; keeps the others off the hot paths */
inline long injected(const char *call, long usual)
{
	return armed.load(std::memory_order_relaxed) ? injected_slow(call, usual) : 0;
}

std::string printed(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string dev_name(ka_dev_t dev);
/* Whether the address lies in the module's image. */
bool in_module(const void *address);

/* A model object in the storage of a contract object. */
template <typename T, typename Object> T &in(Object *object)
{
	static_assert(sizeof(T) == sizeof(object->storage) && alignof(T) <= 8);
	return *std::launder(reinterpret_cast<T *>(object->storage));
}
template <typename T, typename Object> const T &in(const Object *object)
{
	static_assert(sizeof(T) == sizeof(object->storage) && alignof(T) <= 8);
	return *std::launder(reinterpret_cast<const T *>(object->storage));
}

/* The areas: back to the state at boot; what is left over. */
using Report = std::vector<std::string>;
void reset_work();
void reset_sockets();
void reset_threads();
void close_sockets();
void reset_kfifos();
void reset_mm();
void reset_netlink();
void reset_chardev();
void reset_block();
void reset_devices();
void reset_kobjects();
void reset_memory();
void reset_log();
void reset_sync();
void report_work(Report &report);
void report_sockets(Report &report);
void report_threads(Report &report);
void report_kfifos(Report &report);
void report_mm(Report &report);
void report_netlink(Report &report);
void report_chardev(Report &report);
void report_block(Report &report);
void report_devices(Report &report);
void report_kobjects(Report &report);
void report_memory(Report &report);

/* A page frame, filled with a pattern; all are free again at the next boot. */
unsigned long new_page();
char *page_bytes(unsigned long pfn);

/* What making room for an allocation may lead to. */
void make_room();
/* Memory is released in which objects may lie. One that never was in sysfs may just vanish. */
void forget_objects_in(const void *memory, size_t size);
/* Leaked on purpose: not reported with the memory around it. */
void forgive_memory_around(const void *address);
/* A lock in memory that is being released was not given back. */
bool holds_lock_in(const Task &task, const void *memory, size_t size);

/* Queues the works that are due after that many more jiffies. Any context. */
void pass_time(unsigned long jiffies);
/* Wakes the tasks that wait for a completion. */
void wake_waiters();
/* Waits until the condition, a read of atomics, holds; time passes when nothing else happens. */
void wait_until(const char *call, const std::function<bool()> &condition);

} // namespace model

/* --- Kernel objects met by pointer, where more than one area looks inside ----------------- */

struct ka_class {
	const char *name;
};

struct kobject {
	struct device *device;
};

struct device {
	std::string name;
	ka_dev_t devt;
	ka_class *device_class;
	struct kset *set;
	struct device *parent;
	struct kobject kobj {
		this
	};
	std::atomic<int> references{1};
	bool added = false;
};

namespace model
{

ka_class *block_class();
/* A device with its creator's reference, not yet in the set. Lives until the next boot. */
device *new_device(const std::string &name, ka_dev_t devt, ka_class *device_class, device *parent,
		   bool has_set);
/* Enters or leaves the set, raising "add" or "remove"; leaving gives up the creator's reference. */
void device_add(device *device);
void device_del(device *device);
/* The result of the set's uevent operation. */
int raise_uevent(device *device, const std::string &action);

} // namespace model

#endif
