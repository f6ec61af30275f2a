// SPDX-License-Identifier: GPL-2.0
/* Commands as ioctls, on the control device or on a disk's own device. */
#include "ioctl-transport.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <utility>
#include <vector>
#include <zorvat/error.h>

#include "failures.h"
#include "wt.h"

namespace zorvat
{

namespace
{

Error cannot_open(const std::string &node, int number)
{
	if (number == EACCES || number == EPERM)
		return Error(Errc::not_permitted,
			     fmt::format("cannot open {}: not permitted", node), "run as root",
			     number);
	return Error(Errc::system, fmt::format("cannot open {}: {}", node, error_text(number)), {},
		     number);
}

int open_control_node(const std::string &node)
{
	int fd = open(node.c_str(), O_RDWR | O_CLOEXEC);
	if (fd >= 0)
		return fd;
	if (errno == ENOENT || errno == ENXIO || errno == ENODEV)
		throw driver_unreachable(node, errno);
	throw cannot_open(node, errno);
}

/* Opened without waiting for a medium: the driver answers for empty drives, too. */
int open_block_node(const Volume &volume)
{
	if (volume.node.empty())
		throw Error(Errc::bad_volume_name,
			    fmt::format("{} has no device node", volume.label()),
			    "reach it over netlink, the default, or over the control device");
	int fd = open(volume.node.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
	if (fd < 0)
		throw cannot_open(volume.node, errno);
	return fd;
}

/* A node can be replaced between its look-up and its use. */
void require_device(int fd, const Volume &volume)
{
	struct stat status;
	if (fstat(fd, &status) != 0)
		throw cannot_open(volume.node, errno);
	DeviceNumber found{gnu_dev_major(status.st_rdev), gnu_dev_minor(status.st_rdev)};
	if (!S_ISBLK(status.st_mode) || found != volume.device)
		throw Error(Errc::bad_volume_name,
			    fmt::format("{} is not the device node of {}", volume.node.native(),
					volume.label()),
			    "name the volume by the path of its device node");
}

const Volume *volume_of(const Command &command, const Target &target)
{
	if (std::holds_alternative<DiskHandle>(target) ||
	    command.index >= WTFLR_START_SESSION_IOCTL_INDEX)
		throw Error(Errc::unsupported,
			    "the driver serves commands on restore disks over netlink only",
			    "ask over generic netlink, the default");
	return std::get<const Volume *>(target);
}

} // namespace

int call_ioctl(int fd, unsigned long command, void *argument)
{
	int result = ioctl(fd, command, argument);
	return result < 0 ? -errno : result;
}

ControlDevice::ControlDevice(const std::string &node, IoctlCall call)
    : device_(open_control_node(node)), call_(std::move(call))
{
}

int ControlDevice::execute(const Command &command, const Target &target,
			   std::span<std::byte> record) const
{
	const Volume *volume = volume_of(command, target);
	if (command.index == WT_GET_DRIVER_VERSION_IOCTL_INDEX)
		return call_(device_.get(), WT_IOCTL(command.index), record.data());

	uint32_t device = volume->device.kernel_encoding();
	std::vector<std::byte> argument(sizeof(device) + record.size());
	std::memcpy(argument.data(), &device, sizeof(device));
	std::ranges::copy(record, argument.begin() + sizeof(device));

	int result = call_(device_.get(), WT_IOCTL(command.index), argument.data());
	std::ranges::copy(std::span(argument).subspan(sizeof(device)), record.begin());
	return result;
}

BlockDevices::BlockDevices(IoctlCall call) : call_(std::move(call))
{
}

int BlockDevices::execute(const Command &command, const Target &target,
			  std::span<std::byte> record) const
{
	const Volume *volume = volume_of(command, target);
	if (!volume)
		throw std::invalid_argument("a command on the disk's own device needs a volume");
	FileDescriptor device(open_block_node(*volume));
	require_device(device.get(), *volume);
	return call_(device.get(), WT_IOCTL(command.index), record.data());
}

std::unique_ptr<Transport> open_control_device()
{
	return std::make_unique<ControlDevice>("/dev/" WT_CONTROL_NODE_NAME);
}

std::unique_ptr<Transport> open_block_devices()
{
	return std::make_unique<BlockDevices>();
}

} // namespace zorvat
