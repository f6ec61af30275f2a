// SPDX-License-Identifier: GPL-2.0
#include "retention.h"

#include <algorithm>
#include <chrono>
#include <fmt/format.h>
#include <map>
#include <span>

#include "block-runs.h"
#include "data-reader.h"
#include "data-writer.h"
#include "extent-map.h"
#include "point-reader.h"

namespace zorvat::agent
{

namespace
{

using Period = int64_t (*)(int64_t time);

constexpr int64_t day_seconds = 86400;

int64_t day_of(int64_t time)
{
	return time / day_seconds;
}

/* The first of January 1970 was a Thursday. */
int64_t week_of(int64_t time)
{
	return (day_of(time) + 3) / 7;
}

int64_t month_of(int64_t time)
{
	const std::chrono::sys_days day{std::chrono::days(day_of(time))};
	const std::chrono::year_month_day date(day);
	return int{date.year()} * 12 + static_cast<int>(unsigned{date.month()});
}

/* The newest point of each of the last periods that have one. */
void keep_newest_of(size_t count, Period period, const std::vector<Manifest> &points,
		    std::set<std::string> &kept)
{
	std::set<int64_t> seen;
	for (auto point = points.rbegin(); point != points.rend() && seen.size() < count; ++point)
		if (seen.insert(period(point->time)).second)
			kept.insert(point->id);
}

/* Writes the union of a run of data files; of each block, the newest. */
class Merge
{
public:
	/* The newest first. */
	Merge(const Repository &repository, const std::vector<const Manifest *> &run)
	    : repository_(repository), run_(run), map_(blocks_of(run.front()->size), run.size())
	{
		const auto decoder = std::make_shared<FrameDecoder>();
		for (const Manifest *manifest : run)
			sources_.push_back(std::make_unique<DataReader>(
				repository.data_directory(), manifest->data, run.front()->size,
				manifest->id, decoder));
		for (size_t i = 0; i < sources_.size(); i++)
			map_.add_older(*sources_[i], i, i);
	}

	/* The successor as it is to be. */
	Manifest write(Progress &progress)
	{
		Manifest merged = *run_.front();
		merged.parent = run_.back()->parent;
		merged.reason = run_.back()->reason;
		merged.changed_bytes = 0;
		DataWriter writer(repository_.data_directory(),
				  Repository::new_data_name(merged.number), merged.size);
		map_.for_each_run([&](const ExtentMap::Run &run) {
			const uint64_t start = run.first * block_bytes;
			const uint64_t end = std::min(run.end * block_bytes, merged.size);
			merged.changed_bytes += end - start;
			for (uint64_t from = start, to = start; from < end; from = to) {
				const IndexEntry entry = sources_[run.source]->entry_at(from);
				to = std::min(entry.end(), end);
				copy(run.source, entry, from, to - from, writer);
				progress.advance(to - from);
			}
		});
		merged.data = writer.finish();
		return merged;
	}

	uint64_t bytes() const
	{
		uint64_t bytes = 0;
		map_.for_each_run([&](const ExtentMap::Run &run) {
			bytes += (run.end - run.first) * block_bytes;
		});
		return bytes;
	}

private:
	/* A frame of which all is used goes over as it is. Others have their parts apart. */
	void copy(ExtentMap::Source source, const IndexEntry &entry, uint64_t start,
		  uint64_t length, DataWriter &writer)
	{
		DataReader &file = *sources_[source];
		if (entry.is_hole())
			return writer.add_hole(start, length);
		if (entry.start == start && entry.length == length)
			return writer.add_stored(entry, file.read_stored(entry));
		const uint64_t plain = frames_.find_or_read(source, file, entry);
		writer.add(start, frames_.at(plain + (start - entry.start), length));
	}

