// SPDX-License-Identifier: GPL-2.0
// Load, staged start-up with rollback and retry, unload.
#include <thread>

#include "fixture.h"
#include "kernel-abstractions/task.h"

namespace
{

class WriteTracker : public Driver
{
protected:
	void SetUp() override
	{
	} // each test loads by itself
	static void wait_for_line(const std::string &text)
	{
		while (model::logged(text) == 0)
			std::this_thread::yield();
	}
};

TEST_F(WriteTracker, LoadsAndUnloads)
{
	ASSERT_EQ(init_module(), 0);
	model::settle();
	EXPECT_THAT(model::sysfs_list("/sys"), ElementsAre("zorvat"));
	EXPECT_TRUE(model::node_exists("/dev/zorvat-control"));
	EXPECT_EQ(wt_context.is_initialized, 1);

	auto &version = wt_context.driver_version;
	std::string text = version.wtv_str;
	std::string numbers =
		std::to_string(version.wtv_major) + "." + std::to_string(version.wtv_minor) + "." +
		std::to_string(version.wtv_maintenance) + "-" + std::to_string(version.wtv_build);
	EXPECT_THAT(text, testing::MatchesRegex("Version:" + numbers +
						"-Release Build-Date:\".+\" Build-Info:\".+\""));
	EXPECT_EQ(version.wtv_is_debug, 0);
	EXPECT_THAT(model::log(),
		    ElementsAre(info_line("Driver Version " + numbers + " Initializing"),
				info_line("Version String: " + text),
				info_line("Udev Patch Complete"),
				info_line("Initializing the Volume IOCTL Subsystem"),
				info_line("Done Replacing function pointers\n"),
				info_line("Initialization Complete")));
	model::clear_log();
	cleanup_module();
	EXPECT_THAT(model::log(),
		    ElementsAre(info_line("Unloading"), info_line("[JRMG] Jorl Manager Unloading"),
				info_line("[JRMG] Jorl Manager Un-initilization "
					  "Complete"),
				info_line("Cleaning up the Volume IOCTL Subsystem"),
				info_line("Udev Un-Patch Complete"),
				info_line("Un-initilization Complete")));
	EXPECT_THAT(model::sysfs_list("/sys"), IsEmpty());
	EXPECT_EQ(wt_context.is_initialized, 0);
}

TEST_F(WriteTracker, RefusesToLoad)
{
	struct {
		unsigned int verbosity;
		const char *failing;
		int result;
		std::vector<std::string> log;
	} const cases[] = {
		{9, nullptr, -22, {"<3>[zorvat]Invalid Log Verbosity 9"}},
		{2, "ka_init", -2, {}},
		{2,
		 "ka_kobject_add",
		 -12,
		 {warn_line("Error adding writetracker to the sysfs.(-12)"),
		  error_line("Error initializing module state (-12)")}},
	};
	for (auto &c : cases) {
		model::boot();
		wt_context.arg_def_verbosity = c.verbosity;
		if (c.failing)
			model::fail(c.failing);
		EXPECT_EQ(init_module(), c.result);
		EXPECT_EQ(model::log(), c.log);
		EXPECT_THAT(model::leaks(), IsEmpty());
	}
}

TEST_F(WriteTracker, HighestVerbosityLoads)
{
	wt_context.arg_def_verbosity = 8;
	load();
}

TEST_F(WriteTracker, LoadingOverALiveContextIsABug)
{
	wt_context.is_initialized = 1;
	EXPECT_THROW(init_module(), model::Bug);
	kernel_is_dead();
}

// A stage that fails is logged, all stages are undone, and a second later start-up begins again.
TEST_F(WriteTracker, FailedStagesAreUndoneAndRetried)
{
	struct {
		const char *call;
		int nth; // of the calls during start-up
		const char *error;
		const char *cause;
	} const cases[] = {
		{"ka_vmalloc", 1, "Error initializing volume registry (-12)", nullptr},
		{"ka_create_singlethread_workqueue", 1, "Error patching udev (-12)",
		 "Unable to allocated event notifier workqueue"},
		{"ka_path_super_bdev", 1, "Error patching udev (-2)",
		 "Unable to lookup root path(-2)"},
		{"ka_filp_open", 1, "Error Patching the dm-control device(-2)",
		 "Unable to lookup path -2\n"},
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.call);
		model::boot();
		model::fail(c.call, c.nth);
		ASSERT_EQ(init_module(), 0);
		model::settle();
		EXPECT_EQ(model::logged(error_line(c.error)), 1);
		if (c.cause) {
			EXPECT_EQ(model::logged(error_line(c.cause)), 1);
		}
		auto log = model::log();
		EXPECT_EQ(log[log.size() - 2], info_line("Cleaning up the Volume IOCTL Subsystem"));
		EXPECT_EQ(log[log.size() - 1], info_line("Udev Un-Patch Complete"));
		EXPECT_TRUE(model::sysfs_exists("/sys/zorvat"));
		EXPECT_FALSE(model::node_exists("/dev/zorvat-control"));
		EXPECT_THAT(leaks(), testing::Not(testing::Contains(testing::HasSubstr("memory"))));
		EXPECT_EQ(ka_kset_get_uevent_ops(model::devices()), model::native_uevent_ops());

		model::advance(999);
		EXPECT_EQ(model::logged("Initialization Complete"), 0);
		model::advance(1);
		EXPECT_EQ(model::logged("Initialization Complete"), 1);
		EXPECT_TRUE(model::node_exists("/dev/zorvat-control"));
		cleanup_module();
		EXPECT_THAT(leaks(), IsEmpty());
	}
}

