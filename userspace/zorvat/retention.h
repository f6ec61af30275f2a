// SPDX-License-Identifier: GPL-2.0
/* Which restore points to keep, how the others go, and whether all are sound. */
#ifndef ZORVAT_AGENT_RETENTION_H
#define ZORVAT_AGENT_RETENTION_H

#include <set>
#include <string>
#include <vector>

#include "progress.h"
#include "repository.h"

namespace zorvat::agent
{

/* Of how many days, weeks, months to keep the newest point. Days are those of UTC, weeks begin on
 * Mondays.
 */
struct KeepRules {
	size_t last = 0;
	size_t daily = 0;
	size_t weekly = 0;
	size_t monthly = 0;
};

/* Ids of the points to keep; points in order of time. Always the newest. */
std::set<std::string> points_to_keep(const std::vector<Manifest> &points, const KeepRules &rules);

/*
 * Drops all points but these. What one that is kept builds on is merged into it. Whoever calls has
 * the repository's lock. Adds the id of each point to dropped when it has gone, so that they are
 * known after a failure, too.
 */
void forget(const Repository &repository, const std::set<std::string> &keep, Progress &progress,
	    std::vector<std::string> &dropped);

/*
 * Reads everything there is, and returns what is wrong with it: a line per file, which names it,
 * and one with all points whose content is in question.
 */
std::vector<std::string> verify(const Repository &repository, Progress &progress);

} // namespace zorvat::agent

#endif
