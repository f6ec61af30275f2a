// SPDX-License-Identifier: GPL-2.0
/* What travels on each road: ioctl arguments, netlink messages, and a real netlink socket. */
#include <gmock/gmock.h>
#include <linux/genetlink.h>
#include <thread>
#include <zorvat/error.h>

#include "fake-driver.h"
#include "ioctl-transport.h"
#include "netlink-answer.h"
#include "netlink-transport.h"

using zorvat::Command;
using zorvat::Errc;
using zorvat::Error;

namespace
{

constexpr Command level_command{WT_GET_BACKUP_LEVEL_IOCTL_INDEX, 0, 0, WT_GENATTR_BACKUP, 0};
constexpr Command clear_command{WT_CLEAR_SNAPSHOT_BITMAP_IOCTL_INDEX, 0, 0, 0, 0};

template <typename Record> std::span<std::byte> bytes_of(Record &record)
{
	return std::as_writable_bytes(std::span(&record, 1));
}

Errc code_of(const std::function<void()> &action)
{
	try {
		action();
	} catch (const Error &error) {
		return error.code();
	}
	ADD_FAILURE() << "no error";
	return Errc::system;
}

TEST(ControlDevice, PutsTheDeviceNumberBeforeTheRecord)
{
	unsigned long seen_command = 0;
	uint32_t seen_device = 0;
	backUp seen_record{};
	zorvat::ControlDevice control("/dev/null", [&](int, unsigned long command, void *argument) {
		auto *bytes = static_cast<std::byte *>(argument);
		seen_command = command;
		std::memcpy(&seen_device, bytes, 4);
		std::memcpy(&seen_record, bytes + 4, sizeof(seen_record));
		backUp answer{0, 77};
		std::memcpy(bytes + 4, &answer, sizeof(answer));
		return 3;
	});

	zorvat::Volume volume = test_volume();
	backUp record{1, 5};
	EXPECT_EQ(control.execute(level_command, &volume, bytes_of(record)), 3);
	EXPECT_EQ(seen_command, 0xA103u);
	EXPECT_EQ(seen_device, 254u << 20 | 16);
	EXPECT_EQ(seen_record.PartitionLength, 5u);
	EXPECT_EQ(record.PartitionLength, 77u);
}

TEST(ControlDevice, VersionHasNoDeviceNumber)
{
	zorvat::ControlDevice control("/dev/null", [](int, unsigned long, void *argument) {
		static_cast<wt_version *>(argument)->wtv_build = 9;
		return 0;
	});
	wt_version record{};
	Command version{WT_GET_DRIVER_VERSION_IOCTL_INDEX, 0, 0, WT_GENATTR_VERSION, 0};
	EXPECT_EQ(control.execute(version, nullptr, bytes_of(record)), 0);
	EXPECT_EQ(record.wtv_build, 9u);
}

TEST(BlockDevices, NeverAskOnAnythingButTheVolumesDevice)
{
	zorvat::BlockDevices devices([](int, unsigned long, void *) -> int {
		ADD_FAILURE() << "asked";
		return 0;
	});
	zorvat::Volume volume = test_volume();
	EXPECT_EQ(code_of([&] { devices.execute(clear_command, &volume, {}); }),
		  Errc::bad_volume_name);
	volume.node = "/dev/null";
	EXPECT_EQ(code_of([&] { devices.execute(clear_command, &volume, {}); }),
		  Errc::bad_volume_name);
}

/* Netlink messages one after the other, as they arrive in a datagram. */
class Datagram
{
public:
	Datagram &acknowledgement(uint32_t sequence, int error, size_t cut = 0)
	{
		nlmsgerr payload{};
		payload.error = error;
		return message(NLMSG_ERROR, sequence, &payload, sizeof(payload) - cut);
	}

	Datagram &reply(uint32_t sequence, uint16_t attribute, const backUp &record, size_t cut = 0)
	{
		struct {
			genlmsghdr generic;
			uint16_t length;
			uint16_t type;
			backUp record;
		} payload{{WT_GET_BACKUP_LEVEL_IOCTL_INDEX, 1, 0},
			  static_cast<uint16_t>(4 + sizeof(record) - cut),
			  attribute,
			  record};
		return message(family, sequence, &payload, sizeof(payload) - cut);
	}

