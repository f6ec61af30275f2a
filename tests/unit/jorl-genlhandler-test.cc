// SPDX-License-Identifier: GPL-2.0
// Restore disks as user space sees them: the netlink commands, and the files in sysfs.
#include "writetracker/jorl-genlhandler.h"

#include "restore-fixture.h"
#include "writetracker/control-device.h"
#include "writetracker/jorl-manager-sysfs.h"

namespace
{

using model::Bytes;
using Attributes = std::map<int, Bytes>;

constexpr auto bytes_of = [](const auto &record) { return model::bytes_of(record); };

class RestoreCommands : public Restore
{
protected:
	// The errors of the acknowledgements; 1 for a reply.
	static std::vector<int> answers(int cmd, const Attributes &attributes = {},
					const std::string &family = "zorvat-control")
	{
		std::vector<int> errors;
		replied.clear();
		for (auto &answer : model::genl_send({.cmd = static_cast<uint8_t>(cmd),
				    .attributes = attributes,
				    .family = family})) {
			errors.push_back(answer.ack ? answer.error : 1);
			if (!answer.ack) {
				EXPECT_EQ(answer.cmd, cmd);
				EXPECT_EQ(answer.port, 4242u);
				EXPECT_EQ(answer.seq, 17u);
				replied = answer.attributes;
			}
		}
		return errors;
	}
	// What the last reply had under that type.
	template <typename Record> static Record reply(int type)
	{
		Record record = {};
		EXPECT_EQ(replied.size(), 1u);
		EXPECT_EQ(replied[type].size(), sizeof(record));
		if (replied[type].size() == sizeof(record))
			memcpy(&record, replied[type].data(), sizeof(record));
		return record;
	}
	static Attributes request_for(const ProcessMapping &in, size_t block_size = 512)
	{
		return {{27, bytes_of(wtflr_allocdisk_req{block_size, 7, 0, 0, in.address()})}};
	}
	static Attributes handle_of(wt_jorl_diskhandle_t handle)
	{
		return {{19, bytes_of(handle)}};
	}
	static wt_jorl_diskhandle_t alloc(const ProcessMapping &in)
	{
		EXPECT_THAT(answers(19, request_for(in)), ElementsAre(1));
		return reply<wt_jorl_diskhandle_t>(19);
	}
	static std::vector<wt_jorl_diskhandle_t> list()
	{
		EXPECT_THAT(answers(24), ElementsAre(1));
		const Bytes &record = replied[20];
		std::vector<wt_jorl_diskhandle_t> words(record.size() / 8); // the count first
		memcpy(words.data(), record.data(), record.size());
		EXPECT_EQ(words.front(), reinterpret_cast<void *>(words.size() - 1));
		return {words.begin() + 1, words.end()};
	}

