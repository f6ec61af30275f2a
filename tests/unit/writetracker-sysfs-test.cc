// SPDX-License-Identifier: GPL-2.0
// The files of the driver's own directory.
#include "writetracker/writetracker-sysfs.h"

#include "fixture.h"
#include "writetracker/wt-logging.h"

namespace
{

const std::string directory = "/sys/zorvat";
const std::string verbosity_file = directory + "/log-verbosity";

class WriteTrackerSysfs : public Driver
{
protected:
	// The groups whose verbosity is not 3, as "name:verbosity".
	static std::string changed_groups()
	{
		std::string changed;
		for (auto &verb : wt_log_verbs)
			if (verb.lgv_verbosity != 3)
				changed += std::string(changed.empty() ? "" : " ") + verb.lgv_name +
					   ":" + std::to_string(verb.lgv_verbosity);
		return changed;
	}
};

TEST_F(WriteTrackerSysfs, FilesAndModes)
{
	EXPECT_THAT(model::sysfs_list(directory),
		    ElementsAre("log-verbosity", "refresh-volume-set", "version"));
	EXPECT_EQ(model::sysfs_mode(verbosity_file), 0644);
	EXPECT_EQ(model::sysfs_mode(directory + "/refresh-volume-set"), 0200);
	EXPECT_EQ(model::sysfs_mode(directory + "/version"), 0444);

	char page[KA_SYSFS_PAGE];
	EXPECT_EQ(g_wt_sysfs_ops.store(nullptr, g_wt_sysfs_attr[1], "x", 1), -5);
	EXPECT_EQ(g_wt_sysfs_ops.show(nullptr, g_wt_sysfs_attr[2], page), -5);
}

TEST_F(WriteTrackerSysfs, Version)
{
	auto [result, text] = model::sysfs_show(directory + "/version");
	EXPECT_EQ(text, wt_context.driver_version.wtv_str);
	EXPECT_EQ(result, static_cast<long>(text.size()));
	model::fail("ka_kobject_get");
	EXPECT_EQ(model::sysfs_show(directory + "/version").result, -11);
}

TEST_F(WriteTrackerSysfs, RefreshAnnouncesDisksAgain)
{
	Disk disk = plug();
	ASSERT_EQ(volume_remove(disk.dev()), 0);
	EXPECT_EQ(model::sysfs_store(directory + "/refresh-volume-set", "whatever\n"), 9);
	model::advance(1000);
	EXPECT_TRUE(model::sysfs_exists(directory + "/8:0"));
}

TEST_F(WriteTrackerSysfs, VerbosityOfAllAndOfGroups)
{
	EXPECT_EQ(model::sysfs_show(verbosity_file).text, "3\n");
	EXPECT_EQ(model::sysfs_store(verbosity_file, "volume-manager 5\ndm-processor 1\n"), 32);
	EXPECT_EQ(changed_groups(), "volume-manager:5 dm-processor:1");
	auto [result, text] = model::sysfs_show(verbosity_file);
	EXPECT_EQ(result, static_cast<long>(text.size()));
	EXPECT_TRUE(text.starts_with("testcode 3\n")) << text;
	EXPECT_TRUE(text.ends_with("volume-manager 5\nudev-patcher 3\nvolume-registry 3\n"
				   "dm-patcher 3\nwritetracker 3\nwt-logging 3\n"))
		<< text;
	EXPECT_EQ(model::sysfs_store(verbosity_file, " 3 rest\n"), 8);
	EXPECT_EQ(changed_groups(), "");
}

TEST_F(WriteTrackerSysfs, VerbosityLines)
{
	const std::string longest_name(30, 'x'), name_of_31(31, 'x');
	const std::string fitting = "volume-manager" + std::string(31, ' ') + "4";
	ASSERT_EQ(fitting.size(), 46u);
	using namespace std::string_literals;
	struct {
		std::string text;
		long result; // 0: the whole length
		const char *changed;
		std::string warning; // empty: none
	} const cases[] = {
		{"", 0, "", ""},
		{"\n \t\n\n", 0, "", ""},
		{"volume-manager 4", 0, "volume-manager:4", ""},
		{"\n\n  volume-manager\t4 ignored\n", 0, "volume-manager:4", ""},
		{"volume-manager 4\0dm-patcher 0\n"s, 0, "dm-patcher:0 volume-manager:4", ""},
		{fitting, 0, "volume-manager:4", ""},
		{fitting + " ", -12, "", "SYSFS: Input-Line Too Big"},
		{"dm-patcher 1\n" + fitting + " \n", -12, "dm-patcher:1",
		 "SYSFS: Input-Line Too Big"},
		{longest_name + " 4", -22, "",
		 "Invalid Verbosity Level 4 or log-group " + longest_name},
		{name_of_31 + " 4", -12, "", "SYSFS: Log Group Too Big: " + name_of_31},
		{"volume-manager", -22, "", "Invalid Verbosity Level  or log-group volume-manager"},
		{"volume-manager 9", -22, "",
		 "Invalid Verbosity Level 9 or log-group volume-manager"},
		{"volume-manager -1", -22, "",
		 "Invalid Verbosity Level -1 or log-group volume-manager"},
		{"volume-manager x", -22, "",
		 "Invalid Verbosity Level x or log-group volume-manager"},
		{"dm-patcher 1\nnobody 4\nvolume-manager 4\n", -22, "dm-patcher:1",
		 "Invalid Verbosity Level 4 or log-group nobody"},
		{"-1", -22, "", "Invalid Verbosity Level  or log-group -1"},
		{"9", -22, "", "Invalid Verbosity Level 9"},
		{"4294967295", -22, "", "Invalid Verbosity Level -1"},
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.text);
		wt_logging_update_all(3);
		model::clear_log();
		EXPECT_EQ(model::sysfs_store(verbosity_file, c.text),
			  c.result ? c.result : static_cast<long>(c.text.size()));
		EXPECT_EQ(changed_groups(), c.changed);
		std::vector<std::string> expected;
		if (!c.warning.empty())
			expected.push_back(warn_line(c.warning));
		EXPECT_EQ(model::log(), expected);
	}
	// The group of these messages, at the verbosity of errors.
	wt_logging_update("writetracker-sysfs", 1);
	model::clear_log();
	EXPECT_EQ(model::sysfs_store(verbosity_file, "9"), -22);
	EXPECT_THAT(model::log(), IsEmpty());
}

} // namespace
