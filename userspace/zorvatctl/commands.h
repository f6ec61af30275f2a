// SPDX-License-Identifier: GPL-2.0
/* The subcommands of zorvatctl: each asks the driver and renders the answer as text or JSON. */
#ifndef ZORVATCTL_COMMANDS_H
#define ZORVATCTL_COMMANDS_H

#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>
#include <zorvat/driver.h>

struct Options {
	bool ioctl = false;
	bool block_ioctl = false;
	bool json = false;
	std::string volume; // as the user named it
	bool sum = false;
	size_t batch = zorvat::default_extents_per_request;
	std::optional<uint64_t> save_time;
	std::vector<std::string> verbosity; // LEVEL, or GROUP=LEVEL...; empty: show it
	std::string output;                 // file for the bitmap; empty: standard output
	std::string disk;                   // a restore disk, as the user named it
	std::string image;                  // what to serve: a path, or a URI of NBD's
	size_t block_size = 512;            // of the disk to serve
	bool stats = false;                 // show throughput while serving
	std::optional<uint16_t> port;       // of the disk's server; empty: ask it
};

/* The command line asks for something that makes no sense. */
struct UsageError : std::runtime_error {
	using std::runtime_error::runtime_error;
};

struct Subcommand {
	const char *name;
	const char *help;
	enum {
		nothing,
		perhaps_volume,
		volume,
		disk,
		image
	} takes;
	/* Returns what to print. Throws zorvat::Error, or UsageError. */
	std::string (*run)(const Options &options);
};

std::span<const Subcommand> subcommands();

/* Those of restore disks: disks.cc, serve.cc */
std::string disks(const Options &options);
std::string serve(const Options &options);
std::string suspend(const Options &options);
std::string resume(const Options &options);
std::string destroy(const Options &options);

#endif
