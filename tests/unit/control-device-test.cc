// SPDX-License-Identifier: GPL-2.0
// The two doors: which requests come in, who is asked, and what they get when it fails.
#include "writetracker/control-device.h"

#include "fixture.h"

namespace
{

const std::string node = "/dev/zorvat-control";

class ControlDevice : public Driver
{
protected:
	static long ioctl(unsigned int cmd, unsigned long arg)
	{
		return model::OpenNode(node).ioctl(cmd, arg);
	}
	static std::vector<int> acks(const std::vector<model::GenlMessage> &answers)
	{
		std::vector<int> errors;
		errors.reserve(answers.size());
		for (auto &answer : answers)
			errors.push_back(answer.ack ? answer.error : 1);
		return errors;
	}
};

TEST_F(ControlDevice, IoctlCommandWords)
{
	Disk disk = plug();
	UserMemory memory(512);
	struct {
		unsigned int cmd;
		long result;
	} const cases[] = {
		{WT_IOCTL(WT_IS_DRIVER_PRESENT_IOCTL_INDEX), 0},
		{0xc000'0000u | WT_IOCTL(WT_IS_DRIVER_PRESENT_IOCTL_INDEX), 0},
		{0x0010'0000u | WT_IOCTL(WT_IS_DRIVER_PRESENT_IOCTL_INDEX), 0},
		{WT_IOCTL(WT_STOP_IOCTL_INDEX), 0},
		{WT_IOCTL(WT_PATCH_IOCTL_INDEX), 0},
		{WT_IOCTL(WT_UNPATCH_IOCTL_INDEX), 0},
		{WT_IOCTL(0), -515},
		{WT_IOCTL(WT_BITMAP_IOCTL_INDEX), -515},
		{WT_IOCTL(WT_MAX_VOLUME_IOCTL_INDEX), -515},
		{WT_IOCTL(WT_HALT_IOCTL_INDEX), -515},
		{WT_IOCTL(WTFLR_ALLOC_DISK_IOCTL_INDEX), -515},
		{WT_IOCTL(27), -515},
		{WT_IOCTL(28), -13},
		{WT_IOCTL(200), -13},
		{(0xa2u << 8) | 1, -515},
		{0x5401, -515},
		{1, -515},
	};
	for (auto &c : cases) {
		memory.put(disk.dev());
		EXPECT_EQ(ioctl(c.cmd, memory.address()), c.result) << std::hex << c.cmd;
		EXPECT_EQ(model::OpenNode(node).compat_ioctl(c.cmd, memory.address()), c.result);
	}
	EXPECT_EQ(model::logged(warn_line("Invalid command 41416 on control device")), 2);
	for (unsigned int cmd : {WT_IOCTL(1), WT_IOCTL(2), WT_IOCTL(15), WT_IOCTL(200)}) {
		model::Unprivileged unprivileged;
		EXPECT_EQ(ioctl(cmd, memory.address()), -13);
	}
}

TEST_F(ControlDevice, VersionByIoctl)
{
	UserMemory memory(sizeof(wt_version));
	EXPECT_EQ(ioctl(WT_IOCTL(2), memory.address()), 0);
	EXPECT_EQ(model::bytes_of(memory.get<wt_version>()),
		  model::bytes_of(wt_context.driver_version));

	UserMemory small(sizeof(wt_version) - 1), unwritable(4096, UserMemory::Access::read_only);
	for (unsigned long address : {0ul, small.address(), unwritable.address()})
		EXPECT_EQ(ioctl(WT_IOCTL(2), address), -13);
	EXPECT_EQ(model::logged(error_line("Unable to copy driver verion info to the usermode")),
		  3);
	model::fail("ka_kobject_get");
	EXPECT_EQ(ioctl(WT_IOCTL(2), memory.address()), -11);
}

TEST_F(ControlDevice, VolumeByIoctl)
{
	Disk disk = plug();
	UserMemory memory(20), unreadable(20, UserMemory::Access::none), small(3);
	for (unsigned long address : {0ul, unreadable.address(), small.address()})
		EXPECT_EQ(ioctl(WT_IOCTL(1), address), -13);
	EXPECT_EQ(model::logged(error_line("Unable to copy devt from the userland")), 3);
	memory.put(ka_mkdev(259, 1048575));
	EXPECT_EQ(ioctl(WT_IOCTL(1), memory.address()), -22);
	EXPECT_EQ(model::logged(error_line("Unknown device 259:1048575")), 1);

	// The record is behind the number.
	memory.put(disk.dev());
	memory.put(backUp{.level = 1, .PartitionLength = 0}, 4);
	EXPECT_EQ(ioctl(WT_IOCTL(5), memory.address()), 0);
	EXPECT_EQ(memory.get<backUp>(4).PartitionLength, uint64_t{1 << 20} * 512);
	EXPECT_TRUE(model::sysfs_exists("/sys/zorvat/8:0/cbt-bitmap"));
}

TEST_F(ControlDevice, VersionByNetlink)
{
	model::Unprivileged unprivileged;
	auto answers = model::genl_send({.cmd = 2, .port = 99, .seq = 1234});
	ASSERT_EQ(answers.size(), 1u); // the reply is the only answer
	auto &reply = answers[0];
	EXPECT_FALSE(reply.ack);
	EXPECT_EQ(reply.cmd, 2);
	EXPECT_EQ(reply.port, 99u);
	EXPECT_EQ(reply.seq, 1234u);
	EXPECT_EQ(reply.version, 1);
	EXPECT_EQ(reply.family, wt_genl_family->id);
	EXPECT_EQ(reply.capacity, 172u);
	EXPECT_THAT(reply.attributes,
		    ElementsAre(testing::Pair(17, model::bytes_of(wt_context.driver_version))));
}

// A failure is acknowledged by the handler, and once more by the netlink core.
TEST_F(ControlDevice, VersionByNetlinkFails)
{
	const std::string no_memory = "Unable to allocate enough memory for response of command "
				      "WT_GET_DRIVER_VERSION_IOCTL_INDEX";
	struct {
		const char *call;
		int error;
		std::string message;
	} const cases[] = {
		{"ka_alloc_skb", -12, no_memory},
		{"ka_genlmsg_put", -12, no_memory},
		{"ka_kobject_get", -11, ""},
		{"ka_nla_put", -90, "Unable set version command response(-90)"},
		{"ka_genlmsg_unicast", -111,
		 "Unable to send reply to command WT_GET_DRIVER_VERSION_IOCTL_INDEX.Err(-111)"},
	};
	for (auto &c : cases) {
		model::clear_log();
		model::fail(c.call);
		EXPECT_THAT(acks(model::genl_send({.cmd = 2})), ElementsAre(c.error, c.error))
			<< c.call;
		if (c.message.empty())
			EXPECT_THAT(model::log(), IsEmpty());
		else
			EXPECT_THAT(model::log(), ElementsAre(error_line(c.message)));
	}
}

TEST_F(ControlDevice, NetlinkCommands)
{
	Disk disk = plug();
	const std::map<int, model::Bytes> volume = {{18, model::bytes_of(disk.dev())}};
	constexpr int eperm = -1, unsupported = -95;
	for (int cmd = 0; cmd < 40; cmd++) {
		bool of_volume = (cmd >= 1 && cmd <= 13) && cmd != 2;
		bool of_restore = cmd >= 18 && cmd <= 24;
		model::GenlRequest request{.cmd = static_cast<uint8_t>(cmd), .attributes = volume};
		auto answers = model::genl_send(request);
		ASSERT_FALSE(answers.empty());
		EXPECT_EQ(answers.back().ack && answers.back().error == unsupported,
			  !(of_volume || of_restore || cmd == 2))
			<< cmd;
		if (of_restore && cmd != 18 && cmd != 24) { // those need nothing
			EXPECT_THAT(acks(answers), ElementsAre(-22, -22));
		}
		model::Unprivileged unprivileged;
		if (of_volume || of_restore) {
			EXPECT_THAT(acks(model::genl_send(request)), ElementsAre(eperm)) << cmd;
		}
	}
	model::expect_leaked_object("restore-volumes"); // the session's
}

TEST_F(ControlDevice, NetlinkRequestsWithoutAVolume)
{
	struct {
		std::map<int, model::Bytes> attributes;
		const char *message;
	} const cases[] = {
		{{}, "Invalid volume genl-request"},
		{{{18, {}}}, "Invalid volume genl-request"},
		{{{18, {1, 2, 3}}}, "Invalid volume genl-request"},
		{{{19, {0, 0, 0x80, 0}}}, "Invalid volume genl-request"},
		{{{18, {1, 0, 0x80, 0}}}, "Unknown device 8:1"},
		{{{18, {0xff, 0xff, 0xff, 0xff}}}, "Unknown device 4095:1048575"},
	};
	for (auto &c : cases) {
		model::clear_log();
		EXPECT_THAT(acks(model::genl_send({.cmd = 1, .attributes = c.attributes})),
			    ElementsAre(-22, -22));
		EXPECT_THAT(model::log(), ElementsAre(error_line(c.message)));
	}
}

TEST_F(ControlDevice, RegistersOnlyWhatIsMissing)
{
	EXPECT_EQ(cleanup_control_device(), 0);
	EXPECT_EQ(cleanup_control_device(), 0);
	EXPECT_FALSE(model::node_exists(node));
	EXPECT_EQ(model::genl_send({.cmd = 2})[0].error, -2);

	model::fail("ka_misc_register");
	EXPECT_EQ(init_control_device(), -16);
	model::fail("ka_genl_register_family_with_ops");
	EXPECT_EQ(init_control_device(), -17);
	EXPECT_TRUE(model::node_exists(node)); // stays
	EXPECT_EQ(init_control_device(), 0);
	EXPECT_EQ(init_control_device(), 0);
	EXPECT_EQ(model::genl_send({.cmd = 2}).size(), 1u);
	EXPECT_EQ(cleanup_control_device(), 0);
}

} // namespace
