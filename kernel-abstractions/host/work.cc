// SPDX-License-Identifier: GPL-2.0
/*
 * Time, delayed works and the queues that run them, each on a thread of its own.
 *
 * Ticks count from 0 at boot; jiffies start shortly before they wrap, as on a kernel, so that a
 * comparison by value shows itself.
 */
#include "kernel-abstractions/work.h"

#include <condition_variable>
#include <deque>
#include <list>
#include <map>
#include <mutex>
#include <thread>

#include "internal.h"
#include "kernel-abstractions/task.h"

namespace
{

constexpr unsigned long initial_jiffies = -5000ul;

} // namespace

struct workqueue_struct {
	explicit workqueue_struct(std::string queue_name) : name(std::move(queue_name))
	{
	}

	std::string name;
	std::deque<ka_delayed_work *> works;
	ka_delayed_work *running = nullptr;
	uint64_t queued = 0, done = 0;
	bool stopping = false;
	std::thread thread;
};

namespace model
{
namespace
{

struct Timer {
	ka_delayed_work *work;
	workqueue_struct *queue;
};

struct Work {
	~Work()
	{
		reset_work();
	}

	std::mutex lock;
	std::condition_variable changed;
	std::atomic<uint64_t> ticks{0};
	unsigned long microseconds = 0;
	std::multimap<uint64_t, Timer> timers;
	std::list<workqueue_struct> queues;
	workqueue_struct *shared = nullptr;
	/* Works queued or running, less those that wait themselves. */
	int busy = 0;
	std::vector<std::string> failures;
};

Work &state()
{
	static Work instance;
	return instance;
}

using Locked = std::unique_lock<std::mutex>;

void wait_locked(Locked &lock, const char *call, const std::function<bool()> &condition)
{
	if (!state().changed.wait_for(lock, hang, condition))
		throw Bug(printed("%s: hung", call));
}

auto timer_of(ka_delayed_work *work)
{
	return std::ranges::find_if(state().timers,
				    [&](auto &timer) { return timer.second.work == work; });
}

workqueue_struct *queue_of(ka_delayed_work *work)
{
	for (auto &queue : state().queues)
		if (std::ranges::find(queue.works, work) != queue.works.end())
			return &queue;
	return nullptr;
}

bool is_pending(ka_delayed_work *work)
{
	return timer_of(work) != state().timers.end() || queue_of(work);
}

void enqueue(Timer due)
{
	due.queue->works.push_back(due.work);
	due.queue->queued++;
	state().busy++;
	state().changed.notify_all();
}

void pass_time_locked(uint64_t ticks)
{
	auto &w = state();
	w.ticks += ticks;
	while (!w.timers.empty() && w.timers.begin()->first <= w.ticks) {
		Timer due = w.timers.begin()->second;
		w.timers.erase(w.timers.begin());
		enqueue(due);
	}
}

void run_work(ka_delayed_work *work, void (*function)(ka_delayed_work *))
{
	CallIntoDriver call("a work");
	try {
		function(work);
	} catch (const Bug &bug) {
		Locked lock(state().lock);
		state().failures.push_back(std::string("a work died: ") + bug.what());
	}
}

void run_queue(workqueue_struct &queue)
{
	auto &w = state();
	current().worker = true;
	Locked lock(w.lock);
	for (;;) {
		w.changed.wait(lock, [&] { return queue.stopping || !queue.works.empty(); });
		if (queue.works.empty())
			return;
		/* The work's record may be initialised anew or go away once it runs. */
		queue.running = queue.works.front();
		queue.works.pop_front();
		auto function = queue.running->function;
		lock.unlock();
		run_work(queue.running, function);
		lock.lock();
		queue.running = nullptr;
		queue.done++;
		w.busy--;
		w.changed.notify_all();
	}
}

workqueue_struct *start_queue(Locked &, const char *name)
{
	auto &queue = state().queues.emplace_back(name);
	queue.thread = std::thread([&queue] { run_queue(queue); });
	return &queue;
}

workqueue_struct *shared_queue(Locked &lock)
{
	if (!state().shared)
		state().shared = start_queue(lock, "events");
	return state().shared;
}

/* Runs what is queued, then ends the thread. */
void stop_queue(workqueue_struct *queue)
{
	auto &w = state();
	{
		Locked lock(w.lock);
		queue->stopping = true;
		w.changed.notify_all();
	}
	queue->thread.join();
	Locked lock(w.lock);
	w.queues.remove_if([&](auto &other) { return &other == queue; });
}

int schedule(Locked &, workqueue_struct *queue, ka_delayed_work *work, unsigned long delay)
{
	if (is_pending(work))
		return 0;
	if (delay == 0)
		enqueue({work, queue});
	else
		state().timers.emplace(state().ticks + delay, Timer{work, queue});
	return 1;
}

} // namespace

void pass_time(unsigned long jiffies)
{
	Locked lock(state().lock);
	pass_time_locked(jiffies);
}

void wake_waiters()
{
	Locked lock(state().lock);
	state().changed.notify_all();
}

void wait_until(const char *call, const std::function<bool()> &condition)
{
	auto &w = state();
	Locked lock(w.lock);
	int self = current().worker ? 1 : 0;
	w.busy -= self;
	while (!condition()) {
		if (w.busy == 0 && !w.timers.empty())
			pass_time_locked(w.timers.begin()->first - w.ticks);
		else
			wait_locked(lock, call, [&] {
				return condition() || (w.busy == 0 && !w.timers.empty());
			});
	}
	w.busy += self;
}

void settle()
{
	Locked lock(state().lock);
	wait_locked(lock, "settle", [] { return state().busy == 0; });
}

void advance(unsigned long jiffies)
{
	auto &w = state();
	Locked lock(w.lock);
	uint64_t end = w.ticks + jiffies;
	auto settled = [&] { return w.busy == 0; };
	wait_locked(lock, "advance", settled);
	while (w.ticks < end) {
		uint64_t next = w.timers.empty() ? end : std::min(end, w.timers.begin()->first);
		pass_time_locked(next - w.ticks);
		wait_locked(lock, "advance", settled);
	}
}

void reset_work()
{
	auto &w = state();
	{
		Locked lock(w.lock);
		w.timers.clear();
		for (auto &queue : w.queues)
			queue.works.clear();
	}
	while (!w.queues.empty())
		stop_queue(&w.queues.front());
	w.shared = nullptr;
	w.ticks = 0;
	w.microseconds = 0;
	w.busy = 0;
	w.failures.clear();
}

void report_work(Report &report)
{
	auto &w = state();
	Locked lock(w.lock);
	report.insert(report.end(), w.failures.begin(), w.failures.end());
	for (auto &queue : w.queues)
		if (&queue != w.shared)
			report.push_back("work queue " + queue.name);
	if (!w.timers.empty())
		report.push_back(printed("%zu works wait for their delay", w.timers.size()));
}

} // namespace model

