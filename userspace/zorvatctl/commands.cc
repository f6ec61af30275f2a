// SPDX-License-Identifier: GPL-2.0
/* What each subcommand asks and prints. Text is small and made for pipes; lengths are sectors. */
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <fmt/format.h>
#include <iterator>
#include <unistd.h>
#include <zorvat/sysfs.h>

#include "../output.h"
#include "render.h"

using zorvat::Driver;
using zorvat::Volume;

namespace
{

Driver open_driver(const Options &options)
{
	return Driver(open_transport(options));
}

/* A driver and the volume that a subcommand is about. */
struct Target {
	explicit Target(const Options &options)
	    : volume(zorvat::resolve_volume(options.volume)), driver(open_driver(options))
	{
	}

	Volume volume;
	Driver driver;
};

Json identity(const Volume &volume)
{
	return {{"name", volume.name.empty() ? Json() : Json(volume.name)},
		{"device", volume.device.to_string()}};
}

/* A JSON object with the volume and what a command found out about it. */
std::string about(const Volume &volume, const Json &facts)
{
	Json json = identity(volume);
	json.update(facts);
	return dump(json);
}

/* Commands that only do something are silent, except to programs. */
std::string done(const Options &options, const Volume &volume, const Json &facts = Json::object())
{
	return options.json ? about(volume, facts) : "";
}

std::string version(const Options &options)
{
	std::optional<Volume> volume;
	if (!options.volume.empty())
		volume = zorvat::resolve_volume(options.volume);
	auto version = open_driver(options).version(volume ? &*volume : nullptr);
	if (!options.json)
		return version.text + "\n";
	return dump({{"version", version.text},
		     {"major", version.major},
		     {"minor", version.minor},
		     {"maintenance", version.maintenance},
		     {"build", version.build},
		     {"debug", version.debug}});
}

const std::string &or_dash(const std::string &text)
{
	static const std::string dash = "-";
	return text.empty() ? dash : text;
}

/*
 * The list is worth printing without the driver's answers, too: they need a privilege, the list
 * needs none.
 */
std::optional<bool> tracked_if_known(const Driver &driver, const Volume &volume)
{
	try {
		return driver.backup_level(volume).tracked;
	} catch (const zorvat::Error &error) {
		if (error.code() != zorvat::Errc::not_permitted)
			zorvat::tell_line(error.what());
		return std::nullopt;
	}
}

std::string volumes(const Options &options)
{
	Json json = Json::array();
	std::string text = fmt::format("{:<12} {:>9} {:>14} {:<7} {}\n", "NAME", "MAJ:MIN",
				       "SECTORS", "TRACKED", "MAPPED-NAME");
	auto volumes = zorvat::list_volumes();
	Driver driver = open_driver(options);
	for (const Volume &volume : volumes) {
		auto tracked = tracked_if_known(driver, volume);
		Json entry = identity(volume);
		entry["mapped_name"] =
			volume.mapped_name.empty() ? Json() : Json(volume.mapped_name);
		entry["sectors"] = volume.sectors;
		entry["tracked"] = tracked ? Json(*tracked) : Json();
		json.push_back(entry);
		text += fmt::format("{:<12} {:>9} {:>14} {:<7} {}\n", or_dash(volume.name),
				    volume.device.to_string(), volume.sectors,
				    tracked ? (*tracked ? "yes" : "no") : "-",
				    or_dash(volume.mapped_name));
	}
	return options.json ? dump({{"volumes", json}}) : text;
}

std::string start(const Options &options)
{
	Target target(options);
	uint64_t bytes = target.driver.start_tracking(target.volume);
	return done(options, target.volume, {{"tracked", true}, {"bytes", bytes}});
}

std::string stop(const Options &options)
{
	Target target(options);
	uint64_t bytes = target.driver.stop_tracking(target.volume);
	return done(options, target.volume, {{"tracked", false}, {"bytes", bytes}});
}

std::string level(const Options &options)
{
	Target target(options);
	auto level = target.driver.backup_level(target.volume);
	if (options.json)
		return about(target.volume,
			     {{"tracked", level.tracked}, {"sectors", level.sectors}});
	return fmt::format("level {:d}\nsectors {}\n", level.tracked, level.sectors);
}

struct Totals {
	uint64_t changed = 0;  // sectors that the driver saw written
	uint64_t possible = 0; // sectors that it cannot tell about

