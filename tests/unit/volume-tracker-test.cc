// SPDX-License-Identifier: GPL-2.0
// The write hook, the bitmaps, start, stop and switch, and the extents.
#include "writetracker/volume-tracker.h"

#include <latch>
#include <random>
#include <thread>

#include "fixture.h"
#include "kernel-abstractions/task.h"

namespace
{

class VolumeTracker : public Tracked
{
protected:
	hbitmap *live()
	{
		return volume->vi_bitmap.get();
	}
	// Ends the tracking behind the manager's back and begins anew.
	void restart()
	{
		MutexLock lock(volume->vi_mtx);
		ASSERT_EQ(volume_info_stop_tracking(volume.get(), true), 0);
		ASSERT_EQ(volume_info_start_tracking(volume.get()), 0);
	}
	int locked(int (*operation)(volume_info *))
	{
		MutexLock lock(volume->vi_mtx);
		return operation(volume.get());
	}
	int stop(bool unpatch = true)
	{
		MutexLock lock(volume->vi_mtx);
		return volume_info_stop_tracking(volume.get(), unpatch);
	}
};

// --- The hook ----------------------------------------------------------------------------------

TEST_F(VolumeTracker, BlocksThatAWriteMarks)
{
	const std::vector<uint32_t> pages(16, 4096), uneven = {512, 65536, 4096};
	struct {
		ka_bio bio;
		uint64_t first, last;
	} const cases[] = {
		{{.sector = 0, .bytes = 4096}, 0, 1},
		{{.sector = 0, .bytes = 1}, 0, 1},
		{{.sector = 0, .bytes = 0}, 0, 1},
		{{.sector = 127, .bytes = 512}, 0, 1},
		{{.sector = 128, .bytes = 65536}, 1, 3},
		{{.sector = 128, .bytes = 65535}, 1, 3}, // rounded up to 128 sectors
		{{.sector = 128, .bytes = 65024}, 1, 2},
		{{.sector = 129, .bytes = 65536}, 1, 3},
		// Within and across words of 64 blocks, with whole words between.
		{{.sector = 62 * block_sectors, .bytes = 512}, 62, 63},
		{{.sector = 63 * block_sectors, .bytes = 512}, 63, 64},
		{{.sector = 60 * block_sectors, .bytes = 8 * block_bytes}, 60, 69},
		{{.sector = 10 * block_sectors, .bytes = 200 * block_bytes}, 10, 211},
		{{.sector = 64 * block_sectors, .bytes = 63 * block_bytes}, 64, 128},
		// Of segments only the current one counts.
		{{.sector = 128, .bytes = 65536, .segments = pages}, 1, 2},
		{{.sector = 128, .bytes = 70144, .segments = uneven}, 1, 2},
		{{.sector = 128, .bytes = 70144, .segments = uneven, .current = 1}, 1, 3},
		{{.sector = 256, .bytes = 0, .segments = uneven, .current = 2}, 2, 3},
	};
	for (auto &c : cases) {
		SCOPED_TRACE(testing::Message() << c.bio.sector << "+" << c.bio.bytes);
		restart();
		ka_bio bio = c.bio;
		auto submitted = disk.submit(bio);
		EXPECT_EQ(submitted.result, 0);
		EXPECT_TRUE(submitted.taken);
		EXPECT_EQ(submitted.error, 0);
		EXPECT_EQ(written_blocks(live()), blocks(c.first, c.last));
	}
}

TEST_F(VolumeTracker, ReadsAreForwardedAndNotMarked)
{
	ka_bio read{.sector = 0, .bytes = 4096, .write = false};
	EXPECT_EQ(disk.submit(read).result, 0);
	EXPECT_EQ(disk.native_bios(), 1u);
	EXPECT_THAT(written_blocks(live()), IsEmpty());
}

// It is the disk's own sector that counts, after the partition's start was added.
TEST_F(VolumeTracker, WritesToAPartitionCountOnTheWholeDisk)
{
	start({.name = "sdb", .minor = 16, .sectors = 1 << 20, .partitions = {{2048, 4096}}});
	EXPECT_EQ(disk.write(128, 4096, 1).result, 0);
	EXPECT_EQ(written_blocks(live()), blocks(17, 18));
}

TEST_F(VolumeTracker, WritesUpToTheEndAndBeyond)
{
	const ka_sector_t end = volume->vi_end.get();
	EXPECT_EQ(disk.write(end - 8, 4096).result, 0);
	EXPECT_EQ(model::logged("beyond"), 0);

	disk.resize(0, end + 8); // grown, and no event yet
	EXPECT_EQ(disk.write(end - 7, 4096).result, 0);
	EXPECT_EQ(disk.native_bios(), 2u);
	EXPECT_EQ(model::logged(warn_line("Writes 1048569-1048577 beyond disk size of 1048576 "
					  "blocks")),
		  1);
	EXPECT_EQ(model::logged(warn_line("Error(-22) tracking  device [8:0]. Stopping volume "
					  "tracking")),
		  1);
	model::settle();
	EXPECT_EQ(volume->vi_istracked, 0);
	EXPECT_EQ(model::take_stray_unlocks(), 1); // the offline event's second release
	EXPECT_EQ(ka_queue_make_request(disk.queue()), disk.native_make_request());
}

TEST_F(VolumeTracker, ErrorOfTheLowerDriver)
{
	disk.lower_driver([](ka_bio &) { return -KA_EIO; });
	{
		MutexLock no_offline_yet(volume->vi_mtx);
		auto submitted = disk.write(0, 4096);
		EXPECT_EQ(submitted.result, -5);
		EXPECT_FALSE(submitted.taken);
		EXPECT_EQ(submitted.error, -5);
		EXPECT_THAT(written_blocks(live()), IsEmpty());
	}
	EXPECT_THAT(
		model::log(),
		testing::IsSupersetOf(
			{warn_line("Error(-5) performing IO on device [8:0]."),
			 warn_line("Error(-5) tracking  device [8:0]. Stopping volume tracking")}));
	model::settle();
	EXPECT_EQ(volume->vi_istracked, 0);
	EXPECT_EQ(model::take_stray_unlocks(), 1);
}

TEST_F(VolumeTracker, WriteToAnUnknownDevice)
{
	ka_bio bio{.sector = 0, .bytes = 512, .dev = ka_mkdev(8, 48)};
	EXPECT_EQ(writetracker_mrqfn(disk.queue(), &bio), -6);
	EXPECT_FALSE(bio.ended);
	EXPECT_EQ(disk.native_bios(), 0u);
	EXPECT_THAT(model::log(),
		    ElementsAre(warn_line("Unknown block write to device 8:48"),
				warn_line("Error(-6) tracking  device [8:48]. Stopping volume "
					  "tracking")));
	model::settle();
	EXPECT_EQ(volume->vi_istracked, 1);
}

// The bio is looked at after it was handed on.
TEST_F(VolumeTracker, WhatTheLowerDriverMadeOfTheBioCounts)
{
	const std::vector<uint32_t> segments = {65536, 65536};
	disk.lower_driver([](ka_bio &bio) {
		bio.sector += 256;
		bio.current = bio.segments.size() - 1;
		bio.ended = true;
		return 0;
	});
	ka_bio bio{.sector = 0, .bytes = 131072, .segments = segments};
	EXPECT_EQ(disk.submit(bio).result, 0);
	EXPECT_EQ(written_blocks(live()), blocks(2, 4));
}

TEST_F(VolumeTracker, HookAllocatesNothing)
{
	uint64_t before = model::allocations();
	for (int i = 0; i < 100; i++)
		disk.write(i * block_sectors, 1 << 20);
	EXPECT_EQ(model::allocations(), before);
}

// --- Bitmaps -----------------------------------------------------------------------------------

TEST_F(VolumeTracker, BitmapSizes)
{
	struct {
		ka_sector_t start, end;
		int64_t size;
	} const cases[] = {
		{0, 0, 8},       {0, 1, 8},          {0, 8191, 8},
		{0, 8192, 16},   {0, 16383, 16},     {100, 8291, 8},
		{100, 8292, 16}, {0, 1 << 20, 1032}, {0, 1ul << 31, (1 << 21) + 8},
	};
	ASSERT_EQ(stop(), 0);
	for (auto &c : cases) {
		volume->vi_start.set(c.start);
		volume->vi_end.set(c.end);
		ASSERT_EQ(locked(volume_info_allocate_bitmap), 0);
		EXPECT_EQ(live()->size, c.size) << c.start << "-" << c.end;
		EXPECT_THAT(written_blocks(live()), IsEmpty());
		ka_vfree(live());
		volume->vi_bitmap.set(nullptr);
	}
	// A capacity that no memory holds a bitmap for.
	for (ka_sector_t end : {ka_sector_t{1} << 60, ~ka_sector_t{0}}) {
		volume->vi_start.set(0);
		volume->vi_end.set(end);
		model::clear_log();
		EXPECT_EQ(locked(volume_info_start_tracking), -12);
		EXPECT_THAT(model::log(), ElementsAre(error_line("Unable to allocated the cbt "
								 "bitmap for disk sda")));
		EXPECT_EQ(live(), nullptr);
		EXPECT_EQ(volume->vi_istracked, 0);
	}
}

TEST_F(VolumeTracker, SwitchesAccumulateInTheFrozenBitmap)
{
	EXPECT_EQ(disk.write(0, 512).result, 0);
	EXPECT_EQ(locked(volume_info_switch_bitmap), 0);
	EXPECT_EQ(written_blocks(volume->vi_bitmap_snapshot), blocks(0, 1));
	EXPECT_THAT(written_blocks(live()), IsEmpty());

	EXPECT_EQ(disk.write(2 * block_sectors, 512).result, 0);
	hbitmap *before = live();
	model::fail("ka_vmalloc");
	EXPECT_EQ(locked(volume_info_switch_bitmap), -12);
	EXPECT_EQ(live(), before);
	EXPECT_EQ(locked(volume_info_switch_bitmap), 0);
	EXPECT_EQ(disk.write(8 * block_sectors, 512).result, 0);
	EXPECT_EQ(written_blocks(volume->vi_bitmap_snapshot), blocks(0, 3));
	EXPECT_EQ(written_blocks(live()), blocks(8, 9));

	EXPECT_EQ(stop(), 0);
	EXPECT_EQ(volume->vi_bitmap_snapshot, nullptr);
	model::clear_log();
	EXPECT_EQ(locked(volume_info_switch_bitmap), -22);
	EXPECT_THAT(model::log(), ElementsAre(warn_line("Tracking not enabled on volume sda")));
}

// Of two sizes the newer bitmap stays, with the blocks of the older one.
TEST_F(VolumeTracker, SwitchAfterGrowth)
{
	start({.name = "sdb", .minor = 16, .sectors = 8000});
	EXPECT_EQ(disk.write(0, 512).result, 0);
	EXPECT_EQ(locked(volume_info_switch_bitmap), 0);
	EXPECT_EQ(volume->vi_bitmap_snapshot->size, 8);
	disk.resize(0, 20000);
	volume->vi_end.set(20000);
	EXPECT_EQ(locked(volume_info_switch_bitmap), 0);
	EXPECT_EQ(disk.write(100 * block_sectors, 512).result, 0);
	EXPECT_EQ(locked(volume_info_switch_bitmap), 0);
	EXPECT_EQ(volume->vi_bitmap_snapshot->size, 24);
	EXPECT_THAT(written_blocks(volume->vi_bitmap_snapshot), ElementsAre(0, 1, 100, 101));
}

// --- Start and stop ----------------------------------------------------------------------------

TEST_F(VolumeTracker, StartAndStopFreezeAroundTheExchange)
{
	const std::vector<std::string> steps = {"open 8:16", "fsync 8:16", "freeze 8:16",
						"hook 8:16", "thaw 8:16",  "put 8:16"};
	start({.name = "sdb", .minor = 16, .mounted = true});
	EXPECT_EQ(ka_queue_make_request(disk.queue()), &writetracker_mrqfn);
	EXPECT_EQ(volume->vi_mrqfn_old.get(), disk.native_make_request());
	EXPECT_EQ(volume->vi_mrqfn_new, &writetracker_mrqfn);
	EXPECT_EQ(locked(volume_info_start_tracking), -22);
	EXPECT_THAT(model::take_block_calls(), IsEmpty());

	EXPECT_EQ(stop(), 0);
	EXPECT_EQ(model::take_block_calls(), steps);
	EXPECT_EQ(ka_queue_make_request(disk.queue()), disk.native_make_request());
	EXPECT_EQ(volume->vi_mrqfn_old.get(), nullptr);
	EXPECT_EQ(stop(), -22);

	EXPECT_EQ(locked(volume_info_start_tracking), 0);
	EXPECT_EQ(model::take_block_calls(), steps);

	// Neither flush nor freeze has to succeed.
	EXPECT_EQ(stop(), 0);
	model::fail("ka_fsync_bdev");
	model::fail("ka_freeze_bdev");
	EXPECT_EQ(locked(volume_info_start_tracking), 0);
}

TEST_F(VolumeTracker, StartFailures)
{
	ASSERT_EQ(stop(), 0);
	struct {
		const char *call;
		int result;
		const char *message;
	} const cases[] = {
		{"ka_open_by_devnum", -6, "Unable to get the block device pointer to disk sda"},
		{"ka_vmalloc", -12, "Unable to allocated the cbt bitmap for disk sda"},
	};
	for (auto &c : cases) {
		model::clear_log();
		model::fail(c.call);
		EXPECT_EQ(locked(volume_info_start_tracking), c.result);
		EXPECT_THAT(model::log(), ElementsAre(error_line(c.message)));
		EXPECT_EQ(volume->vi_istracked, 0);
		EXPECT_EQ(live(), nullptr);
		EXPECT_EQ(ka_queue_make_request(disk.queue()), disk.native_make_request());
	}
}

extern "C" int foreign_make_request(request_queue *, ka_bio *bio)
{
	bio->ended = true;
	return 0;
}

// A retry writes what the failed exchange found: whoever came first keeps the queue.
TEST_F(VolumeTracker, LosingTheExchangeLeavesTheQueueToTheOther)
{
	ASSERT_EQ(stop(), 0);
	model::before("ka_queue_cmpxchg_make_request",
		      [&] { ka_queue_set_make_request(disk.queue(), foreign_make_request); });
	EXPECT_EQ(locked(volume_info_start_tracking), 0);
	EXPECT_EQ(ka_queue_make_request(disk.queue()), &foreign_make_request);
	EXPECT_EQ(volume->vi_mrqfn_old.get(), &foreign_make_request);
	EXPECT_EQ(volume->vi_mrqfn_new, &foreign_make_request);
	EXPECT_EQ(volume->vi_istracked, 1);

	// Somebody after us in the queue: tracking cannot end, and both bitmaps stay.
	hbitmap *bitmap = live();
	EXPECT_EQ(stop(), -22);
	EXPECT_EQ(model::logged(warn_line("!!Cannot Untrack: Overstaking of Request Queue Function "
					  "of Disk:sda")),
		  1);
	EXPECT_EQ(volume->vi_istracked, 1);
	EXPECT_EQ(live(), bitmap);

	ka_queue_set_make_request(disk.queue(), writetracker_mrqfn);
	EXPECT_EQ(stop(), 0);
	EXPECT_EQ(ka_queue_make_request(disk.queue()), &foreign_make_request);
}

TEST_F(VolumeTracker, AHookThatStayedInTheQueueIsUsedAgain)
{
	ASSERT_EQ(stop(false), 0);
	EXPECT_EQ(ka_queue_make_request(disk.queue()), &writetracker_mrqfn);
	// The function that it forwarded to is forgotten: it takes no bio any more.
	auto submitted = disk.write(0, 512);
	EXPECT_EQ(submitted.result, 0);
	EXPECT_FALSE(submitted.taken);

	EXPECT_EQ(locked(volume_info_start_tracking), 0);
	EXPECT_EQ(volume->vi_mrqfn_old.get(), nullptr);
	EXPECT_EQ(volume->vi_mrqfn_new, &writetracker_mrqfn);
	EXPECT_EQ(disk.write(0, 512).result, 0);
	EXPECT_EQ(written_blocks(live()), blocks(0, 1));
	EXPECT_EQ(stop(false), 0);
	ka_queue_set_make_request(disk.queue(), disk.native_make_request());
}

TEST_F(VolumeTracker, ManagementWithoutTheMutexIsABug)
{
	for (auto *operation :
	     {volume_info_start_tracking, volume_info_allocate_bitmap, volume_info_switch_bitmap})
		EXPECT_THROW(operation(volume.get()), model::Bug);
	EXPECT_THROW(volume_info_stop_tracking(volume.get(), true), model::Bug);
}

// --- Concurrency -------------------------------------------------------------------------------

TEST_F(VolumeTracker, StopWaitsForHookCallsInProgress)
{
	std::latch inside(1), go(1);
	disk.lower_driver([&](ka_bio &bio) {
		inside.count_down();
		go.wait();
		bio.ended = true;
		return 0;
	});
	std::thread writer([&] { EXPECT_TRUE(disk.write(0, 4096).taken); });
	inside.wait();
	std::atomic<bool> stopped{false};
	std::thread stopper([&] {
		EXPECT_EQ(stop(), 0);
		stopped = true;
	});
	while (ka_queue_make_request(disk.queue()) == writetracker_mrqfn)
		std::this_thread::yield();
	for (int i = 0; i < 100; i++)
		std::this_thread::yield();
	EXPECT_FALSE(stopped);
	go.count_down();
	writer.join();
	stopper.join();
	EXPECT_EQ(live(), nullptr);
}

// What was handed on before a switch may be in the snapshot, even if it is accounted for later.
TEST_F(VolumeTracker, WritesInProgressCountOnBothSidesOfASwitch)
{
	std::latch inside(1), go(1);
	disk.lower_driver([&](ka_bio &bio) {
		bio.ended = true;
		if (bio.sector != 0)
			return 0;
		inside.count_down();
		go.wait();
		return 0;
	});
	std::thread held_up([&] { EXPECT_TRUE(disk.write(0, 512).taken); });
	inside.wait();
	EXPECT_EQ(disk.write(20 * block_sectors, 512).result, 0);
	// Every turn of the wait writes once more; the last lets the task that was held up go on.
	int turns = 0;
	std::function<void()> turn = [&] {
		turns++;
		EXPECT_EQ(disk.write(40 * block_sectors, 512).result, 0);
		if (turns < 10) {
			model::before("ka_schedule", turn);
			return;
		}
		go.count_down();
		held_up.join();
	};
	model::before("ka_schedule", turn);
	EXPECT_EQ(locked(volume_info_switch_bitmap), 0);
	EXPECT_EQ(turns, 10);
	EXPECT_THAT(written_blocks(volume->vi_bitmap_snapshot), ElementsAre(0, 1, 20, 21, 40, 41));
	EXPECT_THAT(written_blocks(live()), ElementsAre(0, 1, 40, 41));
}

// A disk that always has a call in progress is switched all the same.
TEST_F(VolumeTracker, SwitchDoesNotWaitForCallsForEver)
{
	std::latch inside(1), go(1);
	disk.lower_driver([&](ka_bio &bio) {
		inside.count_down();
		go.wait();
		bio.ended = true;
		return 0;
	});
	std::thread stuck([&] { disk.write(0, 512); });
	inside.wait();
	const unsigned long start = ka_jiffies();
	EXPECT_EQ(locked(volume_info_switch_bitmap), 0);
	EXPECT_EQ(ka_jiffies() - start, 500u);
	go.count_down();
	stuck.join();
	EXPECT_EQ(written_blocks(live()), blocks(0, 1));
}

// A hook call that saw a bitmap is done with it before it is merged or freed.
TEST_F(VolumeTracker, SwitchAndStopWaitForReadSections)
{
	for (bool stopping : {false, true}) {
		std::latch inside(1), go(1);
		std::atomic<bool> left{false};
		std::thread reader([&] {
			SchedReadSection section;
			inside.count_down();
			go.wait();
			left = true;
		});
		inside.wait();
		hbitmap *before = live();
		std::thread manager([&] {
			EXPECT_EQ(stopping ? stop() : locked(volume_info_switch_bitmap), 0);
			EXPECT_TRUE(left);
		});
		while (live() == before)
			std::this_thread::yield();
		for (int i = 0; i < 1000; i++)
			std::this_thread::yield();
		go.count_down();
		reader.join();
		manager.join();
	}
}

// Two writers share words; one of them also writes across words that are its own.
class Writers
{
public:
	Writers(const Disk &disk, int rounds) : disk(disk), rounds(rounds)
	{
		for (int i = 0; i < 2; i++)
			threads.emplace_back([this, i] { run(i); });
	}
	void join()
	{
		for (auto &thread : threads)
			thread.join();
	}
	// Every block that a writer wrote, without the extra ones.
	static std::vector<uint64_t> written()
	{
		std::vector<uint64_t> all;
		for (uint64_t block = 0; block < 62; block++)
			all.push_back(block);
		for (uint64_t block = 64 + 32; block < 64 + 160; block++)
			all.push_back(block);
		for (uint64_t block = 256 + 32; block < 256 + 160; block++)
			all.push_back(block);
		return all;
	}
	std::atomic<uint64_t> taken{0}, left{0};

private:
	void run(int which)
	{
		for (int round = 0; round < rounds; round++) {
			for (uint64_t block = which; block < 62; block += 2)
				write(block * block_sectors, 4096);
			write((which ? 256 + 32 : 64 + 32) * block_sectors, 128 * block_bytes);
		}
	}
	void write(ka_sector_t sector, uint64_t bytes)
	{
		auto submitted = disk.write(sector, bytes);
		EXPECT_EQ(submitted.result, 0);
		EXPECT_EQ(submitted.error, 0);
		(submitted.taken ? taken : left)++;
	}

