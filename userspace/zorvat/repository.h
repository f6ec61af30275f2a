// SPDX-License-Identifier: GPL-2.0
/* A directory of restore points: which there are, and how they come and go. See docs/repository.md.
 */
#ifndef ZORVAT_AGENT_REPOSITORY_H
#define ZORVAT_AGENT_REPOSITORY_H

#include <optional>
#include <string>
#include <vector>

#include "block-runs.h"
#include "data-format.h"
#include "files.h"

namespace zorvat::agent
{

/* What tells whether the driver's changes are those since a restore point. */
struct DriverRecord {
	std::string identity; // the driver's random name for the volume
	uint64_t switch_count = 0;
	uint64_t save_time = 0;
	uint64_t save_time_before = 0; // for an attempt: the same as save_time
};

struct Manifest {
	uint64_t number = 0;
	std::string id;
	std::string parent; // id; empty for a full point
	int64_t time = 0;   // seconds since 1970, of the snapshot
	std::string volume_name;
	std::string volume_uuid;
	uint64_t size = 0;  // of the volume, in bytes
	std::string reason; // for a full point: why it is one
	DataSummary data;
	uint64_t changed_bytes = 0; // of the volume, that the data file covers
	DriverRecord driver;

	bool is_full() const
	{
		return parent.empty();
	}
};

/* A backup under way, or interrupted. */
struct Attempt {
	std::string snapshot; // its name
	std::string point;    // id of the last point; empty: there is none
	DriverRecord before;  // before the snapshot
	/* After it; nothing is known of that yet. */
	std::optional<uint64_t> switch_count;
	/* Since the point: those that earlier attempts found, and, with switch_count, all. */
	std::vector<BlockRun> changes;
};

/* "REPO@POINT", as people name restore points; a directory that is there is REPO, with any @. */
struct PointName {
	fs::path repository;
	std::string point; // empty: the latest

	static PointName parse(const std::string &text);
};

/* Its functions throw Failure. */
class Repository
{
public:
	/* Throws Failure(not_found). Points can be read whatever is in repository.json. */
	explicit Repository(const fs::path &directory);
	/*
	 * Makes one where there is nothing, or an empty directory, or points of the same volume and
	 * no repository.json. Throws Failure(usage).
	 */
	static Repository open_or_create(const fs::path &directory, const std::string &volume_name,
					 const std::string &volume_uuid);

	const fs::path &directory() const
	{
		return directory_;
	}
	fs::path data_directory() const
	{
		return directory_ / "data";
	}
	/* Of repository.json, in words; empty: there is none. */
	const std::string &damage() const
	{
		return damage_;
	}
	/* Empty if repository.json is damaged, as the next. */
	const std::string &volume_name() const
	{
		return volume_name_;
	}
	const std::string &volume_uuid() const
	{
		return volume_uuid_;
	}

	/* As long as the file is open, no point comes, changes or goes. Not for writers. */
	File hold_points() const;
	/* In order of their numbers. Manifests that cannot be read are left out and told of. */
	std::vector<Manifest> points(std::vector<std::string> &problems) const;
	/* All of them. Throws Failure(damaged). */
	std::vector<Manifest> points() const;
	/* An id, a number, or empty for the latest. */
	Manifest find(const std::string &point) const;
	/* The point and all that it builds on; the newest first. */
	std::vector<Manifest> chain_of(const Manifest &point) const;

	/*
	 * Becomes the only writer for as long as the file is open, and removes what others have
	 * left unfinished. Throws Failure(busy), and Failure(damaged) if repository.json is.
	 */
	File lock_for_writing() const;

	/* The number for the next point. */
	uint64_t next_number() const;
	/* For a new data file of the point. */
	static std::string new_data_name(uint64_t number);
	/* The restore point is there once this returns, in place of one with the same id. */
	void commit(const Manifest &manifest) const;
	/* Its data file becomes a leftover. */
	void remove_manifest(const std::string &id) const;
	/* Returns the names of files that belong to no restore point. */
	std::vector<fs::path> leftovers() const;
	void remove_leftovers() const;

	std::optional<Attempt> attempt() const;
	void write_attempt(const Attempt &attempt) const;
	void remove_attempt() const;
	/* Keeps some room on the disk, so that the attempt can be written again when it is full. */
	void reserve_room() const;
	void release_room() const;

private:
	void read_identity();
	fs::path identity_path() const;
	fs::path manifest_path(const std::string &id) const;
	fs::path attempt_path() const
	{
		return directory_ / "attempt.json";
	}
	File lock_points(int kind) const;
	fs::path points_directory() const
	{
		return directory_ / "points";
	}

	fs::path directory_;
	std::string damage_;
	std::string volume_name_;
	std::string volume_uuid_;
};

} // namespace zorvat::agent

#endif
