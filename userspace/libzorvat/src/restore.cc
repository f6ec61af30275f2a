// SPDX-License-Identifier: GPL-2.0
/* The driver's commands on restore disks: which records they carry, and what their failures mean.
 */
#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <unistd.h>
#include <zorvat/restore.h>

#include "failures.h"
#include "wt.h"

namespace zorvat
{

struct RestoreDisks::Request {
	Command command;
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

namespace
{

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
	auto target = std::filesystem::canonical(name, ignored);
	return (target.empty() ? std::filesystem::path(name) : target).filename();
}

} // namespace

RestoreDisks::RestoreDisks(std::shared_ptr<const Transport> transport)
    : transport_(std::move(transport))
{
}

DiskHandle RestoreDisks::allocate(const DiskRequest &request) const
{
	static constexpr Request allocate_disk{
		{WTFLR_ALLOC_DISK_IOCTL_INDEX, WT_GENATTR_FLR_ALLOCDISK_REQ,
		 sizeof(wtflr_allocdisk_req), WT_GENATTR_JORL_DISKHANDLE,
		 offsetof(Allocation, disk)},
		"create"};
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
	static constexpr Request resume_disk{{WTFLR_RESUME_DISK_IOCTL_INDEX, WT_GENATTR_FLR_PORT_ID,
					      sizeof(wtflr_portid_t), 0, 0},
					     "resume",
					     Request::running};
	wtflr_portid_t record = port;
	run(resume_disk, disk, bytes_of(record));
}

void RestoreDisks::suspend(DiskHandle disk) const
{
	static constexpr Request suspend_disk{
		{WTFLR_SUSPEND_DISK_IOCTL_INDEX, 0, 0, 0, 0}, "suspend", Request::suspended};
	run(suspend_disk, disk, {});
}

void RestoreDisks::destroy(DiskHandle disk) const
{
	static constexpr Request destroy_disk{{WTFLR_DESTROY_DISK_IOCTL_INDEX, 0, 0, 0, 0},
					      "destroy"};
	run(destroy_disk, disk, {});
}

DiskAttributes RestoreDisks::attributes(DiskHandle disk) const
{
	static constexpr Request get_attributes{
		{WTFLR_GET_DISKATTRS_IOCTL_INDEX, 0, 0, WT_GENATTR_FLR_DISK_ATTRS, 0},
		"read the attributes of"};
	wtflr_disk_attrs record{};
	run(get_attributes, disk, bytes_of(record));
	return from_record(record);
}

std::vector<DiskHandle> RestoreDisks::handles() const
{
	static constexpr Request list_disks{
		{WTFLR_LIST_DISKS_IOCTL_INDEX, 0, 0, WT_GENATTR_JORLDISK_HANDLES, 0, true}, "list"};
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
		try {
			disks.push_back(attributes(disk));
		} catch (const Error &error) {
			/* Destroyed since it was listed. */
			if (error.code() != Errc::unknown_disk)
				throw;
		}
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
int RestoreDisks::execute(const Request &request, const Target &target,
			  std::span<std::byte> record) const
{
	const int result = transport_->execute(request.command, target, record);
	if (result >= 0)
		return 0;
	if (is_refusal(-result))
		return -result;
	auto *disk = std::get_if<DiskHandle>(&target);
	throw command_failure(request.attempt(disk ? label(*disk) : "restore disks"), -result);
}

void RestoreDisks::run(const Request &request, DiskHandle disk, std::span<std::byte> record) const
{
	if (const int number = execute(request, disk, record))
		throw refusal(request, disk, number);
}

/* One number stands for many reasons: finds out which one from the disk's state. */
Error RestoreDisks::refusal(const Request &request, DiskHandle disk, int number) const
{
	const std::string attempt = request.attempt(label(disk));
	if (number != EINVAL)
		return no_such_command(attempt, number);
	const auto known = handles();
	if (std::ranges::find(known, disk) == known.end())
		return Error(Errc::unknown_disk, attempt + ": there is no such disk",
			     "'zorvatctl disks' lists them", number);
	if (request.refused_when == Request::never)
		return Error(Errc::refused, attempt + ": the driver refused",
			     "the kernel log tells why", number);

	const DiskAttributes state = attributes(disk);
	if (request.refused_when == Request::suspended && state.suspended())
		return Error(Errc::disk_suspended,
			     request.attempt(state.name) + ": it is suspended already", {}, number);
	if (request.refused_when == Request::running && !state.suspended())
		return Error(Errc::disk_running,
			     fmt::format("{}: it runs already, or an earlier attempt failed",
					 request.attempt(state.name)),
			     "suspend it if it runs, else destroy it", number);
	return Error(Errc::refused, request.attempt(state.name) + ": the driver refused",
		     "the kernel log tells why", number);
}

} // namespace zorvat
