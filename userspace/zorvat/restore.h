// SPDX-License-Identifier: GPL-2.0
/* Writes a restore point to a device or a file, and reads back what was written. */
#ifndef ZORVAT_AGENT_RESTORE_H
#define ZORVAT_AGENT_RESTORE_H

#include "point-reader.h"
#include "progress.h"

namespace zorvat::agent
{

struct RestoreRequest {
	fs::path target;
	bool force = false; // although it is in use, tracked, or there
	bool verify = true;
};

struct RestoreResult {
	uint64_t written; // bytes that are not zeros
	double seconds;
};

/*
 * A file appears under its name once it is complete; with force, in place of the one that the name
 * leads to. Throws Failure(busy) for a file that is there, and a device that is mounted or
 * otherwise held, or tracked by the driver; Failure(usage) for a device that is too small, what is
 * neither device nor file, and names in /dev or in a repository where no device is. A block that
 * does not fit its checksum ends it: what was written before stays on a device.
 */
RestoreResult restore(PointReader &reader, const RestoreRequest &request, Progress &progress);

} // namespace zorvat::agent

#endif
