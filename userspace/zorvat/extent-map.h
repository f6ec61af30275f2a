// SPDX-License-Identifier: GPL-2.0
/*
 * Where each block of a restore point is: one sorted list for the whole chain of data files, so
 * that reading through many increments costs as much as through one.
 */
#ifndef ZORVAT_AGENT_EXTENT_MAP_H
#define ZORVAT_AGENT_EXTENT_MAP_H

#include <cstdint>
#include <vector>

namespace zorvat::agent
{

/* A run of blocks that one entry of one data file holds. 16 bytes: there may be millions. */
struct Piece {
	uint32_t block;  // the first one
	uint32_t count;  // of blocks
	uint32_t source; // which data file of the chain
	uint32_t entry;  // of its index

	uint64_t end() const
	{
		return uint64_t{block} + count;
	}
	bool operator==(const Piece &) const = default;
};

class DataReader;

/* What a data file holds; its holes are said to be in the source `holes`. Throws Failure(damaged).
 */
std::vector<Piece> pieces_of(const DataReader &file, uint32_t source, uint32_t holes);

class ExtentMap
{
public:
	/*
	 * What a source holds, ascending and without overlaps. Sources come from the newest to the
	 * oldest: what is known already stays.
	 */
	void add_older(std::vector<Piece> older);

	const std::vector<Piece> &pieces() const
	{
		return pieces_;
	}
	/* The piece that holds the block, or null. */
	const Piece *find(uint64_t block) const;
	/* Whether every block below that is held. */
	bool covers(uint64_t blocks) const;

private:
	std::vector<Piece> pieces_; // ascending, without overlaps
};

} // namespace zorvat::agent

#endif
