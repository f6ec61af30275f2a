// SPDX-License-Identifier: GPL-2.0
/*
 * The agent against a machine that tracks as the driver does: backups that are killed anywhere,
 * what others do to the bitmap, damaged files, full disks, forgotten points.
 */
#include "agent-fixture.h"

#include <csignal>
#include <dlfcn.h>
#include <functional>
#include <sys/stat.h>
#include <sys/wait.h>

#include "block-runs.h"
#include "extent-map.h"
#include "point-reader.h"
#include "restore.h"
#include "retention.h"

namespace
{

/* Set in a process that is to die: then each call by which files change is a step. */
zorvat::agent::Machine *mortal = nullptr;
/* Gets the file that is to be flushed. */
std::function<void(int)> before_flush;
/* For longer files there is no room, which a flush tells; 0: without limit. */
off_t room = 0; // bytes

template <typename... Arguments> int real(const char *name, Arguments... arguments)
{
	if (mortal)
		mortal->step();
	return reinterpret_cast<int (*)(Arguments...)>(dlsym(RTLD_NEXT, name))(arguments...);
}

} // namespace

/* These take the place of the C library's in this program. */
extern "C" int rename(const char *from, const char *to) noexcept
{
	return real("rename", from, to);
}
extern "C" int unlink(const char *path) noexcept
{
	return real("unlink", path);
}
extern "C" int fsync(int fd)
{
	if (before_flush)
		before_flush(fd);
	struct stat status;
	if (room > 0 && fstat(fd, &status) == 0 && status.st_size > room) {
		errno = ENOSPC;
		return -1;
	}
	return real("fsync", fd);
}

