// SPDX-License-Identifier: GPL-2.0
/* The driver's sysfs files, in a made-up tree: what is read, written, and told of failures. */
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <unistd.h>
#include <zorvat/error.h>
#include <zorvat/sysfs.h>

#include "fake-driver.h"

using testing::HasSubstr;
using zorvat::Errc;
using zorvat::Error;

namespace fs = std::filesystem;

namespace
{

class Sysfs : public testing::Test
{
protected:
	void SetUp() override
	{
		std::string pattern = fs::temp_directory_path() / "sysfs-XXXXXX";
		paths_.sys = mkdtemp(pattern.data());
	}
	void TearDown() override
	{
		fs::remove_all(paths_.sys);
	}
	void put(const std::string &file, const std::string &text)
	{
		fs::path path = paths_.sys / "zorvat" / file;
		fs::create_directories(path.parent_path());
		std::ofstream(path) << text;
	}
	std::string get(const std::string &file)
	{
		std::ifstream stream(paths_.sys / "zorvat" / file);
		return {std::istreambuf_iterator<char>(stream), {}};
	}
	void put_bitmap(uint64_t sectors, size_t bytes)
	{
		put("254:16/volume-extents", "0 " + std::to_string(sectors) + "\n");
		put("254:16/cbt-bitmap", std::string(bytes, '\xf0'));
	}
	static void fails(Errc code, const char *reason, const std::function<void()> &call)
	{
		try {
			call();
			ADD_FAILURE() << "no error: " << reason;
		} catch (const Error &error) {
			EXPECT_EQ(error.code(), code) << error.what();
			EXPECT_THAT(error.what(), HasSubstr(reason));
		}
	}

	zorvat::SystemPaths paths_;
	zorvat::Volume volume_ = test_volume();
};

TEST_F(Sysfs, VerbosityIsReadInBothForms)
{
	put("log-verbosity", "3\n");
	auto verbosity = log_verbosity(paths_);
	EXPECT_EQ(verbosity.all, 3u);
	EXPECT_TRUE(verbosity.groups.empty());

	put("log-verbosity", "testcode 3\nvolume-manager 0\n");
	verbosity = log_verbosity(paths_);
	EXPECT_EQ(verbosity.all, std::nullopt);
	EXPECT_THAT(verbosity.groups, testing::ElementsAre(zorvat::LogGroup{"testcode", 3},
							   zorvat::LogGroup{"volume-manager", 0}));

	for (const char *nonsense : {"", "testcode\n", "testcode x\n"}) {
		put("log-verbosity", nonsense);
		fails(Errc::bad_answer, "verbosity", [&] { log_verbosity(paths_); });
	}
}

TEST_F(Sysfs, VerbosityIsWrittenAsTheDriverParsesIt)
{
	put("log-verbosity", "");
	set_log_verbosity(7, paths_);
	EXPECT_EQ(get("log-verbosity"), "7\n");
	put("log-verbosity", "");
	zorvat::set_log_verbosity({{"dm-patcher", 1}}, paths_);
	EXPECT_EQ(get("log-verbosity"), "dm-patcher 1\n");

	/* Each of these would set another group, or all. */
	put("log-verbosity", "");
	const std::vector<std::string> names = {"",     "3", " dm-patcher", "dm patcher",
						"a\nb", "-", "a\tb",        std::string(31, 'a')};
	for (auto &name : names)
		fails(Errc::refused, "no name of a log group", [&] {
			zorvat::set_log_verbosity({{name, 1}}, paths_);
		});
	EXPECT_EQ(get("log-verbosity"), "");
}

TEST_F(Sysfs, Refresh)
{
	put("refresh-volume-set", "");
	zorvat::refresh_volumes(paths_);
	EXPECT_FALSE(get("refresh-volume-set").empty());
}

TEST_F(Sysfs, SwitchCount)
{
	put("254:16/cbt-switch-count", "12\n");
	EXPECT_EQ(switch_count(volume_, paths_), 12u);
	put("254:16/cbt-switch-count", "");
	fails(Errc::bad_answer, "vdb", [&] { switch_count(volume_, paths_); });
}

TEST_F(Sysfs, BitmapsThatFitIntoOneRead)
{
	struct {
		uint64_t sectors;
		size_t in_file;
		bool fits;
	} const cases[] = {
		{1, 8, true},           {8191, 8, true},
		{8192, 16, true},       {(1 << 22) - 1, 4096, true},
		{1 << 22, 4104, false}, {uint64_t{1} << 31, 2097160, false},
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.sectors);
		put_bitmap(c.sectors, c.in_file);
		if (c.fits)
			EXPECT_EQ(read_bitmap(volume_, paths_),
				  std::vector(c.in_file, std::byte{0xf0}));
		else
			fails(Errc::unsupported, "zorvatctl extents",
			      [&] { read_bitmap(volume_, paths_); });
	}
	put_bitmap(8192, 8);
	fails(Errc::changed_meanwhile, "size changed", [&] { read_bitmap(volume_, paths_); });
}

TEST_F(Sysfs, FailuresSayWhatIsMissing)
{
	const std::function<void()> of_volume[] = {[&] { switch_count(volume_, paths_); },
						   [&] { read_bitmap(volume_, paths_); }};
	const std::function<void()> of_driver[] = {[&] { log_verbosity(paths_); },
						   [&] { set_log_verbosity(1, paths_); },
						   [&] { zorvat::refresh_volumes(paths_); }};
	for (auto &call : of_volume)
		fails(Errc::driver_not_loaded, "modprobe", call);
	for (auto &call : of_driver)
		fails(Errc::driver_not_loaded, "modprobe", call);

	put("version", "1.0");
	for (auto &call : of_volume)
		fails(Errc::unknown_volume, "vdb (254:16)", call);
	for (auto &call : of_driver)
		fails(Errc::unsupported, "does not have the file", call);

	put("254:16/volume-extents", "0 100\n");
	fails(Errc::not_tracked, "start tracking", [&] { read_bitmap(volume_, paths_); });
	put("254:16/volume-extents", "100 0\n");
	fails(Errc::bad_answer, "vdb", [&] { read_bitmap(volume_, paths_); });
}

} // namespace