	explicit Totals(const zorvat::ChangedExtents &changes)
	{
		for (const zorvat::Extent &extent : changes.extents)
			(extent.possible ? possible : changed) += extent.length;
	}
};

std::string extents_as_json(const Options &options, const Volume &volume,
			    const zorvat::ChangedExtents &changes)
{
	Totals totals(changes);
	Json facts = {{"sector_bytes", sector_bytes},
		      {"sectors", changes.volume_sectors},
		      {"changed_sectors", totals.changed},
		      {"possible_sectors", totals.possible},
		      {"extent_count", changes.extents.size()}};
	if (options.sum)
		return about(volume, facts);
	Json &list = facts["extents"] = Json::array();
	for (const zorvat::Extent &extent : changes.extents)
		list.push_back({{"start", extent.start},
				{"length", extent.length},
				{"possible", extent.possible}});
	return about(volume, facts);
}

std::string extents_as_text(const Options &options, const zorvat::ChangedExtents &changes)
{
	if (options.sum) {
		Totals totals(changes);
		return fmt::format("extents {}\nchanged {}\npossible {}\nvolume {}\n",
				   changes.extents.size(), totals.changed, totals.possible,
				   changes.volume_sectors);
	}
	std::string text;
	for (const zorvat::Extent &extent : changes.extents)
		fmt::format_to(std::back_inserter(text), "{} {}{}\n", extent.start, extent.length,
			       extent.possible ? " possible" : "");
	return text;
}

std::string extents(const Options &options)
{
	Target target(options);
	auto changes = target.driver.changed_extents(target.volume, options.batch);
	return options.json ? extents_as_json(options, target.volume, changes)
			    : extents_as_text(options, changes);
}

std::string bitmap_size(const Options &options)
{
	Target target(options);
	uint32_t bytes = target.driver.bitmap_size(target.volume);
	return options.json ? about(target.volume, {{"bitmap_bytes", bytes}})
			    : fmt::format("{}\n", bytes);
}

std::string granularity(const Options &options)
{
	Target target(options);
	uint32_t sectors = target.driver.granularity(target.volume);
	return options.json ? about(target.volume, {{"sectors_per_bit", sectors}})
			    : fmt::format("{}\n", sectors);
}

std::string clear(const Options &options)
{
	Target target(options);
	target.driver.clear_bitmap(target.volume);
	return done(options, target.volume);
}

std::string switch_bitmap(const Options &options)
{
	Target target(options);
	target.driver.switch_bitmap(target.volume);
	return done(options, target.volume);
}

std::string uuid(const Options &options)
{
	Target target(options);
	std::string text;
	for (size_t i = 0; uint8_t byte : target.driver.uuid(target.volume)) {
		bool group_begins = i == 4 || i == 6 || i == 8 || i == 10;
		text += fmt::format("{}{:02x}", group_begins ? "-" : "", byte);
		i++;
	}
	return options.json ? about(target.volume, {{"uuid", text}}) : text + "\n";
}

std::string save_time(const Options &options)
{
	Target target(options);
	if (options.save_time) {
		target.driver.set_save_time(target.volume, *options.save_time);
		return done(options, target.volume, {{"save_time", *options.save_time}});
	}
	uint64_t time = target.driver.save_time(target.volume);
	return options.json ? about(target.volume, {{"save_time", time}})
			    : fmt::format("{}\n", time);
}

unsigned int parse_level(std::string_view text)
{
	unsigned int level;
	const char *end = text.data() + text.size();
	auto [parsed_to, error] = std::from_chars(text.data(), end, level);
	if (text.empty() || error != std::errc() || parsed_to != end ||
	    level > zorvat::max_verbosity)
		throw UsageError(fmt::format("'{}' is no verbosity: levels are 0 to {}", text,
					     zorvat::max_verbosity));
	return level;
}

void set_verbosity(const std::vector<std::string> &values)
{
	if (values.size() == 1 && values[0].find('=') == std::string::npos)
		return zorvat::set_log_verbosity(parse_level(values[0]));
	std::vector<zorvat::LogGroup> groups;
	for (const std::string &value : values) {
		const size_t equals = value.find('=');
		if (equals == std::string::npos)
			throw UsageError(fmt::format("'{}': set takes one LEVEL for all groups, or "
						     "GROUP=LEVEL for each",
						     value));
		groups.push_back({value.substr(0, equals),
				  parse_level(std::string_view(value).substr(equals + 1))});
	}
	zorvat::set_log_verbosity(groups);
}

std::string verbosity(const Options &options)
{
	const bool changes = !options.verbosity.empty();
	if (changes)
		set_verbosity(options.verbosity);
	if (changes && !options.json)
		return "";
	auto verbosity = zorvat::log_verbosity();
	Json groups = Json::object();
	std::string text = verbosity.all ? fmt::format("{}\n", *verbosity.all) : "";
	for (const auto &group : verbosity.groups) {
		groups[group.name] = group.verbosity;
		text += fmt::format("{} {}\n", group.name, group.verbosity);
	}
	if (!options.json)
		return text;
	return dump({{"all", verbosity.all ? Json(*verbosity.all) : Json()}, {"groups", groups}});
}

std::string refresh(const Options &options)
{
	zorvat::refresh_volumes();
	return options.json ? dump(Json::object()) : "";
}

void write_file(const std::string &path, std::string_view bytes)
{
	auto *file = std::fopen(path.c_str(), "wb");
	bool written = file && std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
	int number = errno;
	if (file && std::fclose(file) != 0 && written) {
		written = false;
		number = errno;
	}
	if (!written)
		throw zorvat::Error(
			zorvat::Errc::system,
			fmt::format("cannot write {}: {}", path, zorvat::error_text(number)), {},
			number);
}

std::string hexadecimal(std::span<const std::byte> bytes)
{
	std::string text;
	for (std::byte byte : bytes)
		text += fmt::format("{:02x}", static_cast<unsigned int>(byte));
	return text;
}

std::string bitmap(const Options &options)
{
	const bool prints_bytes = options.output.empty() && !options.json;
	if (prints_bytes && isatty(STDOUT_FILENO))
		throw UsageError("the bitmap is no text for a terminal: name a file with -o");
	Volume volume = zorvat::resolve_volume(options.volume);
	auto bitmap = zorvat::read_bitmap(volume);
	std::string bytes(reinterpret_cast<const char *>(bitmap.data()), bitmap.size());
	if (!options.output.empty())
		write_file(options.output, bytes);
	if (!options.json)
		return prints_bytes ? bytes : "";
	Json facts = {{"bitmap_bytes", bytes.size()}};
	if (options.output.empty())
		facts["bitmap"] = hexadecimal(bitmap);
	else
		facts["file"] = options.output;
	return about(volume, facts);
}

std::string switch_count(const Options &options)
{
	Volume volume = zorvat::resolve_volume(options.volume);
	uint64_t count = zorvat::switch_count(volume);
	return options.json ? about(volume, {{"switch_count", count}}) : fmt::format("{}\n", count);
}

constexpr Subcommand table[] = {
	{"version", "print the driver's version", Subcommand::perhaps_volume, version},
	{"volumes", "list the volumes that the driver knows", Subcommand::nothing, volumes},
	{"start", "start tracking a volume", Subcommand::volume, start},
	{"stop", "stop tracking a volume and forget its changes", Subcommand::volume, stop},
	{"level", "print whether a volume is tracked (1 or 0), and its length", Subcommand::volume,
	 level},
	{"extents", "print the changed extents: start and length in 512-byte sectors",
	 Subcommand::volume, extents},
	{"bitmap-size", "print the size of a volume's bitmap in bytes", Subcommand::volume,
	 bitmap_size},
	{"granularity", "print how many sectors one bit of the bitmap covers (netlink only)",
	 Subcommand::volume, granularity},
	{"clear", "clear the frozen bitmap after its changes were backed up", Subcommand::volume,
	 clear},
	{"switch", "freeze the changes so far and go on with a fresh bitmap", Subcommand::volume,
	 switch_bitmap},
	{"uuid", "print a volume's identifier", Subcommand::volume, uuid},
	{"save-time", "print or set the time of a volume's last backup", Subcommand::volume,
	 save_time},
	{"switch-count", "print how often the bitmap was switched since tracking began",
	 Subcommand::volume, switch_count},
	{"bitmap", "export the bitmap of a volume below 2 GiB as raw bytes", Subcommand::volume,
	 bitmap},
	{"verbosity", "print or set what the driver writes to the kernel log", Subcommand::nothing,
	 verbosity},
	{"refresh", "have the driver look for block devices that it missed", Subcommand::nothing,
	 refresh},
	{"serve", "serve an image as a read-only disk until told to stop", Subcommand::image,
	 serve},
	{"disks", "list the restore disks", Subcommand::nothing, disks},
	{"suspend", "take a restore disk's block device away", Subcommand::disk, suspend},
	{"resume", "make a suspended restore disk a block device again", Subcommand::disk, resume},
	{"destroy", "destroy a restore disk", Subcommand::disk, destroy},
};

} // namespace

std::unique_ptr<zorvat::Transport> open_transport(const Options &options)
{
	if (options.block_ioctl)
		return zorvat::open_block_devices();
	if (options.ioctl)
		return zorvat::open_control_device();
	return zorvat::open_netlink();
}

std::span<const Subcommand> subcommands()
{
	return table;
}
