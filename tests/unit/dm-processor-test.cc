// SPDX-License-Identifier: GPL-2.0
// What device-mapper requests teach the driver, and which of them switches a bitmap. Seen from
// outside: by the switches, the hook, the log and the number of records.
#include "writetracker/dm-processor.h"

#include "dm-fixture.h"
#include "kernel-abstractions/task.h"

namespace
{

const std::string no_volume = "Unable to fetch the volume info for Unknown block write to device ";
const std::string no_memory = warn_line("Unable to allocate memory hold volume data");

using Targets = std::vector<DmTarget>;

// Of a request: the processor's error, and what the process gets.
using Outcome = std::pair<int, long>;
const Outcome success = {0, 0};

// 253:1 is the hidden device below the volume, 253:3 its snapshot.
class DmProcessor : public TrackedLogicalVolume
{
protected:
	void SetUp() override
	{
		TrackedLogicalVolume::SetUp();
		model::clear_log();
	}
	Outcome run(unsigned int command, DmBytes in, DmBytes out, long ret = 0)
	{
		const int err =
			dmp_ioctl_postcall(&handle, &ret, DM_IOCTL_BASE + command,
					   {header(in), in.size()}, {header(out), out.size()});
		return {err, ret};
	}
	Outcome load(ka_dev_t dev, const Targets &targets, unsigned int command = DM_TABLE_LOAD)
	{
		return run(command, DmRequest{.dev = dev, .targets = targets}.bytes(),
			   DmRequest{.dev = dev}.bytes());
	}
	Outcome status(ka_dev_t dev, const Targets &targets)
	{
		return run(DM_TABLE_STATUS, status_request,
			   DmRequest{.dev = dev, .targets = targets}.bytes(true));
	}
	Outcome resume(ka_dev_t dev, const std::string &name, uint32_t flags = 0)
	{
		return run(DM_DEV_SUSPEND, DmRequest{.dev = dev, .flags = flags}.bytes(),
			   DmRequest{.dev = dev, .name = name}.bytes());
	}
	Outcome suspend(ka_dev_t dev, const std::string &name)
	{
		return resume(dev, name, DM_SUSPEND_FLAG);
	}
	Outcome load_origin()
	{
		return load(dm(0), {{"snapshot-origin", "253:1"}});
	}
	Outcome load_snapshot()
	{
		return load(dm(3), {snapshot});
	}
	// Resumes the snapshot; whether that switched.
	bool resume_switches(const std::string &name = "vg-ZKR_snapshot1")
	{
		const int before = switches();
		EXPECT_EQ(resume(dm(3), name), success);
		return switches() == before + 1;
	}
	void lose_hook()
	{
		ka_queue_set_make_request(disk.queue(), disk.native_make_request());
	}
	bool is_hooked()
	{
		return ka_queue_make_request(disk.queue()) == volume->vi_mrqfn_new;
	}

