// SPDX-License-Identifier: GPL-2.0
// The files of a volume's directory: modes, texts, what may be written, the bitmap beyond a page.
#include "writetracker/volume-sysfs.h"

#include <thread>

#include "fixture.h"

namespace
{

class VolumeSysfs : public Tracked
{
protected:
	static std::string path(const std::string &file)
	{
		return "/sys/zorvat/8:0/" + file;
	}
	static std::string shown(const std::string &file)
	{
		return model::sysfs_show(path(file)).text;
	}
	static long result_of_reading(const std::string &file)
	{
		return model::sysfs_show(path(file)).result;
	}
	static long write(const std::string &file, const std::string &text)
	{
		return model::sysfs_store(path(file), text);
	}
	// One extent of two blocks for each third block.
	void change_extents(uint64_t from, uint64_t count)
	{
		for (uint64_t i = from; i < from + count; i++)
			disk.write(3 * i * block_sectors, 1);
	}
	void unplug()
	{
		volume.reset(nullptr);
		disk.remove();
		model::settle();
		EXPECT_FALSE(model::sysfs_exists("/sys/zorvat/8:0"));
		model::expect_leaked_object("8:0"); // its device cannot be opened any more
	}
};

TEST_F(VolumeSysfs, FilesAndModes)
{
	struct {
		const char *name;
		int mode;
	} const files[] = {
		{"cbt-bitmap", 0044},     {"cbt-switch-count", 0444}, {"changed-extents", 0444},
		{"clear-bitmap", 0200},   {"last-backup-time", 0644}, {"tracking-enabled", 0644},
		{"volume-extents", 0444}, {"volume-name", 0444},      {"volume-uuid", 0444},
	};
	std::vector<std::string> names;
	for (auto &file : files) {
		EXPECT_EQ(model::sysfs_mode(path(file.name)), file.mode) << file.name;
		names.emplace_back(file.name);
	}
	EXPECT_EQ(model::sysfs_list("/sys/zorvat/8:0"), names);
	EXPECT_EQ(write("tracking-enabled", "0"), 1);
	names.erase(names.begin());
	EXPECT_EQ(model::sysfs_list("/sys/zorvat/8:0"), names);
}

TEST_F(VolumeSysfs, Texts)
{
	std::iota(std::begin(volume->vi_uuid), std::end(volume->vi_uuid), 0);
	volume->vi_savetime = UINT64_MAX;
	volume->vi_start.set(5);
	volume_manager_switch_bitmap(volume.get());
	struct {
		const char *file, *text;
	} const cases[] = {
		{"volume-name", "sda\n"},
		{"volume-extents", "5 1048576\n"},
		{"volume-uuid", "00010203-0405-0607-0809-0a0b0c0d0e0f\n"},
		{"last-backup-time", "18446744073709551615\n"},
		{"tracking-enabled", "1\n"},
		{"cbt-switch-count", "1\n"},
		{"changed-extents", ""},
	};
	for (auto &c : cases) {
		EXPECT_EQ(shown(c.file), c.text);
		EXPECT_EQ(result_of_reading(c.file), static_cast<long>(strlen(c.text))) << c.file;
	}
	volume->vi_start.set(0);

	EXPECT_EQ(write("tracking-enabled", "0\n"), 2);
	EXPECT_EQ(shown("tracking-enabled"), "0\n");
	EXPECT_EQ(result_of_reading("cbt-switch-count"), -22);
	EXPECT_EQ(result_of_reading("changed-extents"), -22);
	EXPECT_EQ(model::logged(error_line("Tracking not enabled on disk sda")), 1);
}

TEST_F(VolumeSysfs, WhatMayBeWritten)
{
	struct {
		const char *file, *text;
		long result;
	} const cases[] = {
		{"tracking-enabled", "1", 1}, // as it is
		{"tracking-enabled", "2", -22},
		{"tracking-enabled", "-1", -22},
		{"tracking-enabled", "x1", -22},
		{"tracking-enabled", "", -22},
		{"tracking-enabled", "0 and more\n", 11},
		{"tracking-enabled", "2", -22},
		{"tracking-enabled", "0", 1},
		{"tracking-enabled", " 1\n", 3},
		{"clear-bitmap", "0", -22},
		{"clear-bitmap", "yes", -22},
		{"clear-bitmap", "1", -22}, // nothing is frozen
		{"last-backup-time", "18446744073709551615\n", 21},
		{"last-backup-time", "never", -22},
		{"last-backup-time", "-1", -22},
	};
	for (auto &c : cases)
		EXPECT_EQ(write(c.file, c.text), c.result) << c.file << ": " << c.text;
	EXPECT_EQ(volume->vi_savetime, UINT64_MAX);
	EXPECT_EQ(volume->vi_istracked, 1);

	ASSERT_EQ(volume_manager_switch_bitmap(volume.get()), 0);
	EXPECT_EQ(write("clear-bitmap", "-3\n"), 3);
	EXPECT_EQ(volume->vi_bitmap_snapshot, nullptr);
}

TEST_F(VolumeSysfs, ErrorsOfTheManagerPassThrough)
{
	struct {
		const char *file, *written; // null: it is read
		int lock;                   // which attempt at vi_mtx is interrupted
		long result;
	} const cases[] = {
		{"tracking-enabled", "0", 2, -4},     {"clear-bitmap", "1", 1, -4},
		{"changed-extents", nullptr, 1, -4},  {"volume-uuid", nullptr, 1, -4},
		{"last-backup-time", nullptr, 1, -4}, {"cbt-switch-count", nullptr, 1, -4},
		{"last-backup-time", "7", 1, 1}, // lost, without an error
		{"tracking-enabled", nullptr, 1, 3},
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.file);
		model::fail("ka_mutex_lock_interruptible", c.lock, -KA_EINTR);
		EXPECT_EQ(c.written ? write(c.file, c.written) : result_of_reading(c.file),
			  c.result);
	}
	EXPECT_EQ(volume->vi_savetime, 0u);
}

