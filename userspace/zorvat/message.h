// SPDX-License-Identifier: GPL-2.0
/* What people are told on standard error. */
#ifndef ZORVAT_AGENT_MESSAGE_H
#define ZORVAT_AGENT_MESSAGE_H

#include <cstdio>
#include <string_view>

namespace zorvat::agent
{

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
	std::fprintf(stderr, "zorvat: %.*s\n", static_cast<int>(text.size()), text.data());
}

} // namespace zorvat::agent

#endif
