// SPDX-License-Identifier: GPL-2.0
#include "commands.h"

#include <algorithm>
#include <fmt/chrono.h>
#include <fmt/format.h>

#include "../output.h"
#include "restore.h"

namespace zorvat::agent
{

namespace
{

Progress progress_for(const Options &options)
{
	return Progress(options.quiet ? Progress::silent : Progress::style_for_standard_error());
}

std::string dump(const Json &json)
{
	/* Names of files need not be UTF-8. */
	return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string time_text(int64_t time)
{
	return fmt::format("{:%Y-%m-%d %H:%M:%S}", fmt::gmtime(time));
}

const char *kind_of(const Manifest &point)
{
	return point.is_full() ? "full" : "incremental";
}

Json summary_of(const Manifest &point)
{
	return {{"id", point.id},
		{"number", point.number},
		{"time", point.time},
		{"kind", kind_of(point)},
		{"parent", point.is_full() ? Json() : Json(point.parent)},
		{"size", point.size},
		{"changed_bytes", point.changed_bytes},
		{"stored_bytes", point.data.length}};
}

/* What an earlier run has left, so that nothing piles up. Without a driver there is nothing. */
void remove_leftovers_of_servers(Progress &progress)
{
	try {
		for (const std::string &name : remove_dead_disks())
			progress.note("removed the restore disk " + name +
				      ", whose server is gone");
	} catch (const Error &error) {
		if (error.code() != Errc::driver_not_loaded)
			progress.warn(error.what());
	}
}

std::string backup(const Options &options)
{
	heed_signals();
	Progress progress = progress_for(options);
	remove_leftovers_of_servers(progress);
	const auto lvm = open_lvm();
	const BackupResult result = back_up({.snapshots = *lvm, .open_tracker = open_tracker},
					    options.backup, progress);
	if (options.json) {
		Json json = summary_of(result.point);
		json["reason"] = result.point.reason;
		json["seconds"] = result.seconds;
		return dump(json);
	}
	return fmt::format("{}: {}, {} of {} read, {} stored, {}\n", result.point.id,
			   kind_of(result.point), human_bytes(result.point.changed_bytes),
			   human_bytes(result.point.size), human_bytes(result.point.data.length),
			   human_seconds(result.seconds));
}

/* Work on a repository and nothing else: a file that is not there is damage. */
template <typename Work> auto on_repository(Work work)
{
	try {
		return work();
	} catch (const Failure &failure) {
		if (failure.error_number() == ENOENT)
			throw Failure(FailureCode::damaged, failure.what());
		throw;
	}
}

/* Whoever reads points needs none of what is damaged. */
Repository open_to_read(const fs::path &directory)
{
	Repository repository(directory);
	if (!repository.damage().empty())
		tell_line(repository.damage());
	return repository;
}

PointReader open_point(const Options &options)
{
	const PointName name = PointName::parse(options.point);
	return on_repository(
		[&] { return PointReader(open_to_read(name.repository), name.point); });
}

/* The directory of what is done to all of one. */
fs::path repository_alone(const Options &options)
{
	const PointName name = PointName::parse(options.point);
	if (!name.point.empty())
		throw Failure(FailureCode::usage,
			      fmt::format("name the repository alone, {}, without a point",
					  name.repository.native()));
	return name.repository;
}

std::string restore(const Options &options)
{
	heed_signals();
	Progress progress = progress_for(options);
	PointReader reader = open_point(options);
	const RestoreResult result = agent::restore(
		reader,
		{.target = options.target, .force = options.force, .verify = !options.no_verify},
		progress);
	if (options.json)
		return dump({{"id", reader.point().id},
			     {"target", options.target},
			     {"size", reader.size()},
			     {"written_bytes", result.written},
			     {"verified", !options.no_verify},
			     {"seconds", result.seconds}});
	return fmt::format("{} restored to {}: {}, of which {} are not zeros, {}{}\n",
			   reader.point().id, options.target, human_bytes(reader.size()),
			   human_bytes(result.written), options.no_verify ? "" : "verified, ",
			   human_seconds(result.seconds));
}

std::string serve(const Options &options)
{
	Progress progress = progress_for(options);
	remove_leftovers_of_servers(progress);
	PointReader reader = open_point(options);
	const std::string id = reader.point().id;
	agent::serve(std::move(reader), [&](const std::string &node) {
		print(options.json ? dump({{"id", id}, {"node", node}}) : node + "\n");
	});
	return "";
}

std::string mount(const Options &options)
{
	Progress progress = progress_for(options);
	remove_leftovers_of_servers(progress);
	const PointName name = PointName::parse(options.point);
	const std::string node = on_repository([&] {
		open_to_read(name.repository);
		return mount_point(name, options.mount);
	});
	return options.json ? dump({{"node", node}, {"directory", options.mount.directory}}) : "";
}

std::string umount(const Options &options)
{
	unmount_point(options.mount.directory);
	return options.json ? dump(Json::object()) : "";
}

/* Problems on standard error, so that the list itself stays for programs. */
std::string list(const Options &options)
{
	const Repository repository = open_to_read(repository_alone(options));
	std::vector<std::string> problems;
	const auto points = on_repository([&] { return repository.points(problems); });
	std::string volume = repository.volume_name();
	if (!repository.damage().empty() && !points.empty())
		volume = points.back().volume_name;
	Json json = Json::array();
	std::string text = fmt::format("{:<24} {:<19} {:<11} {:>10} {:>10} {:>10}\n", "POINT",
				       "TIME (UTC)", "KIND", "SIZE", "CHANGED", "STORED");
	for (const Manifest &point : points) {
		json.push_back(summary_of(point));
		text += fmt::format("{:<24} {:<19} {:<11} {:>10} {:>10} {:>10}\n", point.id,
				    time_text(point.time), kind_of(point), human_bytes(point.size),
				    human_bytes(point.changed_bytes),
				    human_bytes(point.data.length));
	}
	print(options.json ? dump({{"volume", volume}, {"points", json}}) : text);
	if (!problems.empty())
		throw Failure(FailureCode::damaged, fmt::format("{}", fmt::join(problems, "\n")));
	return "";
}

std::string show(const Options &options)
{
	const PointReader reader = open_point(options);
	const Manifest &point = reader.point();
	Json json = summary_of(point);
	json.update({{"reason", point.reason},
		     {"volume_name", point.volume_name},
		     {"volume_uuid", point.volume_uuid},
		     {"data_file", point.data.file},
		     {"chain_length", reader.chain_length()},
		     {"data_bytes", reader.data_bytes()}});
	if (options.json)
		return dump(json);
	std::string text = fmt::format("point {}\ntime {} UTC\nvolume {}, {}\nkind {}\n", point.id,
				       time_text(point.time), point.volume_name,
				       human_bytes(point.size), kind_of(point));
	if (point.is_full())
		text += fmt::format("full because {}\n", point.reason);
	else
		text += fmt::format("builds on {}, {} points in all\n", point.parent,
				    reader.chain_length());
	return text + fmt::format("changed {}\nstored {} in data/{}\nnot zeros {}\n",
				  human_bytes(point.changed_bytes), human_bytes(point.data.length),
				  point.data.file, human_bytes(reader.data_bytes()));
}

std::string verify(const Options &options)
{
	heed_signals();
	Progress progress = progress_for(options);
	const Repository repository(repository_alone(options));
	const auto problems = on_repository([&] { return agent::verify(repository, progress); });
	if (options.json)
		print(dump({{"problems", problems}}));
	if (!problems.empty())
		throw Failure(FailureCode::damaged, fmt::format("{}", fmt::join(problems, "\n")));
	return options.json ? "" : "all restore points are sound\n";
}

/* Adds the ids of those that have gone, or would go, to dropped. */
void forget_points(const PointName &name, const Options &options, std::vector<std::string> &dropped)
{
	Progress progress = progress_for(options);
	const Repository repository =
		options.dry_run ? open_to_read(name.repository) : Repository(name.repository);
	const File lock = options.dry_run ? File() : repository.lock_for_writing();
	const auto points = repository.points();
	std::set<std::string> keep;
	if (name.point.empty()) {
		keep = points_to_keep(points, options.keep);
	} else {
		for (const Manifest &point : points)
			keep.insert(point.id);
		keep.erase(repository.find(name.point).id);
	}
	if (!options.dry_run)
		return agent::forget(repository, keep, progress, dropped);
	for (const Manifest &point : points)
		if (!keep.contains(point.id))
			dropped.push_back(point.id);
}

std::string list_dropped(const std::vector<std::string> &dropped, const Options &options)
{
	if (options.json)
		return dump({{"dropped", dropped}, {"dry_run", options.dry_run}});
	std::string text;
	for (const std::string &id : dropped)
		text += fmt::format("{} {}\n", options.dry_run ? "would forget" : "forgot", id);
	return text;
}

std::string forget(const Options &options)
{
	heed_signals();
	const PointName name = PointName::parse(options.point);
	const KeepRules &rules = options.keep;
	const bool has_rules = rules.last + rules.daily + rules.weekly + rules.monthly > 0;
	if (has_rules != name.point.empty())
		throw Failure(FailureCode::usage,
			      "say either what to keep, with --keep-last and others, or which "
			      "point to forget, as REPO@POINT");
	std::vector<std::string> dropped;
	try {
		on_repository([&] { forget_points(name, options, dropped); });
	} catch (...) {
		if (!dropped.empty())
			print(list_dropped(dropped, options));
		throw;
	}
	return list_dropped(dropped, options);
}

constexpr Subcommand table[] = {
	{"backup", "add a restore point of a logical volume to a repository", backup},
	{"restore", "write a restore point to a device or a file", restore},
	{"mount", "mount the file system of a restore point, read-only", mount},
	{"umount", "unmount it and end its server", umount},
	{"serve", "serve a restore point as a read-only disk until told to stop", serve},
	{"list", "list the restore points of a repository", list},
	{"show", "tell about a restore point", show},
	{"verify", "read all of a repository and tell what is damaged", verify},
	{"forget", "drop restore points; what others build on is merged into those", forget},
};

} // namespace

std::span<const Subcommand> subcommands()
{
	return table;
}

} // namespace zorvat::agent
