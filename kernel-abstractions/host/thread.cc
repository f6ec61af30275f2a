// SPDX-License-Identifier: GPL-2.0
/* Kernel threads and wait queues. A signal is pending when a send was told to fail with -EINTR. */
#include "kernel-abstractions/thread.h"

#include <condition_variable>
#include <list>
#include <mutex>
#include <thread>

#include "internal.h"

struct task_struct {
	std::string name;
	int (*function)(void *arg);
	void *arg;
	std::atomic<bool> should_stop{false};
	model::Task *task = nullptr; /* while the function runs */
	bool started = false, ended = false;
	int result = -KA_EINTR;
	std::thread thread;
};

namespace model
{
namespace
{

constexpr uint32_t wait_queue_magic = 0x77616974;

/* Who waits on a queue is in Threads: the queue is gone without notice when its record is. */
struct WaitQueue {
	uint32_t magic = wait_queue_magic, unused = 0;
};

struct Threads {
	std::mutex lock;
	std::condition_variable changed;
	std::list<task_struct> all;
	std::vector<std::pair<const WaitQueue *, Task *>> waiting;
	std::vector<std::string> failures;
};

Threads &state()
{
	static Threads instance;
	return instance;
}

using Locked = std::unique_lock<std::mutex>;

void wake(Locked &, Task &task)
{
	task.woken = true;
	state().changed.notify_all();
}

int run_function(const task_struct &self)
{
	CallIntoDriver call("a kernel thread");
	try {
		return self.function(self.arg);
	} catch (const Bug &bug) {
		Locked lock(state().lock);
		state().failures.push_back(self.name + " died: " + bug.what());
		return -KA_EFAULT;
	}
}

void run(task_struct &self)
{
	current().kthread = &self;
	{
		Locked lock(state().lock);
		self.task = &current();
	}
	const int result = run_function(self);
	Locked lock(state().lock);
	if (!self.should_stop)
		state().failures.push_back(self.name + " ended without being stopped");
	self.task = nullptr;
	self.result = result;
	self.ended = true;
	state().changed.notify_all();
}

int stop(task_struct *thread)
{
	Locked lock(state().lock);
	thread->should_stop = true;
	if (thread->task)
		wake(lock, *thread->task);
	if (thread->started) {
		if (!state().changed.wait_for(lock, hang, [&] { return thread->ended; }))
			throw Bug("ka_kthread_stop: hung");
		thread->thread.join();
	}
	const int result = thread->result;
	state().all.remove_if([&](auto &other) { return &other == thread; });
	return result;
}

/* While it exists its task is on the queue, and no wake-up is missed. */
class Waiting
{
public:
	explicit Waiting(const WaitQueue &queue) : entry_(&queue, &current())
	{
		Locked lock(state().lock);
		state().waiting.push_back(entry_);
	}
	~Waiting()
	{
		Locked lock(state().lock);
		state().waiting.erase(std::ranges::find(state().waiting, entry_));
	}
	Waiting(const Waiting &) = delete;
	Waiting &operator=(const Waiting &) = delete;

	void look_again_from_now()
	{
		Locked lock(state().lock);
		current().woken = false;
	}
	void sleep()
	{
		Locked lock(state().lock);
		state().changed.wait(lock, [] { return current().woken; });
	}

private:
	std::pair<const WaitQueue *, Task *> entry_;
};

/* What does not sleep must not be interrupted by a sleep of the condition's either. */
bool holds(int (*condition)(void *arg), void *arg)
{
	CallIntoDriver call("a wait's condition");
	current().atomic_depth++;
	const bool result = condition(arg) != 0;
	current().atomic_depth--;
	return result;
}

} // namespace

std::vector<std::string> threads()
{
	Locked lock(state().lock);
	std::vector<std::string> names;
	for (auto &thread : state().all)
		names.push_back(thread.name);
	return names;
}

void reset_threads()
{
	while (!state().all.empty())
		stop(&state().all.front());
	state().failures.clear();
}

void report_threads(Report &report)
{
	Locked lock(state().lock);
	report.insert(report.end(), state().failures.begin(), state().failures.end());
	for (auto &thread : state().all)
		report.push_back("kernel thread " + thread.name);
}

} // namespace model

using namespace model;

task_struct *ka_kthread_create(int (*function)(void *arg), void *arg, const char *name)
{
	might_sleep("ka_kthread_create");
	if (long error = injected("ka_kthread_create", -KA_ENOMEM))
		return static_cast<task_struct *>(ka_err_ptr(error));
	Locked lock(state().lock);
	auto &thread = state().all.emplace_back();
	thread.name = std::string(name).substr(0, KA_TASK_COMM_LEN - 1);
	thread.function = function;
	thread.arg = arg;
	return &thread;
}

void ka_wake_up_process(task_struct *thread)
{
	Locked lock(state().lock);
	if (thread->task)
		wake(lock, *thread->task);
	if (!std::exchange(thread->started, true))
		thread->thread = std::thread([thread] { run(*thread); });
}

int ka_kthread_stop(task_struct *thread)
{
	might_sleep("ka_kthread_stop");
	injected("ka_kthread_stop", 0);
	{
		Locked lock(state().lock);
		if (std::ranges::none_of(state().all,
					 [&](auto &other) { return &other == thread; }))
			throw Bug("ka_kthread_stop: no such thread");
	}
	return stop(thread);
}

int ka_kthread_should_stop(void)
{
	if (!current().kthread)
		throw Bug("ka_kthread_should_stop: not in a kernel thread");
	return current().kthread->should_stop.load(std::memory_order_relaxed);
}

void ka_flush_signals(void)
{
	current().signal_pending = false;
}

void ka_cond_resched(void)
{
	injected("ka_cond_resched", 0);
	might_sleep("ka_cond_resched");
}

void ka_current_comm(char comm[KA_TASK_COMM_LEN])
{
	snprintf(comm, KA_TASK_COMM_LEN, "%s",
		 current().kthread ? current().kthread->name.c_str() : "a-process");
}

void ka_init_waitqueue_head(ka_wait_queue *queue)
{
	new (queue->storage) WaitQueue;
}

void ka_wake_up(ka_wait_queue *queue)
{
	if (in<WaitQueue>(queue).magic != wait_queue_magic)
		throw Bug("ka_wake_up: not initialised");
	Locked lock(state().lock);
	for (auto &[on, task] : state().waiting)
		if (on == &in<WaitQueue>(queue))
			wake(lock, *task);
}

int ka_wait_event_interruptible(ka_wait_queue *queue, int (*condition)(void *arg), void *arg)
{
	might_sleep("ka_wait_event_interruptible");
	if (in<WaitQueue>(queue).magic != wait_queue_magic)
		throw Bug("ka_wait_event_interruptible: not initialised");
	if (long error = injected("ka_wait_event_interruptible", -KA_EINTR))
		return static_cast<int>(error);
	Waiting waiting(in<WaitQueue>(queue));
	for (;;) {
		waiting.look_again_from_now();
		if (holds(condition, arg))
			return 0;
		if (current().signal_pending)
			return -KA_EINTR;
		waiting.sleep();
	}
}