	const Repository &repository_;
	std::vector<const Manifest *> run_;
	std::vector<std::unique_ptr<DataReader>> sources_;
	ExtentMap map_;
	FrameCache frames_;
};

/* A point, and others that it builds on; the newest first. */
using Run = std::vector<const Manifest *>;

/*
 * The kept point and those below it that are to go, down to the next kept one. If other kept points
 * build on some of them as well, each has them in its own run. Ends as well where a point is
 * missing: what builds on that is lost, but may have to go.
 */
Run run_of(const Manifest &kept, const std::map<std::string, const Manifest *> &by_id,
	   const std::set<std::string> &keep)
{
	Run run = {&kept};
	while (!run.back()->is_full()) {
		const auto parent = by_id.find(run.back()->parent);
		if (parent == by_id.end() || keep.contains(parent->first))
			break;
		if (parent->second->number >= run.back()->number ||
		    parent->second->size != run.back()->size)
			throw Failure(FailureCode::damaged,
				      fmt::format("restore point {} builds on {}, which is newer "
						  "or of another size",
						  run.back()->id, parent->first));
		run.push_back(parent->second);
	}
	return run;
}

bool is_in(std::span<const Run> runs, const Manifest &point)
{
	return std::ranges::any_of(
		runs, [&](const Run &run) { return std::ranges::find(run, &point) != run.end(); });
}

void merge(const Repository &repository, const Run &run, Progress &progress)
{
	Merge merge(repository, run);
	progress.begin(fmt::format("merging {} points into {}", run.size() - 1, run.front()->id),
		       merge.bytes());
	repository.commit(merge.write(progress));
	progress.end();
}

/* Somebody may have forgotten the point, or merged others into it, since its manifest was read. */
bool was_replaced(const Repository &repository, const Manifest &manifest)
{
	std::vector<std::string> ignored;
	const auto points = repository.points(ignored);
	return std::ranges::none_of(
		points, [&](const Manifest &now) { return now.data.file == manifest.data.file; });
}

/* Of its data file; empty: there is none. */
std::string problem_in(const Repository &repository, const Manifest &manifest, Progress &progress)
try {
	DataReader reader(repository.data_directory(), manifest.data, manifest.size, manifest.id);
	std::vector<std::byte> plain(max_frame_bytes);
	uint64_t covered = 0;
	bool whole = true;
	/* All of the index first: frames are read by what it says. */
	reader.for_each_entry([&](uint64_t, const IndexEntry &entry) {
		whole &= entry.start == covered;
		covered = entry.end();
	});
	if (manifest.is_full() && !(whole && covered == manifest.size))
		return fmt::format("{} of restore point {} has not all blocks of the volume",
				   (repository.data_directory() / manifest.data.file).native(),
				   manifest.id);
	std::string first;
	uint64_t bad_frames = 0;
	for (uint64_t i = 0; i < reader.entries(); i++) {
		const IndexEntry entry = reader.entry(i);
		try {
			if (!entry.is_hole())
				reader.read_frame(entry, plain);
		} catch (const Failure &failure) {
			if (bad_frames++ == 0)
				first = failure.what();
		}
		progress.advance(entry.stored);
	}
	return bad_frames > 1
		       ? fmt::format("{}; {} of its frames are bad in all", first, bad_frames)
		       : first;
} catch (const Failure &failure) {
	if (failure.code() == FailureCode::interrupted)
		throw;
	return failure.what();
}

bool has_file(const Repository &repository, const Manifest &manifest)
try {
	const DataReader reader(repository.data_directory(), manifest.data, manifest.size,
				manifest.id);
	return true;
} catch (const Failure &) {
	return false;
}

/* Else what is forgotten may be all that can be read. Those that cannot be may always go. */
void refuse_to_keep_only_damage(const Repository &repository, const std::vector<Manifest> &points,
				const std::set<std::string> &keep)
{
	std::set<std::string> sound;
	std::string damaged;
	bool loses = false;
	for (const Manifest &point : points) {
		const bool has_parent = point.is_full() || sound.contains(point.parent);
		const bool is_sound = has_parent && has_file(repository, point);
		if (is_sound)
			sound.insert(point.id);
		if (keep.contains(point.id) && !is_sound)
			damaged = point.id;
		loses |= is_sound && !keep.contains(point.id);
	}
	if (loses && !damaged.empty())
		throw Failure(
			FailureCode::damaged,
			fmt::format("restore point {}, which is to be kept, is damaged: forget "
				    "it before others that are not",
				    damaged));
}

} // namespace

std::set<std::string> points_to_keep(const std::vector<Manifest> &points, const KeepRules &rules)
{
	std::set<std::string> kept;
	if (points.empty())
		return kept;
	kept.insert(points.back().id);
	for (size_t i = 0; i < std::min(rules.last, points.size()); i++)
		kept.insert(points[points.size() - 1 - i].id);
	keep_newest_of(rules.daily, day_of, points, kept);
	keep_newest_of(rules.weekly, week_of, points, kept);
	keep_newest_of(rules.monthly, month_of, points, kept);
	return kept;
}

void forget(const Repository &repository, const std::set<std::string> &keep, Progress &progress,
	    std::vector<std::string> &dropped)
{
	const auto points = repository.points();
	std::map<std::string, const Manifest *> by_id;
	for (const Manifest &manifest : points)
		by_id[manifest.id] = &manifest;
	std::vector<Run> runs;
	for (const Manifest &manifest : points) {
		if (!keep.contains(manifest.id))
			continue;
		Run run = run_of(manifest, by_id, keep);
		if (run.size() > 1)
			runs.push_back(std::move(run));
	}
	refuse_to_keep_only_damage(repository, points, keep);

	std::span<const Run> pending = runs;
	const auto drop = [&](const Manifest &point) {
		if (keep.contains(point.id) || is_in(pending, point))
			return;
		repository.remove_manifest(point.id);
		dropped.push_back(point.id);
	};
	/*
	 * A disk may be full: first goes what makes room without taking any, and what a merge has
	 * made needless goes before the next one. The newest first: each stays whole until it goes.
	 */
	for (auto point = points.rbegin(); point != points.rend(); ++point)
		drop(*point);
	repository.remove_leftovers();
	while (!pending.empty()) {
		const Run &run = pending.front();
		merge(repository, run, progress);
		pending = pending.subspan(1);
		for (const Manifest *point : run)
			drop(*point);
		repository.remove_leftovers();
	}
}

std::vector<std::string> verify(const Repository &repository, Progress &progress)
{
	std::vector<std::string> problems;
	if (!repository.damage().empty())
		problems.push_back(repository.damage());
	const auto points = repository.points(problems);
	uint64_t total = 0;
	for (const Manifest &manifest : points)
		total += manifest.data.length;
	progress.begin("verify", total);
	std::map<std::string, uint64_t> sizes; // of the volume, at each older point
	std::vector<std::string> unsound;
	for (const Manifest &manifest : points) {
		const auto parent = sizes.find(manifest.parent);
		bool sound = manifest.is_full() ||
			     (parent != sizes.end() && parent->second == manifest.size);
		if (!sound)
			problems.push_back(fmt::format(
				"restore point {} is missing or damaged; {} builds on it",
				manifest.parent, manifest.id));
		const std::string problem = problem_in(repository, manifest, progress);
		if (!problem.empty() && !was_replaced(repository, manifest)) {
			problems.push_back(problem);
			sound = false;
		}
		sizes[manifest.id] = manifest.size;
		if (!sound || std::ranges::count(unsound, manifest.parent) > 0)
			unsound.push_back(manifest.id);
	}
	if (!unsound.empty())
		problems.push_back(
			fmt::format("restore points that have or build on what is damaged "
				    "or missing: {}",
				    fmt::join(unsound, ", ")));
	try {
		repository.attempt();
	} catch (const Failure &failure) {
		problems.emplace_back(failure.what());
	}
	progress.end();
	return problems;
}

} // namespace zorvat::agent
