// SPDX-License-Identifier: GPL-2.0
/* "zorvatctl serve": a disk for as long as the command runs. */
#include <atomic>
#include <chrono>
#include <csignal>
#include <fmt/format.h>
#include <zorvat/disk-server.h>

#include "../output.h"
#include "../signal-thread.h"
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
	const sigset_t blocked = zorvat::block_signals({SIGUSR1});
	DiskServer server(open_transport(options), zorvat::open_source(options.image),
			  {.block_size = options.block_size});
	std::atomic<bool> told_to_stop = false;
	Throughput throughput(server);
	const zorvat::SignalThread signals(
		blocked,
		[&](int signal) {
			if (signal == SIGUSR1 || (signal == 0 && throughput.has_news()))
				throughput.report();
			if (signal == SIGUSR1 || signal == 0)
				return true;
			told_to_stop = true;
			server.request_stop();
			return false;
		},
		options.stats ? 1 : 0);
	server.resume();
	if (!server.wait_for_node(node_patience) && !told_to_stop)
		zorvat::tell_line(server.node().native() + " has not appeared");
	if (!told_to_stop)
		zorvat::print(ready(options, server));
	server.wait();
	server.stop();
	if (!told_to_stop)
		zorvat::tell_line(server.disk().name + " was destroyed");
	return "";
}
