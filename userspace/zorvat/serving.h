// SPDX-License-Identifier: GPL-2.0
/* Restore points as disks, and as mounted file systems. */
#ifndef ZORVAT_AGENT_SERVING_H
#define ZORVAT_AGENT_SERVING_H

#include <functional>
#include <string>

#include "point-reader.h"

namespace zorvat::agent
{

/* Serves until a signal ends it, or somebody destroys the disk. ready: gets the device's path. */
void serve(PointReader reader, const std::function<void(const std::string &)> &ready);

struct MountRequest {
	fs::path directory;
	std::string type;    // of the file system; empty: ext4 or xfs, whichever it is
	std::string options; // of the file system; empty: those that let a crashed one be read
};

/*
 * Returns once the point is mounted; a process in the background serves it until it is mounted
 * nowhere any more. Returns the disk's path. The caller has no other threads.
 */
std::string mount_point(const PointName &name, const MountRequest &request);

/* Unmounts the directory; returns when the server has ended, if the disk is not mounted elsewhere.
 */
void unmount_point(const fs::path &directory);

/* Destroys the restore disks whose servers have died. Returns their names. */
std::vector<std::string> remove_dead_disks();

} // namespace zorvat::agent

#endif
