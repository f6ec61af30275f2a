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
 * A file appears under its name once it is complete. A device that is mounted or otherwise held, or
 * tracked by the driver, is refused with Failure(busy), a smaller one with Failure(usage). A block
 * that does not fit its checksum ends it: what was written before stays on a device.
 */
RestoreResult restore(PointReader &reader, const RestoreRequest &request, Progress &progress);

} // namespace zorvat::agent

#endif
