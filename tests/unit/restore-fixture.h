// SPDX-License-Identifier: GPL-2.0
// What the tests of restore disks share: a server with its service area, and the manager kept up.
#ifndef WT_TEST_RESTORE_FIXTURE_H
#define WT_TEST_RESTORE_FIXTURE_H

#include <optional>

#include "disk-server.h"
#include "fixture.h"
#include "kernel-abstractions/memory.h"
#include "writetracker/jorl-manager.h"

using model::BioSpec;
using model::OpenDisk;
using model::ProcessMapping;

constexpr size_t page_bytes = 4096;
constexpr size_t area_bytes = 4194304;

class Restore : public Driver
{
protected:
	void SetUp() override
	{
		Driver::SetUp();
		manager.emplace(); // else it goes with each test's last disk
		model::clear_log();
	}
	void TearDown() override
	{
		manager.reset();
		Driver::TearDown();
	}
	static jorlvolume_info *create(const ProcessMapping &in, size_t block_size = 512,
				       size_t blocks = 2048)
	{
		const wtflr_allocdisk_req req = {block_size, blocks, 0, 4711, in.address()};
		return jorlmanager_create_disk(&req);
	}
	// Of a disk that is registered.
	static int destroy(jorlvolume_info *volume)
	{
		const JorlVolumeRef reference(jorlvolume_info_get(volume));
		return jorlmanager_destroy_disk(volume);
	}
	static size_t logged_disk_lines()
	{
		return static_cast<size_t>(model::logged("[Disk-"));
	}

	ProcessMapping area{area_bytes};
	DiskServer server;
	std::optional<JorlManagerRef> manager;
};

// A disk of 2048 blocks of 512 bytes, named zorvat-a.
class Created : public Restore
{
protected:
	void SetUp() override
	{
		Restore::SetUp();
		volume = create(area);
		ASSERT_FALSE(ka_is_err(volume));
	}
	int start()
	{
		return jorlmanager_start_disk(volume, server.port());
	}
	int stop()
	{
		return jorlmanager_stop_disk(volume);
	}
	// Of a disk that is started; what its server says is for this request.
	int read(const std::vector<BioSpec> &bios)
	{
		return OpenDisk("zorvat-a").submit(bios).wait();
	}

	jorlvolume_info *volume = nullptr;
};

#endif
