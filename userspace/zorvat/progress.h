// SPDX-License-Identifier: GPL-2.0
/* Tells how far long work has got, and ends it when a signal says so. */
#ifndef ZORVAT_AGENT_PROGRESS_H
#define ZORVAT_AGENT_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>

namespace zorvat::agent
{

std::string human_bytes(uint64_t bytes);
std::string human_seconds(double seconds);

/*
 * From here on SIGINT, SIGTERM and SIGHUP end the work at the next call of Progress. What is
 * ignored, as by nohup, stays so.
 */
void heed_signals();

class Progress
{
public:
	enum Style {
		silent,
		lines,   // one for a stage, and one every half minute
		terminal // one line that changes
	};
	/* lines or terminal, by what standard error is. */
	static Style style_for_standard_error();

	explicit Progress(Style style) : style_(style)
	{
	}

	/* A line for people; what they should know even if they asked for silence. */
	void note(const std::string &text);
	void warn(const std::string &text);
	/* A stage with so many bytes to do; ends the one before. */
	void begin(const std::string &stage, uint64_t total);
	/* Throws Failure(interrupted). */
	void advance(uint64_t bytes);
	void end();

private:
	using Clock = std::chrono::steady_clock;

	std::string status(double seconds) const;
	void show(double seconds);

	Style style_;
	std::string stage_;
	uint64_t total_ = 0;
	uint64_t done_ = 0;
	Clock::time_point start_;
	Clock::time_point shown_;
};

} // namespace zorvat::agent

#endif
