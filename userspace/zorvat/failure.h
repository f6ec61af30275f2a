// SPDX-License-Identifier: GPL-2.0
/* What the agent throws when it cannot do what it was asked: a message, and a code for scripts. */
#ifndef ZORVAT_AGENT_FAILURE_H
#define ZORVAT_AGENT_FAILURE_H

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace zorvat::agent
{

enum class FailureCode {
	failed,      // anything that has no code of its own
	usage,       // the request makes no sense
	not_found,   // no such volume, repository or restore point
	busy,        // somebody else works there, or the target is in use
	damaged,     // a file of the repository is not what was written
	no_space,    // no room where something was to be written
	interrupted, // by a signal
};

class Failure : public std::runtime_error
{
public:
	/* number: of errno, or 0. */
	Failure(FailureCode code, const std::string &message, int number = 0)
	    : std::runtime_error(message), code_(code), number_(number)
	{
	}

	FailureCode code() const noexcept
	{
		return code_;
	}
	int error_number() const noexcept
	{
		return number_;
	}

private:
	FailureCode code_;
	int number_;
};

/* attempt: as "cannot write /backup/lock"; number: of errno. */
inline Failure system_failure(const std::string &attempt, int number)
{
	const bool full = number == ENOSPC || number == EDQUOT || number == EFBIG;
	const FailureCode code = full               ? FailureCode::no_space
				 : number == ENOENT ? FailureCode::not_found
				 : number == EBUSY  ? FailureCode::busy
						    : FailureCode::failed;
	return Failure(code, attempt + ": " + std::generic_category().message(number), number);
}

inline Failure damaged(const std::string &file, const std::string &what)
{
	return Failure(FailureCode::damaged, file + " is damaged: " + what);
}

} // namespace zorvat::agent

#endif
