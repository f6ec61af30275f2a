// SPDX-License-Identifier: GPL-2.0
/* The driver's files in sysfs. A file is read and written in one system call: it is one answer. */
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sstream>
#include <unistd.h>
#include <zorvat/error.h>
#include <zorvat/sysfs.h>

#include "extent-collector.h"
#include "failures.h"

namespace zorvat
{

namespace fs = std::filesystem;
using namespace std::string_view_literals;

namespace
{

constexpr size_t page_size = 4096;
constexpr size_t max_group_name = 30;

/* An open file, or the error number with which opening failed. */
class SysfsFile
{
public:
	SysfsFile(const fs::path &path, int flags) : fd_(open(path.c_str(), flags | O_CLOEXEC))
	{
		if (fd_ < 0)
			error_ = errno;
	}
	~SysfsFile()
	{
		if (fd_ >= 0)
			close(fd_);
	}
	SysfsFile(const SysfsFile &) = delete;
	SysfsFile &operator=(const SysfsFile &) = delete;

	/* Both return 0 or the error number. */
	int read_into(std::string &text)
	{
		std::array<char, page_size> page;
		ssize_t length = error_ ? -1 : ::read(fd_, page.data(), page.size());
		if (length >= 0)
			text.assign(page.data(), length);
		else if (!error_)
			error_ = errno;
		return error_;
	}
	int write_all(std::string_view text)
	{
		if (!error_ && ::write(fd_, text.data(), text.size()) < 0)
			error_ = errno;
		return error_;
	}

private:
	int fd_;
	int error_ = 0;
};

fs::path driver_directory(const SystemPaths &paths)
{
	return paths.sys / "zorvat";
}

fs::path directory_of(const Volume &volume, const SystemPaths &paths)
{
	return driver_directory(paths) / volume.device.to_string();
}

bool is_there(const fs::path &path)
{
	std::error_code ignored;
	return fs::exists(path, ignored);
}

/* The error for a file that could not be used, for reasons that all files share. */
Error failure(const std::string &attempt, const SystemPaths &paths, int number)
{
	if (!is_there(driver_directory(paths)))
		return Error(Errc::driver_not_loaded,
			     fmt::format("{}: {} is not there", attempt,
					 driver_directory(paths).native()),
			     "load the driver with 'modprobe zorvat'", number);
	if (number == EACCES || number == EPERM)
		return Error(Errc::not_permitted, attempt + ": not permitted", "run as root",
			     number);
	if (number == ENOENT)
		return Error(Errc::unsupported, attempt + ": this driver does not have the file",
			     "load a driver of the same version as this program", number);
	if (number == ENOMEM)
		return Error(Errc::no_memory, attempt + ": the kernel is out of memory",
			     "free some memory and try again", number);
	return Error(Errc::system, fmt::format("{}: {}", attempt, error_text(number)),
		     "the kernel log may say more", number);
}

Error volume_failure(const std::string &purpose, const Volume &volume, const SystemPaths &paths,
		     int number)
{
	const std::string attempt = fmt::format("cannot {} {}", purpose, volume.label());
	if (is_there(driver_directory(paths)) && !is_there(directory_of(volume, paths)))
		return unknown_volume(attempt, volume, number);
	return failure(attempt, paths, number);
}

Error not_tracked(const std::string &purpose, const Volume &volume, int number)
{
	return Error(Errc::not_tracked,
		     fmt::format("cannot {} {}: it is not tracked", purpose, volume.label()),
		     "start tracking it first", number);
}

Error bad_answer(const std::string &purpose)
{
	return Error(Errc::bad_answer,
		     fmt::format("cannot {}: the driver's answer makes no sense", purpose));
}

/* The length in sectors that the driver has for the volume. */
uint64_t sectors_of(const std::string &purpose, const Volume &volume, const SystemPaths &paths)
{
	std::string text;
	SysfsFile file(directory_of(volume, paths) / "volume-extents", O_RDONLY);
	if (int number = file.read_into(text))
		throw volume_failure(purpose, volume, paths, number);
	uint64_t start = 0, end = 0;
	if (!(std::istringstream(text) >> start >> end) || end < start)
		throw bad_answer(purpose + " " + volume.label());
	return end - start;
}

/*
 * A name that the driver would take for something else: a number sets all groups, white space ends
 * the name.
 */
bool is_group_name(std::string_view name)
{
	constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyz";
	return !name.empty() && name.size() <= max_group_name &&
	       letters.find(name.front()) != letters.npos &&
	       name.find_first_of(" \t\n\v\f\r\0"sv) == name.npos;
}

void write_verbosity(const std::string &text, const std::string &attempt, const SystemPaths &paths)
{
	SysfsFile file(driver_directory(paths) / "log-verbosity", O_WRONLY);
	const int number = file.write_all(text);
	if (number == EINVAL)
		throw Error(
			Errc::refused, attempt + ": the driver knows no such group or level",
			fmt::format("levels are 0 to {}; 'zorvatctl verbosity' lists the groups "
				    "when they differ",
				    max_verbosity),
			number);
	if (number)
		throw failure(attempt, paths, number);
}

} // namespace

Verbosity log_verbosity(const SystemPaths &paths)
{
	const std::string purpose = "read the verbosity";
	std::string text;
	SysfsFile file(driver_directory(paths) / "log-verbosity", O_RDONLY);
	if (int number = file.read_into(text))
		throw failure("cannot " + purpose, paths, number);

	std::istringstream words(text);
	unsigned int all;
	if (words >> all)
		return {.all = all, .groups = {}};
	words.clear();
	words.seekg(0);
	Verbosity verbosity;
	for (LogGroup group; words >> group.name;) {
		if (!(words >> group.verbosity))
			throw bad_answer(purpose);
		verbosity.groups.push_back(group);
	}
	if (verbosity.groups.empty())
		throw bad_answer(purpose);
	return verbosity;
}

void set_log_verbosity(unsigned int verbosity, const SystemPaths &paths)
{
	write_verbosity(fmt::format("{}\n", verbosity),
			fmt::format("cannot set the verbosity to {}", verbosity), paths);
}

void set_log_verbosity(const std::vector<LogGroup> &groups, const SystemPaths &paths)
{
	for (const LogGroup &group : groups) {
		const std::string attempt = fmt::format("cannot set the verbosity of '{}' to {}",
							group.name, group.verbosity);
		if (!is_group_name(group.name))
			throw Error(Errc::refused, attempt + ": this is no name of a log group");
		write_verbosity(fmt::format("{} {}\n", group.name, group.verbosity), attempt,
				paths);
	}
}

void refresh_volumes(const SystemPaths &paths)
{
	SysfsFile file(driver_directory(paths) / "refresh-volume-set", O_WRONLY);
	if (int number = file.write_all("1\n"))
		throw failure("cannot have the driver look for block devices", paths, number);
}

uint64_t switch_count(const Volume &volume, const SystemPaths &paths)
{
	const std::string purpose = "read the switch count of";
	std::string text;
	SysfsFile file(directory_of(volume, paths) / "cbt-switch-count", O_RDONLY);
	const int number = file.read_into(text);
	if (number == EINVAL)
		throw not_tracked(purpose, volume, number);
	if (number)
		throw volume_failure(purpose, volume, paths, number);
	uint64_t count;
	if (!(std::istringstream(text) >> count))
		throw bad_answer(purpose + " " + volume.label());
	return count;
}

std::vector<std::byte> read_bitmap(const Volume &volume, const SystemPaths &paths)
{
	const std::string purpose = "read the bitmap of";
	const uint64_t expected = bitmap_bits_for(sectors_of(purpose, volume, paths)) / 8;
	SysfsFile file(directory_of(volume, paths) / "cbt-bitmap", O_RDONLY);
	std::string bytes;
	const int number = file.read_into(bytes);
	if ((number == ENOENT && is_there(directory_of(volume, paths))) || number == EINVAL)
		throw not_tracked(purpose, volume, number);
	if (number)
		throw volume_failure(purpose, volume, paths, number);
	/* Each read begins at the first word, whatever its position: there is no second page. */
	if (expected > max_sysfs_bitmap)
		throw Error(
			Errc::unsupported,
			fmt::format("cannot {} {}: it has {} bytes, and the driver's file delivers "
				    "the first {} at most",
				    purpose, volume.label(), expected, max_sysfs_bitmap),
			"read its changes with 'zorvatctl extents'");
	if (bytes.size() != expected)
		throw Error(Errc::changed_meanwhile,
			    fmt::format("cannot {} {}: the volume's size changed meanwhile",
					purpose, volume.label()),
			    "read it again; if it is not tracked any more, copy it whole");
	auto *data = reinterpret_cast<const std::byte *>(bytes.data());
	return {data, data + bytes.size()};
}

} // namespace zorvat
