// SPDX-License-Identifier: GPL-2.0
/* A thread for commands that wait for the serving thread of the same process. */
#ifndef ZORVAT_COMMAND_THREAD_H
#define ZORVAT_COMMAND_THREAD_H

#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

namespace zorvat
{

/*
 * While a disk is resumed, suspended or destroyed, the driver may wait for an answer on the data
 * link, and the thread that gave the command waits in the kernel and cannot be killed. If the
 * process is, the driver must see the link close. But what is open stays open as long as a thread
 * has it: the one that waits for the link to close would itself keep it open.
 *
 * So commands are given by a thread whose table of open files is its own and never has the link:
 * make this thread before any socket of the link.
 */
class CommandThread
{
public:
	CommandThread();

	/* Runs it in the thread, one at a time, and passes on what it throws. */
	void run(const std::function<void()> &command);

private:
	void loop(const std::stop_token &stop);

	std::mutex one_at_a_time_;
	std::mutex lock_;
	std::condition_variable_any changed_;
	std::packaged_task<void()> next_;
	std::jthread thread_;
};

} // namespace zorvat

#endif
