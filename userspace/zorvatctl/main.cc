// SPDX-License-Identifier: GPL-2.0
/* zorvatctl: the command line, and the exit codes that scripts rely on. */
#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <string_view>
#include <zorvat/disk-server.h>

#include "../exit-codes.h"
#include "../output.h"
#include "render.h"

namespace
{

using namespace zorvat;

constexpr ExitCode exit_wrong_state{6};

ExitCode exit_code(Errc code)
{
	switch (code) {
	case Errc::not_tracked:
	case Errc::already_tracked:
	case Errc::disk_suspended:
	case Errc::disk_running:
		return exit_wrong_state;
	default:
		return common_exit_code(code);
	}
}

ExitCode fail(ExitCode code, std::string_view message)
{
	tell_line(message);
	return code;
}

std::string check_block_size(const std::string &text)
{
	size_t bytes = 0;
	if (CLI::detail::lexical_cast(text, bytes) && zorvat::is_usable_block_size(bytes))
		return "";
	return "the kernel can do powers of two from 512 to its page size, 4096";
}

void add_target_of(const Subcommand &subcommand, CLI::App &app, Options &options)
{
	switch (subcommand.takes) {
	case Subcommand::nothing:
		return;
	case Subcommand::perhaps_volume:
	case Subcommand::volume:
		app.add_option("volume", options.volume, "path, MAJOR:MINOR or kernel name")
			->required(subcommand.takes == Subcommand::volume);
		return;
	case Subcommand::disk:
		app.add_option("disk", options.disk, "kernel name, or path of its device node")
			->required();
		return;
	case Subcommand::image:
		app.add_option("image", options.image,
			       "path of a raw image or block device, or URI of an NBD export")
			->required();
		return;
	}
}

void add_options_of(const Subcommand &subcommand, CLI::App &app, Options &options)
{
	add_target_of(subcommand, app, options);
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
	if (std::string_view(subcommand.name) == "serve") {
		app.add_option("--block-size", options.block_size, "of the disk, in bytes")
			->check(CLI::Validator(check_block_size, "BYTES"))
			->capture_default_str();
		app.add_flag("--stats", options.stats,
			     "show the throughput each second on standard error");
	}
	if (std::string_view(subcommand.name) == "resume")
		app.add_option("--port", options.port,
			       "where the disk's server listens; asked of it if not given")
			->check(CLI::Range(1, UINT16_MAX));
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

ExitCode run(const Subcommand &subcommand, const Options &options)
{
	if (options.block_ioctl && subcommand.takes == Subcommand::perhaps_volume &&
	    options.volume.empty())
		return fail(exit_usage, fmt::format("{} --block-ioctl needs a volume, on whose "
						    "device to ask",
						    subcommand.name));
	try {
		print(subcommand.run(options));
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
	CLI::App app("Controls the zorvat driver, which tracks changed blocks of disks and volumes "
		     "and serves restore disks",
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
