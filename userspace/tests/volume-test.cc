// SPDX-License-Identifier: GPL-2.0
/* Names of volumes, resolved in a small made-up sysfs. */
#include <fstream>
#include <gmock/gmock.h>
#include <unistd.h>
#include <zorvat/error.h>
#include <zorvat/volume.h>

using testing::HasSubstr;
using zorvat::DeviceNumber;
using zorvat::Errc;
using zorvat::Error;
using zorvat::Volume;

namespace fs = std::filesystem;

namespace
{

TEST(DeviceNumberText, IsStrict)
{
	EXPECT_EQ(DeviceNumber::parse("254:16"), (DeviceNumber{254, 16}));
	EXPECT_EQ(DeviceNumber::parse("4095:1048575"), (DeviceNumber{4095, 1048575}));
	EXPECT_EQ((DeviceNumber{4095, 1048575}).kernel_encoding(), UINT32_MAX);
	for (const char *text : {"", ":", "1:", ":1", "1", "4096:0", "0:1048576", "-1:0", "+1:0",
				 " 1:0", "1:0 ", "1:0:0", "0x1:0", "99999999999:0"})
		EXPECT_EQ(DeviceNumber::parse(text), std::nullopt) << text;
}

class Volumes : public testing::Test
{
protected:
	void SetUp() override
	{
		std::string pattern = fs::temp_directory_path() / "volumes-XXXXXX";
		root_ = mkdtemp(pattern.data());
		paths_ = {root_ / "sys", root_ / "dev"};
		add_device("virtio/vda", "254:0", "vda", 8192);
		add_device("virtio/vda/vda1", "254:1", "vda1", 4096);
		put("devices/virtio/vda/vda1/partition", "1");
		add_device("virtual/dm-3", "253:3", "dm-3", 100);
		put("devices/virtual/dm-3/dm/name", "vg-home");
		add_device("pci/cciss!c0d0", "104:0", "cciss/c0d0", 7);
	}

	void TearDown() override
	{
		fs::remove_all(root_);
	}

	void put(const fs::path &file, const std::string &text)
	{
		fs::create_directories((paths_.sys / file).parent_path());
		std::ofstream(paths_.sys / file) << text << "\n";
	}

	void add_device(const fs::path &directory, const std::string &number,
			const std::string &node, uint64_t sectors)
	{
		fs::path device = "devices" / directory;
		put(device / "dev", number);
		put(device / "uevent", "MAJOR=1\nDEVNAME=" + node + "\nDEVTYPE=disk");
		put(device / "size", std::to_string(sectors));
		link("dev/block/" + number, device);
		link("class/block" / device.filename(), device);
	}

	void link(const fs::path &name, const fs::path &target)
	{
		fs::create_directories((paths_.sys / name).parent_path());
		fs::create_symlink(paths_.sys / target, paths_.sys / name);
	}

	fs::path root_;
	zorvat::SystemPaths paths_;
};

TEST_F(Volumes, AreFoundByNumberAndByKernelName)
{
	for (const char *name : {"vda", "254:0"}) {
		Volume volume = resolve_volume(name, paths_);
		EXPECT_EQ(volume.device, (DeviceNumber{254, 0}));
		EXPECT_EQ(volume.label(), "vda (254:0)");
		EXPECT_EQ(volume.node, paths_.dev / "vda");
		EXPECT_EQ(volume.sectors, 8192u);
		EXPECT_EQ(volume.whole_disk, "");
	}
	EXPECT_EQ(resolve_volume("vda1", paths_).whole_disk, "vda");
	EXPECT_EQ(resolve_volume("dm-3", paths_).mapped_name, "vg-home");

	Volume in_subdirectory = resolve_volume("104:0", paths_);
	EXPECT_EQ(in_subdirectory.name, "cciss/c0d0");
	EXPECT_EQ(in_subdirectory.node, paths_.dev / "cciss/c0d0");

	Volume gone = resolve_volume("8:16", paths_);
	EXPECT_EQ(gone.label(), "8:16");
	EXPECT_TRUE(gone.node.empty());
}

TEST_F(Volumes, BadNamesAreRefusedWithTheReason)
{
	const std::pair<const char *, const char *> cases[] = {
		{"", "empty"},        {"vdz", "no block device"}, {"..", "no block"},
		{"4096:0", "bounds"}, {"/dev/null", "not a"},     {"/nowhere/x", "No such file"},
	};
	for (auto [name, reason] : cases) {
		try {
			resolve_volume(name, paths_);
			ADD_FAILURE() << name;
		} catch (const Error &error) {
			EXPECT_EQ(error.code(), Errc::bad_volume_name);
			EXPECT_THAT(error.what(), HasSubstr(reason));
		}
	}
}

TEST_F(Volumes, ListJoinsTheDriversDirectoriesWithTheKernelsNames)
{
	try {
		list_volumes(paths_);
		FAIL() << "no error";
	} catch (const Error &error) {
		EXPECT_EQ(error.code(), Errc::driver_not_loaded);
	}

	for (const char *entry : {"254:0", "253:3", "8:16", "restore-volumes"})
		fs::create_directories(paths_.sys / "zorvat" / entry);
	put("zorvat/version", "1.0");
	std::vector<std::string> labels;
	for (const Volume &volume : list_volumes(paths_))
		labels.push_back(volume.label());
	EXPECT_THAT(labels, testing::ElementsAre("8:16", "dm-3 (253:3)", "vda (254:0)"));
}

} // namespace
