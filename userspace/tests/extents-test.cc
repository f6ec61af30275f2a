// SPDX-License-Identifier: GPL-2.0
/* Listing changed extents: paging, clipping, and what the driver cannot tell. */
#include <gmock/gmock.h>
#include <random>

#include "extent-collector.h"
#include "fake-driver.h"

using testing::ElementsAreArray;
using testing::HasSubstr;
using zorvat::ChangedExtents;
using zorvat::Driver;
using zorvat::Errc;
using zorvat::Error;
using zorvat::Extent;
using zorvat::ExtentCollector;

namespace zorvat
{

void PrintTo(const Extent &extent, std::ostream *out)
{
	*out << extent.start << "+" << extent.length << (extent.possible ? " possible" : "");
}

} // namespace zorvat

namespace
{

ChangedExtents list(FakeVolume &volume, size_t per_request = 1000)
{
	return Driver(std::make_unique<FakeDriver>(volume))
		.changed_extents(test_volume(), per_request);
}

size_t requests_for_extents(const FakeVolume &volume)
{
	return std::ranges::count(volume.requests, uint32_t{WT_GET_EXTENTS_IOCTL_INDEX});
}

struct ListingCase {
	const char *name;
	uint64_t sectors;
	std::vector<uint64_t> written; // blocks
	size_t per_request;
	std::vector<Extent> expected;
	size_t requests;
	size_t bitmap_bits = 0; // 0: what the driver makes for the volume's length

	friend void PrintTo(const ListingCase &test, std::ostream *out)
	{
		*out << test.name;
	}
};

const ListingCase listing_cases[] = {
	{"nothing", 2048, {}, 4, {}, 1},
	{"short_answer", 2048, {0, 1, 4}, 4, {{0, 256}, {512, 128}}, 1},
	{"last_answer_full", 2048, {0, 1, 4}, 2, {{0, 256}, {512, 128}}, 2},
	{"one_by_one", 2048, {0, 2, 4}, 1, {{0, 128}, {256, 128}, {512, 128}}, 4},
	{"extra_blocks_behind_the_end", 1000, {2, 7, 8, 9}, 4, {{256, 128}, {896, 104}}, 1},
	{"only_behind_the_end", 1024, {9}, 4, {}, 1},
	{"no_request_behind_the_end", 1024, {7, 8, 9}, 1, {{896, 128}}, 1},
	{"across_words", 16384, {63, 64}, 4, {{8064, 256}}, 1},
	{"three_spare_bits", 7808, {60, 61, 62}, 4, {{7680, 128}}, 1},
	{"three_spare_bits_unwritten", 7808, {}, 4, {}, 1},
	{"two_spare_bits_unwritten", 7809, {}, 4, {{0, 7809, true}}, 1},
	{"two_spare_bits_run_dropped",
	 7809,
	 {1, 61, 62, 63},
	 4,
	 {{128, 128}, {256, 7553, true}},
	 1},
	{"two_spare_bits_end_reported", 7809, {61, 62}, 4, {{7808, 1}}, 1},
	{"no_spare_bit", 8191, {63}, 4, {{0, 8191, true}}, 1},
	{"a_word_to_spare", 8192, {63, 64}, 4, {{8064, 128}}, 1},
	{"grown_since_start", 16384, {3}, 4, {{384, 128}, {512, 15872, true}}, 1, 64},
};

class Listing : public testing::TestWithParam<ListingCase>
{
};

TEST_P(Listing, IsCompleteAndWithinTheVolume)
{
	const ListingCase &test = GetParam();
	FakeVolume volume(test.sectors);
	if (test.bitmap_bits)
		volume.written.resize(test.bitmap_bits);
	for (uint64_t block : test.written)
		volume.written[block] = true;

	ChangedExtents changes = list(volume, test.per_request);
	EXPECT_EQ(changes.volume_sectors, test.sectors);
	EXPECT_THAT(changes.extents, ElementsAreArray(test.expected));
	EXPECT_EQ(requests_for_extents(volume), test.requests);
}

INSTANTIATE_TEST_SUITE_P(Extents, Listing, testing::ValuesIn(listing_cases),
			 [](const auto &test) { return test.param.name; });

bool covers(const std::vector<Extent> &extents, uint64_t first, uint64_t end)
{
	for (const Extent &extent : extents) {
		if (extent.start <= first && first < extent.start + extent.length)
			first = extent.start + extent.length;
	}
	return first >= end;
}

TEST(Extents, NoWriteIsEverLost)
{
	std::mt19937_64 random(20);
	for (uint64_t sectors = 7000; sectors < 2 * 8192 + 200; sectors += 37) {
		FakeVolume volume(sectors);
		std::vector<std::pair<uint64_t, uint64_t>> writes;
		for (int i = 0; i < 6; i++) {
			uint64_t first = random() % sectors;
			uint64_t count = 1 + random() % std::min<uint64_t>(sectors - first, 600);
			writes.emplace_back(first, first + count);
			volume.write(first, count);
		}
		writes.emplace_back(sectors - 1, sectors); // the end is where runs get lost
		volume.write(sectors - 1, 1);

		auto extents = list(volume, 1 + random() % 4).extents;
		for (auto [first, end] : writes)
			ASSERT_TRUE(covers(extents, first, end)) << sectors << ": " << first;
		uint64_t position = 0;
		for (const Extent &extent : extents) {
			ASSERT_GE(extent.start, position);
			ASSERT_GT(extent.length, 0u);
			position = extent.start + extent.length;
		}
		ASSERT_LE(position, sectors);
	}
}

TEST(Extents, RunThatGrowsBetweenRequestsIsOneExtent)
{
	FakeVolume volume(2048);
	volume.written[2] = true;
	volume.before_extents = [&] {
		if (requests_for_extents(volume) == 2)
			volume.written[3] = true;
	};
	EXPECT_THAT(list(volume, 1).extents, testing::ElementsAre(Extent{256, 256}));
}

TEST(Extents, AnswersThatDoNotAscendAreRefused)
{
	const std::vector<wt_extent> answers[] = {
		{{512, 128}, {256, 128}},
		{{512, 128}, {576, 128}},
		{{512, UINT64_MAX - 511}},
	};
	for (const auto &answer : answers) {
		ExtentCollector collector(4096, 64);
		EXPECT_THROW(collector.accept(answer), Error);
	}
	EXPECT_NO_THROW(ExtentCollector(4096, 64).accept(std::array{wt_extent{0, UINT64_MAX}}));
}

TEST(Extents, UntrackedIsAnErrorAndNotAnEmptyList)
{
	FakeVolume volume(2048);
	auto code = [&volume] {
		try {
			list(volume);
		} catch (const Error &error) {
			EXPECT_THAT(error.what(), HasSubstr("vdb (254:16)"));
			return error.code();
		}
		ADD_FAILURE() << "no error";
		return Errc::system;
	};

	volume.level = 0;
	EXPECT_EQ(code(), Errc::not_tracked);
	volume.level = 1;
	volume.before_extents = [&] { volume.level = 0; };
	EXPECT_EQ(code(), Errc::changed_meanwhile);
	volume.level = 1;
	volume.before_extents = [&] { volume.sectors *= 2; };
	EXPECT_EQ(code(), Errc::changed_meanwhile);
}

} // namespace