	const DmTarget snapshot = {"snapshot", "253:1 253:2 P 8"};
	const DmTarget linear = {"linear", "254:0 2048"};
	const DmTarget striped = {"striped", "2 128 254:0 0 254:16 0"};
	const DmBytes status_request = DmRequest{.flags = DM_STATUS_TABLE_FLAG}.bytes();
	dmp_handle handle = {nullptr, 4711, false};
};

TEST_F(DmProcessor, SessionsAndTheirVersions)
{
	constexpr unsigned int examined = 0x1643; // by number
	for (unsigned int nr = 0; nr < 20; nr++)
		EXPECT_EQ(dmp_ioctl_precall(&handle, DM_IOCTL_BASE + nr),
			  examined >> nr & 1 ? 0 : -22);
	EXPECT_EQ(dmp_ioctl_precall(&handle, 9), -22);

	EXPECT_EQ(dmp_session_start(&handle), 0);
	EXPECT_EQ(handle.dmp_pid, ka_current_pid());
	for (auto [major, minor, supported] : {std::tuple(4u, 0u, true),
					       {4, 30, false},
					       {5, 0, false},
					       {3, 29, false},
					       {4, 29, true}}) {
		handle.dmp_is_version_supported = !supported;
		DmBytes out = DmRequest{}.bytes();
		std::ranges::copy(std::to_array({major, minor, 9u}), header(out)->version);
		EXPECT_EQ(run(DM_VERSION, out, out), success);
		EXPECT_EQ(dmp_ioctl_precall(&handle, DM_IOCTL_BASE), supported ? -22 : 0);
	}
	const std::string unsupported = "Process 4242 uses un-supported DM-Interface version:";
	EXPECT_THAT(model::log(),
		    ElementsAre(warn_line(unsupported + "4.30.9"), warn_line(unsupported + "5.0.9"),
				warn_line(unsupported + "3.29.9")));
	dmp_session_end(&handle);
	EXPECT_EQ(handle.dmp_pid, 0);
	EXPECT_FALSE(handle.dmp_is_version_supported);
}

TEST_F(DmProcessor, WhatIsExaminedHasARecord)
{
	const DmBytes in = DmRequest{}.bytes(), out = DmRequest{.dev = dm(3)}.bytes();
	EXPECT_EQ(run(DM_TABLE_LOAD, in, out, -6), Outcome(0, -6)); // refused by the kernel
	for (int error : {-KA_EINTR, -KA_EAGAIN}) {
		model::fail("ka_mutex_lock_interruptible", 1, error);
		EXPECT_EQ(load_snapshot(), Outcome(error, 0));
	}
	EXPECT_THAT(model::log(),
		    ElementsAre(warn_line("Error Getting the lock for LVM vol data -11")));
	model::clear_log();
	for (unsigned int command : {0, 1, 6, 9, 10, 12}) {
		model::fail("ka_vmalloc");
		EXPECT_EQ(run(command, in, out), Outcome(-12, 0));
	}
	EXPECT_THAT(model::log(), testing::AllOf(testing::SizeIs(6), testing::Each(no_memory)));
	EXPECT_EQ(records(), 0);

	for (unsigned int command : {2u, 13u, ~0u}) // no commands to learn from
		EXPECT_EQ(run(command, in, out), Outcome(-22, 0));
	for (unsigned int minor : {0u, 1u, 255u, 256u, 0xfffffu})
		EXPECT_EQ(load(dm(minor), {linear}), success);
	EXPECT_EQ(records(), 6);
	EXPECT_EQ(run(DM_DEV_REMOVE, in, DmRequest{.dev = dm(255)}.bytes()), success);
	EXPECT_EQ(records(), 5);
	EXPECT_EQ(run(DM_REMOVE_ALL, in, DmRequest{}.bytes()), success);
	EXPECT_EQ(records(), 0);
	load_origin();
	dmp_uninit();
	EXPECT_EQ(records(), 0);
}

// --- The switch --------------------------------------------------------------------------------

TEST_F(DmProcessor, ResumeSwitchesOncePerTableLoad)
{
	load_origin();
	EXPECT_EQ(load_snapshot(), success);
	EXPECT_EQ(suspend(dm(3), "vg-ZKR_snapshot1"), success);
	EXPECT_EQ(switches(), 0);
	EXPECT_TRUE(resume_switches());
	EXPECT_EQ(model::log().front(),
		  info_line("ZKR Snapshot vg-ZKR_snapshot1 being created for volume dm-0"));
	EXPECT_FALSE(resume_switches());
	load_snapshot();
	EXPECT_TRUE(resume_switches());

	// Other tables disarm, even if an answer brings the snapshot's table back.
	for (const Targets &other :
	     {Targets{}, Targets{linear}, Targets{{"snapshot-merge", "253:1 P 8"}},
	      Targets{{"snapshot-origin", "253:9"}}, Targets{{"snapshot-originx", "253:1"}},
	      Targets{{"snapshot", "/dev/unknown 253:2 P 8"}}}) {
		load_snapshot();
		load(dm(3), other, other.empty() ? DM_TABLE_CLEAR : DM_TABLE_LOAD);
		EXPECT_EQ(status(dm(3), {snapshot}), success);
		EXPECT_FALSE(resume_switches());
	}
}

TEST_F(DmProcessor, StatusTeachesTheTableButDoesNotArm)
{
	EXPECT_EQ(status(dm(0), {{"snapshot-origin", "253:1"}}), success);
	EXPECT_EQ(status(dm(3), {snapshot}), success);
	EXPECT_FALSE(resume_switches());
	load_snapshot();
	EXPECT_EQ(run(DM_TABLE_STATUS, DmRequest{}.bytes(), // of the state, not of the table
		      DmRequest{.dev = dm(3), .targets = {linear}}.bytes(true)),
		  success);
	EXPECT_EQ(status(dm(3), {snapshot}), success);
	EXPECT_TRUE(resume_switches());
	load_snapshot();
	EXPECT_EQ(status(dm(3), {linear}), success);
	EXPECT_FALSE(resume_switches());
}

TEST_F(DmProcessor, OnlyVolumesNamedForBackup)
{
	const std::string g114(114, 'g'), x112(112, 'x'), dashes(128, '-'); // 127 is the limit
	load_origin();
	const auto expect = [&](bool switches, const std::vector<std::string> &names) {
		for (auto &name : names) {
			load_snapshot();
			EXPECT_EQ(resume_switches(name), switches) << name;
		}
	};
	expect(true, {"vg-ZKR_snapshot", "vg-ZKR_snapshot1-cow", "vg0-ZKR_snapshot--1-cow",
		      "v--g-ZKR_snapshot1", "v----g--x-ZKR_snapshot1", "vg---ZKR_snapshot1",
		      "-ZKR_snapshot1", "vg-ZKR_snapshot" + x112, "vg-ZKR_snapshotx" + x112,
		      g114 + "-ZKR_snapshot"});
	expect(false,
	       {"", "vg", "vg-", "vg--", "ZKR_snapshot1", "vg--ZKR_snapshot1", "vg-x-ZKR_snapshot1",
		"vg--x-y-ZKR_snapshot1", "vg-ZKR_snapsho", "vg-ZKR_snapsho-t1",
		"vg-ZKR_snapsho--t1", "vg-zkr_snapshot1", "vg-xZKR_snapshot1", "vg-other_snap",
		dashes, dashes.substr(1), g114 + "g-ZKR_snapshot"});
}

TEST_F(DmProcessor, TheOriginByNumberOrByPath)
{
	model::add_disk({.name = "dm-1", .major = 253, .minor = 1});
	const struct {
		const char *type, *params;
		bool known;
	} cases[] = {
		{"snapshot", "253:1 253:2 P 8", true},
		{"snapshot", " \t253:1\t253:2", true},
		{"snapshot", "/dev/dm-1 /dev/dm-2 P 8", true},
		{"snapshot", " \t /dev/dm-1\n/dev/dm-2 P 8", true},
		{"snapshot", "/dev/dm-9 253:2 P 8", false},
		{"snapshot", "253: x", false},
		{"snapshot", "", false},
		{"snapshot-origin", "253:1", true},
		{"snapshot-origin", "/dev/dm-1", true},
		{"snapshot-origin", "/dev/dm-1 ", false}, // the whole string
		{"snapshot-origin", " /dev/dm-1", false},
	};
	for (auto &[type, params, known] : cases) {
		SCOPED_TRACE(std::string(type) + ": " + params);
		dmp_uninit();
		model::clear_log();
		load_origin();
		load_snapshot();
		const bool is_origin = strcmp(type, "snapshot") != 0;
		EXPECT_EQ(load(is_origin ? dm(7) : dm(3), {{type, params}}),
			  Outcome(known ? 0 : -15, 0));
		EXPECT_EQ(model::logged("Unable to retrive devt of snap-origin target\n"), !known);
		const int before = switches();
		resume(dm(3), "vg-ZKR_snapshot1");
		EXPECT_EQ(switches() - before, known != is_origin); // 253:7 is no volume
	}
}

TEST_F(DmProcessor, TheHiddenDeviceLosesItsFlagsNotItsTrigger)
{
	load(dm(1), {{"snapshot", "253:9"}});
	load_origin();
	load(dm(8), {{"snapshot-origin", "253:9"}});
	EXPECT_EQ(resume(dm(1), "vg-ZKR_snapshot1"), success); // no snapshot any more
	status(dm(1), {{"snapshot", "253:9"}});
	EXPECT_EQ(resume(dm(1), "vg-ZKR_snapshot1"), Outcome(-22, -22)); // armed
	EXPECT_THAT(model::log(), ElementsAre(warn_line(no_volume + "253:8")));
}

TEST_F(DmProcessor, SwitchFailures)
{
	load_snapshot();
	model::fail("ka_vmalloc");
	EXPECT_EQ(resume(dm(3), "vg-ZKR_snapshot1"), Outcome(-12, -12));
	load_snapshot();
	EXPECT_EQ(resume(dm(3), "vg-ZKR_snapshot1"), Outcome(-22, -22)); // no origin seen
	EXPECT_THAT(model::log(),
		    ElementsAre(warn_line("Unable to fetch the lvm_vol_info for 253:1"),
				warn_line(no_volume + "0:0")));
	load_origin();
	VolumeRef origin(lookup_volume_info(dm(0)));
	for (bool is_busy : {false, true}) {
		load_snapshot();
		if (is_busy)
			ka_mutex_lock(&origin->vi_mtx);
		else
			model::fail("ka_vmalloc");
		EXPECT_EQ(resume(dm(3), "vg-ZKR_snapshot1"), Outcome(-22, -22));
		EXPECT_EQ(model::log().back(),
			  warn_line("Unable to switch bitmap for volume dm-0"));
		if (is_busy)
			ka_mutex_unlock(&origin->vi_mtx);
		EXPECT_FALSE(resume_switches()); // disarmed all the same
	}
}

// --- Tables ------------------------------------------------------------------------------------

TEST_F(DmProcessor, AllTargetsAreWalked)
{
	load(dm(0), {linear, striped, {"snapshot-origin", "253:1"}});
	EXPECT_EQ(load(dm(3), {striped, linear, striped, snapshot}), success);
	EXPECT_TRUE(resume_switches());
	dmp_uninit();
	status(dm(0), {linear, striped, linear, striped, {"snapshot-origin", "253:1"}});
	load_snapshot();
	status(dm(3), {striped, linear, striped});
	status(dm(3), {linear, striped, snapshot, linear});
	EXPECT_FALSE(resume_switches());
	EXPECT_EQ(load(dm(3), {linear, snapshot, striped}), success); // the first match ends it
	EXPECT_TRUE(resume_switches());
}

TEST_F(DmProcessor, TablesThatTeachNothing)
{
	load_origin();
	load_snapshot();
	const DmRequest full = {dm(3), "vg-x", {linear}, DM_BUFFER_FULL_FLAG};
	EXPECT_EQ(run(DM_TABLE_STATUS, status_request, full.bytes(true)), Outcome(-1, 0));
	EXPECT_THAT(
		model::log(),
		ElementsAre(warn_line("Unable to retrieve information of all the targets (buffer "
				      "full)  of device vg-x")));
	EXPECT_TRUE(resume_switches());
	dmp_uninit();

	model::clear_log();
	load(dm(0), {linear});
	model::fail("ka_vmalloc");
	EXPECT_EQ(load_origin(), Outcome(-12, 0));
	EXPECT_THAT(model::log(), ElementsAre(no_memory));
	EXPECT_EQ(records(), 1);
}

TEST_F(DmProcessor, WithoutTargetsARecordIsNotFoundAgain)
{
	load_origin();
	load_snapshot();
	EXPECT_EQ(status(dm(3), {}), success);
	EXPECT_EQ(records(), 3);
	EXPECT_FALSE(resume_switches());
	EXPECT_EQ(records(), 4);
	// A clear by name zeroes the record of 0:0 instead, and the device's own stays armed.
	for (int expected : {4, 5}) {
		load_snapshot();
		if (expected == 4)
			model::fail("ka_vmalloc");
		EXPECT_EQ(run(DM_TABLE_CLEAR, DmRequest{.name = "vg-x"}.bytes(),
			      DmRequest{.dev = dm(3)}.bytes()),
			  success);
		EXPECT_EQ(model::logged(no_memory), 1);
		EXPECT_EQ(records(), expected);
		EXPECT_TRUE(resume_switches());
	}
}

TEST_F(DmProcessor, NothingOutsideTheBufferIsRead)
{
	const DmRequest table = {dm(3), "", {linear, snapshot}, 0};
	constexpr uint32_t first = sizeof(dm_ioctl), end = first + 2 * 56;
	const struct {
		const char *what;
		uint32_t data_start, target_count, next;
		char last; // byte of the last string
		int err;
	} cases[] = {
		{"all well", first, 2, 56, '\0', 0},
		{"data in the header", 0, 1, 56, '\0', 0},
		{"data far outside", ~0u, 2, 56, '\0', -22},
		{"data at the end", end, 2, 56, '\0', -22},
		{"no room for a target", end - 39, 2, 56, '\0', -22},
		{"no room for a string", end - 40, 2, 56, '\0', -22},
		{"next far outside", first, 2, ~0u, '\0', -22},
		{"next at the end", first, 2, 2 * 56, '\0', -22},
		{"next back in the header", first, 2, -first, '\0', -22},
		{"next into itself", first, 2, 39, '\0', -22},
		{"a string without an end", first, 2, 56, '8', -22},
		{"targets beyond the end", first, ~0u, 2 * 56 - 41, '\0', -22},
	};
	load_origin();
	for (auto &c : cases) {
		SCOPED_TRACE(c.what);
		for (bool is_answer : {false, true}) {
			DmBytes bytes = table.bytes(is_answer);
			ASSERT_EQ(bytes.size(), end);
			header(bytes)->data_start = c.data_start;
			header(bytes)->target_count = c.target_count;
			memcpy(&bytes[first + offsetof(dm_target_spec, next)], &c.next, 4);
			bytes.back() = c.last;
			EXPECT_EQ(is_answer ? run(DM_TABLE_STATUS, status_request, bytes)
					    : run(DM_TABLE_LOAD, bytes, bytes),
				  Outcome(c.err, 0));
		}
	}
}

// --- The hook over a hidden device ---------------------------------------------------------------

TEST_F(DmProcessor, AHiddenDeviceGivesTheHookBack)
{
	load_origin();
	for (const char *name :
	     {"vg-data-cow", "", "vg-rea-l", "vg-realdata", "real", "vg-data-real"}) {
		for (uint32_t flags : {DM_SUSPEND_FLAG, 0u}) {
			lose_hook();
			EXPECT_EQ(resume(dm(1), name, flags), success);
			EXPECT_EQ(is_hooked(), strstr(name, "real") != nullptr) << name;
		}
	}
	// Opening a suspended volume may wait for its resume.
	model::take_block_calls();
	EXPECT_EQ(suspend(dm(1), "vg-data-real"), success);
	EXPECT_THAT(model::take_block_calls(), IsEmpty());
	model::fail("ka_get_queue");
	EXPECT_EQ(suspend(dm(1), "vg-data-real"), success);
	EXPECT_THAT(model::log(),
		    ElementsAre(error_line("Unable to get the block device pointer to disk dm-0")));

	ASSERT_EQ(volume_manager_stop_tracking(volume.get(), nullptr), 0);
	load_snapshot(); // without tracking there is nothing to switch or to hook
	EXPECT_EQ(resume(dm(3), "vg-ZKR_snapshot1"), success);
	model::take_block_calls();
	EXPECT_EQ(resume(dm(1), "vg-data-real"), success);
	EXPECT_THAT(model::take_block_calls(), IsEmpty());
}

TEST_F(DmProcessor, RealWithoutARelatedVolumeFails)
{
	EXPECT_EQ(suspend(dm(5), "real-data"), Outcome(-22, -22));
	EXPECT_EQ(resume(dm(5), "real-data"), Outcome(-22, -22));
	EXPECT_EQ(model::logged(warn_line(no_volume + "0:0")), 2);
	load_origin();
	load_snapshot();
	EXPECT_EQ(resume(dm(3), "real-other_snap"), Outcome(-22, -22));
	EXPECT_EQ(suspend(dm(3), "real-ZKR_snapshot1"), Outcome(-22, -22));
	EXPECT_EQ(model::logged(warn_line(no_volume + "253:1")), 2);
	EXPECT_TRUE(resume_switches("real-ZKR_snapshot1"));
}

TEST_F(DmProcessor, ABusyVolumeIsNotWaitedForForEver)
{
	load_origin();
	lose_hook();
	const unsigned long start = ka_jiffies();
	{
		MutexLock lock(volume->vi_mtx);
		EXPECT_EQ(resume(dm(1), "vg-data-real"), success);
	}
	EXPECT_EQ(ka_jiffies() - start, 1001);
	EXPECT_FALSE(is_hooked());
	ka_mutex_lock(&volume->vi_mtx);
	model::before(
		"ka_schedule", [&] { ka_mutex_unlock(&volume->vi_mtx); }, 500);
	EXPECT_EQ(resume(dm(1), "vg-data-real"), success);
	EXPECT_EQ(ka_jiffies() - start, 1501);
	EXPECT_TRUE(is_hooked());
}

} // namespace