TEST_F(VolumeSysfs, Dispatchers)
{
	char page[KA_SYSFS_PAGE];
	for (ka_attribute *const *attribute = g_attr_wt; *attribute; attribute++) {
		SCOPED_TRACE((*attribute)->name);
		const bool readable = (*attribute)->mode & 0444,
			   writable = (*attribute)->mode & 0222;
		if (readable)
			model::fail("ka_kobject_get");
		EXPECT_EQ(g_vol_sysfs_ops.show(&volume->kobj, *attribute, page),
			  readable ? -22 : -5);
		if (writable)
			model::fail("ka_kobject_get");
		EXPECT_EQ(g_vol_sysfs_ops.store(&volume->kobj, *attribute, "1", 1),
			  writable ? -22 : -5);
	}
}

// --- Extents -----------------------------------------------------------------------------------

TEST_F(VolumeSysfs, ChangedExtentsFillAPageAndNoMore)
{
	// Every number of extents around the page's end: the line that does not fit stands at each
	// place of a round of ten.
	const uint64_t fitting = 400;
	std::string all;
	for (uint64_t i = 0; i < fitting + 40; i++)
		all += std::to_string(3 * i * block_sectors) + ":256\n";
	size_t end = 0;
	for (uint64_t count = 0; count < fitting + 40; count++) {
		change_extents(count, 1);
		end = all.find('\n', end) + 1;
		if (count > 22 && count < fitting - 20)
			continue;
		SCOPED_TRACE(count + 1);
		const bool fits = end < KA_SYSFS_PAGE;
		auto [result, text] = model::sysfs_show(path("changed-extents"));
		EXPECT_EQ(text, fits ? all.substr(0, end) : all.substr(0, 4091) + " ...");
		if (fits) {
			EXPECT_EQ(result, static_cast<long>(end));
		} else {
			EXPECT_GE(result, KA_SYSFS_PAGE);
		}
	}
	EXPECT_GE(end, size_t{KA_SYSFS_PAGE}) << "the page was never full";

	ASSERT_EQ(volume_manager_switch_bitmap(volume.get()), 0);
	ASSERT_EQ(volume_manager_clear_bitmap(volume.get()), 0);
	change_extents(1, 1);
	ASSERT_EQ(volume_manager_switch_bitmap(volume.get()), 0);
	change_extents(9, 1);
	EXPECT_EQ(shown("changed-extents"), "384:256\n"); // the frozen ones
}

TEST_F(VolumeSysfs, ChangedExtentsNeedMemory)
{
	model::fail("ka_vmalloc");
	EXPECT_EQ(result_of_reading("changed-extents"), -12);
	EXPECT_EQ(model::logged(error_line("Unable to allocated memory to store wt_extents")), 1);
}

// --- The bitmap --------------------------------------------------------------------------------

class LargeVolumeSysfs : public VolumeSysfs
{
protected:
	model::DiskSpec spec() const override
	{
		return {.sectors = 3ull << 22}; // a bitmap of three pages and a word
	}
};

TEST_F(LargeVolumeSysfs, EachReadOfTheBitmapBeginsAtTheFirstWord)
{
	disk.write(2 * block_sectors, 1);
	std::vector<char> first(KA_SYSFS_PAGE), second(KA_SYSFS_PAGE);
	EXPECT_EQ(model::sysfs_read(path("cbt-bitmap"), first), KA_SYSFS_PAGE);
	EXPECT_EQ(static_cast<unsigned char>(first[0]), 0xcf);
	EXPECT_EQ(model::sysfs_read(path("cbt-bitmap"), second, KA_SYSFS_PAGE), KA_SYSFS_PAGE);
	EXPECT_EQ(first, second);
	second.assign(KA_SYSFS_PAGE, 'x');
	EXPECT_EQ(model::sysfs_read(path("cbt-bitmap"), second, 3 * KA_SYSFS_PAGE), 8);
	EXPECT_EQ(memcmp(first.data(), second.data(), 8), 0);
	EXPECT_EQ(second[8], 'x');
	EXPECT_EQ(model::sysfs_read(path("cbt-bitmap"), second, 3 * KA_SYSFS_PAGE + 8), 0);

	EXPECT_EQ(wt_cbt_binattr.read(nullptr, nullptr,
				      const_cast<ka_bin_attribute *>(&wt_cbt_binattr), first.data(),
				      0, 8),
		  -22); // the template has no volume
}

// --- Going away --------------------------------------------------------------------------------

// The directory's removal waits for whoever uses its files, and these wait for vi_mtx.
TEST_F(VolumeSysfs, ReadersDoNotHoldUpRemoval)
{
	std::vector<std::jthread> readers;
	for (int i = 0; i < 3; i++)
		readers.emplace_back([] {
			while (result_of_reading("volume-uuid") > 0 ||
			       result_of_reading("volume-name") > 0)
				std::this_thread::yield();
		});
	unplug();
}

TEST_F(VolumeSysfs, NobodyStartsTrackingWhenTheDirectoryGoes)
{
	long stored = 0;
	auto start_late = [&] { stored = write("tracking-enabled", "1"); };
	model::before("ka_kobject_del", start_late);
	unplug();
	EXPECT_EQ(stored, -22);

	disk = plug({.name = "sda", .sectors = 100'000});
	stored = 0;
	model::before("ka_kobject_del", start_late);
	unload();
	EXPECT_EQ(stored, -22);
}

} // namespace
