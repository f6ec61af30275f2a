// SPDX-License-Identifier: GPL-2.0
/* Resolves names of block devices and lists the driver's volumes, all from sysfs and /dev. */
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fmt/format.h>
#include <fstream>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <zorvat/error.h>
#include <zorvat/volume.h>

namespace zorvat
{

namespace fs = std::filesystem;

namespace
{

constexpr uint32_t max_major = (1u << 12) - 1;
constexpr uint32_t max_minor = (1u << 20) - 1;

std::optional<uint32_t> parse_number(std::string_view text, uint32_t max)
{
	uint32_t value = 0;
	const char *end = text.data() + text.size();
	auto [parsed_to, error] = std::from_chars(text.data(), end, value);
	if (text.empty() || error != std::errc() || parsed_to != end || value > max)
		return std::nullopt;
	return value;
}

/* The first line of a sysfs file; empty when there is no such file. */
std::string read_line(const fs::path &file)
{
	std::string line;
	std::ifstream stream(file);
	std::getline(stream, line);
	return line;
}

/* The device node's name below /dev: some drivers put their nodes into subdirectories. */
std::string node_name(const fs::path &device_directory, const std::string &kernel_name)
{
	constexpr std::string_view key = "DEVNAME=";
	std::ifstream stream(device_directory / "uevent");
	for (std::string line; std::getline(stream, line);) {
		if (line.starts_with(key))
			return line.substr(key.size());
	}
	return kernel_name;
}

/* Sysfs writes a slash in a kernel name as an exclamation mark. */
std::string kernel_name_of(const fs::path &device_directory)
{
	std::string name = device_directory.filename();
	std::replace(name.begin(), name.end(), '!', '/');
	return name;
}

Volume describe(DeviceNumber device, const SystemPaths &paths)
{
	Volume volume;
	volume.device = device;
	std::error_code error;
	fs::path directory = fs::canonical(paths.sys / "dev" / "block" / device.to_string(), error);
	if (error)
		return volume;

	volume.name = kernel_name_of(directory);
	volume.mapped_name = read_line(directory / "dm" / "name");
	if (fs::exists(directory / "partition", error))
		volume.whole_disk = kernel_name_of(directory.parent_path());
	volume.node = paths.dev / node_name(directory, volume.name);

	std::string size = read_line(directory / "size");
	std::from_chars(size.data(), size.data() + size.size(), volume.sectors);
	return volume;
}

Error bad_name(const std::string &name, std::string_view reason, int number = 0)
{
	return Error(Errc::bad_volume_name, fmt::format("cannot use volume '{}': {}", name, reason),
		     "name a block device by its path (/dev/vda), by MAJOR:MINOR (254:0) or by its "
		     "kernel name (vda)",
		     number);
}

DeviceNumber device_of_node(const std::string &path)
{
	struct stat status;
	if (stat(path.c_str(), &status) != 0)
		throw bad_name(path, error_text(errno), errno);
	if (!S_ISBLK(status.st_mode))
		throw bad_name(path, "it is not a block device");
	return {gnu_dev_major(status.st_rdev), gnu_dev_minor(status.st_rdev)};
}

DeviceNumber device_of_kernel_name(const std::string &name, const SystemPaths &paths)
{
	auto device = DeviceNumber::parse(read_line(paths.sys / "class" / "block" / name / "dev"));
	if (!device)
		throw bad_name(name, "the kernel has no block device of this name");
	return *device;
}

} // namespace

std::string DeviceNumber::to_string() const
{
	return fmt::format("{}:{}", major, minor);
}

std::optional<DeviceNumber> DeviceNumber::parse(std::string_view text)
{
	size_t colon = text.find(':');
	if (colon == text.npos)
		return std::nullopt;
	auto major = parse_number(text.substr(0, colon), max_major);
	auto minor = parse_number(text.substr(colon + 1), max_minor);
	if (!major || !minor)
		return std::nullopt;
	return DeviceNumber{*major, *minor};
}

std::string Volume::label() const
{
	if (name.empty())
		return device.to_string();
	return fmt::format("{} ({})", name, device.to_string());
}

Volume resolve_volume(const std::string &name, const SystemPaths &paths)
{
	if (name.empty())
		throw bad_name(name, "the name is empty");
	if (name.find('/') != name.npos)
		return describe(device_of_node(name), paths);
	if (auto device = DeviceNumber::parse(name))
		return describe(*device, paths);
	if (name.find(':') != name.npos)
		throw bad_name(name, "it is not a device number within the kernel's bounds");
	return describe(device_of_kernel_name(name, paths), paths);
}

std::vector<Volume> list_volumes(const SystemPaths &paths)
{
	std::vector<Volume> volumes;
	std::error_code error;
	fs::directory_iterator entries(paths.sys / "zorvat", error);
	if (error)
		throw Error(Errc::driver_not_loaded,
			    fmt::format("cannot list volumes: {}: {}",
					(paths.sys / "zorvat").native(), error_text(error.value())),
			    "load the driver with 'modprobe zorvat'", error.value());

	for (const fs::directory_entry &entry : entries) {
		if (auto device = DeviceNumber::parse(entry.path().filename().native()))
			volumes.push_back(describe(*device, paths));
	}
	std::ranges::sort(volumes, {}, &Volume::device);
	return volumes;
}

} // namespace zorvat
