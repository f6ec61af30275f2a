// SPDX-License-Identifier: GPL-2.0
/* The driver's commands on restore disks: which records they carry, and what their failures mean.
 */
#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <iomanip>
#include <thread>
#include <unistd.h>
#include <zorvat/restore.h>

#include "failures.h"
#include "service-area.h"
#include "wt.h"

namespace zorvat
{

namespace fs = std::filesystem;

struct DiskCommand {
	Command request;
	const char *purpose; // for messages: "cannot <purpose> zorvat-a"
	/* The state of a disk in which the driver refuses the command. */
	enum {
		never,
		running,
		suspended
	} refused_when = never;

	std::string attempt(std::string_view target) const
	{
		return fmt::format("cannot {} {}", purpose, target);
	}
};

/*
 * Disks that hold places in the driver's table of disks.
 *
 * A disk that is destroyed leaves a hole in that table, and the driver's search for a disk ends at
 * the first hole: disks beyond it are listed and served, but no command reaches them. A new disk
 * takes the first hole that it meets; if it is that one, what was beyond is there again.
 */
class RestoreDisks::Placeholders
{
public:
	explicit Placeholders(const RestoreDisks &disks) : disks_(disks)
	{
	}
	~Placeholders();
	Placeholders(const Placeholders &) = delete;
	Placeholders &operator=(const Placeholders &) = delete;

	void add()
	{
		auto area = std::make_unique<ServiceArea>(min_service_area);
		const DiskHandle disk = disks_.allocate(
			{.block_size = 512, .blocks = 1, .service_area = area->memory()});
		held_.emplace_back(disk, std::move(area));
	}

private:
	const RestoreDisks &disks_;
	std::vector<std::pair<DiskHandle, std::unique_ptr<ServiceArea>>> held_;
};

namespace
{

/*
 * How many disks to create in search of one that is beyond a hole. A few, since they may be put
 * elsewhere in the table, which has its limits.
 */
constexpr int max_placeholders = 4;

/* How long the driver may take to go away and come back between the last disk and the next. */
constexpr int not_ready_tries = 100;
constexpr auto not_ready_pause = std::chrono::milliseconds(20);

struct Allocation {
	wtflr_allocdisk_req request;
	DiskHandle disk; // the answer
};

/* An attribute of netlink has room for fewer: there is no longer answer. */
constexpr size_t max_listed = 8191;

struct DiskList {
	size_t count;
	std::array<DiskHandle, max_listed> disks;
};

constexpr DiskCommand get_attributes{
	{WTFLR_GET_DISKATTRS_IOCTL_INDEX, 0, 0, WT_GENATTR_FLR_DISK_ATTRS, 0},
	"read the attributes of"};

constexpr DiskCommand destroy_disk{{WTFLR_DESTROY_DISK_IOCTL_INDEX, 0, 0, 0, 0}, "destroy"};

constexpr DiskCommand allocate_disk{{WTFLR_ALLOC_DISK_IOCTL_INDEX, WT_GENATTR_FLR_ALLOCDISK_REQ,
				     sizeof(wtflr_allocdisk_req), WT_GENATTR_JORL_DISKHANDLE,
				     offsetof(Allocation, disk)},
				    "create"};

constexpr DiskCommand resume_disk{
	{WTFLR_RESUME_DISK_IOCTL_INDEX, WT_GENATTR_FLR_PORT_ID, sizeof(wtflr_portid_t), 0, 0},
	"resume",
	DiskCommand::running};

constexpr DiskCommand suspend_disk{
	{WTFLR_SUSPEND_DISK_IOCTL_INDEX, 0, 0, 0, 0}, "suspend", DiskCommand::suspended};

constexpr DiskCommand list_disks{
	{WTFLR_LIST_DISKS_IOCTL_INDEX, 0, 0, WT_GENATTR_JORLDISK_HANDLES, 0, true}, "list"};

template <typename Record> std::span<std::byte> bytes_of(Record &record)
{
	return std::as_writable_bytes(std::span(&record, 1));
}

/* The handle's value helps to find the disk in sysfs, where it is shown. */
std::string label(DiskHandle disk)
{
	return fmt::format("restore disk {:#x}", static_cast<uint64_t>(disk));
}

DiskAttributes from_record(const wtflr_disk_attrs &record)
{
	return {.handle = std::bit_cast<DiskHandle>(record.wtfda_handle),
		.name = {record.wtfda_name, strnlen(record.wtfda_name, sizeof(record.wtfda_name))},
		.block_size = record.wtfda_blocksize,
		.blocks = record.wtfda_numblocks,
		.server = record.wtfda_pid,
		.port = static_cast<uint32_t>(record.wtfda_portid),
		.device = DeviceNumber::from_kernel_encoding(record.wtfda_devt),
		.writable = record.wtfda_isrw != 0};
}

/* The last part of a path, after links were followed as far as they lead. */
std::string kernel_name_of(const std::string &name)
{
	if (name.find('/') == name.npos)
		return name;
	std::error_code ignored;
	auto target = fs::canonical(name, ignored);
	return (target.empty() ? fs::path(name) : target).filename();
}

/* The driver's files hold one value each; nothing if there is no such file or value. */
template <typename Value> Value read_value(const fs::path &file, int base = 10)
{
	std::ifstream stream(file);
	Value value{};
	stream >> std::setbase(base) >> value;
	return value;
}

DiskAttributes from_sysfs(DiskHandle disk, const fs::path &directory)
{
	return {.handle = disk,
		.name = directory.filename(),
		.block_size = read_value<uint64_t>(directory / "block-size"),
		.blocks = read_value<uint64_t>(directory / "sectors"),
		.server = read_value<pid_t>(directory / "serivce-pid"), // the driver's spelling
		.port = read_value<uint32_t>(directory / "datalink-portid"),
		.device = {read_value<uint32_t>(directory / "major-id"), 0},
		.writable = false};
}

} // namespace

bool can_have_server(const DiskAttributes &disk)
{
	if (kill(disk.server, 0) != 0 && errno == ESRCH)
		return false;
	std::ifstream mappings(fmt::format("/proc/{}/maps", disk.server));
	if (!mappings)
		return true;
	for (std::string line; std::getline(mappings, line);) {
		uintptr_t begin, end;
		char sharing;
		if (std::sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR " %*3c%c", &begin, &end,
				&sharing) == 3 &&
		    sharing == 's' && end - begin >= min_service_area)
			return true;
	}
	return mappings.bad(); // else there are no more: none at all, once it is ending
}

