// SPDX-License-Identifier: GPL-2.0
/* Runs commands with a table of open files of its own. */
#include "command-thread.h"

#include <cerrno>
#include <fmt/format.h>
#include <sched.h>
#include <utility>
#include <zorvat/error.h>

namespace zorvat
{

CommandThread::CommandThread() : thread_([this](const std::stop_token &stop) { loop(stop); })
{
	run([] {
		if (unshare(CLONE_FILES) != 0)
			throw Error(Errc::system,
				    fmt::format("cannot set up a thread for commands: {}",
						error_text(errno)),
				    {}, errno);
	});
}

void CommandThread::run(const std::function<void()> &command)
{
	std::lock_guard one(one_at_a_time_);
	std::packaged_task<void()> task(command);
	auto done = task.get_future();
	{
		std::lock_guard lock(lock_);
		next_ = std::move(task);
	}
	changed_.notify_one();
	done.get();
}

void CommandThread::loop(const std::stop_token &stop)
{
	std::unique_lock lock(lock_);
	while (changed_.wait(lock, stop, [this] { return next_.valid(); })) {
		auto task = std::exchange(next_, {});
		lock.unlock();
		task();
		lock.lock();
	}
}

} // namespace zorvat