namespace zorvat::agent
{

namespace
{

Progress silent()
{
	return Progress(Progress::silent);
}

std::vector<char> read_point(const Repository &repository, const std::string &point)
{
	PointReader reader(repository, point);
	std::vector<char> content(reader.size());
	reader.read(0, std::as_writable_bytes(std::span(content)));
	return content;
}

std::vector<std::string> problems_in(const Repository &repository)
{
	Progress progress = silent();
	return verify(repository, progress);
}

/* Runs in a process of its own, that dies after so many steps. Returns whether it did. */
template <typename Work> bool dies(Machine &machine, int steps, Work work)
{
	const pid_t process = fork();
	if (process == 0) {
		machine.steps_left = steps;
		mortal = &machine;
		try {
			work();
		} catch (...) {
			_exit(1);
		}
		_exit(0);
	}
	int status = 0;
	waitpid(process, &status, 0);
	machine.steps_left = 1 << 30;
	const bool killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
	EXPECT_TRUE(killed || status == 0);
	return killed;
}

/* Nothing of it can be compressed. */
void fill_with_noise(Machine &machine, std::minstd_rand &random)
{
	for (std::byte &byte : machine.content)
		byte = std::byte(random() >> 8);
}

/* Puts what a point adds on top of another one as well. */
void add_fork(const Repository &repository, const std::string &point, const std::string &parent)
{
	Manifest fork = repository.find(point);
	fork.number = repository.next_number();
	fork.id = std::to_string(fork.number) + "-fork";
	fork.parent = repository.find(parent).id;
	const fs::path original = repository.data_directory() / fork.data.file;
	fork.data.file = Repository::new_data_name(fork.number);
	fs::copy_file(original, repository.data_directory() / fork.data.file);
	repository.commit(fork);
}

std::vector<fs::path> files_below(const fs::path &directory)
{
	std::vector<fs::path> files;
	for (const auto &entry : fs::recursive_directory_iterator(directory))
		if (entry.is_regular_file() && entry.file_size() > 0)
			files.push_back(entry.path());
	return files;
}

} // namespace

TEST_F(AgentTest, points_are_the_snapshots_they_were_made_from)
{
	std::minstd_rand random(1);
	std::vector<std::vector<char>> truths;
	EXPECT_THROW(back_up(false, true), Failure);
	EXPECT_FALSE(fs::exists(repository_)) << "made, though it was to be there";
	for (int round = 0; round < 12; round++) {
		write_some(random);
		const auto result = back_up(round == 7, round > 0);
		EXPECT_EQ(result.point.is_full(), round == 0 || round == 7);
		truths.push_back(truth());
	}
	const Repository repository(repository_);
	for (size_t i = 0; i < truths.size(); i++)
		EXPECT_EQ(read_point(repository, std::to_string(i + 1)), truths[i]);
	EXPECT_TRUE(problems_in(repository).empty());
	EXPECT_FALSE(repository.attempt());
}

/* At every step, of the first backup, of an increment, and of one after an interrupted one. */
TEST_F(AgentTest, a_backup_killed_at_any_step_loses_nothing)
{
	std::minstd_rand random(2);
	int incremental = 0, deaths = 0;
	for (int steps = 0;; steps++) {
		write_some(random);
		if (steps % 3 == 0)
			back_up();
		write_some(random);
		if (!dies(*machine_, steps, [&] { back_up(); }))
			break;
		deaths++;
		if (fs::exists(repository_ / "repository.json")) {
			EXPECT_TRUE(problems_in(Repository(repository_)).empty()) << steps;
		}
		write_some(random);
		if (steps % 2 == 0)
			dies(*machine_, random() % 30, [&] { back_up(); });
		write_some(random);
		incremental += !back_up().point.is_full();
		const Repository repository(repository_);
		ASSERT_EQ(read_point(repository, ""), truth()) << "killed at step " << steps;
		EXPECT_TRUE(repository.leftovers().empty());
		EXPECT_EQ(machine_->snapshot[0], 0);
	}
	EXPECT_GT(deaths, 25);
	EXPECT_GT(incremental, deaths * 3 / 4); // being killed is no excuse for a full backup
	const Repository repository(repository_);
	EXPECT_TRUE(problems_in(repository).empty());
}

TEST_F(AgentTest, whatever_others_do_to_the_bitmap_leads_to_a_full_backup)
{
	struct {
		const char *what;
		void (*happens)(Machine &);
		bool full;
	} const cases[] = {
		{"nothing", [](Machine &) {}, false},
		{"a switch and a clear",
		 [](Machine &machine) {
			 machine.switch_bitmap();
			 machine.has_frozen = false;
		 },
		 true},
		{"a reload",
		 [](Machine &machine) {
			 machine.identity++;
			 machine.tracked = false;
			 machine.save_time = 0;
			 machine.switches = 0;
		 },
		 true},
		{"a restart of the tracking",
		 [](Machine &machine) {
			 machine.switches = 0;
			 machine.live.fill(false);
		 },
		 true},
		{"a stop", [](Machine &machine) { machine.tracked = false; }, true},
		{"another agent", [](Machine &machine) { machine.save_time++; }, true},
	};
	std::minstd_rand random(3);
	back_up();
	for (const auto &[what, happens, full] : cases) {
		write_some(random);
		happens(*machine_);
		const auto point = back_up().point;
		EXPECT_EQ(point.is_full(), full) << what;
		EXPECT_EQ(point.reason.empty(), !full) << what;
		EXPECT_EQ(read_point(Repository(repository_), ""), truth()) << what;
		/* And the next one is an increment again. */
		EXPECT_FALSE(back_up().point.is_full()) << what;
		EXPECT_EQ(read_point(Repository(repository_), ""), truth()) << what;
	}
}

/* The driver counts the switches of the tracking that was begun anew from 0. */
/* Also what is written between the snapshot and what they do. */
TEST_F(AgentTest, whatever_others_do_after_the_snapshot_loses_nothing)
{
	struct {
		const char *what;
		void (*happens)(Machine &);
		bool succeeds;
	} const cases[] = {
		{"a switch",
		 [](Machine &machine) {
			 machine.write(2, 1);
			 machine.switch_bitmap();
		 },
		 true},
		{"a switch and a clear",
		 [](Machine &machine) {
			 machine.write(4, 2);
			 machine.switch_bitmap();
			 machine.has_frozen = false;
		 },
		 true},
		{"a reload",
		 [](Machine &machine) {
			 machine.write(6, 3);
			 machine.identity++;
			 machine.save_time = 0;
			 machine.switches = 0;
			 machine.has_frozen = false;
			 machine.live.fill(false);
		 },
		 true},
		{"a clear", [](Machine &machine) { machine.has_frozen = false; }, false},
	};
	back_up();
	for (const auto &[what, happens, succeeds] : cases) {
		const std::string last = Repository(repository_).find("").id;
		machine_->write(10, what[2]);
		machine_->meanwhile = happens;
		if (succeeds) {
			EXPECT_TRUE(back_up().point.is_full()) << what;
			EXPECT_EQ(read_point(Repository(repository_), ""), truth()) << what;
		} else {
			EXPECT_THROW(back_up(), Failure) << what;
			EXPECT_EQ(Repository(repository_).find("").id, last) << what;
			EXPECT_EQ(machine_->snapshot[0], 0) << what;
		}
		machine_->meanwhile = nullptr;
		EXPECT_TRUE(back_up().point.is_full()) << what;
		EXPECT_EQ(read_point(Repository(repository_), ""), truth()) << what;
		EXPECT_FALSE(back_up().point.is_full()) << what;
		EXPECT_EQ(read_point(Repository(repository_), ""), truth()) << what;
	}
}

TEST_F(AgentTest, a_full_backup_that_was_due_stays_due)
{
	std::minstd_rand random(4);
	bool died = true;
	for (int steps = 0; died; steps++) {
		repository_ = directory_ / std::to_string(steps);
		machine_->tracked = false;
		back_up();
		machine_->tracked = false;
		write_some(random);
		died = dies(*machine_, steps, [&] { back_up(); });
		back_up();
		ASSERT_EQ(read_point(Repository(repository_), ""), truth()) << steps;
	}
}

/*
 * The frozen bitmap of an interrupted backup is dropped: its changes are in the attempt, also if
 * the next one is killed before its snapshot.
 */
TEST_F(AgentTest, a_clear_after_interrupted_backups_loses_nothing)
{
	back_up();
	bool switched = false;
	for (int steps = 0; !switched; steps++) {
		machine_->write(3, steps + 1);
		machine_->fails_on_snapshot_read = true;
		EXPECT_THROW(back_up(), Failure);
		machine_->fails_on_snapshot_read = false;
		const uint64_t switches = machine_->switches;
		dies(*machine_, steps, [&] { back_up(); });
		switched = machine_->switches != switches;
		machine_->has_frozen &= switched;
		machine_->write(5, steps + 1);
		EXPECT_FALSE(back_up().point.is_full());
		ASSERT_EQ(read_point(Repository(repository_), ""), truth()) << steps;
	}
}

TEST_F(AgentTest, a_repository_without_room_stays_sound)
{
	std::minstd_rand random(4);
	fill_with_noise(*machine_, random);
	back_up();
	machine_->live.fill(true);
	std::signal(SIGXFSZ, SIG_IGN);
	rlimit unlimited;
	getrlimit(RLIMIT_FSIZE, &unlimited);
	machine_->room = 1 << 20;
	try {
		back_up();
		ADD_FAILURE();
	} catch (const Failure &failure) {
		EXPECT_EQ(failure.code(), FailureCode::no_space) << failure.what();
	}
	machine_->room = 0;
	setrlimit(RLIMIT_FSIZE, &unlimited);
	EXPECT_TRUE(problems_in(Repository(repository_)).empty());
	EXPECT_EQ(machine_->snapshot[0], 0);
	EXPECT_FALSE(back_up().point.is_full());
	EXPECT_EQ(read_point(Repository(repository_), ""), truth());
}

/* In every file, bytes spread over all of it, and all of the small records at both ends. */
TEST_F(AgentTest, a_flipped_byte_is_found_and_named)
{
	std::minstd_rand random(5);
	for (int round = 0; round < 3; round++) {
		write_some(random);
		machine_->write(1, round + 1);
		back_up();
	}
	for (const fs::path &path : files_below(repository_)) {
		const auto size = fs::file_size(path);
		for (uint64_t at = 0; at < size; at += at < 40 || at + 400 > size ? 1 : 61) {
			std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
			file.seekg(static_cast<off_t>(at));
			const char original = static_cast<char>(file.get());
			file.seekp(static_cast<off_t>(at));
			file.put(static_cast<char>(original ^ (1 << random() % 8))).flush();
			const auto problems = problems_in(Repository(repository_));
			ASSERT_FALSE(problems.empty()) << path << " at " << at;
			EXPECT_NE(problems.front().find(path.filename()), std::string::npos)
				<< problems.front();
			file.seekp(static_cast<off_t>(at));
			file.put(original);
		}
	}
	EXPECT_TRUE(problems_in(Repository(repository_)).empty());
}

TEST_F(AgentTest, verify_reads_on_after_damage_and_names_the_points_it_concerns)
{
	std::minstd_rand random(10);
	fill_with_noise(*machine_, random);
	std::vector<std::string> ids;
	for (int round = 0; round < 4; round++)
		ids.push_back(back_up(round == 2).point.id);
	const Repository repository(repository_);
	const fs::path data = repository.data_directory() / repository.find("1").data.file;
	for (uint64_t offset : {fs::file_size(data) / 10, fs::file_size(data) * 9 / 10})
		std::fstream(data, std::ios::in | std::ios::out)
			.seekp(static_cast<off_t>(offset))
			.write("damaged", 7);
	auto problems = problems_in(repository);
	ASSERT_EQ(problems.size(), 2U);
	EXPECT_NE(problems[0].find("2 of its frames"), std::string::npos) << problems[0];
	const std::string concerned = ": " + ids[0] + ", " + ids[1];
	EXPECT_TRUE(problems[1].ends_with(concerned)) << problems[1];
	fs::remove(data);
	problems = problems_in(repository);
	ASSERT_EQ(problems.size(), 2U);
	EXPECT_NE(problems[0].find(ids[0] + " is missing"), std::string::npos) << problems[0];
	EXPECT_TRUE(problems[1].ends_with(concerned)) << problems[1];

	/* Whoever removes the record can forget what built on it. */
	fs::remove(repository_ / "points" / (ids[0] + ".json"));
	problems = problems_in(repository);
	ASSERT_EQ(problems.size(), 2U);
	EXPECT_TRUE(problems[1].ends_with(": " + ids[1])) << problems[1];
	EXPECT_EQ(forget_all_but({ids[2], ids[3]}), std::vector{ids[1]});
	EXPECT_TRUE(problems_in(repository).empty());
}

TEST_F(AgentTest, a_damaged_point_is_not_restored_and_not_built_upon)
{
	back_up();
	machine_->write(1, 1);
	const auto second = back_up().point;
	{
		std::fstream file(repository_ / "data" / second.data.file,
				  std::ios::in | std::ios::out);
		file.seekp(sizeof(DataHeader) + 10);
		file.put('!');
	}
	Progress progress = silent();
	PointReader reader(Repository(repository_), "");
	const fs::path target = directory_ / "restored";
	EXPECT_THROW(restore(reader, {.target = target}, progress), Failure);
	EXPECT_FALSE(fs::exists(target));
	std::byte byte;
	EXPECT_EQ(make_source(PointReader(Repository(repository_), ""))
			  ->read(block_bytes, std::span(&byte, 1)),
		  EIO);
	EXPECT_EQ(read_point(Repository(repository_), "1").size(), fake_size);

	const fs::path manifest = repository_ / "points" / (second.id + ".json");
	fs::resize_file(manifest, fs::file_size(manifest) - 1);
	EXPECT_TRUE(back_up().point.is_full());
	EXPECT_EQ(read_point(Repository(repository_), "3"), truth());
	EXPECT_TRUE(fs::exists(repository_ / "data" / second.data.file));
	EXPECT_FALSE(back_up().point.is_full()) << "the damage is no concern of the last point";
	fs::remove(repository_ / "data" / Repository(repository_).find("3").data.file);
	const auto last = back_up().point;
	EXPECT_EQ(last.reason, "the last restore point is damaged");
	EXPECT_EQ(read_point(Repository(repository_), last.id), truth());
}

TEST_F(AgentTest, restore_writes_and_reads_back)
{
	std::minstd_rand random(6);
	write_some(random);
	back_up();
	Progress progress = silent();
	PointReader reader(Repository(repository_), "");
	const fs::path target = directory_ / "restored";
	restore(reader, {.target = target}, progress);
	std::ifstream file(target, std::ios::binary);
	EXPECT_EQ(std::vector<char>(std::istreambuf_iterator<char>(file), {}), truth());
	EXPECT_THROW(restore(reader, {.target = target}, progress), Failure);
}

/* A target that loses a write, keeps old data in a hole, or has two blocks in each other's place.
 */
TEST_F(AgentTest, restore_notices_what_the_target_did_not_keep)
{
	machine_->write(1, 1);
	machine_->write(2, 2);
	back_up();
	const auto copy = [](int file, size_t from, size_t to) {
		std::vector<char> block(block_bytes);
		EXPECT_EQ(pread(file, block.data(), block_bytes, from * block_bytes), block_bytes);
		EXPECT_EQ(pwrite(file, block.data(), block_bytes, to * block_bytes), block_bytes);
	};
	const std::function<void(int)> faults[] = {
		[&](int file) { copy(file, 3, 1); },
		[&](int file) { copy(file, 1, 30); },
		[&](int file) {
			copy(file, 1, 3);
			copy(file, 2, 1);
			copy(file, 3, 2);
			EXPECT_EQ(pwrite(file, std::string(block_bytes, '\0').data(), block_bytes,
					 3 * block_bytes),
				  block_bytes);
		},
	};
	for (const auto &fault : faults) {
		before_flush = fault;
		Progress progress = silent();
		PointReader reader(Repository(repository_), "");
		EXPECT_THROW(restore(reader, {.target = directory_ / "restored"}, progress),
			     Failure);
		before_flush = nullptr;
		EXPECT_FALSE(fs::exists(directory_ / "restored"));
	}
}

/* Indexes that are longer than what is looked at at once; each block tells who wrote it where. */
TEST_F(AgentTest, every_block_is_found_in_long_indexes)
{
	static constexpr uint64_t blocks = 1500, size = blocks * block_bytes - 4096;
	std::minstd_rand random(11);
	const Repository repository = Repository::open_or_create(repository_, "vg/data", "uuid");
	std::vector<uint64_t> words(blocks); // of which each block consists
	const auto words_in = [](uint64_t block, uint64_t count) {
		return (std::min((block + count) * block_bytes, size) - block * block_bytes) /
		       sizeof(uint64_t);
	};
	const auto expect_the_last = [&] {
		PointReader reader(repository, "");
		for (uint64_t i = 0; i < 2 * blocks; i++) {
			const uint64_t block = i < blocks ? i : random() % blocks;
			std::vector<uint64_t> plain(words_in(block, 1));
			reader.read(block * block_bytes, std::as_writable_bytes(std::span(plain)));
			ASSERT_EQ(plain, std::vector(plain.size(), words[block])) << block;
		}
	};
	Manifest point;
	point.size = size;
	for (uint64_t number = 1; number <= 4; number++) {
		DataWriter writer(repository.data_directory(), Repository::new_data_name(number),
				  size, 1);
		for (uint64_t block = 0, end = 0; block < blocks; block = end) {
			end = std::min(block + (number == 1 ? 16 : 1 + random() % 3), blocks);
			std::vector<uint64_t> plain;
			for (uint64_t i = block; i < end; i++) {
				words[i] = random() % 8 ? number << 32 | i : 0;
				plain.resize(words_in(block, i + 1 - block), words[i]);
			}
			writer.add(block * block_bytes, std::as_bytes(std::span(plain)));
			end += number == 1 ? 0 : random() % 9;
		}
		point.parent = point.id;
		point.number = number;
		point.id = std::to_string(number);
		point.data = writer.finish();
		repository.commit(point);
		expect_the_last();
	}
	Progress progress = silent();
	std::vector<std::string> dropped;
	forget(repository, {"1", "4"}, progress, dropped);
	expect_the_last();
	forget(repository, {"4"}, progress, dropped);
	expect_the_last();
	EXPECT_TRUE(problems_in(repository).empty());
}

/*
 * The points build on each other as 1-2-3-4, 2-7-8 and 5-6. Killed at more and more steps, each
 * time going on from there, until one is through.
 */
TEST_F(AgentTest, forgetting_loses_no_block_of_what_is_kept)
{
	std::minstd_rand random(7);
	for (int round = 0; round < 6; round++) {
		machine_->write(round, 1 + round);
		write_some(random);
		back_up(round == 4);
	}
	add_fork(Repository(repository_), "4", "2");
	add_fork(Repository(repository_), "6", "7");
	std::map<uint64_t, std::vector<char>> truths;
	for (const Manifest &point : Repository(repository_).points())
		truths[point.number] = read_point(Repository(repository_), point.id);
	const fs::path whole = directory_ / "whole";
	fs::rename(repository_, whole);

	const std::set<uint64_t> keep_sets[] = {{6}, {3, 4}, {2, 6, 8}, {1, 4, 6, 8}, {4, 7, 8}};
	for (const auto &kept : keep_sets) {
		fs::remove_all(repository_);
		fs::copy(whole, repository_, fs::copy_options::recursive);
		const Repository repository(repository_);
		std::set<std::string> keep;
		for (const uint64_t number : kept)
			keep.insert(repository.find(std::to_string(number)).id);
		int deaths = 0;
		for (bool died = true; died;) {
			died = dies(*machine_, deaths * 2, [&] { forget_all_but(keep); });
			deaths += died;
			const auto points = repository.points();
			for (const Manifest &point : points)
				ASSERT_EQ(read_point(repository, point.id), truths[point.number]);
			std::set<uint64_t> there;
			for (const Manifest &point : points)
				there.insert(point.number);
			ASSERT_TRUE(std::ranges::includes(there, kept));
		}
		EXPECT_GT(deaths, 4);
		EXPECT_EQ(repository.points().size(), kept.size());
		EXPECT_TRUE(problems_in(repository).empty());
		EXPECT_TRUE(repository.leftovers().empty());
	}
}

/* 2 builds on 1, 4 on 3, 6 on 5. Only 3 is large. */
TEST_F(AgentTest, forgetting_on_a_full_disk_frees_what_it_can)
{
	std::minstd_rand random(11);
	std::map<uint64_t, std::vector<char>> truths;
	for (uint64_t number = 1; number <= 6; number++) {
		if (number == 3)
			fill_with_noise(*machine_, random);
		if (number == 5)
			machine_->content.fill({});
		machine_->write(number, number);
		back_up(number % 2 == 1);
		truths[number] = truth();
	}
	const Repository repository(repository_);
	const std::set<std::string> keep = {repository.find("2").id, repository.find("4").id};
	const std::vector<std::string> free = {repository.find("6").id, repository.find("5").id,
					       repository.find("1").id};
	room = 1 << 20;
	std::vector<std::string> dropped;
	try {
		Progress progress = silent();
		forget(repository, keep, progress, dropped);
		ADD_FAILURE();
	} catch (const Failure &failure) {
		EXPECT_EQ(failure.code(), FailureCode::no_space) << failure.what();
	}
	room = 0;
	EXPECT_EQ(dropped, free);
	EXPECT_TRUE(repository.leftovers().empty());
	const auto points = repository.points();
	EXPECT_EQ(points.size(), 3U);
	for (const Manifest &point : points)
		EXPECT_EQ(read_point(repository, point.id), truths[point.number]);
	EXPECT_EQ(forget_all_but(keep).size(), 1U);
}

TEST_F(AgentTest, nothing_sound_is_forgotten_for_what_is_damaged)
{
	std::vector<std::string> ids;
	for (int round = 0; round < 4; round++)
		ids.push_back(back_up(round == 2).point.id);
	const Repository repository(repository_);
	fs::remove(repository.data_directory() / repository.find(ids[2]).data.file);
	EXPECT_THROW(forget_all_but({ids[2], ids[3]}), Failure);
	EXPECT_EQ(repository.points().size(), 4U);
	EXPECT_EQ(forget_all_but({ids[0], ids[1], ids[2]}).size(), 1U);
	EXPECT_EQ(forget_all_but({ids[1]}).size(), 2U);
	EXPECT_EQ(read_point(repository, "").size(), fake_size);
}

/* Readers see neither damage nor other content while points go. */
TEST_F(AgentTest, readers_are_not_disturbed_by_forgetting)
{
	std::minstd_rand random(9);
	for (int round = 0; round < 25; round++) {
		write_some(random);
		back_up();
	}
	const pid_t process = fork();
	if (process == 0) {
		const Repository repository(repository_);
		for (auto points = repository.points(); points.size() > 1;
		     points = repository.points()) {
			std::set<std::string> keep;
			for (const Manifest &point : points)
				keep.insert(point.id);
			keep.erase(points.front().id);
			forget_all_but(keep);
		}
		_exit(0);
	}
	int status = 0;
	do {
		const Repository repository(repository_);
		EXPECT_EQ(read_point(repository, ""), truth());
		EXPECT_EQ(problems_in(repository), std::vector<std::string>());
	} while (waitpid(process, &status, WNOHANG) == 0 && !HasFailure());
	EXPECT_EQ(status, 0);
	EXPECT_EQ(Repository(repository_).points().size(), 1);
}

TEST(Retention, keeps_the_newest_of_each_period)
{
	constexpr int64_t day = 86400, first = 20000 * day; // 2024-10-04
	std::vector<Manifest> points;
	for (int64_t half_days = 0; half_days < 120; half_days++) {
		points.emplace_back();
		points.back().id = std::to_string(half_days);
		points.back().time = first + half_days * day / 2;
	}
	/* The last day is Monday, 2024-12-02. */
	using Ids = std::set<std::string>;
	EXPECT_EQ(points_to_keep(points, {}), Ids({"119"}));
	EXPECT_EQ(points_to_keep(points, {.last = 3}), Ids({"119", "118", "117"}));
	EXPECT_EQ(points_to_keep(points, {.daily = 3}), Ids({"119", "117", "115"}));
	EXPECT_EQ(points_to_keep(points, {.weekly = 3}), Ids({"119", "117", "103"}));
	EXPECT_EQ(points_to_keep(points, {.last = 1, .monthly = 2}), Ids({"119", "115"}));
}

/* Against a map of single blocks, across chunks of the map, with sources of all sizes. */
TEST(ExtentMapTest, the_newest_source_of_each_block_wins)
{
	std::minstd_rand random(8);
	for (int repetition = 0; repetition < 100; repetition++) {
		const uint64_t blocks = 1 + random() % 5000;
		const uint64_t most = 1 + random() % blocks;
		ExtentMap map(blocks, 5);
		std::vector<ExtentMap::Source> expected(blocks, ExtentMap::none);
		for (ExtentMap::Source source = 0; source < 5; source++) {
			for (uint64_t block = random() % most; block < blocks;) {
				const uint64_t count =
					std::min(1 + random() % most, blocks - block);
				map.add_older(block, count, source);
				for (uint64_t i = block; i < block + count; i++)
					if (expected[i] == ExtentMap::none)
						expected[i] = source;
				block += count + random() % most;
			}
		}
		std::vector<ExtentMap::Source> found(blocks, ExtentMap::none);
		uint64_t last_end = 0;
		map.for_each_run([&](const ExtentMap::Run &run) {
			EXPECT_LE(last_end, run.first);
			if (last_end == run.first && run.first > 0) {
				EXPECT_NE(found[run.first - 1], run.source);
			}
			last_end = run.end;
			std::ranges::fill(std::span(found).subspan(run.first, run.end - run.first),
					  run.source);
		});
		ASSERT_EQ(found, expected);
		EXPECT_EQ(map.is_whole(), std::ranges::count(expected, ExtentMap::none) == 0);
		for (uint64_t block = 0; block < blocks; block++)
			ASSERT_EQ(map.source_of(block), expected[block]);
	}
	EXPECT_THROW(ExtentMap(1, ExtentMap::max_sources + 1), Failure);
}

/* What a chain costs: increments that change scattered blocks, over a full point. */
TEST(ExtentMapTest, a_long_chain_takes_the_memory_of_a_short_one_and_the_time_of_its_entries)
{
	constexpr uint64_t blocks = 4 << 20;
	struct Cost {
		double seconds; // of a processor
		long kibibytes;
	};
	const auto cost_of = [](size_t increments, uint64_t blocks_in_each) {
		const pid_t process = fork();
		if (process == 0) {
			ExtentMap map(blocks, increments + 1);
			std::minstd_rand random(10);
			for (size_t source = 0; source < increments; source++)
				for (uint64_t block = 0; block < blocks;
				     block += 1 + random() % (2 * blocks / blocks_in_each))
					map.add_older(block, 1, source);
			for (uint64_t block = 0; block < blocks; block += 16)
				map.add_older(block, 16, increments);
			_exit(!map.is_whole());
		}
		int status = 0;
		rusage usage = {};
		wait4(process, &status, 0, &usage);
		EXPECT_EQ(status, 0);
		const auto seconds = [](timeval time) {
			return static_cast<double>(time.tv_sec) +
			       static_cast<double>(time.tv_usec) * 1e-6;
		};
		return Cost{seconds(usage.ru_utime) + seconds(usage.ru_stime), usage.ru_maxrss};
	};
	const Cost one = cost_of(1, blocks / 200);
	const Cost hundred = cost_of(100, blocks / 200);
	EXPECT_LT(hundred.kibibytes - one.kibibytes, 8 << 10);
	const Cost same_entries = cost_of(1, blocks / 2);
	EXPECT_LT(hundred.seconds, 4 * same_entries.seconds + 0.05);
}

TEST(BlockRuns, cover_what_extents_touch)
{
	using Runs = std::vector<BlockRun>;
	constexpr uint64_t size = 10 * block_bytes + 512;
	EXPECT_EQ(runs_of({{127, 2, false}, {300, 20, false}, {1270, 400, true}}, size),
		  Runs({{0, 3}, {9, 2}}));
	EXPECT_EQ(union_of(Runs{{0, 2}, {6, 1}}, Runs{{1, 3}, {5, 1}}), Runs({{0, 4}, {5, 2}}));
	EXPECT_EQ(bytes_of_runs(all_blocks(size), size), size);
}

} // namespace zorvat::agent
