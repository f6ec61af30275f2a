// SPDX-License-Identifier: GPL-2.0
// What lvm2 asks of the device-mapper for a snapshot, replayed through the driver: the head of the
// recording says how it is to be read.
#include <fstream>
#include <regex>
#include <sstream>

#include "dm-fixture.h"

namespace
{

// The device-mapper's commands in the order of their numbers.
const std::vector<std::string> commands = {
	"VERSION",     "REMOVE_ALL",  "LIST_DEVICES", "DEV_CREATE",   "DEV_REMOVE",
	"DEV_RENAME",  "DEV_SUSPEND", "DEV_STATUS",   "DEV_WAIT",     "TABLE_LOAD",
	"TABLE_CLEAR", "TABLE_DEPS",  "TABLE_STATUS", "LIST_VERSIONS"};

DmTarget parse_target(const std::string &line)
{
	std::istringstream words(line);
	std::string word;
	uint32_t next;
	DmTarget target;
	words >> word >> word >> word >> next >> target.type >> std::ws;
	std::getline(words, target.params);
	EXPECT_EQ(next, target.size()); // no table has more than one
	return target;
}

// A request or an answer.
DmBytes parse_buffer(std::istream &words, const std::vector<DmTarget> &targets)
{
	DmRequest request = {.targets = targets};
	uint32_t size, start, count;
	unsigned int major, minor;
	char colon;
	words >> size >> start >> major >> colon >> minor >> std::hex >> request.flags >>
		std::dec >> count >> request.name;
	EXPECT_TRUE(words);
	if (request.name == "-")
		request.name.clear();
	request.dev = ka_mkdev(major, minor);
	DmBytes bytes = request.bytes();
	header(bytes)->data_size = size;
	header(bytes)->data_start = start;
	header(bytes)->target_count = count;
	bytes.resize(size);
	return bytes;
}

class Lvm2Snapshot : public TrackedLogicalVolume
{
protected:
	// Each process gets what it got then. Returns the ioctls that switched. The snapshot has
	// this name in the place of the recorded one.
	std::vector<std::string> replay(const std::string &snapshot)
	{
		std::vector<std::string> switched;
		std::unique_ptr<OpenNode> process;
		std::ifstream file(TEST_DATA "/lvm2-snapshot.txt");
		for (std::string line; std::getline(file, line);) {
			line = std::regex_replace(line, std::regex("ZKR_snapshot1"), snapshot);
			if (line.starts_with("process")) {
				process.reset();
				process = std::make_unique<OpenNode>("/dev/mapper/control");
			}
			if (line.starts_with("process") || line.starts_with('#'))
				continue;
			std::vector<DmTarget> targets;
			for (std::string target; file.peek() == '\t' && std::getline(file, target);)
				targets.push_back(parse_target(target));
			const int before = switches();
			run(*process, line, targets);
			if (switches() != before)
				switched.push_back(line);
		}
		return switched;
	}

private:
	static void run(const OpenNode &process, const std::string &line,
			const std::vector<DmTarget> &targets)
	{
		SCOPED_TRACE(line);
		std::istringstream words(line);
		std::string command;
		long error;
		words >> command >> error;
		const auto number = std::ranges::find(commands, command) - commands.begin();
		const bool is_load = number == DM_TABLE_LOAD;
		const std::vector<DmTarget> none;
		const DmBytes request = parse_buffer(words, is_load ? targets : none);
		DmBytes answer = parse_buffer(words, is_load ? none : targets);
		std::ranges::copy(std::to_array({4u, 47u, 0u}), header(answer)->version);

		DmUserMemory user(request);
		model::set_dm_answer([&](unsigned int, unsigned long) {
			std::ranges::copy(answer, user.data());
			return error;
		});
		EXPECT_EQ(process.ioctl(DM_IOCTL_BASE + number, user.address()), error);
	}
};

TEST_F(Lvm2Snapshot, SwitchesWhenTheSnapshotIsResumed)
{
	const auto resume =
		testing::ContainsRegex("^DEV_SUSPEND .* 253:3 0x20c .* vg-ZKR_snapshot1$");
	for (int round = 0; round < 3; round++)
		EXPECT_THAT(replay("ZKR_snapshot1"), ElementsAre(resume));
	EXPECT_EQ(model::logged("created for volume dm-0"), 3);
	EXPECT_EQ(model::logged("version:4.47.0"), 6);
	EXPECT_EQ(model::logged("<3>"), 0);
}

TEST_F(Lvm2Snapshot, OneOfAnotherNameDoesNot)
{
	EXPECT_THAT(replay("daily1"), IsEmpty());
	EXPECT_EQ(model::dm_calls().ioctls, 162);
}

} // namespace
