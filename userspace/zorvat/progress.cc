// SPDX-License-Identifier: GPL-2.0
#include "progress.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <fmt/format.h>
#include <unistd.h>

#include "../output.h"
#include "failure.h"

namespace zorvat::agent
{

namespace
{

using namespace std::chrono_literals;

volatile std::sig_atomic_t signal_taken = 0;

void take_signal(int signal)
{
	signal_taken = signal;
}

double seconds_between(std::chrono::steady_clock::time_point from,
		       std::chrono::steady_clock::time_point to)
{
	return std::chrono::duration<double>(to - from).count();
}

} // namespace

std::string human_bytes(uint64_t bytes)
{
	constexpr std::array units = {"B", "KiB", "MiB", "GiB", "TiB"};
	auto value = static_cast<double>(bytes);
	size_t unit = 0;
	for (; value >= 1024 && unit + 1 < units.size(); unit++)
		value /= 1024;
	return fmt::format("{:.{}f} {}", value, unit == 0 ? 0 : 1, units[unit]);
}

std::string human_seconds(double seconds)
{
	const auto whole = static_cast<uint64_t>(std::lround(seconds));
	if (seconds < 10)
		return fmt::format("{:.1f} s", seconds);
	if (whole < 60)
		return fmt::format("{} s", whole);
	return fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

void heed_signals()
{
	struct sigaction action = {}, before;
	action.sa_handler = take_signal;
	for (int signal : {SIGINT, SIGTERM, SIGHUP})
		if (sigaction(signal, nullptr, &before) == 0 && before.sa_handler != SIG_IGN)
			sigaction(signal, &action, nullptr);
	std::signal(SIGPIPE, SIG_IGN); // NOLINT(bugprone-signal-handler): nothing is run
}

Progress::Style Progress::style_for_standard_error()
{
	return isatty(STDERR_FILENO) ? terminal : lines;
}

void Progress::note(const std::string &text)
{
	if (style_ != silent)
		warn(text);
}

void Progress::warn(const std::string &text)
{
	tell((style_ == terminal ? "\r\033[K" : "") + text + "\n");
}

void Progress::begin(const std::string &stage, uint64_t total)
{
	stage_ = stage;
	total_ = total;
	done_ = 0;
	start_ = shown_ = Clock::now();
	advance(0);
}

void Progress::advance(uint64_t bytes)
{
	if (signal_taken)
		throw Failure(FailureCode::interrupted,
			      fmt::format("interrupted by signal {}", int{signal_taken}));
	done_ += bytes;
	const auto interval = style_ == terminal ? 200ms : 30000ms;
	const auto now = Clock::now();
	if (style_ == silent || now - shown_ < interval)
		return;
	shown_ = now;
	show(seconds_between(start_, now));
}

void Progress::end()
{
	const double seconds = seconds_between(start_, Clock::now());
	total_ = done_;
	note(fmt::format("{}: {} in {}, {}/s", stage_, human_bytes(done_), human_seconds(seconds),
			 human_bytes(static_cast<uint64_t>(static_cast<double>(done_) /
							   std::max(seconds, 0.001)))));
}

std::string Progress::status(double seconds) const
{
	const double rate = static_cast<double>(done_) / std::max(seconds, 0.001);
	const double left = static_cast<double>(total_ - std::min(total_, done_));
	return fmt::format("{}: {} of {} ({:.0f} %), {}/s, {} left", stage_, human_bytes(done_),
			   human_bytes(total_),
			   100.0 * static_cast<double>(done_) /
				   static_cast<double>(std::max<uint64_t>(total_, 1)),
			   human_bytes(static_cast<uint64_t>(rate)),
			   rate > 0 ? human_seconds(left / rate) : "-");
}

void Progress::show(double seconds)
{
	tell(style_ == terminal ? "\r\033[K" + status(seconds) : status(seconds) + "\n");
}

} // namespace zorvat::agent
