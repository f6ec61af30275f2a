// SPDX-License-Identifier: GPL-2.0
/* What the programs print: results on standard output, all else on standard error. */
#ifndef ZORVAT_OUTPUT_H
#define ZORVAT_OUTPUT_H

#include <cerrno>
#include <cstdio>
#include <string_view>
#include <zorvat/error.h>

namespace zorvat
{

/* A result, at once. Throws Error: a listing that was cut must not look complete. */
inline void print(std::string_view text)
{
	if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() ||
	    std::fflush(stdout) != 0)
		throw Error(Errc::system, "cannot write the output: " + error_text(errno), {},
			    errno);
}

/*
 * At once. That nobody is there to read it (a closed terminal, a full disk) does not end the work.
 */
inline void tell(std::string_view text) noexcept
{
	[[maybe_unused]] const size_t written = std::fwrite(text.data(), 1, text.size(), stderr);
}

/* A line with the program's name. */
inline void tell_line(std::string_view text) noexcept
{
	std::fprintf(stderr, "%s: %.*s\n", program_invocation_short_name,
		     static_cast<int>(text.size()), text.data());
}

} // namespace zorvat

#endif