// The device-mapper is hooked once per load. A start-up that fails behind it does not come up
// again; each try leaves the control node open once.
TEST_F(WriteTracker, AFailureBehindTheDeviceMapperIsFinal)
{
	for (const char *call : {"ka_misc_register", "ka_genl_register_family_with_ops"}) {
		model::boot();
		model::fail(call);
		ASSERT_EQ(init_module(), 0);
		model::advance(5000);
		EXPECT_EQ(model::logged("Unable to initialize control device"), 1);
		EXPECT_EQ(model::logged(error_line("Error Patching the dm-control device(-16)")),
			  5);
		EXPECT_EQ(model::logged(error_line("Cannot unload module since Misc Device already "
						   "re-patched")),
			  5);
		EXPECT_EQ(model::logged("Initialization Complete"), 0);
		EXPECT_FALSE(model::node_exists("/dev/zorvat-control"));
		cleanup_module();
		EXPECT_EQ(model::forget_open_files(), 6);
		EXPECT_THAT(leaks(), IsEmpty());
	}
}

TEST_F(WriteTracker, RetriesWithoutLimit)
{
	model::fail("ka_filp_open", 1, 0, 300);
	ASSERT_EQ(init_module(), 0);
	model::advance(299'999);
	EXPECT_EQ(model::logged("Error Patching the dm-control device"), 300);
	EXPECT_EQ(model::logged("Initialization Complete"), 0);
	model::advance(1);
	EXPECT_EQ(model::logged("Initialization Complete"), 1);
	cleanup_module();
}

// The run that unload waits for does nothing but say that it is over.
TEST_F(WriteTracker, UnloadWhileStartUpIsFailing)
{
	model::fail("ka_filp_open");
	ASSERT_EQ(init_module(), 0);
	model::settle();
	unsigned long start = ka_jiffies();
	cleanup_module();
	unsigned long took = ka_jiffies() - start;
	EXPECT_GT(took, 3000u);
	EXPECT_LE(took, 3010u);
	EXPECT_EQ(model::logged("Error Patching the dm-control device"), 1);
	EXPECT_EQ(model::logged("Initialization Complete"), 1);
}

TEST_F(WriteTracker, UnloadWaitsForTheLastReferenceAndLingers)
{
	load();
	model::advance(3500); // jiffies wrap during the rest
	ASSERT_TRUE(ka_kobject_get(&wt_context.kobj));
	std::thread unloading(cleanup_module);
	wait_for_line("Udev Un-Patch Complete");
	EXPECT_EQ(wt_context.is_initialized, 1);
	unsigned long start = ka_jiffies();
	ka_kobject_put(&wt_context.kobj);
	unloading.join();
	loaded = false;
	EXPECT_GT(ka_jiffies() - start, 2000u);
}

// What is tracked is let go; the disk goes on working throughout.
TEST_F(WriteTracker, LoadsAndUnloadsUnderWrites)
{
	Disk disk = model::add_disk();
	for (int round = 0; round < 20; round++) {
		load();
		VolumeRef volume(lookup_volume_info(disk.dev()));
		ASSERT_TRUE(volume) << round;
		ASSERT_EQ(volume_manager_start_tracking(volume.get(), nullptr), 0);
		volume.reset(nullptr);
		EXPECT_EQ(disk.write(0, 4096).result, 0);
		unload();
		EXPECT_EQ(ka_queue_make_request(disk.queue()), disk.native_make_request());
		EXPECT_EQ(ka_disk_fops(disk.get()), disk.native_fops());
		EXPECT_EQ(disk.write(0, 4096).result, 0);
		EXPECT_THAT(leaks(), IsEmpty());
		model::reload();
	}
}

} // namespace
