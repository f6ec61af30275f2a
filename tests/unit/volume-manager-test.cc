// SPDX-License-Identifier: GPL-2.0
// Device events and the operations on a volume.
#include "writetracker/volume-manager.h"

#include <set>

#include "fixture.h"

namespace
{

const std::string directory = "/sys/zorvat/8:0";
const std::string bitmap_file = directory + "/cbt-bitmap";

// Disks are not discovered: the tests raise the handlers themselves.
class VolumeManager : public Driver
{
protected:
	void SetUp() override
	{
		wt_context.arg_arr_tracked_major_numbers[0] = 4095;
		wt_context.arg_arr_tracked_major_numbers_count = 1;
		load();
	}
};

TEST_F(VolumeManager, AddDescribesDiskAndPartition)
{
	Disk disk = plug({.sectors = 8192, .partitions = {{64, 100}, {200, 1000}}});
	struct {
		int partition;
		const char *name;
		ka_sector_t start, end;
	} const cases[] = {{0, "sda", 0, 8192}, {1, "sda1", 64, 164}, {2, "sda2", 200, 1200}};
	std::set<std::string> uuids;
	for (auto &c : cases) {
		model::clear_log();
		ASSERT_EQ(volume_add(disk.dev(c.partition)), 0);
		std::string number = "8:" + std::to_string(c.partition);
		EXPECT_THAT(model::log(),
			    ElementsAre(info_line("Adding volume " + number),
					info_line(std::string("Added volume ") + c.name)));
		EXPECT_EQ(volume_add(disk.dev(c.partition)), 0); // known
		EXPECT_TRUE(model::sysfs_exists("/sys/zorvat/" + number));

		VolumeRef volume = volume_of(disk, c.partition);
		ASSERT_TRUE(volume);
		EXPECT_STREQ(volume->vi_dname, c.name);
		EXPECT_EQ(volume->vi_devt_parent, disk.dev());
		EXPECT_EQ(volume->vi_partno, c.partition);
		EXPECT_EQ(volume->vi_start.get(), c.start);
		EXPECT_EQ(volume->vi_end.get(), c.end);
		EXPECT_EQ(volume->vi_istracked, 0);
		EXPECT_EQ(volume->vi_uuid[6] >> 4, 4);
		EXPECT_EQ(volume->vi_uuid[8] >> 6, 2);
		uuids.emplace(reinterpret_cast<char *>(volume->vi_uuid), 16);
	}
	EXPECT_EQ(uuids.size(), 3u);
	EXPECT_NE(ka_disk_fops(disk.get()), disk.native_fops());
}

TEST_F(VolumeManager, AddFailures)
{
	struct {
		const char *call;
		int nth;
		int result;
		std::vector<std::string> log;
		bool registered;
	} const cases[] = {
		{"ka_open_by_devnum",
		 1,
		 -6,
		 {error_line("Unable to get the block device pointer to disk 8:0")},
		 false},
		{"ka_vmalloc",
		 1,
		 -12,
		 {error_line("Unable to allocate memory for volume info")},
		 false},
		{"ka_kobject_add",
		 1,
		 -22,
		 {info_line("Adding volume 8:0"),
		  error_line("Unable to add volinfo object to registy")},
		 false},
		{"ka_open_by_devnum",
		 2,
		 -6,
		 {info_line("Adding volume 8:0"), error_line("Unable to patch volume sda"),
		  error_line("Unable to patch the ioctl of the volume")},
		 true},
	};
	Disk disk = plug();
	for (auto &c : cases) {
		SCOPED_TRACE(c.call);
		model::clear_log();
		model::fail(c.call, c.nth);
		EXPECT_EQ(volume_add(disk.dev()), c.result);
		EXPECT_EQ(model::log(), c.log);
		EXPECT_EQ(static_cast<bool>(volume_of(disk)), c.registered);
	}
	EXPECT_EQ(volume_add(ka_mkdev(8, 99)), -6);
}

TEST_F(VolumeManager, DisksThatAreNoVolumes)
{
	Disk removable = plug({.removable = true});
	EXPECT_EQ(volume_add(removable.dev()), -15);
	EXPECT_EQ(model::logged(info_line("Ignoring Device 8:0 as it corrosponds to a removable "
					  "drive")),
		  1);
	EXPECT_FALSE(volume_of(removable));

	Disk bare = plug({.name = "sdb", .minor = 16, .bare = true});
	EXPECT_EQ(volume_add(bare.dev()), 0);
	EXPECT_EQ(volume_change(bare.dev()), 0);
	EXPECT_EQ(model::logged(error_line("!!!! 8:16 Doesnt contain a disk")), 2);
	EXPECT_FALSE(volume_of(bare));
}

TEST_F(VolumeManager, EventsForUnknownVolumes)
{
	Disk disk = plug();
	for (auto *handler : {volume_remove, volume_change, volume_offline})
		EXPECT_EQ(handler(disk.dev()), -22);
	for (auto *handler : {volume_move, volume_online})
		EXPECT_EQ(handler(disk.dev()), 0);
	EXPECT_EQ(volume_change(ka_mkdev(8, 99)), -6);
}

// --- Tracking ----------------------------------------------------------------------------------

class Volume : public VolumeManager
{
protected:
	void SetUp() override
	{
		VolumeManager::SetUp();
		disk = plug({.sectors = 100'000, .partitions = {{64, 1000}}});
		ASSERT_EQ(volume_add(disk.dev()), 0);
		volume.reset(lookup_volume_info(disk.dev()));
		model::clear_log();
	}
	void TearDown() override
	{
		volume.reset(nullptr);
		VolumeManager::TearDown();
	}
	void track()
	{
		ASSERT_EQ(volume_manager_start_tracking(volume.get(), nullptr), 0);
	}
	void write_blocks(uint64_t first, uint64_t count)
	{
		ASSERT_EQ(disk.write(first * block_sectors, count * block_bytes).result, 0);
	}

	Disk disk{nullptr};
	VolumeRef volume{nullptr};
};

TEST_F(Volume, StartReportsTheLevelFoundAndTheLengthInBytes)
{
	backUp backup{.level = 7, .PartitionLength = 7};
	EXPECT_EQ(volume_manager_backup_level(volume.get()), 0);
	EXPECT_FALSE(model::sysfs_exists(bitmap_file));
	EXPECT_EQ(volume_manager_start_tracking(volume.get(), &backup), 0);
	EXPECT_EQ(backup.level, 0);
	EXPECT_EQ(backup.PartitionLength, 100'000u * 512);
	EXPECT_TRUE(model::sysfs_exists(bitmap_file));
	EXPECT_EQ(volume_manager_backup_level(volume.get()), 1);

	write_blocks(3, 1);
	EXPECT_EQ(volume_manager_switch_bitmap(volume.get()), 0);
	backup.PartitionLength = 7;
	EXPECT_EQ(volume_manager_start_tracking(volume.get(), &backup), 0);
	EXPECT_EQ(backup.level, 1);
	EXPECT_EQ(backup.PartitionLength, 7u);
	EXPECT_EQ(volume_manager_getswitchcount(volume.get()), 1);
	EXPECT_EQ(written_blocks(volume->vi_bitmap_snapshot), blocks(3, 5));

	EXPECT_EQ(volume_manager_stop_tracking(volume.get(), &backup), 0);
	EXPECT_EQ(backup.level, 1);
	EXPECT_EQ(backup.PartitionLength, 100'000u * 512);
	EXPECT_FALSE(model::sysfs_exists(bitmap_file));
	EXPECT_EQ(volume_manager_stop_tracking(volume.get(), &backup), 0);
	EXPECT_EQ(backup.level, 0);
}

TEST_F(Volume, PartitionsAreNotTracked)
{
	ASSERT_EQ(volume_add(disk.dev(1)), 0);
	VolumeRef partition = volume_of(disk, 1);
	backUp backup{.level = 1, .PartitionLength = 0};
	EXPECT_EQ(volume_manager_start_tracking(partition.get(), &backup), -22);
	EXPECT_EQ(backup.level, 0);
	EXPECT_EQ(model::logged(warn_line("Tracking of partitions is not supported")), 1);
}

TEST_F(Volume, StartWithoutItsFile)
{
	model::fail("ka_sysfs_create_bin_file");
	track();
	EXPECT_EQ(model::logged(warn_line("Unable to create cbt-sysfs entry disk:sda")), 1);
	EXPECT_EQ(volume->vi_istracked, 1);
	EXPECT_FALSE(model::sysfs_exists(bitmap_file));

	EXPECT_EQ(volume_manager_stop_tracking(volume.get(), nullptr), 0);
	model::fail("ka_vmalloc");
	EXPECT_EQ(volume_manager_start_tracking(volume.get(), nullptr), -12);
	EXPECT_FALSE(model::sysfs_exists(bitmap_file));
}

TEST_F(Volume, SwitchClearAndCount)
{
	EXPECT_EQ(volume_manager_switch_bitmap(volume.get()), 0); // silently nothing
	EXPECT_THAT(model::log(), IsEmpty());
	EXPECT_EQ(volume_manager_getswitchcount(volume.get()), -22);
	EXPECT_EQ(volume_manager_clear_bitmap(volume.get()), -22);
	EXPECT_EQ(volume_manager_get_bitmap_size(volume.get()), 0);

	track();
	EXPECT_EQ(volume_manager_getswitchcount(volume.get()), 0);
	EXPECT_EQ(volume_manager_clear_bitmap(volume.get()), -22);
	write_blocks(0, 1);
	EXPECT_EQ(volume_manager_switch_bitmap(volume.get()), 0);
	EXPECT_EQ(model::logged(info_line("Switched CBT bitmap for disk:sda")), 1);
	EXPECT_EQ(volume_manager_switch_bitmap(volume.get()), 0);
	EXPECT_EQ(volume_manager_getswitchcount(volume.get()), 2);
	model::fail("ka_vmalloc");
	EXPECT_EQ(volume_manager_switch_bitmap(volume.get()), -12);
	EXPECT_EQ(volume_manager_getswitchcount(volume.get()), 2);

	write_blocks(9, 1);
	EXPECT_EQ(volume_manager_clear_bitmap(volume.get()), 0);
	EXPECT_EQ(volume_manager_clear_bitmap(volume.get()), -22);
	EXPECT_EQ(written_blocks(volume->vi_bitmap.get()), blocks(9, 11));

	EXPECT_EQ(volume_manager_stop_tracking(volume.get(), nullptr), 0);
	EXPECT_EQ(volume->vi_switchcount.get(), 0u);
	track();
	EXPECT_EQ(volume_manager_getswitchcount(volume.get()), 0);
}

TEST_F(Volume, ReadoutsPreferTheFrozenBitmap)
{
	ExtentArray extents(4);
	char bytes[8];
	EXPECT_EQ(volume_manager_get_extents(volume.get(), 0, extents.get()), -22);
	EXPECT_EQ(volume_manager_get_bitmap(volume.get(), bytes, 0, 8), -22);
	EXPECT_EQ(model::logged(error_line("Tracking not enabled on disk sda")), 2);

	track();
	write_blocks(0, 1);
	ASSERT_EQ(volume_manager_get_extents(volume.get(), 0, extents.get()), 1);
	EXPECT_EQ(extents.first(1), (Extents{{0, 3 * block_sectors}}));
	ASSERT_EQ(volume_manager_switch_bitmap(volume.get()), 0);
	write_blocks(8, 1);
	ASSERT_EQ(volume_manager_get_extents(volume.get(), 0, extents.get()), 1);
	EXPECT_EQ(extents.first(1), (Extents{{0, 3 * block_sectors}}));
	ASSERT_EQ(volume_manager_clear_bitmap(volume.get()), 0);
	ASSERT_EQ(volume_manager_get_extents(volume.get(), 0, extents.get()), 1);
	EXPECT_EQ(extents.first(1), (Extents{{8 * block_sectors, 3 * block_sectors}}));
}

TEST_F(Volume, BitmapBytes)
{
	track();
	const int64_t size = ((100'000 >> 10) & ~7) + 8;
	EXPECT_EQ(volume_manager_get_bitmap_size(volume.get()), size);
	write_blocks(0, 1);  // 0 to 2
	write_blocks(60, 7); // 60 to 68
	const unsigned char head[] = {0x1f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xf0, 0x07, 0xff};
	struct {
		int64_t offset;
		size_t count;
		int64_t result;
	} const cases[] = {
		{0, 8, 8},
		{0, 4096, size},
		{16, 8, 8}, // from the first word all the same
		{16, 4096, size - 16},
		{size, 8, 0},
		{size + 8, 8, 0},
		{8, 0, 0},
	};
	for (auto &c : cases) {
		std::vector<char> buffer(4096, '\x55');
		EXPECT_EQ(volume_manager_get_bitmap(volume.get(), buffer.data(), c.offset, c.count),
			  c.result);
		size_t compared = std::min<size_t>(c.result, sizeof(head));
		EXPECT_EQ(memcmp(buffer.data(), head, compared), 0) << c.offset << "+" << c.count;
		EXPECT_EQ(buffer[c.result], '\x55');
	}
	std::vector<char> page(4096);
	EXPECT_EQ(model::sysfs_read(bitmap_file, page), size);
	EXPECT_EQ(memcmp(page.data(), head, sizeof(head)), 0);
	EXPECT_EQ(model::sysfs_read(bitmap_file, page, size), 0);
}

TEST_F(Volume, SaveTimeAndUuid)
{
	WI_DATA data{.bRequest = 5, .savetime = 1234567890123};
	EXPECT_EQ(volume_manager_set_data(volume.get(), &data), 0);
	data = {.bRequest = 9, .savetime = 0};
	EXPECT_EQ(volume_manager_get_data(volume.get(), &data), 0);
	EXPECT_EQ(data.savetime, 1234567890123u);
	EXPECT_EQ(data.bRequest, 9);
	unsigned char uuid[16];
	EXPECT_EQ(volume_manager_volume_uuid(volume.get(), uuid), 0);
	EXPECT_EQ(memcmp(uuid, volume->vi_uuid, 16), 0);
}

TEST_F(Volume, InterruptedOperations)
{
	track();
	ASSERT_EQ(volume_manager_switch_bitmap(volume.get()), 0);
	struct {
		const char *name;
		int64_t (*operation)(volume_info *);
		int64_t result;
	} const cases[] = {
		{"start",
		 [](volume_info *v) -> int64_t {
			 return volume_manager_start_tracking(v, nullptr);
		 },
		 -4},
		{"stop",
		 [](volume_info *v) -> int64_t { return volume_manager_stop_tracking(v, nullptr); },
		 -4},
		{"level", [](volume_info *v) -> int64_t { return volume_manager_backup_level(v); },
		 -4},
		{"uuid",
		 [](volume_info *v) -> int64_t {
			 unsigned char uuid[16];
			 return volume_manager_volume_uuid(v, uuid);
		 },
		 -4},
		{"get data",
		 [](volume_info *v) -> int64_t {
			 WI_DATA data;
			 return volume_manager_get_data(v, &data);
		 },
		 -4},
		// Nothing is stored, and nothing said.
		{"set data",
		 [](volume_info *v) -> int64_t {
			 WI_DATA data{.bRequest = 0, .savetime = 99};
			 return volume_manager_set_data(v, &data);
		 },
		 0},
		{"size", volume_manager_get_bitmap_size, -4},
		{"bitmap",
		 [](volume_info *v) -> int64_t {
			 char bytes[8];
			 return volume_manager_get_bitmap(v, bytes, 0, 8);
		 },
		 -4},
		{"extents",
		 [](volume_info *v) -> int64_t {
			 ExtentArray extents(1);
			 return volume_manager_get_extents(v, 0, extents.get());
		 },
		 -4},
		{"clear", [](volume_info *v) -> int64_t { return volume_manager_clear_bitmap(v); },
		 -4},
		{"switch",
		 [](volume_info *v) -> int64_t { return volume_manager_switch_bitmap(v); }, -4},
		{"count",
		 [](volume_info *v) -> int64_t { return volume_manager_getswitchcount(v); }, -4},
	};
	for (auto &c : cases) {
		model::fail("ka_mutex_lock_interruptible");
		EXPECT_EQ(c.operation(volume.get()), c.result) << c.name;
	}
	EXPECT_EQ(model::logged(error_line("Unable to take the volume mutex for clearing "
					   "snap-cbt.Error:-4")),
		  1);
	EXPECT_EQ(volume->vi_istracked, 1);
	EXPECT_NE(volume->vi_bitmap_snapshot, nullptr);
	EXPECT_EQ(volume_manager_getswitchcount(volume.get()), 1);
	EXPECT_EQ(volume->vi_savetime, 0u);
}

// --- Change, offline, remove, unload -----------------------------------------------------------

TEST_F(Volume, ChangeOfTheExtentEndsTracking)
{
	disk.resize(0, 50'000);
	EXPECT_EQ(volume_change(disk.dev()), 0);
	EXPECT_EQ(volume->vi_end.get(), 50'000u);
	track();
	EXPECT_EQ(volume_change(disk.dev()), 0);
	EXPECT_EQ(volume->vi_istracked, 1);
	EXPECT_TRUE(model::sysfs_exists(bitmap_file));

	disk.resize(0, 60'000);
	EXPECT_EQ(volume_change(disk.dev()), 0);
	EXPECT_EQ(model::logged(info_line("Tracking for volume sda (8:0) being stopped due to "
					  "volume resize")),
		  1);
	EXPECT_EQ(volume->vi_istracked, 0);
	EXPECT_EQ(volume->vi_end.get(), 60'000u);
	EXPECT_FALSE(model::sysfs_exists(bitmap_file));
	EXPECT_EQ(ka_queue_make_request(disk.queue()), disk.native_make_request());

	// The new extent counts even if tracking cannot be ended.
	track();
	disk.resize(0, 70'000);
	model::fail("ka_open_by_devnum", 2);
	EXPECT_EQ(volume_change(disk.dev()), -6);
	EXPECT_EQ(model::logged(error_line("Unable to stop tracking for volume sda due to resize. "
					   "Err=-6")),
		  1);
	EXPECT_EQ(volume->vi_istracked, 1);
	EXPECT_EQ(volume->vi_end.get(), 70'000u);
}

// Writes are checked against the volume's present end, which its bitmap may be too small for; and
// bitmaps of any two sizes are merged.
TEST_F(Volume, ResizeThatCouldNotEndTracking)
{
	track();
	ASSERT_EQ(volume_manager_switch_bitmap(volume.get()), 0);
	disk.resize(0, 1 << 24);
	model::fail("ka_open_by_devnum", 2);
	EXPECT_EQ(volume_change(disk.dev()), -6);
	EXPECT_EQ(disk.write((1 << 24) - 2048, 1 << 20).result, 0);
	EXPECT_THAT(written_blocks(volume->vi_bitmap.get()), IsEmpty());
	const uint64_t spare = volume->vi_bitmap.get()->size * 8;
	write_blocks(spare - 2, 1000);
	EXPECT_EQ(written_blocks(volume->vi_bitmap.get()), blocks(spare - 2, spare - 1));

	disk.resize(0, 8192);
	model::fail("ka_open_by_devnum", 2);
	EXPECT_EQ(volume_change(disk.dev()), -6);
	write_blocks(3, 1);
	ASSERT_EQ(volume_manager_switch_bitmap(volume.get()), 0);
	ASSERT_EQ(volume_manager_switch_bitmap(volume.get()), 0);
	EXPECT_EQ(written_blocks(volume->vi_bitmap_snapshot), blocks(3, 5));
}

// Major 199 grows without telling: start and level look for themselves.
TEST_F(VolumeManager, SilentlyResizedDisks)
{
	Disk disk = plug({.name = "vx", .major = 199, .sectors = 10'000});
	ASSERT_EQ(volume_add(disk.dev()), 0);
	VolumeRef volume = volume_of(disk);
	disk.resize(0, 20'000);
	backUp backup{};
	EXPECT_EQ(volume_manager_start_tracking(volume.get(), &backup), 0);
	EXPECT_EQ(backup.PartitionLength, 20'000u * 512);
	EXPECT_EQ(volume_manager_backup_level(volume.get()), 1);
	disk.resize(0, 30'000);
	EXPECT_EQ(volume_manager_backup_level(volume.get()), 0);
}

TEST_F(Volume, OfflineEndsTrackingAndReleasesOnceMore)
{
	track();
	EXPECT_EQ(volume_offline(disk.dev()), 0);
	EXPECT_EQ(volume->vi_istracked, 0);
	EXPECT_FALSE(model::sysfs_exists(bitmap_file));
	EXPECT_EQ(volume_offline(disk.dev()), 0);
	EXPECT_EQ(model::take_stray_unlocks(), 2);
	track(); // the mutex is as good as ever
}

TEST_F(Volume, RemoveLeavesTheQueueAlone)
{
	track();
	write_blocks(0, 1);
	EXPECT_EQ(volume_remove(disk.dev()), 0);
	EXPECT_THAT(model::log(), ElementsAre(info_line("Tracking for volume sda being stopped"),
					      info_line("removed volume 8:0")));
	EXPECT_FALSE(volume_of(disk));
	EXPECT_FALSE(model::sysfs_exists(directory));
	EXPECT_EQ(ka_queue_make_request(disk.queue()), &writetracker_mrqfn);
	EXPECT_EQ(ka_disk_fops(disk.get()), disk.native_fops());
	ka_queue_set_make_request(disk.queue(), disk.native_make_request());
}

TEST_F(Volume, RemoveOfAnUnpluggedDisk)
{
	track();
	disk.remove();
	EXPECT_EQ(volume_remove(disk.dev()), 0);
	EXPECT_FALSE(volume_of(disk));
	EXPECT_FALSE(model::sysfs_exists(directory));
	model::expect_leaked_object("8:0");
}

// Who looked the volume up before it was removed may get at it after.
TEST_F(Volume, CommandsOvertakenByTheRemoval)
{
	backUp backup{.level = 7, .PartitionLength = 0};
	model::before("ka_mutex_lock_interruptible",
		      [&] { EXPECT_EQ(volume_remove(disk.dev()), 0); });
	EXPECT_EQ(volume_manager_start_tracking(volume.get(), &backup), -22);
	EXPECT_EQ(backup.level, 0);
	EXPECT_EQ(volume->vi_bitmap.get(), nullptr);
	EXPECT_EQ(ka_queue_make_request(disk.queue()), disk.native_make_request());
	EXPECT_EQ(volume_manager_stop_tracking(volume.get(), &backup), 0);

	// The device is another volume by now, which is tracked as ever.
	ASSERT_EQ(volume_add(disk.dev()), 0);
	EXPECT_EQ(volume_manager_start_tracking(volume.get(), nullptr), -22);
	VolumeRef again = volume_of(disk);
	EXPECT_EQ(volume_manager_start_tracking(again.get(), nullptr), 0);
	EXPECT_TRUE(model::sysfs_exists(bitmap_file));
	EXPECT_EQ(volume_manager_stop_tracking(volume.get(), nullptr), 0);
	EXPECT_TRUE(model::sysfs_exists(bitmap_file));
}

TEST_F(Volume, RemoveFailures)
{
	struct {
		const char *call;
		long error;
		const char *cause;
	} const cases[] = {
		{"ka_open_by_devnum", -KA_EIO, "Unable to unpatch volume sda Err:-5"},
	};
	for (auto &c : cases) {
		model::fail(c.call, 1, c.error);
		EXPECT_EQ(volume_remove(disk.dev()), c.error);
		EXPECT_THAT(model::log(),
			    ElementsAre(error_line(c.cause),
					error_line("Unable to patch the unpatch ioctl of the "
						   "volume")));
		EXPECT_TRUE(volume_of(disk));
	}
}

// A volume whose table or queue somebody took over since stays as it is, and unloading goes on.
TEST_F(Volume, UnloadWithAHookOnTopOfOurs)
{
	track();
	volume.reset(nullptr);
	auto ours = ka_queue_make_request(disk.queue());
	ka_queue_set_make_request(disk.queue(), disk.native_make_request());
	model::before("ka_kobject_del", [] { EXPECT_FALSE(model::sysfs_exists(bitmap_file)); });
	unload();
	EXPECT_EQ(model::logged(warn_line("!!Cannot Untrack: Overstaking of Request Queue Function "
					  "of Disk:sda")),
		  1);
	EXPECT_EQ(model::logged(error_line("Unable to stop the volume tracking on the device.")),
		  1);
	EXPECT_EQ(ours, &writetracker_mrqfn);
	// Its live bitmap is lost with it.
	EXPECT_EQ(leaks().size(), 1u);
	kernel_is_dead();
}

} // namespace
