// SPDX-License-Identifier: GPL-2.0
#include "backup.h"

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <random>
#include <sys/stat.h>

#include "../output.h"
#include "block-runs.h"
#include "point-reader.h"
#include "volume-reader.h"

namespace zorvat::agent
{

namespace
{

/* Grows with time, so that no two backups of a volume have the same. */
uint64_t new_save_time(uint64_t last)
{
	const auto now = std::chrono::system_clock::now().time_since_epoch();
	const auto microseconds = std::chrono::duration_cast<std::chrono::microseconds>(now);
	return std::max<uint64_t>(microseconds.count(), last + 1);
}

/* Snapshots of an attempt are known by their names: no two attempts have the same. */
std::string new_snapshot_name()
{
	std::random_device device;
	return fmt::format("{}_{:08x}", snapshot_prefix, device());
}

/* Removes the snapshot when the backup is over, however it ends. */
class Snapshot
{
public:
	Snapshot(SnapshotManager &manager, const LogicalVolume &volume, const std::string &name,
		 const std::string &size)
	    : manager_(manager), volume_(volume), name_(name),
	      path_(manager.create(volume, name, size))
	{
	}
	~Snapshot()
	{
		try {
			remove();
		} catch (const std::exception &error) {
			tell_line(error.what());
			tell_line("the next backup removes it");
		}
	}
	Snapshot(const Snapshot &) = delete;
	Snapshot &operator=(const Snapshot &) = delete;

	const std::filesystem::path &path() const
	{
		return path_;
	}
	void remove()
	{
		if (!std::exchange(removed_, true))
			manager_.remove(volume_, name_);
	}

private:
	SnapshotManager &manager_;
	const LogicalVolume &volume_;
	std::string name_;
	std::filesystem::path path_;
	bool removed_ = false;
};

class Backup
{
public:
	Backup(const BackupEnvironment &environment, const BackupRequest &request,
	       Progress &progress)
	    : environment_(environment), request_(request), progress_(progress),
	      volume_(find_volume()), volume_lock_(lock_volume()),
	      tracker_(environment.open_tracker(volume_.path)), repository_(open_repository()),
	      repository_lock_(repository_.lock_for_writing())
	{
	}

	BackupResult run();

private:
	LogicalVolume find_volume() const;
	File lock_volume() const;
	Repository open_repository() const;
	void refuse_repository_on_volume() const;
	void look_at_history();
	void check_chain();
	void remove_old_snapshots();
	void decide();
	void break_chain(TrackerState &state);
	void begin_attempt();
	void doubt(const char *reason);
	void note_changes(const std::vector<BlockRun> &changes);
	void look_at_changes(const TrackerState &after);
	DataSummary copy(const std::filesystem::path &path);
	Manifest make_manifest(const DataSummary &data) const;
	bool forget_changes(const Manifest &manifest);

	const BackupEnvironment &environment_;
	const BackupRequest &request_;
	Progress &progress_;
	LogicalVolume volume_;
	File volume_lock_;
	std::unique_ptr<ChangeTracker> tracker_;
	Repository repository_;
	File repository_lock_;