	static constexpr uint16_t family = 30;

	std::span<const std::byte> bytes() const
	{
		return std::as_bytes(std::span(words_));
	}

private:
	Datagram &message(uint16_t type, uint32_t sequence, const void *payload, size_t size)
	{
		nlmsghdr header{static_cast<uint32_t>(NLMSG_LENGTH(size)), type, 0, sequence, 0};
		size_t begin = words_.size();
		words_.resize(begin + NLMSG_SPACE(size) / sizeof(uint32_t));
		std::memcpy(&words_[begin], &header, sizeof(header));
		std::memcpy(&words_[begin + NLMSG_HDRLEN / 4], payload, size);
		return *this;
	}

	std::vector<uint32_t> words_;
};

std::optional<int> find(const Datagram &datagram, const Command &command, backUp &record)
{
	return zorvat::find_netlink_answer(datagram.bytes(), {7, Datagram::family}, command,
					   bytes_of(record));
}

TEST(NetlinkAnswer, IsTheOneToThisRequest)
{
	backUp record{};
	EXPECT_EQ(find(Datagram().reply(7, WT_GENATTR_BACKUP, {1, 99}), level_command, record), 0);
	EXPECT_EQ(record.PartitionLength, 99u);

	/* A failed request is acknowledged twice, and the second one is met by the next request. */
	Datagram late;
	late.acknowledgement(6, -EINVAL);
	EXPECT_EQ(find(late, level_command, record), std::nullopt);
	late.reply(7, WT_GENATTR_BACKUP, {0, 55});
	EXPECT_EQ(find(late, level_command, record), 0);
	EXPECT_EQ(record.PartitionLength, 55u);

	EXPECT_EQ(find(Datagram().acknowledgement(7, 0), clear_command, record), 0);
	EXPECT_EQ(find(Datagram().acknowledgement(7, -515), level_command, record), -515);
	EXPECT_EQ(find(Datagram(), level_command, record), std::nullopt);
}

TEST(NetlinkAnswer, WithoutAWholeRecordIsNone)
{
	const Datagram datagrams[] = {
		Datagram().acknowledgement(7, 0),
		Datagram().acknowledgement(7, -EINVAL, 8),
		Datagram().reply(7, WT_GENATTR_BITMAP, {1, 2}),
		Datagram().reply(7, WT_GENATTR_BACKUP, {1, 2}, 8),
	};
	for (const Datagram &datagram : datagrams) {
		backUp record{};
		EXPECT_EQ(code_of([&] { find(datagram, level_command, record); }),
			  Errc::bad_answer);
	}
}

/* The kernel's own generic-netlink family answers in the driver's place. */
TEST(Netlink, AsksARealFamilyFromSeveralThreads)
{
	zorvat::Netlink netlink("nlctrl");
	Command describe{CTRL_CMD_GETFAMILY, CTRL_ATTR_FAMILY_ID, 2, CTRL_ATTR_FAMILY_NAME, 2};
	Command nothing_named{CTRL_CMD_GETFAMILY, 0, 0, CTRL_ATTR_FAMILY_NAME, 0};
	auto ask = [&] {
		for (int i = 0; i < 100; i++) {
			EXPECT_EQ(netlink.execute(nothing_named, nullptr, {}), -EINVAL);
			std::array<char, 2 + sizeof("nlctrl")> record{GENL_ID_CTRL, 0};
			EXPECT_EQ(netlink.execute(describe, nullptr, bytes_of(record)), 0);
			EXPECT_STREQ(&record[2], "nlctrl");
		}
	};
	std::jthread other(ask);
	ask();
}

TEST(Netlink, MissingFamilyMeansNoDriver)
{
	EXPECT_EQ(code_of([] { zorvat::Netlink("zorvat-nowhere"); }), Errc::driver_not_loaded);
}

} // namespace
