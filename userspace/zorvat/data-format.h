// SPDX-License-Identifier: GPL-2.0
/* The records of data files, as docs/repository.md describes them. */
#ifndef ZORVAT_AGENT_DATA_FORMAT_H
#define ZORVAT_AGENT_DATA_FORMAT_H

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>

#include "checksum.h"

namespace zorvat::agent
{

static_assert(std::endian::native == std::endian::little, "records are stored as they are");

constexpr uint64_t block_bytes = uint64_t{64} << 10;

constexpr uint64_t blocks_of(uint64_t bytes)
{
	return (bytes + block_bytes - 1) / block_bytes;
}

/* Numbers of blocks have 32 bits. */
constexpr uint64_t max_volume_bytes = UINT32_MAX * block_bytes;

inline constexpr std::array header_magic = {'Z', 'R', 'V', 'T', 'D', 'A', 'T', 'A'};
inline constexpr std::array footer_magic = {'Z', 'R', 'V', 'T', 'F', 'O', 'O', 'T'};
constexpr uint32_t data_format = 1;
constexpr size_t max_frame_bytes = size_t{1} << 20; // of plain data

struct DataHeader {
	std::array<char, 8> magic;
	uint32_t format;
	uint32_t block_size;
	uint64_t volume_size; // bytes
	uint64_t hash;        // of what precedes
};
static_assert(sizeof(DataHeader) == 32);

struct IndexEntry {
	uint64_t start = 0; // bytes, as the others
	uint64_t length = 0;
	uint64_t offset = 0;
	uint64_t stored = 0; // 0: a hole
	Hash128 plain_hash = {};
	uint64_t stored_hash = 0;

	bool is_hole() const
	{
		return stored == 0;
	}
	uint64_t end() const
	{
		return start + length;
	}
};
static_assert(sizeof(IndexEntry) == 56);

struct DataFooter {
	std::array<char, 8> magic;
	uint64_t index_offset;
	uint64_t entries;
	Hash128 index_hash;
	uint64_t file_length;
	Hash128 hash; // of what precedes
};
static_assert(sizeof(DataFooter) == 64);

/* What a manifest says about its data file. */
struct DataSummary {
	std::string file; // name in the data directory
	uint64_t length = 0;
	uint64_t entries = 0;
	Hash128 index_hash = {};
};

} // namespace zorvat::agent

#endif
