// SPDX-License-Identifier: GPL-2.0
/* The subcommands of zorvatctl: each asks the driver and renders the answer as text or JSON. */
#ifndef ZORVATCTL_COMMANDS_H
#define ZORVATCTL_COMMANDS_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <zorvat/driver.h>

struct Options {
	bool ioctl = false;
	bool block_ioctl = false;
	bool json = false;
	std::string volume; // as the user named it
	bool sum = false;
	size_t batch = zorvat::default_extents_per_request;
	std::optional<uint64_t> save_time;
};

struct Subcommand {
	const char *name;
	const char *help;
	enum {
		none,
		optional,
		required
	} takes_volume;
	/* Returns what to print. */
	std::string (*run)(const Options &options);
};

std::span<const Subcommand> subcommands();

#endif