	static inline Attributes replied;
};

TEST_F(RestoreCommands, ADisksLife)
{
	EXPECT_THAT(list(), IsEmpty());
	const wt_jorl_diskhandle_t handle = alloc(area);
	EXPECT_THAT(list(), ElementsAre(handle));
	const Attributes disk = handle_of(handle);
	Attributes resume = disk;
	resume[28] = bytes_of(uint64_t{1} << 32 | server.port()); // the low half counts
	const auto attributes = [&] {
		EXPECT_THAT(answers(23, disk), ElementsAre(1));
		return reply<wtflr_disk_attrs>(26);
	};
	wtflr_disk_attrs stopped;
	memset(&stopped, 0, sizeof(stopped));
	stopped.wtfda_handle = handle;
	memcpy(stopped.wtfda_name, "zorvat-a", 8);
	stopped.wtfda_blocksize = 512;
	stopped.wtfda_numblocks = 7;
	stopped.wtfda_pid = 4242; // none was given
	stopped.wtfda_devt = ka_mkdev(250, 0);
	EXPECT_EQ(bytes_of(attributes()), bytes_of(stopped));
	EXPECT_THAT(answers(20, resume), ElementsAre(0));
	EXPECT_THAT(answers(20, resume), ElementsAre(-22, -22));
	EXPECT_EQ(attributes().wtfda_portid, server.port());
	EXPECT_EQ(OpenDisk("zorvat-a").submit({{.sector = 3, .bytes = 512}}).wait(), 0);
	EXPECT_THAT(answers(21, disk), ElementsAre(0));
	EXPECT_THAT(answers(21, disk), ElementsAre(-22, -22));
	EXPECT_EQ(bytes_of(attributes()), bytes_of(stopped));
	EXPECT_THAT(answers(20, resume), ElementsAre(0));
	EXPECT_THAT(answers(22, disk), ElementsAre(0));
	EXPECT_THAT(list(), IsEmpty());
	EXPECT_THAT(answers(22, disk), ElementsAre(-22, -22)); // a handle of before
	EXPECT_EQ(model::logged("Unable to start the disk zorvat-a due to error -22"), 1);
	EXPECT_EQ(model::logged("Unable to stop the disk zorvat-a due to error -22"), 1);
	EXPECT_EQ(model::logged("<3>[zorvat-ERROR]:Unknown jorl device 0x"), 1);
}

TEST_F(RestoreCommands, Failures)
{
	const wt_jorl_diskhandle_t handle = alloc(area);
	ProcessMapping fresh(area_bytes);
	const auto with = [](Attributes attributes, int type, const Bytes &data) {
		attributes[type] = data;
		return attributes;
	};
	const Attributes none = {}, disk = handle_of(handle), good = request_for(fresh);
	const std::string no_memory = "Unable to allocate enough memory for response of command ",
			  invalid_alloc =
				  "Invalid gen-netlink message WTFLR_ALLOC_DISK_IOCTL_INDEX",
			  no_port = "Invalid gen-netlink message WTFLR_RESUME_DISK_IOCTL_INDEX. "
				    "Missing Attr WT_GENATTR_FLR_PORT_ID",
			  no_manager = "[Control-Device]Unable to get the jorlmanager context",
			  no_handle = "Invalid jorlvolume genl-request",
			  no_room = "Unable to allocate enough space for output buffer",
			  unsent = "Unable to send reply of gen-netlink message. error(-111)";
	struct {
		int cmd;
		Attributes attributes;
		int error;
		std::string message;
		const char *fails = nullptr;
		int nth = 1;
	} const cases[] = {
		{18, none, -11, no_manager, "ka_kobject_get"},
		{18, none, -11, "", "ka_kobject_get", 2},
		{19, none, -22, invalid_alloc},
		{19, {{27, Bytes(31)}}, -22, invalid_alloc},
		{19, good, -12, no_memory + "WTFLR_ALLOC_DISK_IOCTL_INDEX", "ka_alloc_skb"},
		{19, request_for(fresh, 511), -22,
		 "[JRGENL] Invalid disk creation request for Block-Size=511 & Block-Count=7"},
		{19, good, -12, "[JRMG] Unable to allocate jorl disk. error(-12)", "ka_vmalloc"},
		{19, good, -90, "[JRGENL] Unable set alloc disk command response(-90)",
		 "ka_nla_put"},
		{19, good, -111, unsent, "ka_genlmsg_unicast"},
		{20, disk, -22, no_port},
		{20, with(disk, 28, Bytes(7)), -22, no_port},
		{20, with(disk, 28, bytes_of(uint64_t{1})), -111,
		 "Unable to start the disk zorvat-a due to error -111", "ka_sock_connect"},
		{21, disk, -4, "Unable to stop the disk zorvat-a due to error -4",
		 "ka_mutex_lock_interruptible"},
		{22, disk, -4, "Unable to destroy the disk zorvat-a due to error -4",
		 "ka_mutex_lock_interruptible"},
		{22, none, -22, no_handle},
		{22, {{19, Bytes(7)}}, -22, no_handle},
		{22, disk, -11, no_manager, "ka_kobject_get"},
		{23, disk, -12, no_memory + "WTFLR_GET_DISKATTRS_IOCTL_INDEX", "ka_alloc_skb"},
		{23, disk, -90, "", "ka_nla_put"},
		{23, disk, -111, unsent, "ka_genlmsg_unicast"},
		{24, none, -12, no_room, "ka_vmalloc"},
		{24, none, -12, no_memory + "WTFLR_LIST_DISKS_IOCTL_INDEX", "ka_alloc_skb"},
		{24, none, -90, "", "ka_nla_put"},
		{24, none, -111, unsent, "ka_genlmsg_unicast"},
	};
	for (auto &c : cases) {
		SCOPED_TRACE(std::to_string(c.cmd) + ", " + c.message);
		model::clear_log();
		if (c.fails)
			model::fail(c.fails, c.nth);
		EXPECT_THAT(answers(c.cmd, c.attributes), ElementsAre(c.error, c.error));
		EXPECT_TRUE(c.message.empty() || model::logged("]:" + c.message + "\n") == 1);
		EXPECT_THAT(list(), ElementsAre(handle));
	}
	EXPECT_EQ(model::forget_sockets(), 1);
}

TEST_F(RestoreCommands, EachSessionKeepsAReference)
{
	const unsigned int before = ka_kobject_references(&jorlmanager_context.kobj);
	for (unsigned int i = 1; i <= 3; i++) {
		EXPECT_THAT(answers(18), ElementsAre(0));
		EXPECT_EQ(ka_kobject_references(&jorlmanager_context.kobj), before + i);
	}
	model::expect_leaked_object("restore-volumes"); // for good
}

TEST_F(RestoreCommands, ListsGrow)
{
	std::vector<std::unique_ptr<ProcessMapping>> areas;
	std::vector<wt_jorl_diskhandle_t> handles;
	for (int i = 0; i < 65; i++) {
		areas.push_back(std::make_unique<ProcessMapping>(area_bytes));
		handles.push_back(alloc(*areas.back()));
		if (i == 63) {
			const uint64_t before = model::allocations();
			EXPECT_EQ(list().size(), 64u);
			EXPECT_EQ(model::allocations(), before + 1);
		}
	}
	const uint64_t before = model::allocations();
	EXPECT_THAT(list(), testing::UnorderedElementsAreArray(handles));
	EXPECT_EQ(model::allocations(), before + 2);
	EXPECT_TRUE(model::sysfs_exists("/sys/zorvat/restore-volumes/zorvat-mc"));

	model::fail("ka_vmalloc", 2);
	EXPECT_THAT(answers(24), ElementsAre(-12, -12));
	EXPECT_EQ(model::logged(
			  error_line("Unable to fetch jorlvolume list from registry. Error(-12)")),
		  1);
	unload(); // before their areas go
}

// The family lets only some commands through to the handlers; here, all come.
jorlvolume_info *target;

int handle_disk_request(sk_buff *skb, genl_info *info)
{
	return jorlmanager_process_volume_genl_msg(target, skb, info);
}

int handle_manager_request(sk_buff *skb, genl_info *info)
{
	return jorlmanager_process_genl_msg(&jorlmanager_context, skb, info);
}

constexpr ka_genl_ops all_commands[] = {
	{20, 0, handle_manager_request}, {24, 0, handle_disk_request}, {25, 0, handle_disk_request},
	{26, 0, handle_disk_request},    {27, 0, handle_disk_request}, {19, 0, handle_disk_request},
};

TEST_F(RestoreCommands, CommandsThatTheFamilyKeepsOut)
{
	static ka_genl_family family = {0, "everything", 0, 1, 30, {}};
	ASSERT_EQ(ka_genl_register_family_with_ops(&family, all_commands, 6), 0);
	target = create(area);
	for (int cmd : {19, 20, 24, 27})
		EXPECT_THAT(answers(cmd, {}, "everything"), ElementsAre(-515)) << cmd;
	const wt_jorl_disk_user_data_t data = this;
	EXPECT_THAT(answers(26, {{29, bytes_of(data)}}, "everything"), ElementsAre(0));
	EXPECT_THAT(answers(25, {}, "everything"), ElementsAre(1));
	EXPECT_EQ(reply<wt_jorl_disk_user_data_t>(29), this);
	EXPECT_THAT(answers(26, {{29, Bytes(7)}}, "everything"), ElementsAre(-22));
	EXPECT_EQ(model::log().back(),
		  error_line("Invalid gen-netlink message WTFLR_SET_DISK_USER_DATA_IOCTL_INDEX. "
			     "Missing Attr WT_GENATTR_JORL_DISK_USER_DATA"));
	for (auto [cmd, deed] : {std::pair(25, "get"), {26, "set"}}) {
		model::fail("ka_mutex_lock_interruptible");
		EXPECT_THAT(answers(cmd, {{29, bytes_of(data)}}, "everything"), ElementsAre(-4));
		EXPECT_EQ(model::log().back(), error_line("Unable to " + std::string(deed) +
							  " user data for the disk zorvat-a due "
							  "to error -4"));
	}
	ka_genl_unregister_family(&family);
	EXPECT_EQ(answers(25)[0], -95);
}

// --- sysfs -------------------------------------------------------------------------------------

const std::string directory = "/sys/zorvat/restore-volumes";

TEST_F(RestoreCommands, FilesOfADisk)
{
	jorlvolume_info *volume = create(area, 4096, 2048);
	char handle[32];
	snprintf(handle, sizeof(handle), "%016lx", reinterpret_cast<unsigned long>(volume));
	const std::map<std::string, std::string> files = {
		{"block-size", "4096"},     {"datalink-portid", "0"}, {"major-id", "250"},
		{"sectors", "2048"},        {"serivce-pid", "4711"},  {"volume-handle", handle},
		{"volume-name", "zorvat-a"}};
	std::vector<std::string> names;
	for (auto &[name, text] : files) {
		const std::string path = directory + "/zorvat-a/" + name;
		names.push_back(name);
		EXPECT_EQ(model::sysfs_show(path).text, text);
		EXPECT_EQ(model::sysfs_mode(path), 0444);
	}
	EXPECT_EQ(model::sysfs_list(directory + "/zorvat-a"), names);
	for (auto *const *file = g_jorlvol_sysfs_attrs; *file; file++)
		EXPECT_EQ(g_jorlvol_sysfs_ops.store(&volume->kobj, *file, "1", 1), -5);

	DiskServer serving(4096);
	ASSERT_EQ(jorlmanager_start_disk(volume, serving.port()), 0);
	const std::string port = directory + "/zorvat-a/datalink-portid";
	EXPECT_EQ(model::sysfs_show(port).text, std::to_string(serving.port()));
	ASSERT_EQ(jorlmanager_stop_disk(volume), 0);
	EXPECT_EQ(model::sysfs_show(port).text, "0");
}

TEST_F(RestoreCommands, FilesOfTheManager)
{
	EXPECT_THAT(model::sysfs_list(directory), ElementsAre("genl-protocol-family", "ref-count"));
	const std::string count = directory + "/ref-count",
			  family = directory + "/genl-protocol-family";
	for (auto *const *file = g_jorl_sysfs_attrs; *file; file++)
		EXPECT_EQ(g_jorl_sysfs_ops.store(&jorlmanager_context.kobj, *file, "1", 1), -5);
	EXPECT_EQ(model::sysfs_show(family).text,
		  "zorvat-control:" + std::to_string(wt_genl_family->id));
	EXPECT_EQ(model::sysfs_show(count).text, "1");
	EXPECT_EQ(model::sysfs_show(count).text, "1"); // the reader's own does not count
	model::settle();
	// Whoever takes the manager down waits for the reader, who must not wait for him.
	jorlmanager_context.is_initialized.set(0);
	EXPECT_EQ(model::sysfs_show(count).result, -11);
	jorlmanager_context.is_initialized.set(1);
	create(area);
	EXPECT_EQ(model::sysfs_show(count).text, "2");
	model::settle();
	EXPECT_EQ(ka_kobject_references(&jorlmanager_context.kobj), 2u);
	model::fail("ka_kobject_get");
	EXPECT_EQ(model::sysfs_show(count).result, -11);
	cleanup_control_device();
	EXPECT_EQ(model::sysfs_show(family).result, -11);
}

// The directory cannot go while it is read: the reader leaves his reference to somebody else.
TEST_F(RestoreCommands, AReaderMayBeTheLastToHoldTheManager)
{
	model::before("ka_schedule_delayed_work", [&] { manager.reset(); });
	EXPECT_EQ(model::sysfs_show(directory + "/ref-count").text, "1");
	model::settle();
	EXPECT_FALSE(model::sysfs_exists(directory));
}

} // namespace
