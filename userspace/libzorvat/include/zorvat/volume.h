// SPDX-License-Identifier: GPL-2.0
/*
 * Which volume is meant: names that people use for block devices, resolved through /dev and
 * sysfs, and the list of volumes that the driver knows.
 */
#ifndef ZORVAT_VOLUME_H
#define ZORVAT_VOLUME_H

#include <compare>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zorvat
{

struct DeviceNumber {
	uint32_t major = 0; // 12 bits
	uint32_t minor = 0; // 20 bits

	auto operator<=>(const DeviceNumber &) const = default; // NOLINT(modernize-use-nullptr)

	/* As it travels to the driver. */
	constexpr uint32_t kernel_encoding() const
	{
		return major << 20 | minor;
	}
	static constexpr DeviceNumber from_kernel_encoding(uint32_t number)
	{
		return {number >> 20, number & ((1u << 20) - 1)};
	}
	/* "MAJOR:MINOR", the driver's and the kernel's name for a device number. */
	std::string to_string() const;
	/* Nothing unless the text is exactly "MAJOR:MINOR" and within the kernel's bounds. */
	static std::optional<DeviceNumber> parse(std::string_view text);
};

struct Volume {
	DeviceNumber device;
	std::string name;           // kernel name, as vda; empty when the kernel has no such device
	std::string mapped_name;    // device-mapper name, as vg-home; empty for other devices
	std::string whole_disk;     // kernel name of the disk that a partition lies on, else empty
	std::filesystem::path node; // device node, as /dev/vda; empty when there is none
	uint64_t sectors = 0;       // capacity in 512-byte sectors as the kernel has it, else 0

	/* For messages: "vda (254:0)". */
	std::string label() const;
};

/* Where the system's trees are mounted; another place than the usual one is for tests. */
struct SystemPaths {
	std::filesystem::path sys = "/sys";
	std::filesystem::path dev = "/dev";
};

/*
 * The volume that a person means by a path to a device node or a link to one (anything with a
 * slash), by MAJOR:MINOR, or by a kernel name. A MAJOR:MINOR that the kernel does not know is
 * accepted, with an empty name: the driver may still know it.
 * Throws Error(bad_volume_name).
 */
Volume resolve_volume(const std::string &name, const SystemPaths &paths = {});

/*
 * The volumes that the driver knows, in order of their device numbers.
 * Throws Error(driver_not_loaded).
 */
std::vector<Volume> list_volumes(const SystemPaths &paths = {});

} // namespace zorvat

#endif
