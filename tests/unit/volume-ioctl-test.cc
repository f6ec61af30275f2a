// SPDX-License-Identifier: GPL-2.0
// The volume commands by ioctl and by netlink, and the hook in a disk's ioctl entries.
#include "writetracker/volume-ioctl.h"

#include <thread>

#include "fixture.h"

namespace
{

constexpr uint64_t sectors = 1 << 20;

class VolumeIoctl : public Driver
{
protected:
	void SetUp() override
	{
		Driver::SetUp();
		disk = plug({.sectors = sectors, .partitions = {{2048, 4096}}});
	}
	// On the disk's own device.
	int ioctl(unsigned int index, unsigned long arg, int partition = 0)
	{
		return disk.ioctl(WT_IOCTL(index), arg, partition);
	}
	// A reply counts as 1.
	std::vector<int> netlink(unsigned int cmd, std::map<int, model::Bytes> attributes = {})
	{
		attributes[WT_GENATTR_DISKHANDLE] = model::bytes_of(disk.dev());
		answers = model::genl_send(
			{.cmd = static_cast<uint8_t>(cmd), .attributes = std::move(attributes)});
		std::vector<int> codes;
		codes.reserve(answers.size());
		for (auto &answer : answers)
			codes.push_back(answer.ack ? answer.error : 1);
		return codes;
	}
	// The only attribute of the only reply.
	template <typename Record> Record reply(int type, size_t capacity)
	{
		Record record{};
		EXPECT_EQ(answers.size(), 1u);
		auto &message = answers[0];
		EXPECT_EQ(message.capacity, capacity);
		EXPECT_EQ(message.attributes.size(), 1u);
		auto &bytes = message.attributes[type];
		EXPECT_EQ(bytes.size(), sizeof(record));
		memcpy(&record, bytes.data(), std::min(bytes.size(), sizeof(record)));
		return record;
	}
	void track(bool on = true)
	{
		VolumeRef volume = volume_of(disk);
		auto *change = on ? volume_manager_start_tracking : volume_manager_stop_tracking;
		ASSERT_EQ(change(volume.get(), nullptr), 0);
	}
	void write_blocks(const std::vector<uint64_t> &blocks)
	{
		for (uint64_t block : blocks)
			ASSERT_EQ(disk.write(block * block_sectors, 512).result, 0);
	}

