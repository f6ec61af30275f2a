// SPDX-License-Identifier: GPL-2.0
/*
 * A machine with one volume, as the agent sees it: the driver tracks by its own rules, LVM takes
 * snapshots. It lives in memory that processes share, so that a backup can be killed and the
 * machine goes on.
 */
#ifndef AGENT_FIXTURE_H
#define AGENT_FIXTURE_H

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <new>
#include <random>
#include <sys/mman.h>
#include <sys/resource.h>

#include "backup.h"
#include "data-format.h"
#include "retention.h"

namespace zorvat::agent
{

constexpr size_t fake_blocks = 40;
constexpr size_t fake_size = fake_blocks * block_bytes - 3 * 4096; // the last block is shorter

struct Machine {
	using Blocks = std::array<bool, fake_blocks>;

	std::array<std::byte, fake_size> content = {};
	bool tracked = false;
	Blocks live = {};
	bool has_frozen = false;
	Blocks frozen = {};
	uint64_t identity = 1;
	uint64_t switches = 0;
	uint64_t save_time = 0;
	std::array<char, 64> snapshot = {}; // its name; empty: there is none
	/* How many more steps the process has to live. */
	int steps_left = 1 << 30;
	bool fails_on_snapshot_read = false;
	bool fails_to_remove_snapshot = false; // so it says
	/* What somebody else does right after the snapshot. */
	void (*meanwhile)(Machine &) = nullptr;
	/* From the snapshot on, files cannot grow beyond this. */
	uint64_t room = 0; // bytes; 0: without limit

	static Machine *create()
	{
		void *memory = mmap(nullptr, sizeof(Machine), PROT_READ | PROT_WRITE,
				    MAP_SHARED | MAP_ANONYMOUS, -1, 0);
		return new (memory) Machine;
	}

	/* Dies before the step. */
	void step()
	{
		if (steps_left-- == 0)
			raise(SIGKILL);
	}

	void write(size_t block, uint8_t value)
	{
		const size_t start = block * block_bytes;
		std::memset(content.data() + start, value,
			    std::min<size_t>(block_bytes, fake_size - start));
		live[block] = true;
	}

	void switch_bitmap()
	{
		if (!tracked)
			return;
		if (!has_frozen)
			frozen.fill(false);
		has_frozen = true;
		for (size_t i = 0; i < fake_blocks; i++)
			frozen[i] |= live[i];
		live.fill(false);
		switches++;
	}
};

class FakeTracker final : public ChangeTracker
{
public:
	explicit FakeTracker(Machine &machine) : machine_(machine)
	{
	}

	TrackerState state() override
	{
		machine_.step();
		return {.tracked = machine_.tracked,
			.size = fake_size,
			.identity = std::to_string(machine_.identity),
			.switch_count = machine_.switches,
			.save_time = machine_.save_time};
	}
	void start() override
	{
		machine_.step();
		machine_.tracked = true;
		machine_.switches = 0;
		machine_.has_frozen = false;
		machine_.live.fill(false);
	}
	std::vector<Extent> changes() override
	{
		machine_.step();
		const auto &blocks = machine_.has_frozen ? machine_.frozen : machine_.live;
		std::vector<Extent> extents;
		for (size_t i = 0; i < fake_blocks; i++)
			if (blocks[i])
				extents.push_back({i * 128, 128, false});
		return extents;
	}
	void clear() override
	{
		machine_.step();
		if (!std::exchange(machine_.has_frozen, false))
			throw Error(Errc::refused, "nothing is frozen");
	}
	void set_save_time(uint64_t time) override
	{
		machine_.step();
		machine_.save_time = time;
	}

private:
	Machine &machine_;
};

/* The snapshot's device is a file; its name is taken after the switch, or not at all. */
class FakeSnapshots final : public SnapshotManager
{
public:
	FakeSnapshots(Machine &machine, std::filesystem::path directory)
	    : machine_(machine), directory_(std::move(directory))
	{
	}

