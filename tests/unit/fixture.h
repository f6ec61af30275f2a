// SPDX-License-Identifier: GPL-2.0
// What the unit tests share: a fresh kernel per test, the loaded driver, expectations on the log.
#ifndef WT_TEST_FIXTURE_H
#define WT_TEST_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>

#include "h/wt.h"
#include "kernel-abstractions/host/model.h"
#include "kernel-abstractions/module.h"
#include "writetracker/dm-patcher.h"
#include "writetracker/guards.h"
#include "writetracker/volume-manager.h"
#include "writetracker/volume-tracker.h"
#include "writetracker/writetracker.h"

using model::Disk;
using model::UserMemory;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr ka_dev_t sda = 8u << KA_MINORBITS;
constexpr ka_sector_t block_sectors = 128;
constexpr uint64_t block_bytes = 65536;

// A line of the log as the driver prints it.
inline std::string error_line(const std::string &text)
{
	return "<3>[zorvat-ERROR]:" + text + "\n";
}
inline std::string warn_line(const std::string &text)
{
	return "<4>[zorvat-WARN]:" + text + "\n";
}
inline std::string info_line(const std::string &text)
{
	return "<6>[zorvat-INFO]:" + text + "\n";
}

// What is left over, but for the handle that every open of the device-mapper's control device
// leaves behind.
inline std::vector<std::string> leaks()
{
	model::forget_memory(sizeof(dmp_handle_node));
	return model::leaks();
}

// A fresh kernel, in which nothing may be left over at the end.
class Model : public testing::Test
{
protected:
	Model()
	{
		model::boot(&wt_context);
	}
	void TearDown() override
	{
		if (!dead) {
			EXPECT_THAT(leaks(), IsEmpty());
			EXPECT_EQ(model::take_stray_unlocks(), 0);
			EXPECT_EQ(model::take_mismatched_releases(), 0);
		}
		model::boot();
	}
	// The kernel has stopped on purpose: what it leaves behind does not count.
	void kernel_is_dead()
	{
		dead = true;
	}

	bool dead = false;
};

// The driver is loaded and its start-up is over. Disks that exist by then are volumes.
class Driver : public Model
{
protected:
	void SetUp() override
	{
		load();
	}
	void TearDown() override
	{
		if (loaded && !dead)
			unload();
		Model::TearDown();
	}
	void load()
	{
		ASSERT_EQ(init_module(), 0);
		loaded = true;
		model::advance(1000);
		model::clear_log();
		model::take_block_calls();
	}
	void unload()
	{
		cleanup_module();
		loaded = false;
	}
	// Plugs a disk and waits until the driver has made it a volume.
	static Disk plug(const model::DiskSpec &spec = {})
	{
		Disk disk = model::add_disk(spec);
		model::advance(1000);
		model::clear_log();
		model::take_block_calls();
		return disk;
	}
	static VolumeRef volume_of(const Disk &disk, int partition = 0)
	{
		return VolumeRef(lookup_volume_info(disk.dev(partition)));
	}

	bool loaded = false;
};

// A disk under tracking.
class Tracked : public Driver
{
protected:
	void SetUp() override
	{
		Driver::SetUp();
		start(spec());
	}
	void TearDown() override
	{
		volume.reset(nullptr);
		Driver::TearDown();
	}
	virtual model::DiskSpec spec() const
	{
		return {};
	}
	void start(const model::DiskSpec &with)
	{
		disk = plug(with);
		volume.reset(lookup_volume_info(disk.dev()));
		ASSERT_TRUE(volume);
		ASSERT_EQ(volume_manager_start_tracking(volume.get(), nullptr), 0);
		model::take_block_calls();
	}

	Disk disk{nullptr};
	VolumeRef volume{nullptr};
};

// The blocks that a bitmap says were written.
inline std::vector<uint64_t> written_blocks(const hbitmap *bitmap)
{
	std::vector<uint64_t> blocks;
	for (uint64_t b = 0; b < static_cast<uint64_t>(bitmap->size) * 8; b++)
		if (!(atomic_read(&bitmap->bitmap[b / 64]) >> (63 - b % 64) & 1))
			blocks.push_back(b);
	return blocks;
}

inline std::vector<uint64_t> blocks(uint64_t first, uint64_t last)
{
	std::vector<uint64_t> all(last - first + 1);
	std::iota(all.begin(), all.end(), first);
	return all;
}

// Room for extents, of exactly that capacity.
class ExtentArray
{
public:
	explicit ExtentArray(size_t capacity)
	    : memory(std::make_unique<char[]>(sizeof(wt_extents) + capacity * sizeof(wt_extent)))
	{
		get()->wtes_size = capacity;
	}
	wt_extents *get()
	{
		return reinterpret_cast<wt_extents *>(memory.get());
	}
	// The first `count`, as pairs of start and length.
	std::vector<std::pair<uint64_t, uint64_t>> first(int count)
	{
		std::vector<std::pair<uint64_t, uint64_t>> pairs;
		pairs.reserve(count);
		for (int i = 0; i < count; i++)
			pairs.emplace_back(get()->wtes_extents[i].wte_start,
					   get()->wtes_extents[i].wte_length);
		return pairs;
	}

private:
	std::unique_ptr<char[]> memory;
};

using Extents = std::vector<std::pair<uint64_t, uint64_t>>;

#endif
