// SPDX-License-Identifier: GPL-2.0
/* What commands carry, and what their failures are called. */
#include <gmock/gmock.h>

#include "fake-driver.h"

using testing::HasSubstr;
using zorvat::Driver;
using zorvat::Errc;
using zorvat::Error;

namespace
{

constexpr int no_such_kernel_command = 515;

enum State {
	unknown,
	untracked,
	tracked
};

struct FailureCase {
	const char *name;
	State state;
	uint32_t command;
	int error; // of the driver; 0: what the state brings about
	void (*run)(const Driver &driver);
	Errc expected;
	const char *advice;

	friend void PrintTo(const FailureCase &test, std::ostream *out)
	{
		*out << test.name;
	}
};

void start(const Driver &driver)
{
	driver.start_tracking(test_volume());
}
void stop(const Driver &driver)
{
	driver.stop_tracking(test_volume());
}
void switch_bitmap(const Driver &driver)
{
	driver.switch_bitmap(test_volume());
}
void uuid(const Driver &driver)
{
	driver.uuid(test_volume());
}
void level(const Driver &driver)
{
	driver.backup_level(test_volume());
}
void version(const Driver &driver)
{
	driver.version();
}

constexpr uint32_t start_index = WT_START_IOCTL_INDEX;
constexpr uint32_t switch_index = WT_SWITCH_VOLUME_CBT_IOCTL_INDEX;
constexpr uint32_t uuid_index = WT_GET_VOLUME_UUID_IOCTL_INDEX;
constexpr uint32_t version_index = WT_GET_DRIVER_VERSION_IOCTL_INDEX;

const FailureCase failure_cases[] = {
	{"start_unknown", unknown, 0, 0, start, Errc::unknown_volume, "tracked_majors"},
	{"level_unknown", unknown, 0, 0, level, Errc::unknown_volume, "zorvatctl volumes"},
	{"start_twice", tracked, 0, 0, start, Errc::already_tracked, "stop tracking"},
	{"start_refused", untracked, start_index, EINVAL, start, Errc::refused, "kernel log"},
	{"stop_untracked", untracked, 0, 0, stop, Errc::not_tracked, "start tracking"},
	{"stop_of_hooked_queue", tracked, start_index, EINVAL, stop, Errc::refused, "hooked"},
	{"switch_untracked", untracked, switch_index, EINVAL, switch_bitmap, Errc::not_tracked,
	 "start tracking"},
	{"command_of_other_version", tracked, uuid_index, no_such_kernel_command, uuid,
	 Errc::unsupported, "same version"},
	{"unregistered", tracked, uuid_index, EOPNOTSUPP, uuid, Errc::unsupported, "same version"},
	{"no_net_capability", tracked, uuid_index, EPERM, uuid, Errc::not_permitted, "root"},
	{"no_sys_capability", tracked, uuid_index, EACCES, uuid, Errc::not_permitted, "root"},
	{"going_away", tracked, version_index, EAGAIN, version, Errc::driver_not_ready, "again"},
	{"no_memory", tracked, start_index, ENOMEM, stop, Errc::no_memory, "memory"},
	{"device_gone", tracked, start_index, ENXIO, stop, Errc::system, "No such device"},
	{"version_without_volume", tracked, version_index, EINVAL, version, Errc::system,
	 "control"},
};

class Failure : public testing::TestWithParam<FailureCase>
{
};

TEST_P(Failure, SaysWhatOnWhichVolumeAndWhatToDo)
{
	const FailureCase &test = GetParam();
	FakeVolume volume(2048);
	volume.known = test.state != unknown;
	volume.level = test.state == tracked;
	if (test.error)
		volume.errors[test.command] = test.error;
	Driver driver(std::make_unique<FakeDriver>(volume));
	try {
		test.run(driver);
		FAIL() << "no error";
	} catch (const Error &error) {
		EXPECT_EQ(error.code(), test.expected) << error.what();
		EXPECT_EQ(error.error_number(), test.error ? test.error : EINVAL);
		EXPECT_THAT(error.what(), HasSubstr(test.advice));
		if (test.run != version) {
			EXPECT_THAT(error.what(), HasSubstr("vdb (254:16)"));
		}
	}
}

INSTANTIATE_TEST_SUITE_P(Driver, Failure, testing::ValuesIn(failure_cases),
			 [](const auto &test) { return test.param.name; });

TEST(DriverCommands, CarryTheirRecords)
{
	FakeVolume fake(2048);
	fake.level = 0;
	Driver driver(std::make_unique<FakeDriver>(fake));
	zorvat::Volume volume = test_volume();

	EXPECT_FALSE(driver.backup_level(volume).tracked);
	EXPECT_EQ(driver.start_tracking(volume), 2048u * 512);
	EXPECT_TRUE(driver.backup_level(volume).tracked);
	EXPECT_EQ(driver.backup_level(volume).sectors, 2048u);
	EXPECT_EQ(driver.stop_tracking(volume), 2048u * 512);
	EXPECT_EQ(fake.level, 0);

	driver.set_save_time(volume, UINT64_MAX);
	EXPECT_EQ(driver.save_time(volume), UINT64_MAX);
	EXPECT_EQ(driver.bitmap_size(volume), 8u);
	EXPECT_EQ(driver.uuid(volume)[15], 15);

	EXPECT_TRUE(driver.present(volume));
	fake.known = false;
	EXPECT_FALSE(driver.present(volume));
}

TEST(DriverCommands, GranularityIsNeverMadeUp)
{
	FakeVolume fake(2048);
	Driver driver(std::make_unique<FakeDriver>(fake));
	EXPECT_EQ(driver.granularity(test_volume()), 128u);

	auto expect_unsupported = [&driver] {
		try {
			driver.granularity(test_volume());
			ADD_FAILURE() << "no error";
		} catch (const Error &error) {
			EXPECT_EQ(error.code(), Errc::unsupported);
			EXPECT_THAT(error.what(), HasSubstr("netlink"));
		}
	};
	fake.granularity_answered = false;
	expect_unsupported();
	fake.errors[WT_BMCONFIG_IOCTL_INDEX] = EACCES;
	expect_unsupported();
}

TEST(DriverCommands, PartitionIsSentToItsDisk)
{
	FakeVolume fake(2048);
	fake.known = false;
	zorvat::Volume partition = test_volume();
	partition.whole_disk = "vdz";
	try {
		Driver(std::make_unique<FakeDriver>(fake)).start_tracking(partition);
		FAIL() << "no error";
	} catch (const Error &error) {
		EXPECT_THAT(error.what(), HasSubstr("name its disk vdz"));
	}
}

} // namespace