RestoreDisks::Placeholders::~Placeholders()
{
	/* The latest first: none is beyond the hole of another then. */
	for (; !held_.empty(); held_.pop_back()) {
		try {
			disks_.execute(destroy_disk, held_.back().first, {});
		} catch (...) { // NOLINT(bugprone-empty-catch): it stays, and is listed
		}
	}
}

RestoreDisks::RestoreDisks(std::shared_ptr<const Transport> transport, SystemPaths paths)
    : transport_(std::move(transport)), paths_(std::move(paths))
{
}

DiskHandle RestoreDisks::allocate(const DiskRequest &request) const
{
	Allocation record{.request = {.wtfad_blocksize = request.block_size,
				      .wtfad_numblocks = request.blocks,
				      .wtfad_isrw = 0,
				      .wtfad_pid = getpid(),
				      .wtfad_servicearea = request.service_area.data()},
			  .disk = {}};
	const int number = execute(allocate_disk, {}, bytes_of(record));
	if (number)
		throw Error(Errc::refused,
			    allocate_disk.attempt("a restore disk") + ": the driver refused",
			    "the kernel log tells why", number);
	return record.disk;
}

void RestoreDisks::resume(DiskHandle disk, uint16_t port) const
{
	wtflr_portid_t record = port;
	run(resume_disk, disk, bytes_of(record));
}

void RestoreDisks::suspend(DiskHandle disk) const
{
	run(suspend_disk, disk, {});
}

void RestoreDisks::destroy(DiskHandle disk) const
{
	run(destroy_disk, disk, {});
}

void RestoreDisks::destroy_if_there(const DiskAttributes &disk) const
{
	try {
		/* A handle can be used again for another disk, a name is not. */
		if (attributes(disk.handle).name == disk.name)
			destroy(disk.handle);
	} catch (const Error &error) {
		if (error.code() != Errc::unknown_disk)
			throw;
	}
}

DiskAttributes RestoreDisks::attributes(DiskHandle disk) const
{
	if (auto attributes = attributes_if_any(disk))
		return *attributes;
	throw Error(Errc::unknown_disk,
		    get_attributes.attempt(label(disk)) + ": there is no such disk",
		    "'zorvatctl disks' lists them");
}

std::optional<DiskAttributes> RestoreDisks::attributes_if_any(DiskHandle disk) const
{
	wtflr_disk_attrs record{};
	const int number = execute(get_attributes, disk, bytes_of(record));
	if (number == 0)
		return from_record(record);
	if (number != EINVAL)
		throw no_such_command(get_attributes.attempt(label(disk)), number);

	std::error_code ignored;
	for (const auto &entry :
	     fs::directory_iterator(paths_.sys / "zorvat" / "restore-volumes", ignored)) {
		const fs::path handle = entry.path() / "volume-handle";
		if (read_value<uint64_t>(handle, 16) == static_cast<uint64_t>(disk))
			return from_sysfs(disk, entry.path());
	}
	return std::nullopt;
}

