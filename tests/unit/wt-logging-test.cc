// SPDX-License-Identifier: GPL-2.0
// Log groups: setting and listing verbosities, the gates, the form of a line.
#include "fixture.h"
#include "writetracker/wt-logging.h"

namespace
{

class WtLogging : public Model
{
protected:
	WtLogging()
	{
		EXPECT_EQ(wt_logging_init(3), 0);
	}
	static std::string print(size_t length = 4096)
	{
		std::string page(length, '\0');
		result = wt_logging_print(page.data(), length);
		return page.substr(0, page.find('\0'));
	}

	static inline long result;
};

TEST_F(WtLogging, SettingAllGroups)
{
	struct {
		int (*set)(unsigned int);
		unsigned int value;
		int result;
		int verbosity; // afterwards
	} const cases[] = {
		{[](unsigned int v) { return wt_logging_init(static_cast<int>(v)); }, 8, 0, 8},
		{[](unsigned int v) { return wt_logging_init(static_cast<int>(v)); }, 9, -22, 8},
		{wt_logging_update_all, 0, 0, 0},
		{wt_logging_update_all, 9, -22, 0},
		{wt_logging_update_all, ~0u, -22, 0},
		// A negative value is not above 8 at load; its low eight bits count.
		{[](unsigned int v) { return wt_logging_init(static_cast<int>(v)); }, ~0u, 0, 255},
	};
	for (auto &c : cases) {
		EXPECT_EQ(c.set(c.value), c.result) << c.value;
		EXPECT_EQ(print(), std::to_string(c.verbosity) + "\n");
	}
}

TEST_F(WtLogging, SettingOneGroup)
{
	struct {
		const char *group;
		unsigned int verbosity;
		int result;
		int index; // of the group set
	} const cases[] = {
		{"wt-logging", 1, 0, 0},        {"volume-manager", 8, 0, 5},
		{"control-device", 0, 0, 12},   {"kernel-abstractions", 2, 0, 21},
		{"testcode", 4, 0, 64},         {"", 7, 0, 11}, // the first free slot
		{"volume-manager", 9, -22, 5},  {"volume", 3, -2, -1},
		{"volume-manager2", 3, -2, -1},
	};
	for (auto &c : cases) {
		EXPECT_EQ(wt_logging_update(c.group, c.verbosity), c.result) << c.group;
		if (c.result == 0) {
			EXPECT_EQ(wt_log_verbs[c.index].lgv_verbosity, c.verbosity) << c.group;
		}
	}
	EXPECT_EQ(wt_log_verbs[5].lgv_verbosity, 8);
}

TEST_F(WtLogging, ListsNamedGroupsFromTheLastToTheFirst)
{
	ASSERT_EQ(wt_logging_update("volume-manager", 4), 0);
	const std::string expected = "testcode 3\nkernel-abstractions 3\njorl-genlhandler 3\n"
				     "jorl-netlink 3\njorl-volume 3\njorl-manager-sysfs 3\n"
				     "jorlvolume-registry 3\njorl-manager 3\ncontrol-device 3\n"
				     "volume-ioctl 3\ndm-processor 3\nvolume-sysfs 3\n"
				     "writetracker-sysfs 3\nvolume-tracker 3\nvolume-manager 4\n"
				     "udev-patcher 3\nvolume-registry 3\ndm-patcher 3\n"
				     "writetracker 3\nwt-logging 3\n";
	EXPECT_EQ(print(), expected);
	EXPECT_EQ(result, static_cast<long>(expected.size()));

	// What fitted stays; a line is whole or missing.
	EXPECT_EQ(print(sizeof("testcode 3\n") + 5), "testcode 3\n");
	EXPECT_EQ(result, -27);
}

TEST_F(WtLogging, GatesAndPrefixes)
{
	static constexpr wt_log_group wt_group = WT_LOG_GROUP_TESTCODE;
	const std::vector<std::string> lines = {"<3>[zorvat-ERROR]:e 1\n", "<4>[zorvat-WARN]:w\n",
						"<6>[zorvat-INFO]:i\n"};
	for (unsigned int verbosity = 0; verbosity <= 8; verbosity++) {
		wt_logging_update_all(8);
		wt_logging_update("testcode", verbosity);
		model::clear_log();
		WT_ERROR("e %d\n", 1);
		WT_WARN("w\n");
		WT_INFO("i\n");
		auto expected = lines;
		expected.resize(std::min(verbosity, 3u));
		EXPECT_EQ(model::log(), expected) << verbosity;
	}
	wt_logging_update_all(0);
	model::clear_log();
	WT_FATAL("f");
	EXPECT_THAT(model::log(), ElementsAre("<0>[zorvat-FATAL]:f"));
}

} // namespace
