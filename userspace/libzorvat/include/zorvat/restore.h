// SPDX-License-Identifier: GPL-2.0
/*
 * The driver's commands on restore disks: read-only block devices that a process serves. For
 * serving one see DiskServer.
 */
#ifndef ZORVAT_RESTORE_H
#define ZORVAT_RESTORE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>
#include <zorvat/error.h>
#include <zorvat/transport.h>
#include <zorvat/volume.h>

namespace zorvat
{

struct DiskAttributes {
	DiskHandle handle;
	std::string name; // kernel name, as zorvat-a; not given again until the driver is reloaded
	uint64_t block_size; // bytes
	uint64_t blocks;
	pid_t server;        // process that serves the disk
	uint32_t port;       // where the server listens on 127.0.0.1; 0: the disk is suspended
	DeviceNumber device; // there is a block device of this number unless it is suspended
	bool writable;

	bool suspended() const
	{
		return port == 0;
	}
};

/* The smallest service area that the driver takes. */
constexpr size_t min_service_area = size_t{4} << 20;

struct DiskRequest {
	size_t block_size; // bytes, 512 or more
	size_t blocks;
	/* A shared mapping of the caller, of min_service_area bytes or more. */
	std::span<std::byte> service_area;
};

/*
 * Whether the process that the driver names can be the disk's server. It is not just for having the
 * number, which may have been given to another one since: a server has a shared mapping that is
 * large enough for a service area. True if this process may not know. Asks for processes of its own
 * PID namespace.
 */
bool can_have_server(const DiskAttributes &disk);

struct DiskCommand; // a command with what is needed to explain its failure

/*
 * Every function throws Error when it cannot do what it says; Error(unknown_disk) when there is no
 * such disk any more. Any number of threads may call.
 */
class RestoreDisks
{
public:
	explicit RestoreDisks(std::shared_ptr<const Transport> transport, SystemPaths paths = {});

	/* A new disk, suspended, served by the calling process. */
	DiskHandle allocate(const DiskRequest &request) const;

	/*
	 * Connects the driver to the disk's server, which listens on 127.0.0.1 at this port, and
	 * adds the block device. The kernel looks for partitions on it before this returns: the
	 * caller must not be the thread that serves.
	 */
	void resume(DiskHandle disk, uint16_t port) const;

	/*
	 * Takes the block device away and closes the connection. Whoever has the device open, or
	 * has it mounted, keeps it and fails to read. Both wait for the server to answer what it
	 * was asked.
	 */
	void suspend(DiskHandle disk) const;
	void destroy(DiskHandle disk) const;
	/*
	 * Destroys this disk and no other: does nothing if it is gone, though its handle may be
	 * another disk's by now.
	 */
	void destroy_if_there(const DiskAttributes &disk) const;

	/*
	 * Also of disks that the driver lists and shows in sysfs, but whose handle it does not find
	 * any more.
	 */
	DiskAttributes attributes(DiskHandle disk) const;
	/* The driver's restore disks; in no order. */
	std::vector<DiskAttributes> list() const;
	/*
	 * The disk that a person means by its kernel name, or by a path to its device node or a
	 * link to one. Error(unknown_disk).
	 */
	DiskAttributes find(const std::string &name) const;

private:
	class Placeholders;

	int execute(const DiskCommand &command, const Target &target,
		    std::span<std::byte> record) const;
	int execute_on(const DiskCommand &command, DiskHandle disk,
		       std::span<std::byte> record) const;
	std::optional<DiskAttributes> attributes_if_any(DiskHandle disk) const;
	void run(const DiskCommand &command, DiskHandle disk, std::span<std::byte> record) const;
	bool is_known(DiskHandle disk) const;
	bool is_listed(DiskHandle disk) const;
	std::vector<DiskHandle> handles() const;
	Error refusal(const DiskCommand &command, DiskHandle disk, int number) const;

	std::shared_ptr<const Transport> transport_;
	SystemPaths paths_;
};

} // namespace zorvat

#endif
