// SPDX-License-Identifier: GPL-2.0
// Discovery: the scan at start-up, uevents, the slots, patching and unpatching.
#include "writetracker/udev-patcher.h"

#include <thread>

#include "fixture.h"

namespace
{

// Patches by itself, without the rest of start-up.
class UdevPatcher : public Model
{
protected:
	void SetUp() override
	{
		ASSERT_EQ(init_module(), 0);
		model::settle();
		model::clear_log();
	}
	void TearDown() override
	{
		if (!dead)
			cleanup_module();
		Model::TearDown();
	}
	// Start-up has patched already; the tests of patching begin without.
	static void unpatch()
	{
		udev_unpatch();
		model::clear_log();
	}
	static void track_majors(const std::vector<unsigned int> &majors)
	{
		std::ranges::copy(majors, wt_context.arg_arr_tracked_major_numbers);
		wt_context.arg_arr_tracked_major_numbers_count = majors.size();
	}
	// The volumes' directories.
	static std::vector<std::string> volumes()
	{
		auto names = model::sysfs_list("/sys/zorvat");
		std::erase_if(names, [](auto &name) { return name.find(':') == name.npos; });
		return names;
	}
};

TEST_F(UdevPatcher, ScanAnnouncesDisksAndPartitions)
{
	unpatch();
	model::add_disk({.partitions = {{64, 100}, {200, 100}}});
	model::add_disk({.name = "sdb", .minor = 16});
	ASSERT_EQ(udev_patch(), 0);
	EXPECT_EQ(model::logged(info_line("Delaying event handling by 1 seconds")), 4);
	EXPECT_EQ(model::log().back(), info_line("Udev Patch Complete"));
	model::advance(999);
	EXPECT_THAT(volumes(), IsEmpty());
	model::advance(1);
	EXPECT_THAT(volumes(), ElementsAre("8:0", "8:1", "8:16", "8:2"));

	// A second patch announces nothing; a refresh announces all again.
	model::clear_log();
	EXPECT_EQ(udev_patch(), 0);
	EXPECT_THAT(model::log(), ElementsAre(info_line("Udev Patch Complete")));
	model::clear_log();
	EXPECT_EQ(udev_refresh_devices(), 0);
	EXPECT_EQ(model::log().front(), info_line("[UDEV] Reiterating list of supported devices"));
	EXPECT_EQ(model::logged("Delaying event handling"), 4);
	EXPECT_EQ(model::log().back(),
		  info_line("[UDEV] Reiterating list of supported devices complete"));
	unpatch();
	EXPECT_EQ(udev_refresh_devices(), 0);
	EXPECT_EQ(model::log().size(), 2u);
}

TEST_F(UdevPatcher, OnlyTrackedMajors)
{
	track_majors({8, 253});
	unpatch();
	for (unsigned int major : {7, 8, 9, 253})
		model::add_disk({.name = "d" + std::to_string(major), .major = major});
	ASSERT_EQ(udev_patch(), 0);
	model::add_disk({.name = "e", .major = 7, .minor = 16});
	model::add_disk({.name = "f", .major = 253, .minor = 16});
	model::advance(1000);
	EXPECT_THAT(volumes(), ElementsAre("253:0", "253:16", "8:0"));
	EXPECT_EQ(model::logged("WARN"), 0);
}

TEST_F(UdevPatcher, AdmitsAllWhenTheContextIsNoMore)
{
	track_majors({8});
	model::fail("ka_kobject_get");
	model::add_disk({.major = 7});
	EXPECT_EQ(model::logged(warn_line("Unable to fetch the driver context")), 1);
	model::advance(1000);
	EXPECT_THAT(volumes(), ElementsAre("7:0"));
}

// --- Events ------------------------------------------------------------------------------------

TEST_F(UdevPatcher, EachActionReachesItsHandlerInItsTime)
{
	Disk disk = model::add_disk();
	model::advance(1000);
	{
		VolumeRef volume(lookup_volume_info(disk.dev()));
		ASSERT_EQ(volume_manager_start_tracking(volume.get(), nullptr), 0);
		ASSERT_EQ(disk.write(0, 512).result, 0);

		for (const char *without_effect : {"move", "online", "bind", "add ", "ad", "ADD"}) {
			disk.raise(without_effect);
			model::settle();
			EXPECT_EQ(volume->vi_istracked, 1) << without_effect;
		}
		disk.resize(0, 4096);
		disk.raise("change");
		model::settle();
		EXPECT_EQ(volume->vi_istracked, 0);
		EXPECT_EQ(volume->vi_end.get(), 4096u);

		ASSERT_EQ(volume_manager_start_tracking(volume.get(), nullptr), 0);
		disk.raise("offline");
		model::settle();
		EXPECT_EQ(volume->vi_istracked, 0);
		EXPECT_EQ(model::take_stray_unlocks(), 1);
	}
	disk.raise("remove");
	model::settle();
	EXPECT_THAT(volumes(), IsEmpty());
	// An event overtakes the "add" that waits for its second.
	disk.raise("add");
	disk.raise("remove");
	model::settle();
	EXPECT_THAT(volumes(), IsEmpty());
	model::advance(1000);
	EXPECT_THAT(volumes(), ElementsAre("8:0"));
}

TEST_F(UdevPatcher, EventsGoOnUnchanged)
{
	auto before = model::uevent_calls();
	model::set_native_uevent_result(-7);
	EXPECT_EQ(model::raise_other({"ACTION=add", "X=1"}), -7);
	EXPECT_EQ(model::raise_other({}), -7);
	Disk disk = model::add_disk();
	EXPECT_EQ(disk.raise("change"), -7);
	EXPECT_EQ(disk.raise("bind"), -7);
	auto after = model::uevent_calls();
	EXPECT_EQ(after.uevent - before.uevent, 5);
	EXPECT_EQ(after.filter - before.filter, 5); // the table was copied whole
	EXPECT_EQ(after.name - before.name, 5);
	EXPECT_EQ(model::logged("Delaying event handling"), 1);
}

TEST_F(UdevPatcher, ASetWithoutOperations)
{
	unpatch();
	model::set_uevent_ops(nullptr);
	ASSERT_EQ(udev_patch(), 0);
	Disk disk = model::add_disk();
	EXPECT_EQ(disk.raise("bind"), 0);
	model::advance(1000);
	EXPECT_THAT(volumes(), ElementsAre("8:0"));
	udev_unpatch();
	EXPECT_EQ(ka_kset_get_uevent_ops(model::devices()), nullptr);
}

TEST_F(UdevPatcher, PatchingAgainstSomebodyElse)
{
	static ka_kset_uevent_ops foreign;
	static int calls;
	calls = 0;
	ka_uevent_ops_copy_with_uevent(&foreign, model::native_uevent_ops(),
				       [](kset *, kobject *, kobj_uevent_env *) {
					       calls++;
					       return 11;
				       });
	unpatch();
	model::before("ka_kset_cmpxchg_uevent_ops", [] { model::set_uevent_ops(&foreign); });
	ASSERT_EQ(udev_patch(), 0);
	EXPECT_EQ(model::raise_other({"ACTION=add"}), 11);
	EXPECT_EQ(calls, 1);
	udev_unpatch();
	EXPECT_EQ(ka_kset_get_uevent_ops(model::devices()), &foreign);
}

TEST_F(UdevPatcher, SlotsRunOut)
{
	Disk disk = model::add_disk();
	for (int i = 1; i < 256; i++)
		EXPECT_EQ(udev_schedule_event(DISK_ADD, disk.dev()), 0);
	EXPECT_EQ(model::logged("WARN"), 0);
	EXPECT_EQ(udev_schedule_event(DISK_ADD, disk.dev()), -11);
	auto log = model::log();
	EXPECT_EQ(log[log.size() - 2],
		  warn_line("Unable to find a free work element to notify event"));
	EXPECT_EQ(log[log.size() - 1],
		  warn_line("Event notification not scheduled,error(-11). Retrying.."));
	// A scan says which device it lost.
	model::clear_log();
	udev_refresh_devices();
	EXPECT_EQ(model::logged(warn_line("Unable to register device sda(8:0),error(-11)")), 1);

	model::advance(1000);
	EXPECT_THAT(volumes(), ElementsAre("8:0"));
	EXPECT_EQ(udev_schedule_event(DISK_ADD, disk.dev()), 0); // all free again
}

TEST_F(UdevPatcher, QueueRefuses)
{
	model::fail("ka_queue_delayed_work");
	EXPECT_EQ(udev_schedule_event(DISK_OFFLINE, sda), -11);
	EXPECT_THAT(model::log(),
		    ElementsAre(warn_line("Unable to add event to event-notifier-workqueue"),
				warn_line("Event notification not scheduled,error(-11). "
					  "Retrying..")));
	EXPECT_EQ(udev_schedule_event(DISK_OFFLINE, sda), 0);
}

// --- Patching ----------------------------------------------------------------------------------

TEST_F(UdevPatcher, LearnsFromTheRootDisk)
{
	unpatch();
	size_t before = model::probes().size();
	Disk root = model::add_disk();
	model::set_root(&root);
	ASSERT_EQ(udev_patch(), 0);
	EXPECT_EQ(model::probes().size(), before);
	model::advance(1000);
	EXPECT_THAT(volumes(), ElementsAre("8:0"));

	// The set may be an ancestor's.
	unpatch();
	Disk orphan = model::add_disk({.name = "sdb", .minor = 16, .in_set = false});
	model::set_root(&orphan);
	EXPECT_EQ(udev_patch(), 0);
	EXPECT_NE(ka_kset_get_uevent_ops(model::devices()), model::native_uevent_ops());
}

TEST_F(UdevPatcher, LearnsFromATemporaryDisk)
{
	ASSERT_EQ(model::probes().size(), 1u); // start-up's
	auto probe = model::probes()[0];
	EXPECT_EQ(probe.requests, 1);
	EXPECT_EQ(probe.chunks, 2);
	EXPECT_EQ(probe.error, -5);
	EXPECT_EQ(probe.geometry.heads + probe.geometry.sectors + probe.geometry.cylinders, 0);
	EXPECT_EQ(probe.geometry.start, 0u);
	EXPECT_THAT(volumes(), IsEmpty());
}

TEST_F(UdevPatcher, PatchFailures)
{
	const std::string no_class = "[UDEV] Unable to find the class and ksets for the block "
				     "devices on this kernel. Error=";
	struct {
		const char *call; // none: the temporary disk enters no set
		int result;
		std::vector<std::string> errors;
	} const cases[] = {
		{"ka_create_singlethread_workqueue",
		 -12,
		 {"Unable to allocated event notifier workqueue"}},
		{"ka_path_super_bdev", -2, {"Unable to lookup root path(-2)"}},
		{"ka_blk_init_queue",
		 -12,
		 {"[UDEV] Unable to create temporary request queue", no_class + "-12"}},
		{"ka_register_blkdev",
		 -16,
		 {"Unable to allocate a major number to the disk zorvat-control",
		  no_class + "-16"}},
		{"ka_alloc_disk",
		 -12,
		 {"[JRREG] Unable to allocate a major number to the disk zorvat-control",
		  no_class + "-12"}},
		{"ka_add_disk", -12, {no_class + "-12"}},
		{nullptr, -22, {"[UDEV] Failed getting the Devices kset", no_class + "-22"}},
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.call ? c.call : "no set");
		unpatch();
		if (c.call)
			model::fail(c.call);
		else
			model::keep_new_disks_out_of_set();
		EXPECT_EQ(udev_patch(), c.result);
		std::vector<std::string> expected;
		for (auto &error : c.errors)
			expected.push_back(error_line(error));
		expected.push_back(info_line("Udev Patch Complete")); // on failure as well
		EXPECT_EQ(model::log(), expected);
		EXPECT_EQ(ka_kset_get_uevent_ops(model::devices()), model::native_uevent_ops());
		EXPECT_EQ(udev_schedule_event(DISK_ADD, sda), -4);
	}
}