	Disk disk{nullptr};
	std::vector<model::GenlMessage> answers;
};

// --- Ioctls ------------------------------------------------------------------------------------

TEST_F(VolumeIoctl, IndicesServed)
{
	UserMemory memory(512);
	const int results[] = {-515, 0, 0, 0, -13, -22, 0, -515, 0, 0, -12, -22, 0, 0, -515};
	VolumeRef volume = volume_of(disk);
	for (unsigned int index = 0; index < std::size(results); index++) {
		memory.fill(1);
		EXPECT_EQ(process_volume_ioctl(volume.get(), index, memory.data()), results[index])
			<< index;
	}
}

TEST_F(VolumeIoctl, StartStopAndLevel)
{
	UserMemory memory(sizeof(backUp));
	auto run = [&](unsigned int index, int32_t level) {
		memory.put(backUp{.level = level, .PartitionLength = 0});
		return ioctl(index, memory.address());
	};
	struct {
		unsigned int index;
		int32_t level;
		int result;
		backUp record;
	} const cases[] = {
		// The level's length is in sectors, the start's in bytes.
		{3, 9, 0, {0, sectors}},       {5, 1, 0, {0, sectors * 512}},
		{3, 9, 0, {1, sectors}},       {5, 1, 0, {1, 0}},
		{5, 2, -22, {2, 0}},           {5, -1, -22, {-1, 0}},
		{5, 0, 0, {1, sectors * 512}}, {5, 0, 0, {0, sectors * 512}},
	};
	for (auto &c : cases) {
		EXPECT_EQ(run(c.index, c.level), c.result) << c.index << " " << c.level;
		auto record = memory.get<backUp>();
		EXPECT_EQ(record.level, c.record.level);
		EXPECT_EQ(record.PartitionLength, c.record.PartitionLength);
	}
	model::fail("ka_vmalloc");
	EXPECT_EQ(run(5, 1), -12);
}

TEST_F(VolumeIoctl, GranularityIsNeverWritten)
{
	UserMemory memory(sizeof(bmReg));
	memory.fill(0x55);
	EXPECT_EQ(ioctl(4, memory.address()), -13);
	EXPECT_EQ(memory.get<int32_t>(), 0x55555555);
	EXPECT_EQ(model::logged(error_line("Unable to copy bmReg to userland")), 1);
}

TEST_F(VolumeIoctl, SaveTimeSizeUuid)
{
	UserMemory memory(sizeof(BITMAP));
	memory.put(WI_DATA{.bRequest = 0, .savetime = 77});
	EXPECT_EQ(ioctl(9, memory.address()), 0);
	memory.put(WI_DATA{.bRequest = -3, .savetime = 0});
	EXPECT_EQ(ioctl(9, memory.address()), 0);
	EXPECT_EQ(memory.get<WI_DATA>().bRequest, -3);
	EXPECT_EQ(memory.get<WI_DATA>().savetime, 77u);
	// Interrupted, this road says nothing: the record comes back as it was.
	for (int request : {0, 1}) {
		model::fail("ka_mutex_lock_interruptible");
		memory.put(WI_DATA{.bRequest = request, .savetime = 5});
		EXPECT_EQ(ioctl(9, memory.address()), 0);
		EXPECT_EQ(memory.get<WI_DATA>().savetime, 5u);
	}
	track();
	memory.fill(0x55);
	EXPECT_EQ(ioctl(6, memory.address()), 0);
	auto bitmap = memory.get<BITMAP>();
	EXPECT_EQ(bitmap.nBMSize, 1032u);
	EXPECT_EQ(reinterpret_cast<uintptr_t>(bitmap.pnBitmap), 0x5555555555555555u);
	EXPECT_EQ(bitmap.nBMShift, 0x55);

	EXPECT_EQ(ioctl(13, memory.address()), 0);
	EXPECT_EQ(memcmp(memory.data(), volume_of(disk)->vi_uuid, 16), 0);
	model::fail("ka_mutex_lock_interruptible");
	EXPECT_EQ(ioctl(13, memory.address()), -4);
	EXPECT_EQ(model::logged(error_line("Unable to fetch the  uuid for the  volume sda "
					   "Error=-4")),
		  1);
}

TEST_F(VolumeIoctl, Extents)
{
	UserMemory memory(WT_EXTENTS_REQUEST_HEADER_SIZE + 4 * sizeof(wt_extent));
	auto ask = [&](uint64_t from, size_t capacity) {
		memory.fill(0x55);
		memory.put(wt_extents_request{.wer_start_from = from, .wer_extents = {capacity}});
		return ioctl(10, memory.address());
	};
	EXPECT_EQ(ask(0, 4), -22);
	EXPECT_EQ(model::logged(error_line("Unable to retrive extents for volume sda Error=-22")),
		  1);
	track();
	write_blocks({0, 10, 20, 30, 40});
	// The count is the result; what is beyond it stays untouched.
	struct {
		uint64_t from;
		size_t capacity;
		int count;
		uint64_t first;
	} const cases[] = {
		{0, 0, 0, 0},
		{0, 1, 1, 0},
		{0, 4, 4, 0},
		{11 * block_sectors, 4, 4, 11 * block_sectors},
		{12 * block_sectors, 4, 3, 20 * block_sectors},
		{42 * block_sectors, 4, 0, 0},
	};
	for (auto &c : cases) {
		EXPECT_EQ(ask(c.from, c.capacity), c.count);
		EXPECT_EQ(memory.get<uint64_t>(8), c.capacity);
		if (c.count > 0) {
			EXPECT_EQ(memory.get<wt_extent>(16).wte_start, c.first);
		}
		size_t end = 16 + c.count * sizeof(wt_extent);
		if (end < memory.size()) {
			EXPECT_EQ(memory.data()[end], 0x55);
		}
	}
	// Sizes that no memory has, and those that no number holds.
	for (size_t capacity : {size_t{1} << 40, size_t{1} << 60, ~size_t{0}})
		EXPECT_EQ(ask(0, capacity), -12);
	EXPECT_EQ(model::logged(error_line("Unable to allocate memory to copy wt_extents")), 3);
	memory.put(wt_extents_request{.wer_start_from = 0, .wer_extents = {5}});
	EXPECT_EQ(ioctl(10, memory.address()), -13); // five extents, and room for four
	EXPECT_EQ(model::logged(error_line("Unable to copy extents of volume sda to the user "
					   "memory")),
		  1);
}

TEST_F(VolumeIoctl, ClearAndSwitch)
{
	EXPECT_EQ(ioctl(12, 0), 0);
	EXPECT_EQ(ioctl(11, 0), -22);
	track();
	EXPECT_EQ(ioctl(12, 0), 0);
	EXPECT_EQ(volume_manager_getswitchcount(volume_of(disk).get()), 1);
	EXPECT_EQ(ioctl(11, 0), 0);
	EXPECT_EQ(ioctl(11, 0), -22);
}

TEST_F(VolumeIoctl, CopiesThatFail)
{
	struct {
		unsigned int index;
		bool readable; // the copy in succeeds, the one out fails
		const char *message;
	} const cases[] = {
		{2, true, "Unable to copy driver verion info to the usermode"},
		{3, true, "Unable to copy volume tracking info to the usermode"},
		{5, false, "Unable to copy struct backUp from userland"},
		{5, true, "Unable to copy struct backUp to userland"},
		{6, true, "Unable to copy bitmapsize to userland"},
		{9, false, "Unable to copy WI_DATA from userland"},
		{9, true, "Unable to copy Wi_DATA to userland"},
		{10, false, "Unable to wt_extents request from usermode"},
		{10, true, "Unable to copy extents of volume sda to the user memory"},
		{13, true, "Unable to copy uuid of volume sda to the user memory"},
	};
	track();
	for (auto &c : cases) {
		UserMemory memory(256);
		memory.put(backUp{.level = 1, .PartitionLength = 0});
		memory.set_access(c.readable ? UserMemory::Access::read_only
					     : UserMemory::Access::none);
		model::clear_log();
		EXPECT_EQ(ioctl(c.index, memory.address()), -13);
		EXPECT_THAT(model::log(), ElementsAre(error_line(c.message)));
	}
	model::fail("ka_kobject_get", 2); // after the lookup's
	EXPECT_EQ(ioctl(2, 0), -11);
}

// --- Netlink -----------------------------------------------------------------------------------

TEST_F(VolumeIoctl, NetlinkWithoutReplyData)
{
	for (unsigned int cmd : {1, 8, 12})
		EXPECT_THAT(netlink(cmd), ElementsAre(0)) << cmd;
	EXPECT_THAT(netlink(7), ElementsAre(-515, -515));
	EXPECT_THAT(netlink(11), ElementsAre(-22, -22));
	track();
	EXPECT_THAT(netlink(12), ElementsAre(0));
	EXPECT_THAT(netlink(11), ElementsAre(0));
}

TEST_F(VolumeIoctl, NetlinkReplies)
{
	EXPECT_THAT(netlink(3), ElementsAre(1));
	auto level = reply<backUp>(WT_GENATTR_BACKUP, 40);
	EXPECT_EQ(level.level, 0);
	EXPECT_EQ(level.PartitionLength, sectors);
	EXPECT_EQ(answers[0].seq, 17u);
	EXPECT_EQ(answers[0].port, 4242u);
	EXPECT_EQ(answers[0].cmd, 3);
	EXPECT_EQ(answers[0].version, 1);

	EXPECT_THAT(netlink(4), ElementsAre(1));
	EXPECT_EQ(reply<bmReg>(WT_GENATTR_BMREG, 28).BlocksPerBit, 128);

	track();
	EXPECT_THAT(netlink(6), ElementsAre(1));
	auto bitmap = reply<BITMAP>(WT_GENATTR_BITMAP, 48);
	EXPECT_EQ(bitmap.nBMSize, 1032u);
	EXPECT_EQ(bitmap.pnBitmap, nullptr);
	EXPECT_EQ(bitmap.dwCurrentBit, 0u);

	EXPECT_THAT(netlink(13), ElementsAre(1));
	using Uuid = std::array<unsigned char, 16>;
	auto uuid = reply<Uuid>(WT_GENATTR_VOLUME_UUID_T, 40);
	EXPECT_EQ(memcmp(uuid.data(), volume_of(disk)->vi_uuid, 16), 0);
}

TEST_F(VolumeIoctl, NetlinkStartAndStop)
{
	auto run = [&](int32_t level) {
		backUp backup{.level = level, .PartitionLength = 3};
		return netlink(5, {{WT_GENATTR_BACKUP, model::bytes_of(backup)}});
	};
	EXPECT_THAT(run(2), ElementsAre(-22, -22));
	EXPECT_THAT(run(1), ElementsAre(1));
	auto found = reply<backUp>(WT_GENATTR_BACKUP, 40);
	EXPECT_EQ(found.level, 0);
	EXPECT_EQ(found.PartitionLength, sectors * 512);
	EXPECT_THAT(run(1), ElementsAre(1));
	EXPECT_EQ(reply<backUp>(WT_GENATTR_BACKUP, 40).level, 1);
	EXPECT_THAT(run(0), ElementsAre(1));
	EXPECT_EQ(reply<backUp>(WT_GENATTR_BACKUP, 40).level, 1);
	EXPECT_EQ(volume_of(disk)->vi_istracked, 0);
	EXPECT_THAT(netlink(5), ElementsAre(-22, -22));
	EXPECT_THAT(netlink(5, {{WT_GENATTR_BACKUP, model::Bytes(15, 0)}}), ElementsAre(-22, -22));
	EXPECT_EQ(model::logged(error_line("Invalid gen-netlink message WT_START_IOCTL_INDEX")), 2);
}

TEST_F(VolumeIoctl, NetlinkSaveTime)
{
	auto run = [&](int32_t request, uint64_t time) {
		WI_DATA data{.bRequest = request, .savetime = time};
		return netlink(9, {{WT_GENATTR_WI_DATA, model::bytes_of(data)}});
	};
	EXPECT_THAT(run(0, 99), ElementsAre(0));
	EXPECT_THAT(run(7, 1), ElementsAre(1));
	auto data = reply<WI_DATA>(WT_GENATTR_WI_DATA, 40);
	EXPECT_EQ(data.bRequest, 7);
	EXPECT_EQ(data.savetime, 99u);
	// Absent or short, the attribute counts as a question.
	for (auto &attributes : std::vector<std::map<int, model::Bytes>>{
		     {}, {{WT_GENATTR_WI_DATA, model::Bytes(15, 0)}}}) {
		EXPECT_THAT(netlink(9, attributes), ElementsAre(1));
		data = reply<WI_DATA>(WT_GENATTR_WI_DATA, 40);
		EXPECT_EQ(data.bRequest, 1);
		EXPECT_EQ(data.savetime, 99u);
	}
	model::fail("ka_mutex_lock_interruptible");
	EXPECT_THAT(run(1, 0), ElementsAre(-4, -4));
	model::fail("ka_mutex_lock_interruptible");
	EXPECT_THAT(run(0, 5), ElementsAre(0)); // the manager says nothing
}

TEST_F(VolumeIoctl, NetlinkExtents)
{
	auto ask = [&](uint64_t from, size_t capacity) {
		wt_extents_request request{.wer_start_from = from, .wer_extents = {capacity}};
		return netlink(10, {{WT_GENATTR_BACKUP, model::bytes_of(request)}});
	};
	EXPECT_THAT(netlink(10), ElementsAre(-22, -22));
	EXPECT_THAT(netlink(10, {{WT_GENATTR_BACKUP, model::Bytes(15, 0)}}), ElementsAre(-22, -22));
	EXPECT_EQ(model::logged(error_line("Invalid gen-netlink message "
					   "WT_GET_EXTENTS_IOCTL_INDEX")),
		  2);
	EXPECT_THAT(ask(0, 4), ElementsAre(-22, -22)); // not tracked

	track();
	write_blocks({0, 10});
	// The attribute has room for the capacity, whatever the count; the rest is zero.
	EXPECT_THAT(ask(128, 3), ElementsAre(1));
	auto words = reply<std::array<uint64_t, 7>>(WT_GENATTR_BACKUP, 3 * 16 + 32);
	EXPECT_THAT(words, ElementsAre(3, 128, 128, 10 * block_sectors, 256, 0, 0));
	EXPECT_THAT(ask(0, 0), ElementsAre(1));
	EXPECT_EQ(reply<uint64_t>(WT_GENATTR_BACKUP, 32), 0u);

	// 4095 extents are what an attribute holds.
	EXPECT_THAT(ask(0, 4095), ElementsAre(1));
	EXPECT_THAT(ask(0, 4096), ElementsAre(-90, -90));
	model::clear_log();
	for (size_t capacity : {size_t{1} << 40, size_t{1} << 60, ~size_t{0}})
		EXPECT_THAT(ask(0, capacity), ElementsAre(-12, -12));
	EXPECT_EQ(model::logged(error_line("Unable to allocate enough memory for response of "
					   "command WT_GET_EXTENTS_IOCTL_INDEX")),
		  3);
}

TEST_F(VolumeIoctl, NetlinkFailures)
{
	struct {
		unsigned int cmd;
		const char *name;
	} const commands[] = {
		{3, "WT_GET_BACKUP_LEVEL_IOCTL_INDEX"},
		{4, "WT_BMCONFIG_IOCTL_INDEX"},
		{5, "WT_START_IOCTL_INDEX"},
		{6, "WT_BMSIZE_IOCTL_INDEX"},
		{9, "WT_DATA_IOCTL_INDEX"},
		{10, "WT_GET_EXTENTS_IOCTL_INDEX"},
		{13, "WT_GET_VOLUME_UUID_IOCTL_INDEX"},
	};
	track();
	const std::map<int, model::Bytes> attributes = {
		{WT_GENATTR_BACKUP, model::bytes_of(backUp{.level = 1, .PartitionLength = 1})}};
	for (auto &c : commands) {
		SCOPED_TRACE(c.name);
		const std::string no_memory = "Unable to allocate enough memory for response of "
					      "command " +
					      std::string(c.name);
		struct {
			const char *call;
			int error;
			std::string line;
		} const cases[] = {
			{"ka_alloc_skb", -12, error_line(no_memory)},
			{"ka_genlmsg_put", -12, error_line(no_memory)},
			{c.cmd == 10 ? "ka_nla_reserve" : "ka_nla_put", -90, ""},
			{"ka_genlmsg_unicast", -111,
			 warn_line("Unable to send reply of gen-netlink message. error(-111)")},
		};
		for (auto &f : cases) {
			model::clear_log();
			model::fail(f.call);
			EXPECT_THAT(netlink(c.cmd, attributes), ElementsAre(f.error, f.error))
				<< f.call;
			EXPECT_EQ(model::log(), f.line.empty() ? std::vector<std::string>{}
							       : std::vector{f.line});
		}
	}
}

// --- The hook in the disk's ioctl entries ------------------------------------------------------

TEST_F(VolumeIoctl, ForeignIoctlsReachTheDisksDriver)
{
	const ka_ioctl_entry entries[] = {KA_IOCTL, KA_LOCKED_IOCTL, KA_COMPAT_IOCTL};
	const unsigned int commands[] = {0x1234, WT_IOCTL(14), WT_IOCTL(200), (0xa2 << 8) | 3, 3};
	model::Unprivileged unprivileged; // nobody asks for foreign ones
	for (auto entry : entries)
		for (auto cmd : commands)
			for (int partition : {0, 1})
				EXPECT_EQ(disk.ioctl(cmd, 99, partition, entry),
					  model::native_ioctl_result);
	auto received = disk.native_ioctls();
	ASSERT_EQ(received.size(), 30u);
	size_t i = 0;
	for (auto entry : entries) {
		for (auto cmd : commands) {
			for (int partition : {0, 1}) {
				EXPECT_EQ(received[i].entry, entry);
				EXPECT_EQ(received[i].cmd, cmd);
				EXPECT_EQ(received[i].arg, 99u);
				EXPECT_EQ(received[i].mode, KA_FMODE_READ);
				EXPECT_EQ(received[i].dev, disk.dev(partition));
				i++;
			}
		}
	}
	Disk none = plug({.name = "sdb", .minor = 16, .no_ioctls = true});
	EXPECT_EQ(none.ioctl(0x1234, 0), -515);
}

TEST_F(VolumeIoctl, PartitionsAreServedByTheirDisk)
{
	UserMemory memory(16);
	for (auto entry : {KA_IOCTL, KA_LOCKED_IOCTL, KA_COMPAT_IOCTL}) {
		memory.fill(0);
		EXPECT_EQ(disk.ioctl(WT_IOCTL(13), memory.address(), 1, entry), 0);
		EXPECT_EQ(memcmp(memory.data(), volume_of(disk)->vi_uuid, 16), 0);
	}
	// Without the disk's volume a partition has nobody to serve it.
	ASSERT_EQ(volume_remove(disk.dev(1)), 0);
	EXPECT_EQ(ioctl(13, memory.address(), 1), -515);
	EXPECT_EQ(ioctl(13, memory.address(), 0), 0);
	EXPECT_EQ(disk.ioctl(0x1234, 0, 1), -515);
}

// The reference that the refusal keeps is deliberate.
TEST_F(VolumeIoctl, WithoutCapabilityTheVolumeIsKeptForGood)
{
	{
		model::Unprivileged unprivileged;
		EXPECT_EQ(ioctl(1, 0), -13);
	}
	EXPECT_EQ(ioctl(1, 0), 0);
	model::expect_leaked_object("8:0");
}

TEST_F(VolumeIoctl, PatchAndUnpatch)
{
	VolumeRef volume = volume_of(disk);
	EXPECT_THROW(volume_ioctl_patch(volume.get()), model::Bug);
	EXPECT_THROW(volume_ioctl_unpatch(volume.get()), model::Bug);
	MutexLock lock(volume->vi_mtx);
	auto patched = ka_disk_fops(disk.get());
	EXPECT_EQ(patched, &volume->vi_blockfops);
	EXPECT_EQ(volume_ioctl_patch(volume.get()), 0); // already
	EXPECT_EQ(volume->vi_blockfops_old.get(), disk.native_fops());

	// Somebody patched over us.
	ka_block_device_operations foreign;
	ka_bdev_ioctl_fn *const none[KA_IOCTL_ENTRIES] = {};
	ka_fops_copy_with_ioctls(&foreign, patched, none);
	disk.set_fops(&foreign);
	model::clear_log();
	EXPECT_EQ(volume_ioctl_unpatch(volume.get()), -16);
	EXPECT_THAT(model::log(),
		    ElementsAre(warn_line("Block ops ioctl already patched cannot unpatch!!!")));
	EXPECT_EQ(volume->vi_blockfops_old.get(), disk.native_fops());
	disk.set_fops(patched);

	model::fail("ka_open_by_devnum"); // the device is gone
	EXPECT_EQ(volume_ioctl_unpatch(volume.get()), 0);
	EXPECT_EQ(volume->vi_blockfops_old.get(), disk.native_fops());
	// Readers of the pointer are waited for once it is the old one again.
	model::before("ka_synchronize_sched",
		      [&] { EXPECT_EQ(ka_disk_fops(disk.get()), disk.native_fops()); });
	EXPECT_EQ(volume_ioctl_unpatch(volume.get()), 0);
	EXPECT_EQ(ka_disk_fops(disk.get()), disk.native_fops());
	EXPECT_EQ(volume->vi_blockfops_old.get(), nullptr);
	EXPECT_EQ(volume_ioctl_unpatch(volume.get()), 0); // not patched

	// The loser of a race patches what the winner installed.
	model::before("ka_disk_cmpxchg_fops", [&] { disk.set_fops(&foreign); });
	EXPECT_EQ(volume_ioctl_patch(volume.get()), 0);
	EXPECT_EQ(volume->vi_blockfops_old.get(), &foreign);
	EXPECT_EQ(disk.ioctl(0x1234, 0), -515);
	EXPECT_EQ(volume_ioctl_unpatch(volume.get()), 0);
	EXPECT_EQ(ka_disk_fops(disk.get()), &foreign);

	disk.set_fops(nullptr);
	EXPECT_THROW(volume_ioctl_patch(volume.get()), model::Bug);
	disk.set_fops(disk.native_fops());
	volume->vi_blockfops_old.set(nullptr);
}

TEST_F(VolumeIoctl, CommandsDuringWritesAndRemoval)
{
	track();
	std::atomic<bool> stop{false};
	std::vector<std::thread> users;
	users.emplace_back([&] {
		UserMemory memory(16 + 16 * sizeof(wt_extent));
		while (!stop) {
			memory.put(wt_extents_request{.wer_start_from = 0, .wer_extents = {16}});
			int count = ioctl(10, memory.address());
			EXPECT_TRUE(count >= 0 || count == -22 || count == -515) << count;
			disk.ioctl(0x1234, 0, 1);
		}
	});
	users.emplace_back([&] {
		while (!stop)
			model::genl_send({.cmd = 12,
					  .attributes = {{18, model::bytes_of(disk.dev())}},
					  .port = 7});
	});
	for (int round = 0; round < 30; round++) {
		write_blocks({1, 2, 3});
		track(false);
		EXPECT_EQ(volume_remove(disk.dev()), 0);
		EXPECT_EQ(volume_add(disk.dev()), 0);
		track();
	}
	stop = true;
	for (auto &user : users)
		user.join();
}

} // namespace
