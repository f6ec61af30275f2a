// SPDX-License-Identifier: GPL-2.0
#include "serving.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <libmount/libmount.h>
#include <optional>
#include <poll.h>
#include <sstream>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <thread>
#include <zorvat/disk-server.h>
#include <zorvat/file-descriptor.h>

extern "C" {
#include <sys/pidfd.h> // of glibc 2.36, which does not say so itself
}

#include "../signal-thread.h"
#include "pipe.h"

namespace zorvat::agent
{

namespace
{

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr std::chrono::milliseconds patience = 10s;
/* The server of a mount sees that it is over within this time, unless the machine is busy. */
constexpr std::chrono::milliseconds usual_end = 2s;

bool happens_within(std::chrono::milliseconds time, const std::function<bool()> &condition)
{
	const auto end = Clock::now() + time;
	while (!condition()) {
		if (Clock::now() >= end)
			return false;
		std::this_thread::sleep_for(10ms);
	}
	return true;
}

/* Ends the server at a signal, of those that are blocked. */
SignalThread stop_at(const sigset_t &signals, DiskServer &server)
{
	return SignalThread(signals, [&server](int) {
		server.request_stop();
		return false;
	});
}

void begin(DiskServer &server)
{
	server.resume();
	if (!server.wait_for_node(patience))
		throw Failure(FailureCode::failed, server.node().native() + " has not appeared");
}

using MountTable = std::unique_ptr<libmnt_table, decltype(&mnt_unref_table)>;

constexpr const char *mount_table_path = "/proc/self/mountinfo";

/* Null: it cannot be read. */
MountTable read_mount_table()
{
	return {mnt_new_table_from_file(mount_table_path), mnt_unref_table};
}

/* What is mounted on the directory now, on top of all else; empty: nothing. */
fs::path device_mounted_on(const fs::path &directory)
{
	const MountTable mounts = read_mount_table();
	if (!mounts)
		throw system_failure("cannot read what is mounted", errno);
	libmnt_fs *mounted =
		mnt_table_find_target(mounts.get(), directory.c_str(), MNT_ITER_BACKWARD);
	const char *source = mounted ? mnt_fs_get_source(mounted) : nullptr;
	return source ? source : "";
}

/* In this mount namespace. */
bool is_mounted(const fs::path &device)
{
	const MountTable mounts = read_mount_table();
	return !mounts ||
	       mnt_table_find_srcpath(mounts.get(), device.c_str(), MNT_ITER_FORWARD) != nullptr;
}

/* A file system holds its device, from other namespaces too, and when detached but in use. */
bool is_held(const fs::path &device)
{
	const FileDescriptor fd(open(device.c_str(), O_RDONLY | O_EXCL | O_CLOEXEC));
	return !fd && errno != ENOENT;
}

/* Ends the server once its disk, which is mounted at begin(), is mounted nowhere any more. */
class UnmountThread
{
public:
	explicit UnmountThread(DiskServer &server)
	    : server_(server), mounts_(mount_table_path, O_RDONLY), over_(eventfd(0, EFD_CLOEXEC))
	{
		if (!over_)
			throw system_failure("cannot make an event", errno);
	}
	~UnmountThread()
	{
		eventfd_write(over_.get(), 1);
		if (thread_.joinable())
			thread_.join();
	}
	UnmountThread(const UnmountThread &) = delete;
	UnmountThread &operator=(const UnmountThread &) = delete;

	void begin()
	{
		thread_ = std::thread([this] {
			if (wait_until_unmounted(server_.node()))
				server_.request_stop();
		});
	}

private:
	/* False: it is over before. */
	bool wait_until_unmounted(const fs::path &device) const
	{
		std::array<pollfd, 2> polled = {
			{{mounts_.get(), POLLPRI, 0}, {over_.get(), POLLIN, 0}}};
		while (!polled[1].revents) {
			/* The kernel tells of changes of the table, but not who lets go last. */
			const bool mounted = is_mounted(device);
			if (!mounted && !is_held(device))
				return true;
			poll(polled.data(), polled.size(), mounted ? -1 : 100);
		}
		return false;
	}

