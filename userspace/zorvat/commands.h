// SPDX-License-Identifier: GPL-2.0
/* The subcommands of zorvat: each does its work and returns what to print. */
#ifndef ZORVAT_AGENT_COMMANDS_H
#define ZORVAT_AGENT_COMMANDS_H

#include <span>
#include <string>

#include "backup.h"
#include "retention.h"
#include "serving.h"

namespace zorvat::agent
{

struct Options {
	bool json = false;
	bool quiet = false;
	std::string point; // REPO[@POINT], as the user named it
	BackupRequest backup;
	std::string target; // of a restore
	bool force = false;
	bool no_verify = false;
	MountRequest mount;
	KeepRules keep;
	bool dry_run = false;
};

struct Subcommand {
	const char *name;
	const char *help;
	/* Throws Failure, and zorvat::Error. */
	std::string (*run)(const Options &options);
};

std::span<const Subcommand> subcommands();

} // namespace zorvat::agent

#endif
