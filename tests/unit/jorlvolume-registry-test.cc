// SPDX-License-Identifier: GPL-2.0
// The table of restore disks: names, hashing, probing, growth, lifetimes, the walk.
#include "writetracker/jorlvolume-registry.h"

#include "fixture.h"

namespace
{

// The home slot of a record in a table of 2^bits slots.
uint32_t home(const void *record, uint32_t bits = 7)
{
	return (reinterpret_cast<uint64_t>(record) * 0x9e37fffffffc0001) >> (64 - bits);
}

// An odd number of words: the homes of an array's records are everywhere then.
struct Spaced {
	jorlvolume_info record;
	uint64_t words[sizeof(jorlvolume_info) % 16 == 0 ? 1 : 2];
};

// Records that are no disks: all that the registry knows of one is its kobject.
class JorlVolumeRegistry : public Driver
{
protected:
	void SetUp() override
	{
		Driver::SetUp();
		arena.resize(8192);
		released.clear();
		ASSERT_EQ(jorlvolume_registry_init(), 0);
	}
	void TearDown() override
	{
		if (!dead)
			jorlvolume_registry_cleanup();
		Driver::TearDown();
	}
	// Records whose home is in the range.
	std::vector<jorlvolume_info *> records_at(uint32_t first, uint32_t last, size_t count,
						  uint32_t bits = 7)
	{
		std::vector<jorlvolume_info *> found;
		for (auto &[record, words] : arena)
			if (home(&record, bits) >= first && home(&record, bits) <= last &&
			    found.size() < count)
				found.push_back(&record);
		EXPECT_EQ(found.size(), count);
		return found;
	}
	static int add(jorlvolume_info *record)
	{
		static ka_kobj_type type = {
			[](ka_kobject *kobj) { released.push_back(kobj); }, nullptr, nullptr, {}};
		ka_kobject_init(&record->kobj, &type);
		ka_module_hold();
		const int err = add_jorlvolume_info(record);
		if (err != 0)
			jorlvolume_info_put(record);
		return err;
	}
	static bool finds(const jorlvolume_info *record)
	{
		jorlvolume_info *found =
			lookup_jorlvolume_info(const_cast<jorlvolume_info *>(record));
		if (found)
			jorlvolume_info_put(found);
		return found == record;
	}
	static std::vector<jorlvolume_info *> visited()
	{
		std::vector<jorlvolume_info *> seen;
		for_each_jorlvolume_info(
			[](jorlvolume_info *volume, void *arg) {
				static_cast<std::vector<jorlvolume_info *> *>(arg)->push_back(
					volume);
			},
			&seen);
		return seen;
	}