std::vector<DiskHandle> RestoreDisks::handles() const
{
	auto record = std::make_unique<DiskList>();
	const int number = execute(list_disks, {}, bytes_of(*record));
	if (number)
		throw no_such_command(list_disks.attempt("the restore disks"), number);

	/* Handles are never 0: one that is was announced and did not come. */
	const auto end = record->disks.begin() + std::min(record->count, max_listed);
	if (record->count > max_listed ||
	    std::find(record->disks.begin(), end, DiskHandle{}) != end)
		throw Error(Errc::bad_answer, list_disks.attempt("the restore disks") +
						      ": the driver's answer makes no sense");
	return {record->disks.begin(), end};
}

std::vector<DiskAttributes> RestoreDisks::list() const
{
	std::vector<DiskAttributes> disks;
	for (DiskHandle disk : handles()) {
		/* None, if it was destroyed since. */
		if (auto attributes = attributes_if_any(disk))
			disks.push_back(*attributes);
	}
	return disks;
}

DiskAttributes RestoreDisks::find(const std::string &name) const
{
	const auto disks = list();
	const auto disk = std::ranges::find(disks, kernel_name_of(name), &DiskAttributes::name);
	if (disk == disks.end())
		throw Error(Errc::unknown_disk, fmt::format("there is no restore disk '{}'", name),
			    "'zorvatctl disks' lists them");
	return *disk;
}

/* Returns 0, or the positive number of a refusal, which the caller can explain. */
int RestoreDisks::execute(const DiskCommand &command, const Target &target,
			  std::span<std::byte> record) const
{
	int result = transport_->execute(command.request, target, record);
	for (int tries = 0; result == -EAGAIN && tries < not_ready_tries; tries++) {
		std::this_thread::sleep_for(not_ready_pause);
		result = transport_->execute(command.request, target, record);
	}
	if (result >= 0)
		return 0;
	if (is_refusal(-result))
		return -result;
	auto *disk = std::get_if<DiskHandle>(&target);
	throw command_failure(command.attempt(disk ? label(*disk) : "restore disks"), -result);
}

bool RestoreDisks::is_known(DiskHandle disk) const
{
	wtflr_disk_attrs record{};
	return execute(get_attributes, disk, bytes_of(record)) != EINVAL;
}

bool RestoreDisks::is_listed(DiskHandle disk) const
{
	const auto listed = handles();
	return std::ranges::find(listed, disk) != listed.end();
}

int RestoreDisks::execute_on(const DiskCommand &command, DiskHandle disk,
			     std::span<std::byte> record) const
{
	const int number = execute(command, disk, record);
	if (number != EINVAL || is_known(disk) || !is_listed(disk))
		return number;
	Placeholders placeholders(*this);
	for (int i = 0; i < max_placeholders; i++) {
		placeholders.add();
		if (is_known(disk))
			return execute(command, disk, record);
	}
	return number;
}

void RestoreDisks::run(const DiskCommand &command, DiskHandle disk,
		       std::span<std::byte> record) const
{
	if (const int number = execute_on(command, disk, record))
		throw refusal(command, disk, number);
}

/* One number stands for many reasons: finds out which one from the disk's state. */
Error RestoreDisks::refusal(const DiskCommand &command, DiskHandle disk, int number) const
{
	const std::string attempt = command.attempt(label(disk));
	if (number != EINVAL)
		return no_such_command(attempt, number);
	if (!is_listed(disk))
		return Error(Errc::unknown_disk, attempt + ": there is no such disk",
			     "'zorvatctl disks' lists them", number);
	if (command.refused_when == DiskCommand::never)
		return Error(Errc::refused, attempt + ": the driver refused",
			     "the kernel log tells why", number);

	const DiskAttributes state = attributes(disk);
	if (command.refused_when == DiskCommand::suspended && state.suspended())
		return Error(Errc::disk_suspended,
			     command.attempt(state.name) + ": it is suspended already", {}, number);
	if (command.refused_when == DiskCommand::running && !state.suspended())
		return Error(Errc::disk_running,
			     fmt::format("{}: it runs already, or an earlier attempt failed",
					 command.attempt(state.name)),
			     "suspend it if it runs, else destroy it", number);
	return Error(Errc::refused, command.attempt(state.name) + ": the driver refused",
		     "the kernel log tells why", number);
}

} // namespace zorvat
