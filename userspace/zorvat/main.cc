// SPDX-License-Identifier: GPL-2.0
/* zorvat: the command line, and the exit codes that scripts rely on. */
#include <CLI/CLI.hpp>
#include <csignal>
#include <fcntl.h>
#include <regex>
#include <string_view>
#include <sys/resource.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "../exit-codes.h"
#include "../output.h"
#include "commands.h"

namespace
{

using namespace zorvat;
using namespace zorvat::agent;

constexpr ExitCode exit_busy{6};
constexpr ExitCode exit_damaged{7};
constexpr ExitCode exit_no_space{8};
constexpr ExitCode exit_interrupted{9};

ExitCode exit_code(const Failure &failure)
{
	if (failure.error_number() == EACCES || failure.error_number() == EPERM)
		return exit_not_permitted;
	switch (failure.code()) {
	case FailureCode::failed:
		return exit_failed;
	case FailureCode::usage:
		return exit_usage;
	case FailureCode::not_found:
		/* A file that an operation of the system missed is nothing that the user named. */
		return failure.error_number() == ENOENT ? exit_failed : exit_not_found;
	case FailureCode::busy:
		return exit_busy;
	case FailureCode::damaged:
		return exit_damaged;
	case FailureCode::no_space:
		return exit_no_space;
	case FailureCode::interrupted:
		return exit_interrupted;
	}
	return exit_failed;
}

ExitCode fail(ExitCode code, std::string_view message)
{
	tell_line(message);
	return code;
}

/* Numbers as people write them: CLI11 takes 010 for 8, and -1 for the largest one. */
std::string problem_with_number(const std::string &text)
{
	const bool plain = text == "0" || (text.find_first_not_of("0123456789") == text.npos &&
					   !text.starts_with('0') && text.size() < 10);
	return plain && !text.empty() ? "" : "'" + text + "' is no number, from 0 to 999999999";
}

std::string problem_with_size(const std::string &text)
{
	static const std::regex size("[0-9]+([.][0-9]+)?([bskmgtpe](i?b)?)?", std::regex::icase);
	return text.size() < 32 && std::regex_match(text, size)
		       ? ""
		       : "'" + text + "' is no size, as 10g is one";
}

/* Else it would be the current directory. */
std::string problem_with_name(const std::string &text)
{
	return text.empty() ? "it is empty" : "";
}

void add_backup_options(CLI::App &app, Options &options)
{
	app.add_option("volume", options.backup.volume, "group/volume, or path of its device")
		->required();
	app.add_option("--to", options.backup.repository, "directory of the repository")
		->required()
		->check(problem_with_name);
	app.add_flag("--full", options.backup.full, "copy all of the volume");
	app.add_flag("--existing", options.backup.existing, "fail if there is no repository yet");
	app.add_option("--snapshot-size", options.backup.snapshot_size,
		       "room for what is written meanwhile, as lvcreate takes it")
		->check(problem_with_size);
	app.add_option("--compression", options.backup.compression, "level of zstd")
		->check(problem_with_number)
		->check(CLI::Range(1, 19))
		->capture_default_str();
}

void add_restore_options(CLI::App &app, Options &options)
{
	app.add_option("--to", options.target, "device or file to write to")->required();
	app.add_flag("--force", options.force,
		     "write although the target exists, is in use or tracked");
	app.add_flag("--no-verify", options.no_verify, "do not read back what was written");
}

void add_mount_options(CLI::App &app, Options &options)
{
	app.add_option("directory", options.mount.directory, "where to mount")->required();
	app.add_option("--type", options.mount.type, "of the file system");
	app.add_option("-o,--options", options.mount.options, "of the file system");
}

void add_forget_options(CLI::App &app, Options &options)
{
	const auto add = [&app](const char *name, size_t &number, const char *help) {
		app.add_option(name, number, help)->check(problem_with_number);
	};
	add("--keep-last", options.keep.last, "keep the last N points");
	add("--keep-daily", options.keep.daily, "keep the last point of N days");
	add("--keep-weekly", options.keep.weekly, "of N weeks");
	add("--keep-monthly", options.keep.monthly, "of N months");
	app.add_flag("--dry-run", options.dry_run, "only tell what would go");
}

void add_options_of(std::string_view name, CLI::App &app, Options &options)
{
	if (name == "backup")
		return add_backup_options(app, options);
	if (name == "umount") {
		app.add_option("directory", options.mount.directory, "what to unmount")->required();
		return;
	}
	const bool whole = name == "list" || name == "verify";
	app.add_option("repository", options.point,
		       whole ? "its directory" : "its directory, @ and a point; else the last one")
		->required()
		->check(problem_with_name);
	if (name == "restore")
		add_restore_options(app, options);
	if (name == "mount")
		add_mount_options(app, options);
	if (name == "forget")
		add_forget_options(app, options);
}

ExitCode run(const Subcommand &subcommand, const Options &options)
{
	try {
		print(subcommand.run(options));
		return exit_ok;
	} catch (const zorvat::Error &error) {
		return fail(common_exit_code(error.code()), error.what());
	} catch (const Failure &failure) {
		return fail(exit_code(failure), failure.what());
	} catch (const std::system_error &error) {
		return fail(exit_code(system_failure("", error.code().value())), error.what());
	} catch (const std::exception &error) {
		return fail(exit_failed, error.what());
	}
}

/* Else the next file that is opened, of a repository perhaps, gets what is printed. */
void open_standard_files()
{
	int fd;
	do
		fd = open("/dev/null", O_RDWR);
	while (fd >= 0 && fd <= STDERR_FILENO);
	close(fd);
}

/* Each point of a chain is an open file. */
void raise_file_limit()
{
	rlimit limit;
	if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
		limit.rlim_cur = limit.rlim_max;
		setrlimit(RLIMIT_NOFILE, &limit);
	}
}

} // namespace

int main(int argc, char **argv)
try {
	open_standard_files();
	Options options;
	const Subcommand *chosen = nullptr;
	CLI::App app("Backs up LVM volumes by what changed, and restores and browses them",
		     "zorvat");
	app.require_subcommand(1);
	app.set_version_flag("--version", "zorvat " ZORVAT_VERSION);
	app.add_flag("--json", options.json, "print JSON");
	app.add_flag("-q,--quiet", options.quiet, "do not tell how far the work has got");
	for (const Subcommand &subcommand : subcommands()) {
		CLI::App *parser = app.add_subcommand(subcommand.name, subcommand.help);
		parser->fallthrough();
		parser->callback([&chosen, &subcommand] { chosen = &subcommand; });
		add_options_of(subcommand.name, *parser, options);
	}
	try {
		app.parse(argc, argv);
	} catch (const CLI::ParseError &error) {
		return app.exit(error) == 0 ? exit_ok : exit_usage;
	}
	raise_file_limit();
	std::signal(SIGCHLD, SIG_DFL); /* who started us may ignore the ends of his children */
	umask(077);                    /* restore points hold what only the superuser may read */
	return run(*chosen, options);
} catch (const std::exception &error) {
	return fail(exit_failed, error.what());
}