	std::optional<Manifest> last_;
	std::optional<Attempt> old_attempt_;
	std::string reason_; // for a full backup; empty: incremental
	Attempt attempt_;
	TrackerState after_; // the snapshot
	/* Whether the driver's bitmaps will hold all that is written after the snapshot. */
	bool can_be_built_upon_ = true;
	std::vector<BlockRun> runs_;
	int64_t time_ = 0;
	uint64_t number_ = 0;
};

LogicalVolume Backup::find_volume() const
{
	LogicalVolume volume = environment_.snapshots.find(request_.volume);
	if (volume.size > max_volume_bytes)
		throw Failure(FailureCode::usage,
			      fmt::format("{} is too large: a repository takes volumes of up to {}",
					  volume.full_name(), human_bytes(max_volume_bytes)));
	return volume;
}

/* Two agents, with two repositories perhaps, would take each other's snapshots for leftovers. */
File Backup::lock_volume() const
{
	File lock(environment_.lock_directory / ("zorvat-" + volume_.uuid + ".lock"),
		  O_RDWR | O_CREAT);
	if (!lock.try_lock())
		throw Failure(FailureCode::busy,
			      volume_.full_name() + " is being backed up by another program");
	return lock;
}

Repository Backup::open_repository() const
{
	refuse_repository_on_volume();
	Repository repository =
		request_.existing ? Repository(request_.repository)
				  : Repository::open_or_create(request_.repository,
							       volume_.full_name(), volume_.uuid);
	if (repository.volume_uuid() != volume_.uuid)
		throw Failure(FailureCode::usage,
			      fmt::format("{} holds backups of another volume, {}",
					  repository.directory().native(),
					  repository.volume_name()));
	return repository;
}

/* It would be lost with the volume, and each backup would be a change to back up. */
void Backup::refuse_repository_on_volume() const
{
	std::error_code error;
	std::filesystem::path place = std::filesystem::absolute(request_.repository);
	while (!std::filesystem::exists(place, error) && place.has_relative_path())
		place = place.parent_path();
	struct stat volume, directory;
	if (stat(volume_.path.c_str(), &volume) == 0 && stat(place.c_str(), &directory) == 0 &&
	    volume.st_rdev == directory.st_dev)
		throw Failure(FailureCode::usage,
			      fmt::format("{} lies on {} itself", request_.repository.native(),
					  volume_.full_name()));
}

/* What cannot be read of it only means that a full backup is due. */
void Backup::look_at_history()
{
	std::vector<std::string> problems;
	const auto points = repository_.points(problems);
	for (const std::string &problem : problems)
		progress_.warn(problem);
	if (!points.empty()) {
		last_ = points.back();
		check_chain();
	}
	try {
		old_attempt_ = repository_.attempt();
	} catch (const Failure &failure) {
		progress_.warn(failure.what());
		reason_ = "the repository is damaged";
	}
}

/* An increment is worth what it builds upon. */
void Backup::check_chain()
try {
	PointReader(repository_, last_->id);
} catch (const Failure &failure) {
	progress_.warn(failure.what());
	reason_ = "the last restore point is damaged";
}

/* With an attempt's snapshot goes the only proof that the switch was the attempt's: it is noted
 * first.
 */
void Backup::remove_old_snapshots()
{
	if (old_attempt_)
		environment_.snapshots.settle(old_attempt_->snapshot);
	for (const OwnSnapshot &old : environment_.snapshots.own_snapshots(volume_)) {
		if (old_attempt_ && !old_attempt_->switch_count && old.complete &&
		    old.name == old_attempt_->snapshot) {
			old_attempt_->switch_count = old_attempt_->before.switch_count + 1;
			repository_.write_attempt(*old_attempt_);
		}
		progress_.note("removing the snapshot " + old.name + " of an interrupted backup");
		environment_.snapshots.remove(volume_, old.name);
	}
	/* Room in the group has come back, and tools that died agents had started have ended. */
	volume_ = find_volume();
}

void Backup::decide()
{
	const bool helps = old_attempt_ && last_ && old_attempt_->point == last_->id;
	if (!helps)
		old_attempt_.reset();
	TrackerState state = tracker_->state();
	if (reason_.empty())
		reason_ = why_full(state, volume_.size, last_ ? &*last_ : nullptr,
				   old_attempt_ ? &*old_attempt_ : nullptr);
	attempt_.point = reason_.empty() ? last_->id : "";
	if (!state.tracked) {
		/* Before the snapshot, so that no write is missed between the two. */
		tracker_->start();
		state = tracker_->state();
	}
	if (!reason_.empty()) {
		old_attempt_.reset();
		break_chain(state);
	} else if (request_.full) {
		reason_ = "it was asked for";
	}
	attempt_.before = {state.identity, state.switch_count, state.save_time, state.save_time};
}

/* Whoever comes after an interruption must not find that all fits again. No manifest has this time.
 */
void Backup::break_chain(TrackerState &state)
{
	tracker_->set_save_time(new_save_time(state.save_time));
	state = tracker_->state();
}

void Backup::begin_attempt()
{
	attempt_.snapshot = new_snapshot_name();
	if (old_attempt_)
		attempt_.changes = old_attempt_->changes;
	repository_.write_attempt(attempt_);
	repository_.reserve_room();
}

/*
 * Without room for the changes, at least the switch is noted beside what was: the driver has the
 * changes, too.
 */
void Backup::note_changes(const std::vector<BlockRun> &changes)
{
	repository_.release_room();
	Attempt noted = attempt_;
	noted.changes = changes;
	try {
		repository_.write_attempt(noted);
	} catch (const Failure &failure) {
		if (failure.code() == FailureCode::no_space)
			repository_.write_attempt(attempt_);
		throw;
	}
}

/* Whoever switched may also have cleared, what was written after the snapshot included. */
void Backup::doubt(const char *reason)
{
	reason_ = reason;
	can_be_built_upon_ = false;
	attempt_.point.clear();
	break_chain(after_);
}

void Backup::look_at_changes(const TrackerState &after)
{
	after_ = after;
	const bool switched = after.tracked && after.identity == attempt_.before.identity &&
			      after.switch_count == attempt_.before.switch_count + 1;
	if (!switched) {
		doubt("the driver did not switch its bitmap once, at the snapshot");
	}
	std::vector<BlockRun> changes;
	if (!attempt_.point.empty()) {
		changes = union_of(runs_of(tracker_->changes(), volume_.size), attempt_.changes);
		if (tracker_->state().switch_count != after.switch_count) {
			doubt("somebody else switched the bitmap");
		}
	}
	attempt_.switch_count = after.switch_count;
	note_changes(changes);
	runs_ = reason_.empty() ? std::move(changes) : all_blocks(volume_.size);
}

/* What a snapshot has no room for any more cannot be read. */
DataSummary Backup::copy(const std::filesystem::path &path)
try {
	const uint64_t size = File(path, O_RDONLY).size();
	if (size != volume_.size)
		throw Failure(FailureCode::failed,
			      fmt::format("{} was resized meanwhile: the snapshot has {} bytes",
					  volume_.full_name(), size));
	number_ = repository_.next_number();
	DataWriter writer(repository_.data_directory(), Repository::new_data_name(number_),
			  volume_.size, request_.compression);
	progress_.begin(reason_.empty() ? "incremental backup" : "full backup",
			bytes_of_runs(runs_, volume_.size));
	VolumeReader reader(path, runs_, volume_.size);
	while (const auto chunk = reader.next()) {
		writer.add(chunk->start, chunk->bytes);
		progress_.advance(chunk->bytes.size());
	}
	DataSummary summary = writer.finish();
	progress_.end();
	return summary;
} catch (const Failure &failure) {
	if (failure.error_number() != EIO ||
	    !environment_.snapshots.has_overflowed(volume_, attempt_.snapshot))
		throw;
	throw Failure(FailureCode::no_space,
		      fmt::format("the snapshot overflowed: while it was copied, more was written "
				  "to {} than it had room for; --snapshot-size gives it more",
				  volume_.full_name()));
}

Manifest Backup::make_manifest(const DataSummary &data) const
{
	const uint64_t save_time = new_save_time(after_.save_time);
	return {.number = number_,
		.id = fmt::format("{}-{:%Y%m%dT%H%M%SZ}", number_, fmt::gmtime(time_)),
		.parent = reason_.empty() ? last_->id : "",
		.time = time_,
		.volume_name = volume_.full_name(),
		.volume_uuid = volume_.uuid,
		.size = volume_.size,
		.reason = reason_,
		.data = data,
		.changed_bytes = bytes_of_runs(runs_, volume_.size),
		.driver = {.identity = after_.identity,
			   .switch_count = after_.switch_count,
			   .save_time = save_time,
			   .save_time_before = can_be_built_upon_ ? after_.save_time : save_time}};
}

/*
 * The frozen bitmap goes if it still is that of our snapshot. Returns false if it was gone: then
 * the changes that were copied may not have been all, and the point is gone as well.
 */
bool Backup::forget_changes(const Manifest &manifest)
{
	const bool switched = after_.switch_count == attempt_.before.switch_count + 1;
	if (!after_.tracked || !switched || tracker_->state().switch_count != after_.switch_count) {
		progress_.warn(
			"the driver's changes are kept: they may be more than was backed up");
		return true;
	}
	bool was_there = true;
	try {
		tracker_->clear();
	} catch (const Error &error) {
		if (error.code() != Errc::refused)
			throw;
		was_there = false;
	}
	TrackerState now = tracker_->state();
	if (!was_there && !manifest.is_full()) {
		break_chain(now);
		repository_.remove_manifest(manifest.id);
		repository_.remove_leftovers();
		return false;
	}
	if (now.switch_count == after_.switch_count)
		return true;
	break_chain(now); // changes may have been dropped with the bitmap
	progress_.warn(
		"somebody else switched the bitmap meanwhile: the next backup is a full one");
	return true;
}

BackupResult Backup::run()
{
	const auto start = std::chrono::steady_clock::now();
	look_at_history();
	remove_old_snapshots();
	decide();
	begin_attempt();

	time_ = std::time(nullptr);
	Snapshot snapshot(environment_.snapshots, volume_, attempt_.snapshot,
			  request_.snapshot_size);
	look_at_changes(tracker_->state());
	if (!reason_.empty())
		progress_.note("a full backup, because " + reason_);

	const Manifest manifest = make_manifest(copy(snapshot.path()));
	repository_.commit(manifest);
	bool is_complete = true;
	try {
		/* First the save time: whoever relies on the changes that are cleared must notice.
		 */
		if (can_be_built_upon_)
			tracker_->set_save_time(manifest.driver.save_time);
		is_complete = forget_changes(manifest);
		snapshot.remove();
		repository_.remove_attempt();
	} catch (const std::exception &) {
		tell_line("restore point " + manifest.id +
			  " is complete; what failed is the work after it");
		throw;
	}
	if (!is_complete)
		throw Failure(FailureCode::failed,
			      "somebody else cleared the bitmap meanwhile: what was copied may "
			      "lack changes and was dropped; the next backup is a full one");

	const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
	return {manifest, seconds.count()};
}

} // namespace

std::string why_full(const TrackerState &state, uint64_t size, const Manifest *last,
		     const Attempt *attempt)
{
	if (!last)
		return "it is the first one";
	if (last->size != size)
		return fmt::format("the volume had {} bytes and has {}", last->size, size);
	if (!state.tracked)
		return "the volume was not tracked";
	if (state.size != size)
		return "the driver has another size for the volume";
	if (state.identity != last->driver.identity)
		return "the driver knows the volume anew, as after a reboot or a reload";
	if (state.save_time != last->driver.save_time &&
	    state.save_time != last->driver.save_time_before)
		return "another backup of the volume was begun since the last one";
	const uint64_t expected = last->driver.switch_count;
	if (!attempt && state.switch_count != expected)
		return fmt::format("the bitmap was switched {} times instead of {}",
				   state.switch_count, expected);
	if (attempt &&
	    state.switch_count != attempt->switch_count.value_or(attempt->before.switch_count))
		return "the bitmap was switched by somebody else since an interrupted backup";
	return "";
}

BackupResult back_up(const BackupEnvironment &environment, const BackupRequest &request,
		     Progress &progress)
{
	return Backup(environment, request, progress).run();
}

} // namespace zorvat::agent
