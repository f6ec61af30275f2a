// SPDX-License-Identifier: GPL-2.0
/* The driver's commands: which records they carry, and what their failures mean. */
#include <zorvat/driver.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <stdexcept>
#include <string_view>

#include "extent-collector.h"
#include "failures.h"
#include "wt.h"

namespace zorvat
{

struct Request {
	Command command;
	const char *purpose; // for messages: "cannot <purpose> vda"
	/* The state of a volume on which the driver refuses the command. */
	enum {
		untracked,
		tracked
	} refused_when = untracked;
};

namespace
{

constexpr Request get_version{{WT_GET_DRIVER_VERSION_IOCTL_INDEX, 0, 0, WT_GENATTR_VERSION, 0},
			      "read the driver version through"};

constexpr Request is_present{{WT_IS_DRIVER_PRESENT_IOCTL_INDEX, 0, 0, 0, 0}, "look for"};

constexpr Request get_level{{WT_GET_BACKUP_LEVEL_IOCTL_INDEX, 0, 0, WT_GENATTR_BACKUP, 0},
			    "read the backup level of"};

constexpr Request get_granularity{{WT_BMCONFIG_IOCTL_INDEX, 0, 0, WT_GENATTR_BMREG, 0},
				  "read the granularity of"};

/* Starting and stopping are one command; the record says which. */
constexpr Command start_or_stop{WT_START_IOCTL_INDEX, WT_GENATTR_BACKUP, sizeof(backUp),
				WT_GENATTR_BACKUP, 0};
constexpr Request start{start_or_stop, "start tracking", Request::tracked};
constexpr Request stop{start_or_stop, "stop tracking"};

constexpr Request get_bitmap_size{{WT_BMSIZE_IOCTL_INDEX, 0, 0, WT_GENATTR_BITMAP, 0},
				  "read the bitmap size of"};

constexpr Request get_save_time{
	{WT_DATA_IOCTL_INDEX, WT_GENATTR_WI_DATA, sizeof(WI_DATA), WT_GENATTR_WI_DATA, 0},
	"read the save time of"};

constexpr Request put_save_time{{WT_DATA_IOCTL_INDEX, WT_GENATTR_WI_DATA, sizeof(WI_DATA), 0, 0},
				"set the save time of"};

constexpr Request get_extents{{WT_GET_EXTENTS_IOCTL_INDEX, WT_GENATTR_BACKUP,
			       WT_EXTENTS_REQUEST_HEADER_SIZE, WT_GENATTR_BACKUP,
			       offsetof(wt_extents_request, wer_extents)},
			      "read the changed extents of"};

constexpr Request clear{{WT_CLEAR_SNAPSHOT_BITMAP_IOCTL_INDEX, 0, 0, 0, 0}, "clear the bitmap of"};

constexpr Request switch_cbt{{WT_SWITCH_VOLUME_CBT_IOCTL_INDEX, 0, 0, 0, 0},
			     "switch the bitmap of"};

constexpr Request get_uuid{{WT_GET_VOLUME_UUID_IOCTL_INDEX, 0, 0, WT_GENATTR_VOLUME_UUID_T, 0},
			   "read the identifier of"};

template <typename Record> std::span<std::byte> bytes_of(Record &record)
{
	return std::as_writable_bytes(std::span(&record, 1));
}

/* "cannot read the backup level of vda (254:0)" */
std::string attempt(const Request &request, const Volume *volume)
{
	return fmt::format("cannot {} {}", request.purpose,
			   volume ? volume->label() : "the control interface");
}

/* A request for extents with room for the answer. */
class ExtentsBuffer
{
public:
	explicit ExtentsBuffer(size_t capacity)
	    : bytes_(WT_EXTENTS_REQUEST_HEADER_SIZE + capacity * sizeof(wt_extent)),
	      extents_(capacity)
	{
	}

	/* Zeroed anew, so that unused records are empty whichever road the answer takes. */
	std::span<std::byte> request_from(uint64_t sector)
	{
		std::ranges::fill(bytes_, std::byte{0});
		wt_extents_request request{.wer_start_from = sector,
					   .wer_extents = {.wtes_size = extents_.size()}};
		std::memcpy(bytes_.data(), &request, WT_EXTENTS_REQUEST_HEADER_SIZE);
		return bytes_;
	}

