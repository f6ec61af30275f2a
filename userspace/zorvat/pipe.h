// SPDX-License-Identifier: GPL-2.0
/* A pipe from a process that is about to be started. */
#ifndef ZORVAT_AGENT_PIPE_H
#define ZORVAT_AGENT_PIPE_H

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <zorvat/file-descriptor.h>

#include "failure.h"

namespace zorvat::agent
{

/*
 * Its end is seen once each process has closed its writing end. Programs that are run get neither
 * end, but for duplicates that are made for them.
 */
struct Pipe {
	/* Throws Failure. */
	Pipe()
	{
		std::array<int, 2> ends;
		if (pipe2(ends.data(), O_CLOEXEC) != 0)
			throw system_failure("cannot make a pipe", errno);
		reading = FileDescriptor(ends[0]);
		writing = FileDescriptor(ends[1]);
	}

	FileDescriptor reading;
	FileDescriptor writing;
};

} // namespace zorvat::agent

#endif
