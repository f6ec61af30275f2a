// SPDX-License-Identifier: GPL-2.0
// The hook in the device-mapper's control device: opens, ioctls, releases, its coming and going.
#include <thread>

#include "dm-fixture.h"
#include "kernel-abstractions/task.h"

namespace
{

const std::string control = "/dev/mapper/control";
constexpr unsigned int list_cmd = DM_IOCTL_BASE + 2;                 // forwarded
constexpr unsigned int status_cmd = DM_IOCTL_BASE + DM_TABLE_STATUS; // 0xc138fd0c, examined
const std::string no_lock = error_line("Unable to take the dmp_handle_mutex.Error:-4");
const char *const lock = "ka_mutex_lock_interruptible";

class DmPatcher : public Driver
{
protected:
	void TearDown() override
	{
		model::forget_memory(sizeof(lvm_vol_node));
		Driver::TearDown();
	}
	// Those of closed files are among them.
	static int handles()
	{
		return model::forget_memory(sizeof(dmp_handle_node));
	}
	// Opens, ioctls and releases so far, but for the first look-up of the device.
	static std::vector<int> dm_calls()
	{
		const auto [opens, ioctls, releases] = model::dm_calls();
		return {opens - 1, ioctls, releases - 1};
	}
	static long status(const OpenNode &node)
	{
		return node.ioctl(status_cmd, DmUserMemory(DmRequest{}.bytes()).address());
	}
};

// --- Opens and releases ------------------------------------------------------------------------

TEST_F(DmPatcher, EveryOpenLeavesAHandle)
{
	for (int i = 1; i <= 3; i++) {
		OpenNode first(control), second(control);
		EXPECT_TRUE(first.is_hooked() && second.is_hooked());
		EXPECT_EQ(handles(), 2 * i);
	}
	EXPECT_EQ(handles(), 6);
	EXPECT_THAT(dm_calls(), ElementsAre(6, 0, 6));

	OpenNode other("/dev/zorvat-control"); // of the same character device
	EXPECT_FALSE(other.is_hooked());
	EXPECT_EQ(other.ioctl(status_cmd, 0), -KA_ENOIOCTLCMD);
	EXPECT_EQ(handles(), 6);
	EXPECT_THAT(model::log(), IsEmpty());
}

TEST_F(DmPatcher, OpensThatAreNotHookedLeaveNone)
{
	for (auto [call, error, logged] : {std::tuple(lock, -4, "mutex.Error:-4\n"),
					   {"ka_vmalloc", -12, " to dmp_map.Error:-12\n"},
					   {"dm_open", -16, nullptr}}) {
		model::clear_log();
		model::fail(call);
		EXPECT_EQ(OpenNode(control).error(), error);
		EXPECT_EQ(model::logged(logged ? logged : ""), logged ? 1 : 0);
		EXPECT_EQ(handles(), 0);
	}
	EXPECT_TRUE(OpenNode(control).is_hooked()); // and its operations are remembered
	model::replace_dm_driver();
	OpenNode node(control);
	EXPECT_EQ(node.error(), 0);
	EXPECT_FALSE(node.is_hooked());
	EXPECT_EQ(model::log().back(), warn_line("Mismatch in old and new ioctl calls to DM "
						 "control.Ignoring the dm-open"));
	EXPECT_EQ(handles(), 1);
	EXPECT_THAT(dm_calls(), ElementsAre(2, 0, 1));
}

TEST_F(DmPatcher, AnInterruptedReleaseDoesNotReachDm)
{
	{
		OpenNode node(control);
		model::fail(lock);
	}
	EXPECT_THAT(model::log(), ElementsAre(no_lock));
	for (int i = 0; i < 3; i++) // files that may lie where that one did
		EXPECT_EQ(OpenNode(control).ioctl(list_cmd, 0), 0);
	EXPECT_THAT(dm_calls(), ElementsAre(4, 3, 3));
	EXPECT_EQ(handles(), 4);
}

// --- Ioctls ------------------------------------------------------------------------------------

TEST_F(DmPatcher, ForwardedIoctls)
{
	OpenNode node(control);
	EXPECT_EQ(node.ioctl(list_cmd, 0), 0);
	EXPECT_THAT(model::log(), IsEmpty());
	model::set_dm_answer([](unsigned int cmd, unsigned long arg) {
		return cmd == list_cmd && arg == 4711 ? -6 : 0;
	});
	EXPECT_EQ(node.ioctl(list_cmd, 4711), -6);
	model::fail(lock);
	EXPECT_EQ(node.ioctl(list_cmd, 4711), -4);
	EXPECT_THAT(model::log(),
		    ElementsAre(info_line("Returning error for LVM request 0xc138fd02 "
					  "for process 4242 Error:0 Ret:-6"),
				no_lock));
	EXPECT_THAT(dm_calls(), ElementsAre(1, 2, 0));
}

// What goes wrong before DM runs stops the request; what goes wrong afterwards is only logged.
TEST_F(DmPatcher, ExaminedIoctls)
{
	DmRequest request = {0, "", {{"linear", "254:0 2048"}}, DM_STATUS_TABLE_FLAG};
	const uint32_t size = request.bytes().size();
	const char *none = nullptr, *memory = "ka_vmalloc", *copy = "ka_copy_from_user";
	const std::string in = "Error copying in-dmparams from process 4242";
	const std::string out = "Error copying out-dmparams from process 4242";
	const std::string post = "Unable to process LVM request c138fd0c for process 4242 Error:";
	const struct {
		const char *failing;
		int nth;
		uint32_t before, after; // data_size
		int result;             // of DM
		long ret, err;
		std::string warning;
	} cases[] = {
		{none, 0, size, size, 0, 0, 0, ""},
		{none, 0, size, size, -6, -6, 0, ""},
		{copy, 1, size, size, 0, -14, -14, in},
		{memory, 1, size, size, 0, -12, -12, in},
		{copy, 2, size, size, 0, -14, -14, in},
		{copy, 3, size, size, 0, 0, -14, out},
		{memory, 2, size, size, 0, 0, -12, out},
		{copy, 4, size, size, 0, 0, -14, out},
		{copy, 4, size, size, -6, -6, -14, out},
		{lock, 2, size, size, 0, 0, -4, post + "-4"},
		{memory, 3, size, size, 0, 0, -12, post + "-12"},
		{none, 0, 0, 0, 0, -14, -14, in},
		{none, 0, 311, 0, 0, -14, -14, in},
		{none, 0, 312, 312, 0, 0, -22, post + "-22"},
		{none, 0, size + 1, 0, 0, -14, -14, in},
		{none, 0, ~0u, 0, 0, -12, -12, in},
		{none, 0, size, 305, 0, 0, -22, post + "-22"},
		{none, 0, size, 0, 0, 0, 0, ""},
		{none, 0, size, 8, 0, 0, 0, ""},
		{none, 0, size, size + 1, 0, 0, -14, out},
		{none, 0, size, ~0u, 0, 0, -12, out},
		{none, 0, size, size - 6, 0, 0, -22, post + "-22"}, // within the string
	};
	OpenNode node(control);
	for (auto &c : cases) {
		SCOPED_TRACE(&c - cases);
		model::clear_log();
		request.dev++; // one without a record
		DmUserMemory user(request.bytes());
		user.put(c.before, offsetof(dm_ioctl, data_size));
		model::set_dm_answer([&](unsigned int, unsigned long) {
			user.put(c.after, offsetof(dm_ioctl, data_size));
			return c.result;
		});
		const int before = model::dm_calls().ioctls;
		if (c.failing)
			model::fail(c.failing, c.nth);
		EXPECT_EQ(node.ioctl(status_cmd, user.address()), c.ret);
		EXPECT_EQ(model::dm_calls().ioctls - before, c.ret == c.result);
		const std::string end = " for process 4242 Error:" + std::to_string(c.err);
		EXPECT_EQ(model::log().empty(), c.warning.empty() && c.ret == 0);
		EXPECT_TRUE(c.warning.empty() || model::logged(warn_line(c.warning)) == 1);
		EXPECT_EQ(model::logged(warn_line("Unable to handle LVM request c138fd0c" + end)),
			  c.err != 0 && c.ret == 0);
		EXPECT_EQ(model::logged(info_line("Returning error for LVM request 0xc138fd0c" +
						  end + " Ret:" + std::to_string(c.ret))),
			  c.ret != 0);
	}
	EXPECT_EQ(node.ioctl(status_cmd, 0), -14);
}

TEST_F(DmPatcher, ManyProcessesAtOnce)
{
	constexpr int processes = 4, rounds = 50, opens = processes * rounds;
	std::vector<std::thread> threads;
	for (int i = 0; i < processes; i++)
		threads.emplace_back([i] {
			for (int round = 0; round < rounds; round++) {
				OpenNode node(control);
				EXPECT_TRUE(node.is_hooked());
				DmRequest table = {dm(i), "", {{"snapshot", "253:9 253:8"}}};
				DmUserMemory load(table.bytes());
				EXPECT_EQ(node.ioctl(DM_IOCTL_BASE + DM_TABLE_LOAD, load.address()),
					  0);
				EXPECT_EQ(node.ioctl(list_cmd, 0), 0);
			}
		});
	for (auto &thread : threads)
		thread.join();
	EXPECT_EQ(handles(), opens);
	EXPECT_THAT(dm_calls(), ElementsAre(opens, 2 * opens, opens));
	EXPECT_EQ(model::forget_memory(sizeof(lvm_vol_node)), processes);
}

// --- Coming and going --------------------------------------------------------------------------

TEST_F(DmPatcher, PatchedOncePerLoad)
{
	EXPECT_EQ(dm_patch(), -16);
	const ka_file_operations *ours = model::misc_operations();
	ka_file_operations theirs;
	const ka_file_entries none = {};
	ka_file_ops_copy(&theirs, ours, &none);
	model::set_misc_operations(&theirs);
	EXPECT_EQ(dm_unpatch(), -17);
	EXPECT_EQ(model::misc_operations(), &theirs);
	EXPECT_FALSE(OpenNode(control).is_hooked()); // through theirs, past ours
	model::set_misc_operations(ours);

	EXPECT_EQ(dm_unpatch(), 0);
	EXPECT_FALSE(OpenNode(control).is_hooked());
	EXPECT_EQ(handles(), 1); // of the first that looked the device up
	EXPECT_EQ(dm_patch(), -16);
	model::clear_log();
	EXPECT_EQ(dm_unpatch(), -17);
	EXPECT_THAT(model::log(), ElementsAre(error_line("Cannot unload module since Misc Device "
							 "already re-patched")));
	unload();
	EXPECT_EQ(model::forget_open_files(), 3); // one for each that was refused
}

// The hook is taken out after a call has passed it and before the call gets the lock, or while DM
// has it.
TEST_F(DmPatcher, CallsThatUnpatchingOvertakes)
{
	const auto unpatch = [] { EXPECT_EQ(dm_unpatch(), 0); };
	const auto unpatch_at_lock = [&] { model::before(lock, unpatch); };
	const std::function<std::vector<int>()> calls[] = {
		[&] {
			unpatch_at_lock();
			EXPECT_FALSE(OpenNode(control).is_hooked());
			return std::vector{2, 0, 2}; // the look-up's among them
		},
		[&] {
			OpenNode node(control);
			unpatch_at_lock();
			EXPECT_EQ(status(node), 0);
			return std::vector{2, 1, 1};
		},
		[&] {
			OpenNode node(control);
			model::set_dm_answer([&](auto...) { return unpatch(), 0; });
			EXPECT_EQ(status(node), 0);
			return std::vector{2, 1, 1};
		},
		[&] {
			{
				OpenNode node(control);
				unpatch_at_lock();
			}
			EXPECT_EQ(model::logged("[zorvat-WARN]:DMP-Handle for File:"), 1);
			return std::vector{2, 0, 2};
		},
	};
	for (auto &call : calls) {
		model::boot();
		load();
		const std::vector<int> expected = call();
		EXPECT_EQ(dm_calls(), expected);
		unload();
		EXPECT_EQ(model::forget_open_files(), 1); // the second unpatch's
		model::forget_memory(sizeof(lvm_vol_node));
		EXPECT_THAT(leaks(), IsEmpty());
	}
}

TEST_F(DmPatcher, UnloadWaitsForAnIoctlAndUnhooksItsFile)
{
	std::atomic<bool> entered = false, leave = false, unloaded = false;
	model::set_dm_answer([&](unsigned int, unsigned long) {
		entered = true;
		entered.notify_all();
		leave.wait(false);
		return 0;
	});
	OpenNode node(control);
	model::fail("ka_module_get"); // as once unloading has begun
	std::thread process([&] { EXPECT_EQ(status(node), 0); });
	entered.wait(false);
	const unsigned long start = ka_jiffies();
	std::thread unloading([&] {
		unload();
		unloaded = true;
	});
	while (!unloaded && ka_jiffies() - start < 10'000)
		std::this_thread::yield();
	EXPECT_FALSE(unloaded);
	leave = true;
	leave.notify_all();
	process.join();
	unloading.join();
	EXPECT_EQ(handles(), 2);        // this file's and the last look-up's
	EXPECT_FALSE(node.is_hooked()); // it has the character device's table now
	EXPECT_EQ(node.ioctl(status_cmd, 0), -KA_ENOIOCTLCMD);
}

TEST_F(DmPatcher, WithoutThePathStartUpTriesAgain)
{
	const auto set_path = [](const char *path) {
		wt_context.arg_dm_control_device = const_cast<char *>(path);
	};
	unload();
	EXPECT_EQ(dm_patch(), -11);
	EXPECT_EQ(dm_unpatch(), -11);
	model::boot();
	set_path("/dev/nowhere");
	ASSERT_EQ(init_module(), 0);
	model::settle();
	EXPECT_EQ(model::logged(error_line("Unable to lookup path -2\n")), 1);
	EXPECT_EQ(model::logged(error_line("Error Patching the dm-control device(-2)")), 1);
	EXPECT_EQ(dm_unpatch(), -16);
	EXPECT_FALSE(OpenNode(control).is_hooked());
	set_path(nullptr);
	model::advance(1000);
	EXPECT_TRUE(OpenNode(control).is_hooked());
	set_path("/dev/nowhere");
	EXPECT_EQ(dm_unpatch(), -2); // but done
	EXPECT_FALSE(OpenNode(control).is_hooked());
	unload();
}

} // namespace