using namespace model;

void ka_init_delayed_work(ka_delayed_work *work, void (*function)(ka_delayed_work *work))
{
	Locked lock(state().lock);
	if (is_pending(work))
		throw Bug("ka_init_delayed_work: the work is pending");
	work->function = function;
}

int ka_schedule_delayed_work(ka_delayed_work *work, unsigned long delay)
{
	if (injected("ka_schedule_delayed_work", -1))
		return 0;
	Locked lock(state().lock);
	return schedule(lock, shared_queue(lock), work, delay);
}

int ka_queue_delayed_work(workqueue_struct *queue, ka_delayed_work *work, unsigned long delay)
{
	if (injected("ka_queue_delayed_work", -1))
		return 0;
	Locked lock(state().lock);
	return schedule(lock, queue, work, delay);
}

void ka_cancel_delayed_work_sync(ka_delayed_work *work)
{
	might_sleep("ka_cancel_delayed_work_sync");
	auto &w = state();
	Locked lock(w.lock);
	if (auto timer = timer_of(work); timer != w.timers.end()) {
		w.timers.erase(timer);
		return;
	}
	workqueue_struct *queue = queue_of(work);
	for (auto &other : w.queues)
		if (other.running == work && !queue)
			queue = &other;
	if (!queue)
		return;
	uint64_t last = queue->queued;
	wait_locked(lock, "ka_cancel_delayed_work_sync", [&] { return queue->done >= last; });
}

workqueue_struct *ka_create_singlethread_workqueue(const char *name)
{
	if (injected("ka_create_singlethread_workqueue", -KA_ENOMEM))
		return nullptr;
	might_sleep("ka_create_singlethread_workqueue");
	Locked lock(state().lock);
	return start_queue(lock, name);
}

void ka_flush_workqueue(workqueue_struct *queue)
{
	might_sleep("ka_flush_workqueue");
	Locked lock(state().lock);
	uint64_t last = queue->queued;
	wait_locked(lock, "ka_flush_workqueue", [&] { return queue->done >= last; });
}

void ka_destroy_workqueue(workqueue_struct *queue)
{
	might_sleep("ka_destroy_workqueue");
	{
		Locked lock(state().lock);
		size_t waiting = std::erase_if(
			state().timers, [&](auto &timer) { return timer.second.queue == queue; });
		if (waiting > 0)
			violation("ka_destroy_workqueue: works still wait for their delay");
	}
	stop_queue(queue);
}

unsigned long ka_jiffies(void)
{
	return initial_jiffies + state().ticks.load(std::memory_order_relaxed);
}

void ka_schedule(void)
{
	injected("ka_schedule", 0);
	might_sleep("ka_schedule");
	pass_time(1);
	std::this_thread::yield();
}

void ka_udelay(unsigned long microseconds)
{
	Locked lock(state().lock);
	state().microseconds += microseconds;
	pass_time_locked(state().microseconds / 1000);
	state().microseconds %= 1000;
}

int ka_current_pid(void)
{
	return 4242;
}

int ka_capable_sys_admin(void)
{
	return current().admin;
}