	const Disk &disk;
	int rounds;
	std::vector<std::thread> threads;
};

TEST_F(VolumeTracker, TwoWritersAndSwitches)
{
	Writers writers(disk, 50);
	for (int i = 0; i < 50; i++)
		EXPECT_EQ(volume_manager_switch_bitmap(volume.get()), 0);
	writers.join();
	EXPECT_EQ(writers.left, 0u);
	EXPECT_EQ(writers.taken, disk.native_bios());
	EXPECT_EQ(volume_manager_switch_bitmap(volume.get()), 0);
	EXPECT_THAT(written_blocks(volume->vi_bitmap_snapshot),
		    testing::IsSupersetOf(Writers::written()));
}

TEST_F(VolumeTracker, TwoWritersAndRestarts)
{
	Writers writers(disk, 50);
	for (int i = 0; i < 50; i++) {
		backUp backup{};
		EXPECT_EQ(volume_manager_stop_tracking(volume.get(), &backup), 0);
		EXPECT_EQ(backup.level, 1);
		EXPECT_EQ(volume_manager_start_tracking(volume.get(), &backup), 0);
		EXPECT_EQ(backup.level, 0);
		ExtentArray extents(100);
		EXPECT_GE(volume_manager_get_extents(volume.get(), 0, extents.get()), 0);
	}
	writers.join();
	EXPECT_EQ(writers.taken + writers.left, disk.native_bios());
}

// --- Extents -----------------------------------------------------------------------------------

class Bitmap
{
public:
	explicit Bitmap(uint64_t words) : words_(words + 1, ~uint64_t{0})
	{
		words_[0] = words * 8;
	}
	void write(uint64_t first, uint64_t last)
	{
		for (uint64_t b = first; b <= last; b++)
			words_[1 + b / 64] &= ~(uint64_t{1} << (63 - b % 64));
	}
	const hbitmap *get() const
	{
		return reinterpret_cast<const hbitmap *>(words_.data());
	}
	bool is_written(uint64_t block) const
	{
		return !(words_[1 + block / 64] >> (63 - block % 64) & 1);
	}
	uint64_t size() const
	{
		return (words_.size() - 1) * 64;
	}
	Extents extents(uint64_t offset, size_t capacity) const
	{
		ExtentArray array(capacity);
		int count = volume_info_get_extents(get(), offset, array.get());
		EXPECT_EQ(array.get()->wtes_size, capacity);
		EXPECT_LE(static_cast<size_t>(count), capacity);
		return array.first(count);
	}
	// The same, sector by block: every run that ends before the bitmap does.
	Extents naive_extents(uint64_t offset, size_t capacity) const
	{
		Extents runs;
		bool open = false;
		for (uint64_t b = offset / 128; b < size() && runs.size() < capacity + 1; b++) {
			if (is_written(b) && !open)
				runs.emplace_back(std::max(b * block_sectors, offset), 0);
			open = is_written(b);
			if (open)
				runs.back().second = (b + 1) * block_sectors - runs.back().first;
		}
		if (open && offset / 128 < size() && runs.size() <= capacity)
			runs.pop_back();
		runs.resize(std::min(runs.size(), capacity));
		return runs;
	}

private:
	std::vector<uint64_t> words_; // behind the size, as in memory
};

TEST(ExtentsOfABitmap, Cases)
{
	struct {
		std::vector<std::pair<uint64_t, uint64_t>> written; // blocks, first and last
		uint64_t offset;
		size_t capacity;
		Extents expected;
	} const cases[] = {
		{{}, 0, 9, {}},
		{{{0, 1}}, 0, 9, {{0, 256}}},
		{{{0, 1}}, 0, 0, {}},
		{{{0, 1}}, 5, 9, {{5, 251}}},
		{{{0, 1}}, 128, 9, {{128, 128}}},
		{{{0, 1}}, 255, 9, {{255, 1}}},
		{{{0, 1}}, 256, 9, {}},
		{{{0, 1}, {4, 4}}, 0, 1, {{0, 256}}},
		{{{0, 1}, {4, 4}}, 0, 2, {{0, 256}, {512, 128}}},
		{{{0, 1}, {4, 4}}, 257, 2, {{512, 128}}},
		{{{60, 70}}, 0, 9, {{60 * block_sectors, 11 * block_sectors}}}, // across words
		{{{63, 63}},
		 63 * block_sectors + 1,
		 9,
		 {{63 * block_sectors + 1, 127}}}, // up to a word's end
		{{{10, 200}}, 64 * block_sectors, 9, {{64 * block_sectors, 137 * block_sectors}}},
		{{{64, 127}}, 0, 9, {{8192, 8192}}},
		{{{254, 254}}, 0, 9, {{254 * block_sectors, 128}}},
		{{{254, 255}}, 0, 9, {}}, // a run up to the last bit is not reported
		{{{0, 255}}, 0, 9, {}},
		{{{0, 0}, {250, 255}}, 0, 9, {{0, 128}}},
		{{{255, 255}}, 255 * block_sectors + 7, 9, {}},
		{{{0, 1}}, 256 * block_sectors, 9, {}},
		{{{0, 1}}, ~uint64_t{0}, 9, {}},
	};
	for (auto &c : cases) {
		Bitmap bitmap(4);
		for (auto &[first, last] : c.written)
			bitmap.write(first, last);
		EXPECT_EQ(bitmap.extents(c.offset, c.capacity), c.expected)
			<< testing::PrintToString(c.written) << " from " << c.offset;
		EXPECT_EQ(bitmap.naive_extents(c.offset, c.capacity), c.expected);
	}
}

TEST(ExtentsOfABitmap, AgreeWithANaiveScan)
{
	std::mt19937 random(7);
	for (int round = 0; round < 3000; round++) {
		Bitmap bitmap(random() % 6);
		// From scattered blocks to runs of several words.
		uint64_t longest = 1u << random() % 9;
		for (uint64_t b = random() % longest; b < bitmap.size();) {
			uint64_t last = std::min(b + random() % longest, bitmap.size() - 1);
			bitmap.write(b, last);
			b = last + 1 + random() % longest;
		}
		uint64_t offset = random() % (bitmap.size() * block_sectors + 300);
		if (random() % 2)
			offset -= offset % 128;
		size_t capacity = random() % 4 ? 1000 : random() % 4;
		ASSERT_EQ(bitmap.extents(offset, capacity), bitmap.naive_extents(offset, capacity))
			<< "round " << round << " offset " << offset << " capacity " << capacity;
	}
}

} // namespace
