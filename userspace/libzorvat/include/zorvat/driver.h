// SPDX-License-Identifier: GPL-2.0
/*
 * The driver's commands on volumes, typed. Every function throws Error when it cannot do what it
 * says. A Driver may be used by several threads.
 */
#ifndef ZORVAT_DRIVER_H
#define ZORVAT_DRIVER_H

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include <zorvat/error.h>
#include <zorvat/transport.h>
#include <zorvat/volume.h>

namespace zorvat
{

struct DriverVersion {
	uint32_t major;
	uint32_t minor;
	uint32_t maintenance;
	uint32_t build;
	bool debug;
	std::string text;
};

struct BackupLevel {
	bool tracked;     // an incremental backup is possible
	uint64_t sectors; // length of the volume
};

/* A run of the volume that a backup has to copy, in 512-byte sectors. */
struct Extent {
	uint64_t start;
	uint64_t length;
	/* The driver cannot tell whether this run changed; a backup must take it as changed. */
	bool possible = false;

	bool operator==(const Extent &) const = default;
};

struct ChangedExtents {
	uint64_t volume_sectors;
	std::vector<Extent> extents; // ascending, disjoint, within the volume
};

using VolumeUuid = std::array<uint8_t, 16>;

/*
 * How many extents to ask for in one request. An attribute of generic netlink has room for 4095.
 * The default is lower: its answer fits into 16 KiB, which the kernel finds even in fragmented
 * memory.
 */
constexpr size_t max_extents_per_request = 4095;
constexpr size_t default_extents_per_request = 1000;

struct Request; // a command with what is needed to explain its failure

class Driver
{
public:
	explicit Driver(std::unique_ptr<Transport> transport);

	/* The volume is needed only when commands travel over the disk's own device. */
	DriverVersion version(const Volume *volume = nullptr) const;

	/* Whether the driver knows the volume. */
	bool present(const Volume &volume) const;

	BackupLevel backup_level(const Volume &volume) const;

	/*
	 * Sectors that one bit of the bitmap covers. Served over netlink only: the ioctl never
	 * fills in its answer, which is reported as Error(unsupported).
	 */
	uint32_t granularity(const Volume &volume) const;

	/* Both return the volume's length in bytes. */
	uint64_t start_tracking(const Volume &volume) const;
	uint64_t stop_tracking(const Volume &volume) const;

	/* In bytes. */
	uint32_t bitmap_size(const Volume &volume) const;

	/* The time of the volume's last backup, a value without meaning to the driver. */
	uint64_t save_time(const Volume &volume) const;
	void set_save_time(const Volume &volume, uint64_t save_time) const;

	/*
	 * All changed extents of a tracked volume, in as many requests as it takes. An untracked
	 * volume is an Error(not_tracked), never an empty list: nothing is known about its changes.
	 * per_request lies within 1 and max_extents_per_request.
	 */
	ChangedExtents changed_extents(const Volume &volume,
				       size_t per_request = default_extents_per_request) const;

	/* Clears the bitmap of the last switch: its changes have been backed up. */
	void clear_bitmap(const Volume &volume) const;

	/* Freezes the changes so far for a backup and goes on with a fresh bitmap. */
	void switch_bitmap(const Volume &volume) const;

	VolumeUuid uuid(const Volume &volume) const;

private:
	void run(const Request &request, const Volume &volume, std::span<std::byte> record) const;
	uint64_t set_tracking(const Request &request, const Volume &volume, int level) const;
	uint64_t bitmap_bits(const Volume &volume, uint64_t sectors) const;
	Error failure(const Request &request, const Volume *volume, int number) const;
	Error refusal(const Request &request, const Volume &volume, int number) const;

	std::unique_ptr<Transport> transport_;
};

} // namespace zorvat

#endif
