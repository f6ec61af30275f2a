// SPDX-License-Identifier: GPL-2.0
#include "serving.h"

#include <array>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fmt/format.h>
#include <fstream>
#include <optional>
#include <pthread.h>
#include <sstream>
#include <sys/mount.h>
#include <thread>
#include <zorvat/disk-server.h>

namespace zorvat::agent
{

namespace
{

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto patience = 10s;

sigset_t ending_signals()
{
	sigset_t signals;
	sigemptyset(&signals);
	for (int signal : {SIGTERM, SIGINT, SIGHUP})
		sigaddset(&signals, signal);
	return signals;
}

void block_ending_signals()
{
	const sigset_t signals = ending_signals();
	pthread_sigmask(SIG_BLOCK, &signals, nullptr);
	std::signal(SIGPIPE, SIG_IGN); // NOLINT(bugprone-signal-handler): nothing is run
}

/* Ends the server at a signal; they must be blocked in all threads. */
class SignalThread
{
public:
	explicit SignalThread(DiskServer &server)
	    : thread_([&server] {
		      const sigset_t signals = ending_signals();
		      sigwaitinfo(&signals, nullptr);
		      server.request_stop();
	      })
	{
	}
	/* The signal comes last, and stops what has stopped. */
	~SignalThread()
	{
		pthread_kill(thread_.native_handle(), SIGHUP);
		thread_.join();
	}
	SignalThread(const SignalThread &) = delete;
	SignalThread &operator=(const SignalThread &) = delete;

private:
	std::thread thread_;
};

bool eventually(const std::function<bool()> &condition)
{
	const auto end = Clock::now() + patience;
	while (!condition()) {
		if (Clock::now() >= end)
			return false;
		std::this_thread::sleep_for(10ms);
	}
	return true;
}

void wait_for_node(const DiskServer &server)
{
	std::error_code ignored;
	if (!eventually([&] { return fs::exists(server.node(), ignored); }))
		throw Failure(FailureCode::failed, server.node().native() + " has not appeared");
}

/* What is mounted on the directory now, by device number. */
std::optional<DeviceNumber> device_mounted_on(const fs::path &directory)
{
	std::optional<DeviceNumber> device;
	std::ifstream mounts("/proc/self/mountinfo");
	for (std::string line; std::getline(mounts, line);) {
		std::string id, parent, number, root, where;
		std::istringstream(line) >> id >> parent >> number >> root >> where;
		if (where == directory.native()) // the last one is on top
			device = DeviceNumber::parse(number);
	}
	return device;
}

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

/* The process in the background. Says "+DEVICE" once it serves, or "-MESSAGE",
 * and a zero byte.
 */
void serve_mounted(PointReader reader, const MountRequest &request, int answer)
{
	const auto say = [answer](const std::string &text) {
		[[maybe_unused]] const ssize_t count = write(answer, text.c_str(), text.size() + 1);
		close(answer);
	};
	bool ready = false;
	try {
		leave_terminal();
		block_ending_signals();
		DiskServer server(open_netlink(), make_source(std::move(reader)));
		const SignalThread signals(server);
		server.resume();
		wait_for_node(server);
		mount_disk(server, request);
		ready = true;
		say("+" + server.node().native());
		server.wait();
		const auto mounted = device_mounted_on(request.directory);
		if (mounted && mounted->major == server.disk().device.major)
			umount2(request.directory.c_str(), MNT_DETACH);
		server.stop();
	} catch (const std::exception &error) {
		if (!ready)
			say(std::string("-") + error.what());
	}
}

/* Up to a zero byte: threads with tables of open files of their own keep the pipe's other end. */
std::string read_answer(int fd)
{
	std::string text;
	for (char next = 0; text.empty() || next != 0;) {
		const ssize_t count = read(fd, &next, 1);
		if (count == 0 || (count < 0 && errno != EINTR))
			break;
		if (count > 0 && next != 0)
			text += next;
	}
	return text;
}

bool is_running(pid_t process)
{
	return kill(process, 0) == 0 || errno != ESRCH;
}

} // namespace

void serve(PointReader reader, const std::function<void(const std::string &)> &ready)
{
	block_ending_signals();
	DiskServer server(open_netlink(), make_source(std::move(reader)));
	const SignalThread signals(server);
	server.resume();
	wait_for_node(server);
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
	PointReader reader(Repository(name.repository), name.point);
	absolute = completed(absolute, reader);

	std::array<int, 2> answer;
	if (pipe2(answer.data(), O_CLOEXEC) != 0)
		throw system_failure("cannot make a pipe", errno);
	const pid_t process = fork();
	if (process < 0)
		throw system_failure("cannot start a process", errno);
	if (process == 0) {
		close(answer[0]);
		serve_mounted(std::move(reader), absolute, answer[1]);
		_exit(0);
	}
	close(answer[1]);
	const std::string text = read_answer(answer[0]);
	close(answer[0]);
	if (!text.starts_with('+'))
		throw Failure(FailureCode::failed,
			      text.empty() ? "the server ended before it served" : text.substr(1));
	return text.substr(1);
}

void unmount_point(const fs::path &directory)
{
	std::error_code error;
	const fs::path path = fs::canonical(directory, error);
	const auto mounted = device_mounted_on(error ? directory : path);
	if (!mounted)
		throw Failure(FailureCode::not_found,
			      "nothing is mounted on " + directory.native());
	const RestoreDisks disks(open_netlink());
	std::optional<DiskAttributes> disk;
	for (const DiskAttributes &candidate : disks.list())
		if (candidate.device.major == mounted->major)
			disk = candidate;
	if (!disk)
		throw Failure(FailureCode::usage,
			      directory.native() + " has no restore disk mounted");
	if (umount2(path.c_str(), 0) != 0)
		throw Failure(
			errno == EBUSY ? FailureCode::busy : FailureCode::failed,
			fmt::format("cannot unmount {}: {}", directory.native(), error_text(errno)),
			errno);
	if (kill(disk->server, SIGTERM) != 0)
		return disks.destroy(disk->handle);
	const auto is_gone = [&] {
		for (const DiskAttributes &other : disks.list())
			if (other.handle == disk->handle)
				return false;
		return true;
	};
	if (!eventually(is_gone))
		throw Failure(FailureCode::failed,
			      fmt::format("process {} still serves {}", disk->server, disk->name));
}

std::vector<std::string> remove_dead_disks()
{
	std::vector<std::string> names;
	const RestoreDisks disks(open_netlink());
	for (const DiskAttributes &disk : disks.list()) {
		if (is_running(disk.server))
			continue;
		disks.destroy(disk.handle);
		names.push_back(disk.name);
	}
	return names;
}

} // namespace zorvat::agent
