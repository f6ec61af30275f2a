// SPDX-License-Identifier: GPL-2.0
/* "zorvatctl serve": a disk for as long as the command runs. */
#include <atomic>
#include <chrono>
#include <csignal>
#include <ctime>
#include <fmt/format.h>
#include <pthread.h>
#include <thread>
#include <zorvat/disk-server.h>

#include "../output.h"
#include "render.h"

using zorvat::DiskServer;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace
{

constexpr auto node_patience = 5s;

/* Tells how fast a disk was read since the last time it told. */
class Throughput
{
public:
	explicit Throughput(const DiskServer &server)
	    : server_(server), last_(server.statistics()), last_time_(Clock::now())
	{
	}

	bool has_news() const
	{
		return server_.statistics().requests != last_.requests;
	}

	void report()
	{
		const auto now = server_.statistics();
		const auto time = Clock::now();
		const double seconds = std::chrono::duration<double>(time - last_time_).count();
		zorvat::tell(fmt::format(
			"{}: {:.1f} MiB/s, {:.0f} requests/s; in all {:.1f} MiB in {} requests, "
			"{} failed{}\n",
			server_.disk().name, mib(now.bytes - last_.bytes) / seconds,
			static_cast<double>(now.requests - last_.requests) / seconds,
			mib(now.bytes), now.requests, now.errors,
			now.errors ? ", the last one: " + zorvat::error_text(now.last_error) : ""));
		last_ = now;
		last_time_ = time;
	}

private:
	static double mib(uint64_t bytes)
	{
		return static_cast<double>(bytes) / (1 << 20);
	}

	const DiskServer &server_;
	zorvat::DiskServerStatistics last_;
	Clock::time_point last_time_;
};

sigset_t handled_signals()
{
	sigset_t signals;
	sigemptyset(&signals);
	for (int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1})
		sigaddset(&signals, signal);
	return signals;
}

/*
 * Takes signals in a thread of their own, where anything may be done. They must be blocked in all
 * threads.
 */
class SignalThread
{
public:
	SignalThread(DiskServer &server, bool tells_each_second)
	    : server_(server), tells_each_second_(tells_each_second), thread_([this] { loop(); })
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

	bool told_to_stop() const
	{
		return told_to_stop_;
	}

private:
	void loop()
	{
		constexpr timespec second{.tv_sec = 1, .tv_nsec = 0};
		const sigset_t signals = handled_signals();
		Throughput throughput(server_);
		for (;;) {
			const int signal = tells_each_second_
						   ? sigtimedwait(&signals, nullptr, &second)
						   : sigwaitinfo(&signals, nullptr);
			if (signal == SIGUSR1 || (signal < 0 && throughput.has_news()))
				throughput.report();
			if (signal == SIGUSR1 || signal < 0)
				continue;
			told_to_stop_ = true;
			server_.request_stop();
			return;
		}
	}

	DiskServer &server_;
	bool tells_each_second_;
	std::atomic<bool> told_to_stop_{false};
	std::thread thread_;
};

/* The node is made by the kernel, or a little later by a program. */
void wait_for_node(const DiskServer &server, const SignalThread &signals)
{
	const auto end = Clock::now() + node_patience;
	std::error_code ignored;
	while (!std::filesystem::exists(server.node(), ignored) && !signals.told_to_stop()) {
		if (Clock::now() >= end) {
			zorvat::tell_line(server.node().native() + " has not appeared");
			return;
		}
		std::this_thread::sleep_for(10ms);
	}
}

std::string ready(const Options &options, const DiskServer &server)
{
	if (!options.json)
		return server.node().native() + "\n";
	const auto &disk = server.disk();
	return dump({{"name", disk.name},
		     {"device", disk.device.to_string()},
		     {"node", server.node().native()},
		     {"block_size", disk.block_size},
		     {"blocks", disk.blocks},
		     {"port", server.port()},
		     {"server_pid", disk.server}});
}

} // namespace

std::string serve(const Options &options)
{
	const sigset_t signals_blocked = handled_signals();
	pthread_sigmask(SIG_BLOCK, &signals_blocked, nullptr);
	std::signal(SIGPIPE, SIG_IGN); // NOLINT(bugprone-signal-handler): nothing is run

	DiskServer server(open_transport(options), zorvat::open_source(options.image),
			  {.block_size = options.block_size});
	SignalThread signals(server, options.stats);
	server.resume();
	wait_for_node(server, signals);
	if (!signals.told_to_stop())
		zorvat::print(ready(options, server));
	server.wait();
	server.stop();
	if (!signals.told_to_stop())
		zorvat::tell_line(server.disk().name + " was destroyed");
	return "";
}