	DiskServer &server_;
	File mounts_;
	FileDescriptor over_;
	std::thread thread_;
};

struct FileSystem {
	const char *type;
	const char *options; // that replay no log, since the disk cannot be written
	uint64_t magic_at;
	std::string_view magic;
};

constexpr std::array known_file_systems = {
	FileSystem{"ext4", "noload", 0x438, "\x53\xef"},
	FileSystem{"xfs", "norecovery,nouuid", 0, "XFSB"},
};

MountRequest completed(MountRequest request, PointReader &reader)
{
	for (const FileSystem &known : known_file_systems) {
		std::string magic(known.magic.size(), '\0');
		if (reader.size() >= known.magic_at + magic.size())
			reader.read(known.magic_at, std::as_writable_bytes(std::span(magic)));
		if (request.type.empty() && magic == known.magic)
			request.type = known.type;
		if (request.type == known.type && request.options.empty())
			request.options = known.options;
	}
	if (request.type.empty())
		throw Failure(FailureCode::usage,
			      "this is neither ext4 nor xfs: name the file system with --type, or "
			      "take 'zorvat serve' and mount it yourself");
	return request;
}

constexpr int answer_fd = 3;

/* So that whoever waits for the ends of the caller's pipes need not wait for this process. */
void close_all_but(int answer)
{
	if (dup2(answer, answer_fd) < 0)
		throw system_failure("cannot keep a pipe", errno);
	closefrom(answer_fd + 1);
}

/* From here on nobody reads what is printed. */
void leave_terminal()
{
	setsid();
	if (chdir("/") != 0)
		throw system_failure("cannot change to /", errno);
	const File null("/dev/null", O_RDWR);
	for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
		dup2(null.get(), fd);
}

void mount_disk(const DiskServer &server, const MountRequest &request)
{
	if (::mount(server.node().c_str(), request.directory.c_str(), request.type.c_str(),
		    MS_RDONLY | MS_NODEV | MS_NOSUID, request.options.c_str()) != 0)
		throw system_failure(fmt::format("cannot mount {} on {} as {}",
						 server.node().native(), request.directory.native(),
						 request.type),
				     errno);
}

/*
 * The process in the background says one thing: a disk's path, or what it caught instead. Then
 * comes a zero byte: threads with tables of open files of their own keep the pipe open.
 */
struct Answer {
	enum : char {
		serves = '+',
		agent_failed = 'A',
		library_failed = 'L',
	};
	char kind = agent_failed;
	int code = static_cast<int>(FailureCode::failed); // FailureCode or Errc
	int number = 0;                                   // of errno
	std::string text;

	/* False: the caller is gone. */
	bool say() const
	{
		const std::string all = fmt::format("{} {} {} {}", kind, code, number, text);
		const auto length = static_cast<ssize_t>(all.size() + 1);
		return write(answer_fd, all.c_str(), all.size() + 1) == length;
	}

	static Answer read_from(int fd)
	{
		std::string all;
		for (char next = 0; all.empty() || next != 0;) {
			const ssize_t count = read(fd, &next, 1);
			if (count == 0 || (count < 0 && errno != EINTR))
				break;
			if (count > 0 && next != 0)
				all += next;
		}
		Answer answer;
		std::istringstream stream(all);
		if (!(stream >> answer.kind >> answer.code >> answer.number && stream.get() == ' '))
			return {.text = "the server ended before it served"};
		answer.text = std::string(std::istreambuf_iterator<char>(stream), {});
		return answer;
	}

	std::string node_or_throw() const
	{
		if (kind == serves)
			return text;
		if (kind == library_failed)
			throw Error(static_cast<Errc>(code), text, {}, number);
		throw Failure(static_cast<FailureCode>(code), text, number);
	}
};

void serve_mounted(const PointName &name, MountRequest request)
{
	PointReader reader(Repository(name.repository), name.point);
	request = completed(request, reader);
	leave_terminal();
	const sigset_t blocked = block_signals();
	DiskServer server(open_netlink(), make_source(std::move(reader)));
	const SignalThread signals = stop_at(blocked, server);
	UnmountThread unmount(server);
	begin(server);
	mount_disk(server, request);
	unmount.begin();
	if (!Answer{.kind = Answer::serves, .text = server.node()}.say())
		server.request_stop();
	server.wait();
	if (device_mounted_on(request.directory) == server.node())
		umount2(request.directory.c_str(), MNT_DETACH);
	server.stop();
}

/* Nobody reads what is said after the answer. */
void run_in_background(const PointName &name, const MountRequest &request, int answer)
{
	try {
		close_all_but(answer);
		serve_mounted(name, request);
	} catch (const Error &error) {
		Answer{Answer::library_failed, static_cast<int>(error.code()), error.error_number(),
		       error.what()}
			.say();
	} catch (const Failure &failure) {
		Answer{Answer::agent_failed, static_cast<int>(failure.code()),
		       failure.error_number(), failure.what()}
			.say();
	} catch (const std::exception &error) {
		Answer{.text = error.what()}.say();
	}
}

/* A process that, from 5.3 on, is not taken for another one, which its number may be given to. */
class Process
{
public:
	explicit Process(pid_t number) : number_(number), fd_(pidfd_open(number, 0))
	{
	}

