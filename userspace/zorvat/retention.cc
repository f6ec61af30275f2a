// SPDX-License-Identifier: GPL-2.0
#include "retention.h"

#include <algorithm>
#include <chrono>
#include <fmt/format.h>
#include <map>

#include "block-runs.h"
#include "data-reader.h"
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

/*
 * The points that a kept one builds on directly and that are to go, after it. Ends at a point on
 * which another kept one builds as well.
 */
std::vector<const Manifest *> run_of(const Manifest &kept,
				     const std::map<std::string, const Manifest *> &by_id,
				     const std::set<std::string> &keep)
{
	std::vector<const Manifest *> run = {&kept};
	while (!run.back()->is_full()) {
		const auto parent = by_id.find(run.back()->parent);
		if (parent == by_id.end())
			throw Failure(FailureCode::damaged,
				      fmt::format("restore point {} is missing; {} builds on it",
						  run.back()->parent, run.back()->id));
		if (keep.contains(parent->first))
			break;
		run.push_back(parent->second);
	}
	return run;
}

/* Somebody may have forgotten the point, or merged others into it, since its manifest was read. */
bool was_replaced(const Repository &repository, const Manifest &manifest)
{
	std::vector<std::string> ignored;
	const auto points = repository.points(ignored);
	return std::ranges::none_of(
		points, [&](const Manifest &now) { return now.data.file == manifest.data.file; });
}

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
		return fmt::format("restore point {} has not all of its blocks", manifest.id);
	for (uint64_t i = 0; i < reader.entries(); i++) {
		const IndexEntry entry = reader.entry(i);
		if (!entry.is_hole())
			reader.read_frame(entry, plain);
		progress.advance(entry.stored);
	}
	return "";
} catch (const Failure &failure) {
	if (failure.code() == FailureCode::interrupted)
		throw;
	return was_replaced(repository, manifest) ? "" : failure.what();
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

std::vector<std::string> forget(const Repository &repository, const std::set<std::string> &keep,
				Progress &progress)
{
	const auto points = repository.points();
	std::map<std::string, const Manifest *> by_id;
	for (const Manifest &manifest : points)
		by_id[manifest.id] = &manifest;

	for (const Manifest &manifest : points) {
		if (!keep.contains(manifest.id))
			continue;
		const auto run = run_of(manifest, by_id, keep);
		if (run.size() == 1)
			continue;
		Merge merge(repository, run);
		progress.begin(
			fmt::format("merging {} points into {}", run.size() - 1, manifest.id),
			merge.bytes());
		repository.commit(merge.write(progress));
		progress.end();
	}
	/* Nothing that is kept builds on the rest. The newest first: each stays whole until it
	 * goes. */
	std::vector<std::string> dropped;
	for (auto point = points.rbegin(); point != points.rend(); ++point) {
		if (keep.contains(point->id))
			continue;
		repository.remove_manifest(point->id);
		dropped.push_back(point->id);
	}
	repository.remove_leftovers();
	return dropped;
}

std::vector<std::string> verify(const Repository &repository, Progress &progress)
{
	std::vector<std::string> problems;
	const auto points = repository.points(problems);
	std::set<std::string> ids;
	uint64_t total = 0;
	for (const Manifest &manifest : points) {
		ids.insert(manifest.id);
		total += manifest.data.length;
	}
	progress.begin("verify", total);
	for (const Manifest &manifest : points) {
		if (!manifest.is_full() && !ids.contains(manifest.parent) &&
		    !was_replaced(repository, manifest))
			problems.push_back(fmt::format(
				"restore point {} is missing or damaged; {} builds on it",
				manifest.parent, manifest.id));
		const std::string problem = problem_in(repository, manifest, progress);
		if (!problem.empty())
			problems.push_back(problem);
	}
	try {
		repository.attempt();
	} catch (const Failure &failure) {
		problems.emplace_back(failure.what());
	}
	progress.end();
	return problems;
}

} // namespace zorvat::agent
