// SPDX-License-Identifier: GPL-2.0
/* zorvatctl: the command line, and the exit codes that scripts rely on. */
#include <CLI/CLI.hpp>
#include <cstdio>
#include <fmt/format.h>
#include <string_view>

#include "commands.h"

namespace
{

/* Documented in zorvatctl(8). */
enum ExitCode {
	exit_ok = 0,
	exit_failed = 1,
	exit_usage = 2,
	exit_no_driver = 3,
	exit_unknown_volume = 4,
	exit_not_permitted = 5,
	exit_wrong_state = 6,
};

ExitCode exit_code(zorvat::Errc code)
{
	switch (code) {
	case zorvat::Errc::driver_not_loaded:
	case zorvat::Errc::driver_not_ready:
		return exit_no_driver;
	case zorvat::Errc::bad_volume_name:
	case zorvat::Errc::unknown_volume:
		return exit_unknown_volume;
	case zorvat::Errc::not_permitted:
		return exit_not_permitted;
	case zorvat::Errc::not_tracked:
	case zorvat::Errc::already_tracked:
		return exit_wrong_state;
	default:
		return exit_failed;
	}
}

ExitCode fail(ExitCode code, std::string_view message)
{
	fmt::print(stderr, "zorvatctl: {}\n", message);
	return code;
}

void add_options_of(const Subcommand &subcommand, CLI::App &app, Options &options)
{
	if (subcommand.takes_volume != Subcommand::none) {
		auto *volume = app.add_option("volume", options.volume,
					      "path, MAJOR:MINOR or kernel name");
		volume->required(subcommand.takes_volume == Subcommand::required);
	}
	if (std::string_view(subcommand.name) == "extents") {
		app.add_flag("--sum", options.sum, "print totals instead of the extents");
		app.add_option("--batch", options.batch, "extents to ask for in one request")
			->check(CLI::Range(size_t{1}, zorvat::max_extents_per_request))
			->capture_default_str();
	}
	if (std::string_view(subcommand.name) == "save-time")
		app.add_option("time", options.save_time, "the value to set");
	if (std::string_view(subcommand.name) == "bitmap")
		app.add_option("-o,--output", options.output, "file to write it to");
	if (std::string_view(subcommand.name) == "verbosity")
		app.add_subcommand("set", "set the verbosity of all groups or of some")
			->fallthrough()
			->add_option("values", options.verbosity,
				     "LEVEL (0 to 8) for all, or GROUP=LEVEL...")
			->required();
}

void add_subcommands(CLI::App &app, Options &options, const Subcommand *&chosen)
{
	for (const Subcommand &subcommand : subcommands()) {
		CLI::App *parser = app.add_subcommand(subcommand.name, subcommand.help);
		parser->fallthrough();
		parser->callback([&chosen, &subcommand] { chosen = &subcommand; });
		add_options_of(subcommand, *parser, options);
	}
}

/* A listing that was cut by a full disk must not look complete. */
bool print(const std::string &output)
{
	return std::fwrite(output.data(), 1, output.size(), stdout) == output.size() &&
	       std::fflush(stdout) == 0;
}

ExitCode run(const Subcommand &subcommand, const Options &options)
{
	if (options.block_ioctl && subcommand.takes_volume == Subcommand::optional &&
	    options.volume.empty())
		return fail(exit_usage, fmt::format("{} --block-ioctl needs a volume, on whose "
						    "device to ask",
						    subcommand.name));
	try {
		if (!print(subcommand.run(options)))
			return fail(exit_failed, "cannot write the output");
		return exit_ok;
	} catch (const UsageError &error) {
		return fail(exit_usage, error.what());
	} catch (const zorvat::Error &error) {
		return fail(exit_code(error.code()), error.what());
	} catch (const std::exception &error) {
		return fail(exit_failed, error.what());
	}
}

} // namespace

int main(int argc, char **argv)
{
	Options options;
	const Subcommand *chosen = nullptr;
	CLI::App app("Controls the zorvat driver, which tracks changed blocks of disks and volumes",
		     "zorvatctl");
	app.require_subcommand(1);
	app.set_version_flag("--version", "zorvatctl " ZORVATCTL_VERSION);
	app.add_flag("--json", options.json, "print JSON");
	auto *ioctl = app.add_flag("--ioctl", options.ioctl,
				   "ask through the control device instead of netlink");
	app.add_flag("--block-ioctl", options.block_ioctl, "ask on the volume's own block device")
		->excludes(ioctl);
	add_subcommands(app, options, chosen);

	try {
		app.parse(argc, argv);
	} catch (const CLI::ParseError &error) {
		return app.exit(error) == 0 ? exit_ok : exit_usage;
	}
	return run(*chosen, options);
}
