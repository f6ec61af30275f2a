// SPDX-License-Identifier: GPL-2.0
/* Takes signals in a thread of its own, where anything may be done. */
#ifndef ZORVAT_SIGNAL_THREAD_H
#define ZORVAT_SIGNAL_THREAD_H

#include <cerrno>
#include <csignal>
#include <ctime>
#include <functional>
#include <initializer_list>
#include <pthread.h>
#include <thread>
#include <utility>

namespace zorvat
{

/*
 * SIGTERM, SIGINT, SIGHUP and those named are blocked, for a SignalThread to take them, in this
 * thread and in those that it starts from here on. Whoever has closed the other end of a pipe is
 * told of by write(2) alone.
 */
inline sigset_t block_signals(std::initializer_list<int> others = {})
{
	sigset_t signals;
	sigemptyset(&signals);
	for (int signal : {SIGTERM, SIGINT, SIGHUP})
		sigaddset(&signals, signal);
	for (int signal : others)
		sigaddset(&signals, signal);
	pthread_sigmask(SIG_BLOCK, &signals, nullptr);
	std::signal(SIGPIPE, SIG_IGN); // NOLINT(bugprone-signal-handler): nothing is run
	return signals;
}

class SignalThread
{
public:
	/* Gets a signal, or 0 at the end of an interval. Returns whether to go on; not at SIGHUP.
	 */
	using Handler = std::function<bool(int)>;

	/* signals: of block_signals(). interval: in seconds; 0: none. */
	SignalThread(const sigset_t &signals, Handler handle, time_t interval = 0)
	    : signals_(signals),
	      handle_(std::move(handle)), interval_{.tv_sec = interval, .tv_nsec = 0},
	      thread_([this] {
		      while (handle_(next()))
			      ;
	      })
	{
	}
	/* The signal comes last, and stops what has stopped. */
	~SignalThread()
	{
		pthread_kill(thread_.native_handle(), SIGHUP);
		thread_.join();
	}
	SignalThread(const SignalThread &) = delete;
	SignalThread &operator=(const SignalThread &) = delete;

private:
	/* A process that was stopped and goes on is no news, though EINTR tells of it. */
	int next() const
	{
		for (;;) {
			const int signal = interval_.tv_sec
						   ? sigtimedwait(&signals_, nullptr, &interval_)
						   : sigwaitinfo(&signals_, nullptr);
			if (signal > 0)
				return signal;
			if (errno == EAGAIN)
				return 0;
		}
	}

	sigset_t signals_;
	Handler handle_;
	timespec interval_;
	std::thread thread_;
};

} // namespace zorvat

#endif
