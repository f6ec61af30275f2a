// SPDX-License-Identifier: GPL-2.0
/*
 * The two roads by ioctl. Both take the system call as a parameter, so that what they pass can be
 * seen without a driver.
 */
#ifndef ZORVAT_IOCTL_TRANSPORT_H
#define ZORVAT_IOCTL_TRANSPORT_H

#include <functional>
#include <string>
#include <zorvat/file-descriptor.h>
#include <zorvat/transport.h>

namespace zorvat
{

/* Returns the result of 0 or more, or a negative error number. */
using IoctlCall = std::function<int(int fd, unsigned long command, void *argument)>;

/* ioctl(2) */
int call_ioctl(int fd, unsigned long command, void *argument);

class ControlDevice final : public Transport
{
public:
	/* Throws Error when the node cannot be opened. */
	explicit ControlDevice(const std::string &node, IoctlCall call = call_ioctl);

	int execute(const Command &command, const Target &target,
		    std::span<std::byte> record) const override;

private:
	FileDescriptor device_;
	IoctlCall call_;
};

/* Opens the volume's node for each command and keeps nothing open in between. */
class BlockDevices final : public Transport
{
public:
	explicit BlockDevices(IoctlCall call = call_ioctl);

	int execute(const Command &command, const Target &target,
		    std::span<std::byte> record) const override;

private:
	IoctlCall call_;
};

} // namespace zorvat

#endif
