// SPDX-License-Identifier: GPL-2.0
#include "extent-map.h"

#include <algorithm>

#include "data-reader.h"

namespace zorvat::agent
{

namespace
{

Piece part_of(const Piece &piece, uint64_t from, uint64_t to)
{
	return {static_cast<uint32_t>(from), static_cast<uint32_t>(to - from), piece.source,
		piece.entry};
}

} // namespace

std::vector<Piece> pieces_of(const DataReader &file, uint32_t source, uint32_t holes)
{
	std::vector<Piece> pieces;
	file.for_each_entry([&](uint64_t number, const IndexEntry &entry) {
		pieces.push_back({static_cast<uint32_t>(entry.start / block_bytes),
				  static_cast<uint32_t>(blocks_of(entry.length)),
				  entry.is_hole() ? holes : source, static_cast<uint32_t>(number)});
	});
	return pieces;
}

void ExtentMap::add_older(std::vector<Piece> older)
{
	if (pieces_.empty()) {
		pieces_ = std::move(older);
		return;
	}
	std::vector<Piece> merged;
	merged.reserve(pieces_.size() + older.size());
	auto newer = pieces_.begin();
	for (const Piece &piece : older) {
		uint64_t from = piece.block;
		/* A newer piece may cover parts of several older ones: it stays until passed. */
		for (; newer != pieces_.end() && newer->block < piece.end(); ++newer) {
			if (from < newer->block)
				merged.push_back(part_of(piece, from, newer->block));
			from = std::max(from, newer->end());
			if (newer->end() > piece.end())
				break;
			merged.push_back(*newer);
		}
		if (from < piece.end())
			merged.push_back(part_of(piece, from, piece.end()));
	}
	merged.insert(merged.end(), newer, pieces_.end());
	pieces_ = std::move(merged);
}

const Piece *ExtentMap::find(uint64_t block) const
{
	auto after = std::ranges::upper_bound(pieces_, block, {}, &Piece::block);
	if (after == pieces_.begin() || std::prev(after)->end() <= block)
		return nullptr;
	return &*std::prev(after);
}

bool ExtentMap::covers(uint64_t blocks) const
{
	uint64_t covered = 0;
	for (const Piece &piece : pieces_) {
		if (piece.block != covered)
			return false;
		covered = piece.end();
	}
	return covered == blocks;
}

} // namespace zorvat::agent