	std::span<const wt_extent> answer()
	{
		std::memcpy(extents_.data(), bytes_.data() + WT_EXTENTS_REQUEST_HEADER_SIZE,
			    extents_.size() * sizeof(wt_extent));
		return extents_;
	}

private:
	std::vector<std::byte> bytes_;
	std::vector<wt_extent> extents_;
};

} // namespace

Driver::Driver(std::unique_ptr<Transport> transport) : transport_(std::move(transport))
{
}

DriverVersion Driver::version(const Volume *volume) const
{
	wt_version record{};
	int result = transport_->execute(get_version.command, volume, bytes_of(record));
	if (result < 0)
		throw failure(get_version, volume, -result);

	size_t length = strnlen(record.wtv_str, sizeof(record.wtv_str));
	return {.major = record.wtv_major,
		.minor = record.wtv_minor,
		.maintenance = record.wtv_maintenance,
		.build = record.wtv_build,
		.debug = record.wtv_is_debug != 0,
		.text = std::string(record.wtv_str, length)};
}

bool Driver::present(const Volume &volume) const
{
	int result = transport_->execute(is_present.command, &volume, {});
	if (result >= 0)
		return true;
	if (is_refusal(-result))
		return false;
	throw failure(is_present, &volume, -result);
}

BackupLevel Driver::backup_level(const Volume &volume) const
{
	backUp record{};
	run(get_level, volume, bytes_of(record));
	return {.tracked = record.level == 1, .sectors = record.PartitionLength};
}

uint32_t Driver::granularity(const Volume &volume) const
{
	bmReg record{};
	int result = transport_->execute(get_granularity.command, &volume, bytes_of(record));
	if (result < 0 && result != -EACCES)
		throw failure(get_granularity, &volume, -result);
	/* By ioctl the driver fails to copy, or copies nothing: only netlink tells a number. */
	if (result == -EACCES || record.BlocksPerBit <= 0)
		throw Error(Errc::unsupported,
			    attempt(get_granularity, &volume) +
				    ": the driver does not answer this by ioctl",
			    "ask over generic netlink, the default", result < 0 ? -result : 0);
	return record.BlocksPerBit;
}

uint64_t Driver::start_tracking(const Volume &volume) const
{
	return set_tracking(start, volume, 1);
}

uint64_t Driver::stop_tracking(const Volume &volume) const
{
	return set_tracking(stop, volume, 0);
}

uint64_t Driver::set_tracking(const Request &request, const Volume &volume, int level) const
{
	backUp record{.level = level, .PartitionLength = 0};
	run(request, volume, bytes_of(record));
	return record.PartitionLength;
}

uint32_t Driver::bitmap_size(const Volume &volume) const
{
	BITMAP record{};
	run(get_bitmap_size, volume, bytes_of(record));
	return record.nBMSize;
}

uint64_t Driver::save_time(const Volume &volume) const
{
	WI_DATA record{.bRequest = 1, .savetime = 0};
	run(get_save_time, volume, bytes_of(record));
	return record.savetime;
}

void Driver::set_save_time(const Volume &volume, uint64_t save_time) const
{
	WI_DATA record{.bRequest = 0, .savetime = save_time};
	run(put_save_time, volume, bytes_of(record));
}

ChangedExtents Driver::changed_extents(const Volume &volume, size_t per_request) const
{
	if (per_request < 1 || per_request > max_extents_per_request)
		throw std::invalid_argument("extents per request out of range");

	BackupLevel level = backup_level(volume);
	if (!level.tracked)
		throw Error(Errc::not_tracked,
			    attempt(get_extents, &volume) + ": it is not tracked",
			    "copy the whole volume after starting to track it");

	ExtentCollector collector(level.sectors, bitmap_bits(volume, level.sectors));
	ExtentsBuffer buffer(per_request);
	do {
		run(get_extents, volume, buffer.request_from(collector.position()));
	} while (collector.accept(buffer.answer()));

	/* Tracking that stopped under our hands leaves an empty answer, which is not "no change" */
	BackupLevel level_after = backup_level(volume);
	if (!level_after.tracked || level_after.sectors != level.sectors)
		throw Error(Errc::changed_meanwhile,
			    attempt(get_extents, &volume) +
				    ": its tracking stopped or its size changed meanwhile",
			    "read them again; if it is not tracked any more, copy it whole");
	return {.volume_sectors = level.sectors, .extents = std::move(collector).finish()};
}

/*
 * How much of the volume the bitmap describes. A volume that grew while it was tracked has a
 * smaller bitmap than its length asks for.
 */
uint64_t Driver::bitmap_bits(const Volume &volume, uint64_t sectors) const
{
	return std::min(bitmap_bits_for(sectors), uint64_t{bitmap_size(volume)} * 8);
}

void Driver::clear_bitmap(const Volume &volume) const
{
	run(clear, volume, {});
}

void Driver::switch_bitmap(const Volume &volume) const
{
	run(switch_cbt, volume, {});
}

VolumeUuid Driver::uuid(const Volume &volume) const
{
	VolumeUuid uuid{};
	run(get_uuid, volume, bytes_of(uuid));
	return uuid;
}

void Driver::run(const Request &request, const Volume &volume, std::span<std::byte> record) const
{
	int result = transport_->execute(request.command, &volume, record);
	if (result < 0)
		throw failure(request, &volume, -result);
}

Error Driver::failure(const Request &request, const Volume *volume, int number) const
{
	std::string failed = attempt(request, volume);
	if (is_refusal(number) && volume)
		return refusal(request, *volume, number);
	return command_failure(failed, number);
}

/* One number stands for many reasons: finds out which one from the volume's state. */
Error Driver::refusal(const Request &request, const Volume &volume, int number) const
{
	backUp state{};
	if (transport_->execute(get_level.command, &volume, bytes_of(state)) < 0)
		return unknown_volume(attempt(request, &volume), volume, number);

	std::string failed = attempt(request, &volume);
	if (number != EINVAL)
		return no_such_command(failed, number);

	bool tracked = state.level == 1;
	if (tracked && request.refused_when == Request::tracked)
		return Error(Errc::already_tracked, failed + ": it is tracked already",
			     "stop tracking it first to begin anew", number);
	if (!tracked && request.refused_when == Request::untracked)
		return Error(Errc::not_tracked, failed + ": it is not tracked",
			     "start tracking it first", number);
	return Error(Errc::refused, failed + ": the driver refused",
		     "the kernel log tells why; another driver may have hooked the disk since",
		     number);
}

} // namespace zorvat