	bool ends_within(std::chrono::milliseconds time) const
	{
		if (!fd_) // it has ended, or the kernel is old
			return happens_within(time, [this] { return kill(number_, 0) != 0; });
		pollfd ended{fd_.get(), POLLIN, 0};
		return poll(&ended, 1, static_cast<int>(time.count())) != 0;
	}

private:
	pid_t number_;
	FileDescriptor fd_;
};

bool answers(const DiskAttributes &disk)
{
	try {
		ask_server_port(disk);
		return true;
	} catch (const Error &) {
		return false;
	}
}

/*
 * Ends the server of a disk that is not mounted any more, which has files of the repository open
 * until then. That of a mount ends by itself. Others do when their disk is gone: there is no need
 * for a signal, which could hit another process.
 */
void end_server(const RestoreDisks &disks, const DiskAttributes &disk, const Process &server)
{
	if (server.ends_within(usual_end))
		return;
	if (is_held("/dev/" + disk.name)) {
		if (server.ends_within(patience))
			return;
		throw Failure(FailureCode::busy,
			      fmt::format("{} is still in use elsewhere; process {} serves it "
					  "until it is not",
					  disk.name, disk.server));
	}
	disks.destroy_if_there(disk); // its server may be faster
	if (!server.ends_within(patience))
		throw Failure(FailureCode::failed,
			      fmt::format("process {}, which served {}, does not end", disk.server,
					  disk.name));
}

/* The driver gives the handle of a destroyed disk to the next one: one program removes at a time.
 */
File lock_removal()
{
	File lock(fs::path(machine_lock_directory) / "zorvat-disks.lock", O_RDWR | O_CREAT);
	lock.lock(LOCK_EX);
	return lock;
}

} // namespace

void serve(PointReader reader, const std::function<void(const std::string &)> &ready)
{
	const sigset_t blocked = block_signals();
	DiskServer server(open_netlink(), make_source(std::move(reader)));
	const SignalThread signals = stop_at(blocked, server);
	begin(server);
	ready(server.node());
	server.wait();
	server.stop();
}

std::string mount_point(const PointName &name, const MountRequest &request)
{
	std::error_code error;
	MountRequest absolute = request;
	absolute.directory = fs::canonical(request.directory, error);
	if (error || !fs::is_directory(absolute.directory))
		throw Failure(FailureCode::usage, request.directory.native() + " is no directory");

	Pipe pipe;
	const pid_t process = fork();
	if (process < 0)
		throw system_failure("cannot start a process", errno);
	if (process == 0) {
		run_in_background(name, absolute, pipe.writing.get());
		_exit(0);
	}
	pipe.writing.reset();
	return Answer::read_from(pipe.reading.get()).node_or_throw();
}

void unmount_point(const fs::path &directory)
{
	std::error_code error;
	fs::path where = fs::canonical(directory, error);
	if (error) // as may be where nothing can be read any more
		where = fs::absolute(directory).lexically_normal();
	const fs::path device = device_mounted_on(where);
	if (device.empty())
		throw Failure(FailureCode::not_found,
			      "nothing is mounted on " + directory.native());
	if (!device.native().starts_with("/dev/zorvat-"))
		throw Failure(FailureCode::usage,
			      directory.native() + " has no restore disk mounted");
	const File lock = lock_removal();
	const RestoreDisks disks(open_netlink());
	const auto all = disks.list();
	const auto disk = std::ranges::find(all, device.filename().native(), &DiskAttributes::name);
	/* The server of a mount may end at once, and its number be another process's. */
	std::optional<Process> server;
	if (disk != all.end()) {
		server.emplace(disk->server);
		if (!answers(*disk))
			server.reset();
	}
	if (umount2(where.c_str(), 0) != 0)
		throw system_failure("cannot unmount " + directory.native(), errno);
	if (disk == all.end()) // it was destroyed after its server had died
		return;
	if (!server)
		disks.destroy(disk->handle);
	else if (!is_mounted(device))
		end_server(disks, *disk, *server);
}

std::vector<std::string> remove_dead_disks()
{
	std::vector<std::string> names;
	const RestoreDisks disks(open_netlink());
	const File lock = lock_removal();
	for (const DiskAttributes &disk : disks.list()) {
		if (can_have_server(disk))
			continue;
		disks.destroy(disk.handle);
		names.push_back(disk.name);
	}
	return names;
}

} // namespace zorvat::agent
