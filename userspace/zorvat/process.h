// SPDX-License-Identifier: GPL-2.0
/* Runs another program and takes what it prints. */
#ifndef ZORVAT_AGENT_PROCESS_H
#define ZORVAT_AGENT_PROCESS_H

#include <string>
#include <vector>

namespace zorvat::agent
{

/*
 * Returns its standard output. Throws Failure with its messages if it does not end with 0, and with
 * an error number if it could not be started.
 */
std::string run_program(const std::vector<std::string> &command);

} // namespace zorvat::agent

#endif