TEST_F(UdevPatcher, UnpatchDropsWhatIsPending)
{
	Disk disk = model::add_disk();
	udev_unpatch();
	EXPECT_EQ(model::log().back(), info_line("Udev Un-Patch Complete"));
	EXPECT_EQ(ka_kset_get_uevent_ops(model::devices()), model::native_uevent_ops());
	EXPECT_THAT(volumes(), IsEmpty());
	model::advance(2000);
	EXPECT_THAT(volumes(), IsEmpty());
	EXPECT_EQ(udev_schedule_event(DISK_ADD, disk.dev()), -4);

	model::clear_log();
	udev_unpatch();
	EXPECT_THAT(model::log(), ElementsAre(info_line("Udev Un-Patch Complete")));
}

TEST_F(UdevPatcher, UnpatchUnderAForeignTableStopsTheKernel)
{
	model::set_uevent_ops(model::native_uevent_ops());
	EXPECT_THROW(udev_unpatch(), model::Bug);
	EXPECT_EQ(model::log().back(), "<0>[zorvat-FATAL]:Cant unload this module as some has "
				       "patched device kset's uevent_ops");
	kernel_is_dead();
}

TEST_F(UdevPatcher, IsPatchedAnswersTheOtherWayRound)
{
	EXPECT_EQ(udev_ispatched(), 0);
	unpatch();
	EXPECT_EQ(udev_ispatched(), 0); // the old operations are remembered
	model::boot();
	EXPECT_EQ(udev_ispatched(), 1);
	kernel_is_dead();
}

TEST_F(UdevPatcher, PluggingDuringUnpatchAndPatch)
{
	std::atomic<bool> stop{false};
	std::thread plugging([&] {
		for (unsigned int i = 0; !stop; i++) {
			Disk disk = model::add_disk({.name = "d", .major = 9, .minor = i % 4 * 16});
			disk.raise("change");
			disk.remove();
		}
	});
	for (int i = 0; i < 20; i++) {
		udev_unpatch();
		EXPECT_EQ(udev_patch(), 0);
	}
	stop = true;
	plugging.join();
	model::advance(1000);
	EXPECT_THAT(volumes(), IsEmpty());
}

} // namespace
