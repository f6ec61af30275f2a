// SPDX-License-Identifier: GPL-2.0
/* Commands on restore disks: their records, and what their failures are called. */
#include <csignal>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <zorvat/restore.h>

#include "fake-kernel.h"

using testing::HasSubstr;
using testing::UnorderedElementsAre;
using zorvat::DiskHandle;
using zorvat::Errc;
using zorvat::Error;
using zorvat::RestoreDisks;

namespace
{

class Restore : public testing::Test
{
protected:
	DiskHandle allocate()
	{
		return disks_.allocate({.block_size = 1024, .blocks = 77, .service_area = {}});
	}

	void expect_error(Errc code, const char *text, const std::function<void()> &action)
	{
		try {
			action();
			ADD_FAILURE() << "no error";
		} catch (const Error &error) {
			EXPECT_EQ(error.code(), code) << error.what();
			EXPECT_THAT(error.what(), HasSubstr(text));
		}
	}

	FakeKernel kernel_;
	RestoreDisks disks_{std::make_shared<FakeRestoreDriver>(kernel_), {.sys = kernel_.sys}};
};

TEST_F(Restore, DisksAreListedWithTheirAttributes)
{
	EXPECT_TRUE(disks_.list().empty());
	const DiskHandle first = allocate(), second = allocate();
	EXPECT_EQ(disks_.list().size(), 2u);
	const auto attributes = disks_.find("zorvat-b");
	EXPECT_EQ(attributes.handle, second);
	EXPECT_EQ(attributes.block_size, 1024u);
	EXPECT_EQ(attributes.blocks, 77u);
	EXPECT_EQ(attributes.server, getpid());
	EXPECT_EQ(attributes.device, (zorvat::DeviceNumber{250, 0}));
	EXPECT_TRUE(attributes.suspended());
	EXPECT_EQ(disks_.find("/dev/zorvat-a").handle, first);
	expect_error(Errc::unknown_disk, "'/dev/sda'", [&] { disks_.find("/dev/sda"); });

	disks_.destroy(first);
	EXPECT_EQ(disks_.list().size(), 1u);
}

TEST_F(Restore, RefusalsAreExplained)
{
	const DiskHandle disk = allocate();
	/* For a moment, after the last disk went, there is nobody who knows of disks. */
	kernel_.errors[WTFLR_GET_DISKATTRS_IOCTL_INDEX] = EAGAIN;
	kernel_.before_command = [&, left = 2](uint32_t command) mutable {
		if (command == WTFLR_GET_DISKATTRS_IOCTL_INDEX && --left == 0)
			kernel_.errors.clear();
	};
	EXPECT_EQ(disks_.attributes(disk).name, "zorvat-a");
	kernel_.before_command = {};

	expect_error(Errc::disk_suspended, "zorvat-a", [&] { disks_.suspend(disk); });
	kernel_.disks[disk].port = 9;
	expect_error(Errc::disk_running, "zorvat-a", [&] { disks_.resume(disk, 9); });
	kernel_.disks[disk].port = 0;

	disks_.destroy(disk);
	const auto gone = {
		+[](const RestoreDisks &disks, DiskHandle handle) { disks.suspend(handle); },
		+[](const RestoreDisks &disks, DiskHandle handle) { disks.resume(handle, 1); },
		+[](const RestoreDisks &disks, DiskHandle handle) { disks.destroy(handle); },
		+[](const RestoreDisks &disks, DiskHandle handle) { disks.attributes(handle); },
	};
	for (auto *command : gone)
		expect_error(Errc::unknown_disk, "0xffffc90000001000",
			     [&] { command(disks_, disk); });

	expect_error(Errc::refused, "kernel log", [&] {
		disks_.allocate({.block_size = 511, .blocks = 1, .service_area = {}});
	});
	kernel_.errors[WTFLR_ALLOC_DISK_IOCTL_INDEX] = EPERM;
	expect_error(Errc::not_permitted, "root", [&] { allocate(); });
	kernel_.errors[WTFLR_LIST_DISKS_IOCTL_INDEX] = EOPNOTSUPP;
	expect_error(Errc::unsupported, "same version", [&] { disks_.list(); });
}

TEST_F(Restore, DisksBeyondAHoleInTheDriversTableAreReached)
{
	const DiskHandle disks[] = {allocate(), allocate(), allocate(), allocate()};
	disks_.destroy(disks[0]);
	disks_.destroy(disks[2]);
	EXPECT_EQ(disks_.list().size(), 2u);
	const auto hidden = disks_.find("zorvat-d");
	EXPECT_EQ(hidden.handle, disks[3]);
	EXPECT_EQ(hidden.block_size, 1024u);
	EXPECT_EQ(hidden.blocks, 77u);
	EXPECT_EQ(hidden.server, getpid());
	EXPECT_EQ(hidden.device, (zorvat::DeviceNumber{250, 0}));
	EXPECT_TRUE(hidden.suspended());
	expect_error(Errc::disk_suspended, "zorvat-b", [&] { disks_.suspend(disks[1]); });
	expect_error(Errc::unknown_disk, "no such disk", [&] { disks_.destroy(disks[2]); });
	EXPECT_EQ(kernel_.disks.size(), 2u);
	disks_.destroy(disks[1]);
	disks_.destroy(disks[3]);
	EXPECT_TRUE(kernel_.disks.empty());
}

TEST_F(Restore, ListThatLacksHandlesIsNone)
{
	allocate();
	for (size_t lost : {size_t{1}, size_t{9000}, SIZE_MAX - 1}) {
		kernel_.lost_handles = lost;
		expect_error(Errc::bad_answer, "no sense", [&] { disks_.list(); });
	}
}

/* A process like any other has got the number of the server, which is gone. */
TEST_F(Restore, ServerIsMoreThanAProcessOfThatNumber)
{
	auto disk = disks_.attributes(allocate());
	disk.server = fork();
	if (disk.server == 0) {
		pause();
		_exit(0);
	}
	EXPECT_FALSE(can_have_server(disk));
	kill(disk.server, SIGKILL);
	waitpid(disk.server, nullptr, 0);
	EXPECT_FALSE(can_have_server(disk));

	const size_t sizes[] = {zorvat::min_service_area - 4096, zorvat::min_service_area};
	disk.server = getpid();
	for (const size_t size : sizes) {
		void *area = mmap(nullptr, size, PROT_READ, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
		EXPECT_EQ(can_have_server(disk), size == sizes[1]);
		munmap(area, size);
	}
}

TEST_F(Restore, OtherRoadsThanNetlinkDoNotLeadThere)
{
	RestoreDisks disks(zorvat::open_block_devices());
	expect_error(Errc::unsupported, "netlink", [&] { disks.list(); });
	expect_error(Errc::unsupported, "netlink", [&] { disks.destroy(DiskHandle{1}); });
}

} // namespace
