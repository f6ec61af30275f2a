// SPDX-License-Identifier: GPL-2.0
/* What a backup needs of the driver, for one volume. Behind an interface, so that a test can be the
 * driver.
 */
#ifndef ZORVAT_AGENT_TRACKER_H
#define ZORVAT_AGENT_TRACKER_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include <zorvat/driver.h>

namespace zorvat::agent
{

struct TrackerState {
	bool tracked = false;
	uint64_t size = 0; // bytes
	std::string identity;
	uint64_t switch_count = 0; // 0 if not tracked
	uint64_t save_time = 0;
};

/* Functions throw zorvat::Error. */
class ChangeTracker
{
public:
	virtual ~ChangeTracker() = default;
	virtual TrackerState state() = 0;
	virtual void start() = 0;
	/* Up to the last switch, if the frozen bitmap is there. */
	virtual std::vector<Extent> changes() = 0;
	virtual void clear() = 0;
	virtual void set_save_time(uint64_t time) = 0;
};

/* The driver that is loaded. path: the volume's device node. */
std::unique_ptr<ChangeTracker> open_tracker(const std::string &path);

} // namespace zorvat::agent

#endif