	std::vector<Spaced> arena;
	static inline std::vector<ka_kobject *> released;
};

TEST_F(JorlVolumeRegistry, NamesAreNumbersInBase26LowestDigitFirst)
{
	const std::map<int, std::string> names = {{0, "a"},   {1, "b"},    {25, "z"},
						  {26, "ab"}, {27, "bb"},  {51, "zb"},
						  {52, "ac"}, {675, "zz"}, {676, "aab"}};
	for (int i = 0; i <= 676; i++) {
		char name[JORL_DISK_NAME_SIZE];
		memset(name, '#', sizeof(name));
		assign_disk_name(name);
		if (names.contains(i)) {
			EXPECT_EQ(name, "zorvat-" + names.at(i));
		}
	}
}

TEST_F(JorlVolumeRegistry, AddsFindsRemoves)
{
	auto records = records_at(20, 20, 2);
	EXPECT_THAT(visited(), IsEmpty());
	EXPECT_EQ(add(records[0]), 0);
	EXPECT_TRUE(finds(records[0]));
	EXPECT_EQ(jorlvolume_registry_init(), 0); // keeps the table
	EXPECT_TRUE(finds(records[0]));
	// An address next to a record's, or none, is never looked into.
	for (wt_jorl_diskhandle_t unknown :
	     {static_cast<void *>(records[1]), static_cast<void *>(&records[0]->dvi_major),
	      static_cast<void *>(nullptr), reinterpret_cast<void *>(-1)}) {
		EXPECT_EQ(lookup_jorlvolume_info(unknown), nullptr);
		EXPECT_EQ(remove_jorlvolume_info(unknown), -2);
	}
	jorlvolume_info *held = lookup_jorlvolume_info(records[0]);
	EXPECT_EQ(remove_jorlvolume_info(held), 0);
	EXPECT_EQ(lookup_jorlvolume_info(held), nullptr);
	EXPECT_THAT(released, IsEmpty());
	jorlvolume_info_put(held);
	EXPECT_THAT(released, ElementsAre(&held->kobj));
}

TEST_F(JorlVolumeRegistry, DuplicateIsRefused)
{
	jorlvolume_info *record = records_at(20, 20, 1)[0];
	ASSERT_EQ(add(record), 0);
	EXPECT_EQ(add_jorlvolume_info(record), -17);
	EXPECT_THAT(visited(), ElementsAre(record));
	EXPECT_EQ(model::logged(warn_line("[JRREG] Found duplicate entry at index 20")), 1);
	EXPECT_EQ(model::logged("[JRREG] Duplicate Entry for "), 1);
}

// Removal leaves no tombstone: what had probed past the slot is still there, but not found.
TEST_F(JorlVolumeRegistry, RemovalHidesWhatProbedPastIt)
{
	auto records = records_at(20, 20, 2);
	ASSERT_EQ(add(records[0]) + add(records[1]), 0);
	EXPECT_TRUE(finds(records[1]));
	EXPECT_EQ(remove_jorlvolume_info(records[0]), 0);
	EXPECT_FALSE(finds(records[1]));
	EXPECT_EQ(remove_jorlvolume_info(records[1]), -2);
	EXPECT_THAT(visited(), ElementsAre(records[1]));
	jorlvolume_registry_cleanup();
	EXPECT_THAT(released, ElementsAre(&records[0]->kobj, &records[1]->kobj));
}

TEST_F(JorlVolumeRegistry, GrowthWithAnEntryBeyondTheFirstSlotsIsABug)
{
	auto records = records_at(127, 127, 2);
	ASSERT_EQ(add(records[0]), 0);
	EXPECT_THROW(add(records[1]), model::Bug);
	kernel_is_dead();
}

TEST_F(JorlVolumeRegistry, GrowthOfAnEmptiedTableOutlivesIt)
{
	// The last slot's record moves to its home, which is within the bound; for the newcomer,
	// whose home is not, there is no room in a table of twice the size either.
	auto records = records_at(0, 7, 128);
	jorlvolume_info *late = records_at(127, 127, 1)[0];
	for (auto *record : records)
		ASSERT_EQ(add(record), 0);
	auto slots = visited();
	for (size_t i = slots.size() - 1; i-- > 0;) // downwards, so that all stay reachable
		ASSERT_EQ(remove_jorlvolume_info(slots[i]), 0);
	model::fail("ka_vmalloc");
	EXPECT_EQ(add(late), -12);
	EXPECT_EQ(add(late), -12);
	EXPECT_EQ(model::take_mismatched_releases(), 1);
	EXPECT_THAT(visited(), ElementsAre(slots.back()));

	jorlvolume_registry_cleanup();
	ASSERT_EQ(jorlvolume_registry_init(), 0);
	for (auto *record : records_at(254, 254, 2, 8)) // both would be at home in slot 127
		EXPECT_EQ(add(record), 0);
}

TEST_F(JorlVolumeRegistry, WithoutATable)
{
	jorlvolume_info *record = records_at(20, 20, 1)[0];
	ASSERT_EQ(add(record), 0);
	jorlvolume_info *held = lookup_jorlvolume_info(record);
	EXPECT_EQ(jorlvolume_registry_cleanup(), 0);
	EXPECT_EQ(jorlvolume_registry_cleanup(), 0);
	EXPECT_THAT(released, IsEmpty());
	jorlvolume_info_put(held);
	EXPECT_EQ(released.size(), 1u);
	EXPECT_EQ(add(record), -22);
	EXPECT_FALSE(finds(record));
	EXPECT_EQ(remove_jorlvolume_info(record), -2);
	EXPECT_THAT(visited(), IsEmpty());
	model::fail("ka_vmalloc");
	EXPECT_EQ(jorlvolume_registry_init(), -12);
	EXPECT_EQ(add(record), -22);
}

TEST_F(JorlVolumeRegistry, CallbackMayRemoveItsDiskAndTheTable)
{
	const std::vector<jorlvolume_info *> records = {
		records_at(10, 10, 1)[0], records_at(30, 30, 1)[0], records_at(50, 50, 1)[0]};
	for (auto *record : records)
		ASSERT_EQ(add(record), 0);
	for_each_jorlvolume_info(
		[](jorlvolume_info *volume, void *) {
			remove_jorlvolume_info(volume);
			EXPECT_GT(ka_kobject_references(&volume->kobj), 0u);
		},
		nullptr);
	EXPECT_EQ(released.size(), 3u);
	ASSERT_EQ(add(records[0]), 0);
	for_each_jorlvolume_info([](jorlvolume_info *, void *) { jorlvolume_registry_cleanup(); },
				 nullptr);
	EXPECT_EQ(released.size(), 4u);
}

} // namespace
