// SPDX-License-Identifier: GPL-2.0
// The table of volumes: hashing, probing, growth, lifetimes, iteration.
#include "writetracker/volume-registry.h"

#include <thread>

#include "fixture.h"
#include "writetracker/bucket-table.h"

namespace
{

// The home slot of a device in a table of 2^bits slots.
uint32_t home(ka_dev_t dev, uint32_t bits = 7)
{
	return static_cast<uint32_t>(uint64_t{dev} * 0x9E370001) >> (32 - bits);
}

// Devices, in ascending order, whose home is in the range.
std::vector<ka_dev_t> devices_at(uint32_t first, uint32_t last, size_t count)
{
	std::vector<ka_dev_t> found;
	for (unsigned int minor = 0; found.size() < count; minor++)
		if (ka_dev_t dev = ka_mkdev(77, minor); home(dev) >= first && home(dev) <= last)
			found.push_back(dev);
	return found;
}

class VolumeRegistry : public Driver
{
protected:
	void SetUp() override
	{
		// The tests add volumes themselves.
		wt_context.arg_arr_tracked_major_numbers[0] = 4095;
		wt_context.arg_arr_tracked_major_numbers_count = 1;
		load();
		plug_all({sda});
	}
	static int add(ka_dev_t dev)
	{
		VolumeRef volume(alloc_volume_info());
		volume->vi_devt = dev;
		return add_volume_info(dev, volume.get());
	}
	static bool finds(ka_dev_t dev)
	{
		VolumeRef volume(lookup_volume_info(dev));
		return volume && volume->vi_devt == dev;
	}
	// Lets devices be opened, so that removing their volumes frees them.
	static void plug_all(const std::vector<ka_dev_t> &devices)
	{
		for (ka_dev_t dev : devices)
			model::add_disk(
				{.name = "d", .major = ka_major(dev), .minor = ka_minor(dev)});
	}
	static std::vector<ka_dev_t> visited()
	{
		seen.clear();
		for_each_volume_info([](volume_info *volume) { seen.push_back(volume->vi_devt); });
		return seen;
	}
	static std::string directory(ka_dev_t dev)
	{
		return "/sys/zorvat/" + std::to_string(ka_major(dev)) + ":" +
		       std::to_string(ka_minor(dev));
	}

