// SPDX-License-Identifier: GPL-2.0
/* Logical volumes and their snapshots. Behind an interface, so that a test can be LVM. */
#ifndef ZORVAT_AGENT_SNAPSHOTS_H
#define ZORVAT_AGENT_SNAPSHOTS_H

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace zorvat::agent
{

struct LogicalVolume {
	std::string group;
	std::string name; // within the group
	std::string uuid;
	uint64_t size = 0; // bytes, as the next one
	uint64_t free_in_group = 0;
	std::filesystem::path path;

	std::string full_name() const
	{
		return group + "/" + name;
	}
};

/* A volume that an agent made as a snapshot. */
struct OwnSnapshot {
	std::string name;
	bool complete; // else LVM was ended before the volume became a snapshot
};

/* The driver switches at snapshots whose names begin so. */
constexpr std::string_view snapshot_prefix = "ZKR_snapshot";

/* Functions throw Failure. */
class SnapshotManager
{
public:
	virtual ~SnapshotManager() = default;
	/* name: as group/name, or a path of its device. Throws Failure(not_found). */
	virtual LogicalVolume find(const std::string &name) = 0;
	/* The volume's, and those in its group that have not become anybody's. */
	virtual std::vector<OwnSnapshot> own_snapshots(const LogicalVolume &volume) = 0;
	/* size: as LVM's --size takes it, or empty. Returns the path of the snapshot's device. */
	virtual std::filesystem::path create(const LogicalVolume &volume, const std::string &name,
					     const std::string &size) = 0;
	virtual void remove(const LogicalVolume &volume, const std::string &name) = 0;
	/* Whether more was written to the volume than the snapshot has room for. */
	virtual bool has_overflowed(const LogicalVolume &volume, const std::string &name) = 0;
	/* Returns when no tool that an agent started, and died, is busy with the snapshot. */
	virtual void settle(const std::string &name) = 0;
};

std::unique_ptr<SnapshotManager> open_lvm();

} // namespace zorvat::agent

#endif
