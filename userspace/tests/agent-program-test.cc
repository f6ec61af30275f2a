// SPDX-License-Identifier: GPL-2.0
/* The agent as scripts and people meet it: where it restores to, its exit codes, its messages. */
#include "agent-fixture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "restore.h"

namespace zorvat::agent
{

namespace
{

std::string text_of(const fs::path &path)
{
	std::ifstream file(path, std::ios::binary);
	return {std::istreambuf_iterator<char>(file), {}};
}

void write_text(const fs::path &path, const std::string &text)
{
	std::ofstream(path, std::ios::binary) << text;
}

/* What is there, links as such. */
std::set<fs::path> names_in(const fs::path &directory)
{
	std::set<fs::path> names;
	for (const auto &entry : fs::directory_iterator(directory))
		names.insert(entry.path().filename());
	return names;
}

/* Standard error, until the end, is something that cannot be written. */
class FullStandardError
{
public:
	FullStandardError() : original_(dup(STDERR_FILENO))
	{
		dup2(full_.get(), STDERR_FILENO);
	}
	~FullStandardError()
	{
		dup2(original_, STDERR_FILENO);
		close(original_);
	}

private:
	File full_{"/dev/full", O_WRONLY};
	int original_;
};

class AgentProgramTest : public AgentTest
{
protected:
	/* Returns the exit code; above 128: the signal that ended it. */
	int run(const std::string &arguments)
	{
		const std::string command =
			"cd " + directory_.native() + " && " ZORVAT_PROGRAM " >output " + arguments;
		const int status = std::system(command.c_str());
		return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
	}

