// SPDX-License-Identifier: GPL-2.0
/*
 * Serves one restore disk: owns all that the driver needs of the serving process, answers the
 * driver's requests from a source in a thread of its own, and leaves no disk behind.
 */
#ifndef ZORVAT_DISK_SERVER_H
#define ZORVAT_DISK_SERVER_H

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <zorvat/block-source.h>
#include <zorvat/restore.h>

namespace zorvat
{

/* A power of two from 512 to the page size, which is what the kernel's block layer can do. */
bool is_usable_block_size(size_t bytes);

struct DiskServerOptions {
	size_t block_size = 512;
	size_t area_bytes = min_service_area;
	SystemPaths paths = {};
};

/* Counted since the server began. */
struct DiskServerStatistics {
	uint64_t requests;
	uint64_t errors; // requests that were answered with an error
	uint64_t bytes;  // served
	int last_error;  // positive error number of the latest of them, or 0
};

/*
 * Its functions may be called by any thread; all but request_stop() and statistics() wait for the
 * driver. A process may serve several disks, and must not exec: what is open closes then, but the
 * disks stay.
 */
class DiskServer
{
public:
	/*
	 * Creates the disk, still suspended. The disk's last block is filled up with zeros. Throws
	 * Error, and std::invalid_argument for options that cannot be; no disk is left then.
	 */
	DiskServer(std::shared_ptr<const Transport> transport, std::unique_ptr<BlockSource> source,
		   const DiskServerOptions &options = {});
	/* Stops. What goes wrong then is not told: call stop() to hear of it. */
	~DiskServer();
	DiskServer(const DiskServer &) = delete;
	DiskServer &operator=(const DiskServer &) = delete;

	/*
	 * Makes the disk a block device, and takes it away again; as often as wanted. A disk of
	 * which resuming failed can only be stopped. Somebody else may do both, too.
	 */
	void resume();
	void suspend();

	/* Returns when a stop is requested, or when somebody else has destroyed the disk. */
	void wait();
	/*
	 * Ends wait(), and reads of the source that take long: requests fail from here on, so that
	 * whatever waits for them ends. Does not wait. Not for signal handlers.
	 */
	void request_stop() noexcept;
	/*
	 * Destroys the disk and ends the serving thread. Whoever has the device open keeps it and
	 * fails to read. Once done, or after the disk was destroyed by others, it does nothing.
	 */
	void stop();

	/* As they were when the disk was created. */
	const DiskAttributes &disk() const noexcept;
	/* The block device's node, which the kernel makes, or a program soon after. */
	std::filesystem::path node() const;
	/*
	 * Once it is resumed. False: the node has not appeared for so long. Waits no longer than
	 * wait() would.
	 */
	bool wait_for_node(std::chrono::milliseconds patience) const;
	/* The port of 127.0.0.1 that the disk can be resumed with. */
	uint16_t port() const noexcept;
	DiskServerStatistics statistics() const noexcept;

private:
	class Implementation;
	std::unique_ptr<Implementation> implementation_;
};

/*
 * Where the server of a disk listens, which the driver does not tell while the disk is suspended.
 * Asks the server itself, which must be a DiskServer in the same network namespace. Throws
 * Error(refused) if there is none.
 */
uint16_t ask_server_port(const DiskAttributes &disk);

} // namespace zorvat

#endif