	LogicalVolume find(const std::string &) override
	{
		return {.group = "vg",
			.name = "data",
			.uuid = "uuid",
			.size = fake_size,
			.free_in_group = 0,
			.path = "/dev/vg/data"};
	}
	std::vector<OwnSnapshot> own_snapshots(const LogicalVolume &) override
	{
		machine_.step();
		if (machine_.snapshot[0] == 0)
			return {};
		return {{.name = machine_.snapshot.data(), .complete = true}};
	}
	std::filesystem::path create(const LogicalVolume &, const std::string &name,
				     const std::string &) override
	{
		machine_.step();
		EXPECT_EQ(machine_.snapshot[0], 0) << "a snapshot was left";
		std::ofstream(directory_ / "snapshot", std::ios::binary)
			.write(reinterpret_cast<const char *>(machine_.content.data()), fake_size);
		machine_.switch_bitmap();
		name.copy(machine_.snapshot.data(), machine_.snapshot.size() - 1);
		/* Somebody writes on. */
		machine_.write(machine_.switches * 7 % fake_blocks, 0xa5);
		if (machine_.meanwhile)
			machine_.meanwhile(machine_);
		machine_.step();
		if (machine_.fails_on_snapshot_read)
			std::filesystem::resize_file(directory_ / "snapshot", block_bytes);
		if (machine_.room > 0) {
			const rlimit limit = {machine_.room, RLIM_INFINITY};
			setrlimit(RLIMIT_FSIZE, &limit);
		}
		return directory_ / "snapshot";
	}
	void remove(const LogicalVolume &, const std::string &) override
	{
		machine_.step();
		machine_.snapshot = {};
		if (machine_.fails_to_remove_snapshot)
			throw Failure(FailureCode::failed, "the snapshot is in use");
	}
	bool has_overflowed(const LogicalVolume &, const std::string &) override
	{
		return false;
	}
	void settle(const std::string &) override
	{
	}

private:
	Machine &machine_;
	std::filesystem::path directory_;
};

class AgentTest : public testing::Test
{
protected:
	AgentTest()
	{
		std::string name =
			(std::filesystem::temp_directory_path() / "agent.XXXXXX").native();
		directory_ = mkdtemp(name.data());
		repository_ = directory_ / "repository";
	}
	~AgentTest() override
	{
		std::filesystem::remove_all(directory_);
		munmap(machine_, sizeof(Machine));
	}

	BackupResult back_up(bool full = false, bool existing = false)
	{
		Progress progress(Progress::silent);
		FakeSnapshots snapshots(*machine_, directory_);
		return agent::back_up({.snapshots = snapshots,
				       .open_tracker =
					       [this](const std::string &) {
						       return std::make_unique<FakeTracker>(
							       *machine_);
					       },
				       .lock_directory = directory_},
				      {.volume = "vg/data",
				       .repository = repository_,
				       .snapshot_size = {},
				       .full = full,
				       .existing = existing,
				       .compression = 1},
				      progress);
	}

	/* Returns the ids of those that have gone. */
	std::vector<std::string> forget_all_but(const std::set<std::string> &keep)
	{
		const Repository repository(repository_);
		const File lock = repository.lock_for_writing();
		Progress progress(Progress::silent);
		std::vector<std::string> dropped;
		forget(repository, keep, progress, dropped);
		return dropped;
	}

	/* What the last snapshot held. */
	std::vector<char> truth() const
	{
		std::ifstream file(directory_ / "snapshot", std::ios::binary);
		return {std::istreambuf_iterator<char>(file), {}};
	}

	void write_some(std::minstd_rand &random)
	{
		for (size_t count = random() % 6; count > 0; count--)
			machine_->write(random() % fake_blocks, random() % 3 ? random() : 0);
	}

	Machine *machine_ = Machine::create();
	std::filesystem::path directory_;
	std::filesystem::path repository_;
};

} // namespace zorvat::agent

#endif