	static inline std::vector<ka_dev_t> seen;
};

TEST_F(VolumeRegistry, BitPositionsOfAllPowersOfTwo)
{
	for (uint32_t bit = 0; bit < 32; bit++)
		EXPECT_EQ(hash_bits_of(1u << bit), bit);
	EXPECT_EQ(hash_bits_of(0), 32u);
}

TEST_F(VolumeRegistry, AddsFindsRemoves)
{
	EXPECT_FALSE(finds(sda));
	EXPECT_EQ(add(sda), 0);
	EXPECT_TRUE(finds(sda));
	EXPECT_FALSE(finds(sda + 1));
	EXPECT_TRUE(model::sysfs_exists("/sys/zorvat/8:0"));
	EXPECT_EQ(volume_registry_init(), 0); // keeps the table
	EXPECT_TRUE(finds(sda));

	EXPECT_EQ(remove_volume_info(sda), 0);
	EXPECT_FALSE(finds(sda));
	EXPECT_FALSE(model::sysfs_exists("/sys/zorvat/8:0"));
	EXPECT_EQ(remove_volume_info(sda), -2);
}

TEST_F(VolumeRegistry, DuplicateIsRefused)
{
	ASSERT_EQ(add(sda), 0);
	volume_info *first = lookup_volume_info(sda);
	EXPECT_EQ(add(sda), -17);
	std::string index = std::to_string(home(sda));
	EXPECT_THAT(model::log(), ElementsAre(warn_line("Found duplicate entry at index " + index),
					      warn_line("Duplicate Entry for 8:0 found")));
	volume_info *second = lookup_volume_info(sda);
	EXPECT_EQ(first, second);
	volume_info_put(first);
	volume_info_put(second);
}

// Removal leaves no tombstone: what had probed past the slot is still there, but not found.
TEST_F(VolumeRegistry, RemovalHidesWhatProbedPastIt)
{
	auto devices = devices_at(20, 20, 2);
	plug_all(devices);
	ASSERT_EQ(add(devices[0]), 0);
	ASSERT_EQ(add(devices[1]), 0);
	EXPECT_TRUE(finds(devices[0]));
	EXPECT_TRUE(finds(devices[1]));
	EXPECT_EQ(remove_volume_info(devices[0]), 0);
	EXPECT_FALSE(finds(devices[1]));
	EXPECT_EQ(remove_volume_info(devices[1]), -2);
	EXPECT_THAT(visited(), ElementsAre(devices[1]));
	EXPECT_TRUE(model::sysfs_exists(directory(devices[1])));
}

// The probes of a growing table are bounded by its number of hash bits.
TEST_F(VolumeRegistry, GrowthWithAnEntryBeyondTheFirstSlotsIsABug)
{
	auto devices = devices_at(127, 127, 2);
	ASSERT_EQ(add(devices[0]), 0);
	EXPECT_THROW(add(devices[1]), model::Bug);
	kernel_is_dead();
}

TEST_F(VolumeRegistry, GrowthOfAnEmptiedTable)
{
	// 128 entries whose home is among the first slots fill the table; all but the one in the
	// last slot go, and a device at home there needs growth.
	auto devices = devices_at(0, 7, 128);
	ka_dev_t late = devices_at(127, 127, 1)[0];
	plug_all(devices);
	for (ka_dev_t dev : devices)
		ASSERT_EQ(add(dev), 0);
	auto slots = visited();
	ka_dev_t last = slots.back();
	for (size_t i = slots.size() - 1; i-- > 0;) // downwards, so that all stay reachable
		ASSERT_EQ(remove_volume_info(slots[i]), 0);

	model::fail("ka_vmalloc", 2); // the first is the record
	EXPECT_EQ(add(late), -12);
	EXPECT_THAT(visited(), ElementsAre(last));

	// The entry moves to its home of before, below the bound; the newcomer's is above it.
	EXPECT_EQ(add(late), -12);
	EXPECT_EQ(model::take_mismatched_releases(), 1);
	EXPECT_THAT(visited(), ElementsAre(last));
	EXPECT_FALSE(finds(last)); // its home is another one now
	EXPECT_TRUE(model::sysfs_exists(directory(last)));

	// In the table of twice the size whoever has a free home is entered and found.
	ka_dev_t any = devices_at(64, 64, 1)[0];
	plug_all({any});
	EXPECT_EQ(add(any), 0);
	EXPECT_TRUE(finds(any));
}

TEST_F(VolumeRegistry, FailuresLeaveNothingBehind)
{
	struct {
		const char *call;
		int nth;
		int result;
	} const cases[] = {
		{"ka_kobject_get", 1, -11}, // the driver's own object
		{"ka_kobject_get", 2, -22}, // the volume
		{"ka_kobject_add", 1, -22},
	};
	for (auto &c : cases) {
		model::fail(c.call, c.nth);
		EXPECT_EQ(add(sda), c.result) << c.call << c.nth;
		EXPECT_THAT(visited(), IsEmpty());
	}
	model::fail("ka_vmalloc");
	EXPECT_EQ(alloc_volume_info(), nullptr);
	EXPECT_EQ(add(sda), 0);
}

TEST_F(VolumeRegistry, WithoutATable)
{
	ASSERT_EQ(add(sda), 0);
	volume_registry_cleanup();
	volume_registry_cleanup();
	EXPECT_FALSE(model::sysfs_exists("/sys/zorvat/8:0"));
	EXPECT_EQ(add(sda), -22);
	EXPECT_FALSE(finds(sda));
	EXPECT_EQ(remove_volume_info(sda), -2);
	EXPECT_THAT(visited(), IsEmpty());
	model::fail("ka_vmalloc");
	EXPECT_EQ(volume_registry_init(), -12);
	EXPECT_EQ(volume_registry_init(), 0);
	EXPECT_EQ(add(sda), 0);
}

// A device that cannot be opened any more keeps its record for good.
TEST_F(VolumeRegistry, RemovalOfAGoneDeviceKeepsTheRecord)
{
	ASSERT_EQ(add(sda + 16), 0);
	EXPECT_EQ(remove_volume_info(sda + 16), 0);
	EXPECT_FALSE(finds(sda + 16));
	EXPECT_FALSE(model::sysfs_exists("/sys/zorvat/8:16"));
	model::expect_leaked_object("8:16");
}

TEST_F(VolumeRegistry, CallbackMayRemoveItsVolume)
{
	auto devices = devices_at(10, 10, 3);
	plug_all(devices);
	for (ka_dev_t dev : devices)
		ASSERT_EQ(add(dev), 0);
	// Each removal makes the next one unreachable for lookups, not for the walk.
	seen.clear();
	for_each_volume_info([](volume_info *volume) {
		seen.push_back(volume->vi_devt);
		remove_volume_info(volume->vi_devt);
	});
	EXPECT_EQ(seen, devices);
	EXPECT_THROW(for_each_volume_info(nullptr), model::Bug);
}

// Making room for an allocation may write to a tracked disk, and so may whoever holds the locks of
// sysfs: its hook must get the lookup's lock at any time.
TEST_F(VolumeRegistry, WritesGoOnWhileVolumesComeAndGo)
{
	Disk disk = model::add_disk({.name = "sdb", .minor = 32});
	ASSERT_EQ(volume_add(disk.dev()), 0);
	VolumeRef volume(lookup_volume_info(disk.dev()));
	ASSERT_EQ(volume_manager_start_tracking(volume.get(), nullptr), 0);
	int writes = 0;
	auto write = [&] {
		writes++;
		EXPECT_EQ(disk.write(0, 512).result, 0);
	};
	plug_all({sda + 16});
	model::on_reclaim(write);
	for (auto *call : {"ka_kobject_add", "ka_kobject_del"})
		model::before(call, write);
	EXPECT_EQ(add(sda + 16), 0);
	const int while_adding = writes;
	EXPECT_GE(while_adding, 3); // the record, the hold-up in sysfs, the directory
	EXPECT_EQ(remove_volume_info(sda + 16), 0);
	EXPECT_GT(writes, while_adding);
	model::on_reclaim(nullptr);
}

// Who adds a device while somebody else does waits, and is told that it is there. Neither finds a
// volume that has no directory yet.
TEST_F(VolumeRegistry, TwoAddersOfOneDevice)
{
	std::thread second;
	std::atomic<int> result{0};
	model::before("ka_kobject_add", [&] {
		EXPECT_TRUE(finds(sda)); // its files are for those who look it up
		second = std::thread([&] { result = add(sda); });
		for (int i = 0; i < 1000; i++)
			std::this_thread::yield();
		EXPECT_EQ(result, 0);
	});
	EXPECT_EQ(add(sda), 0);
	second.join();
	EXPECT_EQ(result, -17);
	EXPECT_EQ(model::logged(warn_line("Duplicate Entry for 8:0 found")), 1);
	EXPECT_THAT(visited(), ElementsAre(sda));

	// The directory goes when lookups no longer find the volume.
	model::before("ka_kobject_del", [] { EXPECT_FALSE(finds(sda)); });
	EXPECT_EQ(remove_volume_info(sda), 0);
}

TEST_F(VolumeRegistry, LookupsDuringAddAndRemove)
{
	auto devices = devices_at(30, 60, 12);
	plug_all(devices);
	ASSERT_EQ(add(devices[0]), 0);
	std::atomic<bool> stop{false};
	std::vector<std::thread> readers;
	for (int i = 0; i < 2; i++) {
		readers.emplace_back([&] {
			while (!stop) {
				EXPECT_TRUE(finds(devices[0]));
				for (ka_dev_t dev : devices)
					finds(dev);
			}
		});
	}
	std::thread walker([&] {
		while (!stop)
			for_each_volume_info([](volume_info *volume) {
				EXPECT_EQ(ka_major(volume->vi_devt), 77u);
			});
	});
	for (int round = 0; round < 20; round++) {
		for (size_t i = 1; i < devices.size(); i++)
			EXPECT_EQ(add(devices[i]), 0);
		// The other way round nothing becomes unreachable.
		for (size_t i = devices.size() - 1; i > 0; i--)
			EXPECT_EQ(remove_volume_info(devices[i]), 0);
	}
	stop = true;
	for (auto &reader : readers)
		reader.join();
	walker.join();
}

} // namespace
