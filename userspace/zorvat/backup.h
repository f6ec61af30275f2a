// SPDX-License-Identifier: GPL-2.0
/*
 * A backup: snapshot, what changed, copy, commit, clear. docs/repository.md says why it can end
 * anywhere and nothing is lost.
 */
#ifndef ZORVAT_AGENT_BACKUP_H
#define ZORVAT_AGENT_BACKUP_H

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "data-writer.h"
#include "progress.h"
#include "repository.h"
#include "snapshots.h"
#include "tracker.h"

namespace zorvat::agent
{

/* The system as a backup sees it. */
struct BackupEnvironment {
	SnapshotManager &snapshots;
	/* Of the volume at that path. */
	std::function<std::unique_ptr<ChangeTracker>(const std::string &path)> open_tracker;
	/* Where a volume is marked as being backed up. */
	std::filesystem::path lock_directory = machine_lock_directory;
};

struct BackupRequest {
	std::string volume;
	std::filesystem::path repository;
	std::string snapshot_size; // as LVM takes it, or empty
	bool full = false;
	bool existing = false; // Failure(not_found) if there is no repository yet
	int compression = default_compression;
};

struct BackupResult {
	Manifest point;
	double seconds;
};

/*
 * Why the last point cannot be built upon, in words that finish "a full backup, because ...";
 * empty: it can. state: before the snapshot. attempt: the one that was left, if its snapshot's fate
 * is known.
 */
std::string why_full(const TrackerState &state, uint64_t size, const Manifest *last,
		     const Attempt *attempt);

/* Throws Failure, and zorvat::Error. */
BackupResult back_up(const BackupEnvironment &environment, const BackupRequest &request,
		     Progress &progress);

} // namespace zorvat::agent

#endif