	std::optional<FailureCode> restore_to(const fs::path &target, bool force)
	{
		Progress progress(Progress::silent);
		PointReader reader(Repository(repository_), "");
		try {
			restore(reader, {.target = target, .force = force}, progress);
			return std::nullopt;
		} catch (const Failure &failure) {
			return failure.code();
		}
	}
};

} // namespace

TEST_F(AgentProgramTest, restores_to_files_and_touches_nothing_beside_them)
{
	back_up();
	const std::string content = {truth().data(), truth().size()};
	const fs::path room = directory_ / "room";
	fs::create_directories(room / "directory");
	mkfifo((room / "fifo").c_str(), 0600);
	fs::create_symlink("nothing", room / "dangling");
	fs::create_symlink("loop", room / "loop");
	fs::create_symlink("old", room / "link");
	write_text(room / "precious", "precious");
	for (const char *name : {"old", "link", "new"})
		fs::create_symlink("precious", room / (std::string(name) + ".tmp"));

	const fs::path unusable[] = {
		"",
		room / "directory",
		room / "fifo",
		room / "dangling",
		room / "loop",
		room / "missing" / "file",
		room / "precious" / "file",
		"/dev/null",
		"/dev/zorvat-nothing",
		"/dev/zorvat/nothing",
		"/dev/shm/zorvat-nothing",
		repository_ / "new",
		repository_ / "data" / "new",
		fs::path(repository_ / "points").lexically_relative(fs::current_path()) / "new"};
	const auto all = names_in(room);
	const auto in_repository = names_in(repository_);
	for (const fs::path &target : unusable)
		for (bool force : {false, true})
			EXPECT_EQ(restore_to(target, force), FailureCode::usage) << target << force;
	EXPECT_EQ(names_in(repository_), in_repository);
	EXPECT_FALSE(fs::exists("/dev/shm/zorvat-nothing"));

	for (const char *name : {"old", "link"}) {
		write_text(room / "old", "old");
		fs::create_hard_link(room / "old", room / "still_old");
		EXPECT_EQ(restore_to(room / name, false), FailureCode::busy) << name;
		EXPECT_EQ(text_of(room / "old"), "old");
		EXPECT_EQ(restore_to(room / name, true), std::nullopt) << name;
		EXPECT_EQ(text_of(room / "old"), content) << name;
		EXPECT_EQ(text_of(room / "still_old"), "old") << "was not replaced, but written";
		fs::remove(room / "still_old");
	}
	EXPECT_TRUE(fs::is_symlink(room / "link"));
	fs::remove(room / "old");
	EXPECT_EQ(restore_to(room / "new", false), std::nullopt);
	EXPECT_EQ(text_of(room / "new"), content);
	fs::remove(room / "new");
	EXPECT_EQ(names_in(room), all);
	try {
		NewFile late(room / "late", NewFile::shared_directory);
		write_text(room / "late", "made meanwhile");
		late.commit(NewFile::keep);
		ADD_FAILURE();
	} catch (const Failure &failure) {
		EXPECT_EQ(failure.code(), FailureCode::busy);
	}
	EXPECT_EQ(text_of(room / "late"), "made meanwhile");
	fs::remove(room / "late");
	EXPECT_EQ(names_in(room), all);
	EXPECT_EQ(text_of(room / "precious"), "precious");
}

TEST_F(AgentProgramTest, exits_as_its_page_says)
{
	struct {
		const char *arguments;
		int code;
	} const sound[] = {
		{"list repository --json", 0},
		{"--json list repository", 0},
		{"list --json repository", 0},
		{"show repository@1", 0},
		{"verify repository 2>/dev/full", 0},
		{"verify repository <&- 2>&-", 0},
		{"restore repository --to '\xff' --json", 0},
		{"list repository >/dev/full", 1},
		{"", 2},
		{"list ''", 2},
		{"list repository@1", 2},
		{"show repository@", 2},
		{"restore repository@ --to copy", 2},
		{"verify repository@1", 2},
		{"forget repository", 2},
		{"forget repository@1 --keep-last 1", 2},
		{"forget repository --keep-last -1", 2},
		{"forget repository --keep-daily 010", 2},
		{"forget repository --keep-weekly 18446744073709551617", 2},
		{"forget repository --keep-monthly 2x", 2},
		{"backup vg/data --to repository --compression 0", 2},
		{"backup vg/data --to repository --compression 99", 2},
		{"backup vg/data --to repository --snapshot-size -1", 2},
		{"restore repository --to /dev/zorvat-nothing 2>/dev/full", 2},
		{"list elsewhere", 4},
		{"show repository@7", 4},
		{"restore repository --to repository.tar", 0},
		{"restore repository --to repository.tar", 6},
	};
	for (int round = 0; round < 3; round++) {
		machine_->write(round, 1);
		back_up();
	}
	for (const auto &[arguments, code] : sound)
		EXPECT_EQ(run(arguments), code) << arguments;
	EXPECT_EQ(Repository(repository_).points().size(), 3U);

	fs::remove(repository_ / "data" / Repository(repository_).find("2").data.file);
	for (const char *arguments :
	     {"show repository", "restore repository --to copy", "serve repository",
	      "mount repository@2 /", "verify repository", "forget repository --keep-last 1"})
		EXPECT_EQ(run(arguments), 7) << arguments;
	EXPECT_EQ(run("list repository"), 0);
	fs::remove_all(repository_ / "points");
	EXPECT_EQ(run("list repository"), 7);
}

TEST_F(AgentProgramTest, reads_without_repository_json_and_backs_up_to_a_new_one)
{
	back_up();
	machine_->fails_on_snapshot_read = true;
	EXPECT_THROW(back_up(), Failure);
	machine_->fails_on_snapshot_read = false;
	std::fstream(repository_ / "repository.json", std::ios::in | std::ios::out).put('[');
	EXPECT_EQ(run("list --json repository 2>told"), 0);
	EXPECT_NE(text_of(directory_ / "told").find("repository.json is damaged"),
		  std::string::npos);
	EXPECT_NE(text_of(directory_ / "output").find("vg/data"), std::string::npos);
	for (const char *arguments :
	     {"show repository", "restore repository --to copy", "forget repository@1 --dry-run"})
		EXPECT_EQ(run(arguments), 0) << arguments;
	for (const char *arguments : {"verify repository", "forget repository@1"})
		EXPECT_EQ(run(arguments), 7) << arguments;
	EXPECT_THROW(back_up(), Failure);

	fs::remove(repository_ / "repository.json");
	EXPECT_EQ(run("list repository"), 4);
	EXPECT_THROW(Repository::open_or_create(repository_, "vg/data", "another"), Failure);
	EXPECT_FALSE(back_up().point.is_full());
	EXPECT_EQ(run("verify repository"), 0);
	EXPECT_EQ(Repository(repository_).points().size(), 2U);
}

TEST_F(AgentProgramTest, tells_what_it_forgot_before_it_failed)
{
	back_up();
	const auto full = back_up(true).point;
	back_up();
	{ /* In its index, which a merge reads first. */
		std::fstream file(repository_ / "data" / full.data.file,
				  std::ios::in | std::ios::out | std::ios::binary);
		const auto at = static_cast<off_t>(full.data.length - sizeof(DataFooter) - 1);
		file.seekg(at);
		const int byte = file.get();
		file.seekp(at);
		file.put(static_cast<char>(byte ^ 1));
	}
	EXPECT_EQ(run("forget repository --keep-last 1"), 7);
	const std::string told = text_of(directory_ / "output");
	EXPECT_TRUE(told.starts_with("forgot 1-") && told.find("forgot", 1) == told.npos) << told;
}

/* As no agent writes them, but with checksums that fit. */
TEST_F(AgentProgramTest, senseless_records_are_damage)
{
	for (int round = 0; round < 2; round++)
		back_up();
	const std::string id = Repository(repository_).find("2").id;
	const fs::path manifest = repository_ / "points" / (id + ".json");
	const Json intact = read_sealed_json(manifest);
	struct {
		const char *member;
		Json value;
	} const changes[] = {
		{"number", 7},
		{"parent", id},
		{"parent", "../points/1"},
		{"size", -1},
		{"size", uint64_t{1} << 63},
		{"size", block_bytes},
		{"time", int64_t{1} << 60},
		{"data", {{"file", ".."}}},
	};
	for (const auto &[member, value] : changes) {
		Json changed = intact;
		if (value.is_object())
			changed[member].update(value);
		else
			changed[member] = value;
		write_sealed_json(manifest, changed);
		for (const char *arguments : {"verify repository", "restore repository@2 --to copy",
					      "forget repository --keep-last 1"})
			EXPECT_EQ(run(arguments), 7) << member << "=" << value << ": " << arguments;
	}
	write_sealed_json(manifest, intact);
	EXPECT_EQ(run("verify repository"), 0);
}

TEST_F(AgentProgramTest, what_cannot_be_told_ends_nothing)
{
	machine_->write(0, 1);
	machine_->fails_to_remove_snapshot = true;
	testing::internal::CaptureStderr();
	EXPECT_THROW(back_up(), Failure);
	const std::string told = testing::internal::GetCapturedStderr();
	EXPECT_NE(told.find(Repository(repository_).find("1").id + " is complete"),
		  std::string::npos)
		<< told;

	const FullStandardError full;
	EXPECT_THROW(back_up(true), Failure);
	Progress progress(Progress::lines);
	PointReader reader(Repository(repository_), "");
	EXPECT_NO_THROW(restore(reader, {.target = directory_ / "restored"}, progress));
	const fs::path data = repository_ / "data" / reader.point().data.file;
	const auto source = make_source(PointReader(Repository(repository_), ""));
	fs::resize_file(data, sizeof(DataHeader));
	std::byte byte;
	EXPECT_EQ(source->read(0, std::span(&byte, 1)), EIO);
}

TEST_F(AgentProgramTest, names_are_taken_as_they_are)
{
	EXPECT_EQ(PointName::parse("/a/b@c").repository, "/a/b");
	EXPECT_EQ(PointName::parse("/a/b@c").point, "c");
	EXPECT_EQ(PointName::parse("/a@b/c").repository, "/a@b/c");
	const std::string name = directory_ / "a@b";
	EXPECT_EQ(PointName::parse(name).point, "b");
	fs::create_directory(name);
	EXPECT_EQ(PointName::parse(name).repository, name);
	EXPECT_EQ(PointName::parse(name).point, "");
	EXPECT_EQ(PointName::parse(name + "@1").repository, name);
	EXPECT_EQ(PointName::parse(name + "@1").point, "1");

	try {
		write_sealed_json(directory_ / "record", {{"volume", "\xff"}});
		ADD_FAILURE();
	} catch (const Failure &failure) {
		EXPECT_EQ(failure.code(), FailureCode::usage);
	}
	EXPECT_FALSE(fs::exists(directory_ / "record"));
	EXPECT_FALSE(fs::exists(directory_ / "record.tmp"));
}

} // namespace zorvat::agent
