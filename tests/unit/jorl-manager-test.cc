// SPDX-License-Identifier: GPL-2.0
// The manager of restore disks: up on first use, down with the last reference; a disk's operations.
#include "writetracker/jorl-manager.h"

#include <thread>

#include "restore-fixture.h"

namespace
{

const std::string directory = "/sys/zorvat/restore-volumes";

std::string got(int references)
{
	return "<6>[zorvat][INFO]newref-driver-context.Remaining references=" +
	       std::to_string(references);
}
std::string gave(int references)
{
	return "<6>[zorvat][INFO]delref-jorlmanager-context.Remaining references=" +
	       std::to_string(references);
}

// Nobody holds the manager.
class JorlManager : public Restore
{
protected:
	void SetUp() override
	{
		Restore::SetUp();
		manager.reset();
		model::settle();
		model::clear_log();
	}
	static unsigned int references()
	{
		return ka_kobject_references(&jorlmanager_context.kobj);
	}
	static bool is_up()
	{
		return jorlmanager_context.is_initialized.get() != 0;
	}
};

TEST_F(JorlManager, LivesFromTheFirstReferenceToTheLast)
{
	EXPECT_FALSE(is_up());
	{
		const JorlManagerRef first;
		ASSERT_TRUE(first);
		EXPECT_TRUE(model::sysfs_exists(directory));
		const JorlManagerRef second;
		EXPECT_EQ(init_jorl_manager(), 0); // one more
		EXPECT_EQ(references(), 3u);
		ka_kobject_put(&jorlmanager_context.kobj);
	}
	model::settle();
	EXPECT_FALSE(is_up());
	EXPECT_FALSE(model::sysfs_exists(directory));
	EXPECT_THAT(model::log(), // the last reference's line and the cleanup's come at once
		    testing::UnorderedElementsAre(
			    got(1), info_line("[JRMG] Initialization Complete"), got(2), gave(1),
			    gave(0), info_line("[JRMG] Jorl Manager Unloading"),
			    info_line("[JRMG] Jorl Manager Un-initilization Complete")));
	EXPECT_EQ(cleanup_jorl_manager(), 0); // harmless

	jorlvolume_info *volume = create(area); // in sysfs, a disk keeps the manager
	model::settle();
	EXPECT_EQ(references(), 1u);
	EXPECT_TRUE(model::sysfs_exists(directory + "/zorvat-a"));
	EXPECT_EQ(destroy(volume), 0);
	model::settle();
	EXPECT_FALSE(is_up());
	JorlManagerRef(); // unloading meets it on its way down
}

TEST_F(JorlManager, BetweenTheLastReferenceAndTheCleanup)
{
	model::before(
		"ka_mutex_lock_interruptible",
		[] {
			EXPECT_FALSE(JorlManagerRef()); // not to be revived
		},
		2);
	JorlManagerRef();
	model::settle();
	EXPECT_FALSE(is_up());
	EXPECT_TRUE(JorlManagerRef());
}

TEST_F(JorlManager, InitialisationFailures)
{
	model::fail("ka_mutex_lock_interruptible");
	EXPECT_FALSE(JorlManagerRef());
	EXPECT_THAT(model::log(),
		    ElementsAre(got(1), error_line("[JRMG] Unable to lock jorl mutex error(-4)"),
				"<3>[zorvat][ERROR]Unable to initialize the jorl-manager. "
				"Error(-4)"));
	EXPECT_FALSE(is_up());

	// After any other failure it counts as up, and cannot be used, until it is cleaned up.
	model::fail("ka_kobject_add", 1, -17);
	EXPECT_EQ(init_jorl_manager(), -17);
	EXPECT_EQ(model::log().back(),
		  warn_line("[JRMG] Error adding jorl-manager context to the sysfs.(-17)"));
	EXPECT_TRUE(is_up());
	EXPECT_FALSE(model::sysfs_exists(directory));
	EXPECT_FALSE(JorlManagerRef());
	EXPECT_EQ(ka_ptr_err(create(area)), -22);
	EXPECT_EQ(cleanup_jorl_manager(), 0);

	model::fail("ka_vmalloc");
	EXPECT_EQ(init_jorl_manager(), -12);
	EXPECT_EQ(model::log().back(),
		  error_line("[JRMG] Error initializing jorlvolume_registry. err(-12)"));
	EXPECT_TRUE(is_up());
	EXPECT_TRUE(model::sysfs_exists(directory)); // deliberate
	EXPECT_EQ(ka_ptr_err(create(area)), -22);    // there is no registry
	ka_kobject_put(&jorlmanager_context.kobj);
	model::settle();
	EXPECT_TRUE(JorlManagerRef());
}

TEST_F(JorlManager, CleanupFailures)
{
	jorlvolume_info *volume = create(area);
	ASSERT_FALSE(ka_is_err(volume));
	ASSERT_EQ(jorlmanager_start_disk(volume, server.port()), 0);
	model::fail("ka_mutex_lock_interruptible");
	EXPECT_EQ(cleanup_jorl_manager(), -4);
	EXPECT_TRUE(is_up());

	model::clear_log();
	model::fail("ka_mutex_lock_interruptible", 2); // the disk's, which ends all the same
	EXPECT_EQ(cleanup_jorl_manager(), 0);
	EXPECT_EQ(model::logged(warn_line("[JRMG] Unable to destroy volume zorvat-a. Error -4")),
		  1);
	EXPECT_FALSE(model::sysfs_exists(directory));

	// The work has nobody to tell but the log.
	model::fail("ka_mutex_lock_interruptible", 2);
	JorlManagerRef();
	model::settle();
	EXPECT_EQ(model::logged(error_line("[JRMG] Error uninitializing the the jorl manager. "
					   "error(-4)")),
		  1);
}

TEST_F(JorlManager, UnloadDestroysDisks)
{
	ProcessMapping other(area_bytes);
	jorlvolume_info *first = create(area), *second = create(other);
	ASSERT_FALSE(ka_is_err(first) || ka_is_err(second));
	ASSERT_EQ(jorlmanager_start_disk(second, server.port()), 0);
	unload();
	while (server.messages().back().code != WT_NETLINK_CMD_CLOSE)
		std::this_thread::yield();
}

TEST_F(JorlManager, CreationRules)
{
	wtflr_allocdisk_req req = {512, 1, 0, 4711, nullptr};
	EXPECT_EQ(ka_ptr_err(jorlmanager_create_disk(&req)), -22);
	EXPECT_EQ(model::log().back(), error_line("[JRMG] No service area provided"));
	req.wtfad_servicearea = area.address();
	req.wtfad_isrw = 1;
	EXPECT_EQ(ka_ptr_err(jorlmanager_create_disk(&req)), -22);
	EXPECT_EQ(model::log().back(),
		  error_line("[JRMG] Only RO volumes are supported at the moment"));
	EXPECT_FALSE(is_up());

	const std::map<size_t, size_t> block_sizes = {{0, 512},    {1, 512},     {512, 512},
						      {513, 1024}, {3585, 4096}, {4096, 4096}};
	const JorlManagerRef reference;
	for (auto [asked, rounded] : block_sizes) {
		jorlvolume_info *volume = create(area, asked, 7);
		ASSERT_FALSE(ka_is_err(volume));
		EXPECT_EQ(volume->dvi_block_size, rounded);
		EXPECT_EQ(volume->dvi_sectors, 7u);
		EXPECT_EQ(volume->dvi_pid, 4711);
		EXPECT_EQ(destroy(volume), 0);
	}
	EXPECT_EQ(ka_ptr_err(create(area, 8192)), -22);
	EXPECT_EQ(model::logged(error_line("[JRMG] Unable to allocate jorl disk. error(-22)")), 1);
}

// Each has its own slot in the table, so that nobody's end hides another.
TEST_F(JorlManager, ManyDisksEndInAnyOrder)
{
	std::vector<std::unique_ptr<ProcessMapping>> areas;
	std::vector<jorlvolume_info *> volumes;
	for (int i = 0; i < 100; i++) {
		areas.push_back(std::make_unique<ProcessMapping>(area_bytes));
		volumes.push_back(create(*areas.back()));
		ASSERT_FALSE(ka_is_err(volumes.back())) << i;
	}
	for (jorlvolume_info *volume : volumes) {
		const JorlVolumeRef found(lookup_jorlvolume_info(volume));
		ASSERT_TRUE(found);
		EXPECT_EQ(jorlmanager_destroy_disk(volume), 0);
	}
}

TEST_F(Created, OperationsInTheWrongState)
{
	const std::string port = std::to_string(server.port());
	EXPECT_EQ(stop(), -22);
	EXPECT_EQ(model::log().back(),
		  warn_line("[JRMG] I/O Servicing on disk zorvat-a already stopped"));
	EXPECT_EQ(start(), 0);
	EXPECT_EQ(model::log().back(),
		  info_line("[JRMG] Started IO servicing on Disk zorvat-a. Port(" + port + ")"));
	EXPECT_EQ(start(), -22);
	EXPECT_EQ(model::log().back(), warn_line("[JRMG] I/O Servicing on disk zorvat-a already "
						 "started by PID=4711 PORT=" +
						 port));
	EXPECT_EQ(stop(), 0);
	EXPECT_EQ(model::log().back(),
		  info_line("[JRMG] Stopped IO servicing on Disk zorvat-a. Port(" + port + ")"));
	EXPECT_EQ(start(), 0);
	EXPECT_EQ(destroy(volume), 0); // stops it first
	EXPECT_EQ(model::logged(info_line("[JRVOL] Stopping disk disk zorvat-a")), 2);
	EXPECT_EQ(model::log().back(),
		  info_line("[JRMG] Destorying the jorl-volume structure for Disk zorvat-a"));
}

TEST_F(Created, UserDataAndSignals)
{
	wt_jorl_disk_user_data_t data = nullptr;
	EXPECT_EQ(jorlmanager_set_disk_userdata(volume, this), 0);
	EXPECT_EQ(jorlmanager_get_disk_userdata(volume, &data), 0);
	EXPECT_EQ(data, this);
	const std::function<int()> operations[] = {
		[&] { return start(); },
		[&] { return stop(); },
		[&] { return destroy(volume); },
		[&] { return jorlmanager_set_disk_userdata(volume, nullptr); },
		[&] { return jorlmanager_get_disk_userdata(volume, &data); },
	};
	for (auto &operation : operations) {
		model::clear_log();
		model::fail("ka_mutex_lock_interruptible");
		EXPECT_EQ(operation(), -4);
		EXPECT_EQ(model::log().front(), error_line("[JRMG] Unable to lock volume mutex on "
							   "disk zorvat-a. Error(-4)"));
	}
	EXPECT_EQ(jorlmanager_get_disk_userdata(volume, &data), 0);
	EXPECT_EQ(data, this);
}

TEST_F(Created, StartsStopsAndDestructionsOfManyAtOnce)
{
	std::vector<std::thread> threads;
	for (int i = 0; i < 4; i++) {
		threads.emplace_back([&, i] {
			DiskServer serving;
			for (int round = 0; round < 8; round++) {
				ProcessMapping memory(area_bytes);
				jorlvolume_info *own = create(memory);
				ASSERT_FALSE(ka_is_err(own));
				EXPECT_EQ(jorlmanager_start_disk(own, serving.port()), 0);
				const int result = i % 2 ? start() : stop();
				EXPECT_TRUE(result == 0 || result == -22);
				EXPECT_EQ(destroy(own), 0);
			}
		});
	}
	for (auto &thread : threads)
		thread.join();
}

} // namespace
