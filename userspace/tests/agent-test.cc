// SPDX-License-Identifier: GPL-2.0
/*
 * The agent against a machine that tracks as the driver does: backups that are killed anywhere,
 * what others do to the bitmap, damaged files, full disks, forgotten points.
 */
#include "agent-fixture.h"

#include <csignal>
#include <dlfcn.h>
#include <functional>
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
	for (int round = 0; round < 12; round++) {
		write_some(random);
		const auto result = back_up(round == 7);
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
	for (size_t block = 0; block < fake_blocks; block++)
		for (size_t i = 0; i < block_bytes && block * block_bytes + i < fake_size; i++)
			machine_->content[block * block_bytes + i] = std::byte(random() >> 8);
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
		if (path.filename() == "repository.json")
			continue; // see below
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
	std::fstream(repository_ / "repository.json", std::ios::in | std::ios::out).put('[');
	EXPECT_THROW(Repository{repository_}, Failure);
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
	EXPECT_EQ(back_up().point.reason, "the repository is damaged");
	EXPECT_EQ(read_point(Repository(repository_), "3"), truth());
	EXPECT_TRUE(fs::exists(repository_ / "data" / second.data.file));
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
	forget(repository, {"1", "4"}, progress);
	expect_the_last();
	forget(repository, {"4"}, progress);
	expect_the_last();
	EXPECT_TRUE(problems_in(repository).empty());
}

/* Random sets are forgotten, killed at random steps, until one is through. */
TEST_F(AgentTest, forgetting_loses_no_block_of_what_is_kept)
{
	std::minstd_rand random(7);
	for (int repetition = 0; repetition < 8; repetition++) {
		fs::remove_all(repository_);
		std::map<std::string, std::vector<char>> truths;
		for (int round = 0; round < 10; round++) {
			write_some(random);
			const std::string id = back_up(round == 6).point.id;
			truths[id] = truth();
		}
		std::set<std::string> keep = {truths.rbegin()->first};
		for (const auto &[id, content] : truths)
			if (random() % 3 == 0)
				keep.insert(id);
		const auto forget_rest = [&] {
			const Repository repository(repository_);
			const File lock = repository.lock_for_writing();
			Progress progress = silent();
			forget(repository, keep, progress);
		};
		for (int steps = 0; dies(*machine_, steps, forget_rest); steps += 1 + random() % 3)
			for (const std::string &id : keep)
				ASSERT_EQ(read_point(Repository(repository_), id), truths[id]);
		const Repository repository(repository_);
		EXPECT_EQ(repository.points().size(), keep.size());
		for (const std::string &id : keep)
			ASSERT_EQ(read_point(repository, id), truths[id]);
		EXPECT_TRUE(problems_in(repository).empty());
		EXPECT_TRUE(repository.leftovers().empty());
	}
}

/* Readers take no lock, and see neither damage nor other content while points go. */
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
		const File lock = repository.lock_for_writing();
		Progress progress = silent();
		for (auto points = repository.points(); points.size() > 1;
		     points = repository.points()) {
			std::set<std::string> keep;
			for (const Manifest &point : points)
				keep.insert(point.id);
			keep.erase(points.front().id);
			forget(repository, keep, progress);
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
