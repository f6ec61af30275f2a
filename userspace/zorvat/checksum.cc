// SPDX-License-Identifier: GPL-2.0
#include "checksum.h"

#include <cstring>
#include <fmt/format.h>
#include <new>
#include <xxhash.h>

namespace zorvat::agent
{

namespace
{

Hash128 canonical(XXH128_hash_t hash)
{
	XXH128_canonical_t bytes;
	XXH128_canonicalFromHash(&bytes, hash);
	Hash128 result;
	static_assert(sizeof(bytes) == sizeof(result));
	std::memcpy(result.data(), &bytes, sizeof(result));
	return result;
}

} // namespace

Hash128 hash128(std::span<const std::byte> bytes)
{
	return canonical(XXH3_128bits(bytes.data(), bytes.size()));
}

uint64_t hash64(std::span<const std::byte> bytes, uint64_t seed)
{
	return XXH3_64bits_withSeed(bytes.data(), bytes.size(), seed);
}

std::string to_hex(const Hash128 &hash)
{
	return fmt::format("{:02x}", fmt::join(hash, ""));
}

RunningHash128::RunningHash128() : state_(XXH3_createState())
{
	if (!state_)
		throw std::bad_alloc();
	XXH3_128bits_reset(state_.get());
}

void RunningHash128::add(std::span<const std::byte> bytes)
{
	XXH3_128bits_update(state_.get(), bytes.data(), bytes.size());
}

Hash128 RunningHash128::value() const
{
	return canonical(XXH3_128bits_digest(state_.get()));
}

void RunningHash128::Free::operator()(XXH3_state_s *state) const
{
	XXH3_freeState(state);
}

} // namespace zorvat::agent
