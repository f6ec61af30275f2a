// SPDX-License-Identifier: GPL-2.0
/* The checksums of the repository: XXH3, in the form in which they are stored. */
#ifndef ZORVAT_AGENT_CHECKSUM_H
#define ZORVAT_AGENT_CHECKSUM_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

struct XXH3_state_s;

namespace zorvat::agent
{

using Hash128 = std::array<uint8_t, 16>; // canonical: most significant byte first

Hash128 hash128(std::span<const std::byte> bytes);
/* What is stored has seed 0. */
uint64_t hash64(std::span<const std::byte> bytes, uint64_t seed = 0);
std::string to_hex(const Hash128 &hash);

/* Of bytes that come in pieces. */
class RunningHash128
{
public:
	RunningHash128();
	void add(std::span<const std::byte> bytes);
	Hash128 value() const;

private:
	struct Free {
		void operator()(XXH3_state_s *state) const;
	};
	std::unique_ptr<XXH3_state_s, Free> state_;
};

} // namespace zorvat::agent

#endif
