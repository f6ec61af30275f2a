// SPDX-License-Identifier: GPL-2.0
/*
 * The driver's side of restore disks, without a driver: commands behind a transport, and the kernel
 * end of the data link over a real socket. Like the driver it shows memory to the server for the
 * time of one request only; at all other times the service area cannot be accessed at all.
 */
#ifndef FAKE_KERNEL_H
#define FAKE_KERNEL_H

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <netinet/in.h>
#include <optional>
#include <span>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>
#include <zorvat/transport.h>

#include "wt.h"

class FakeKernel
{
public:
	struct Disk {
		std::string name;
		wtflr_allocdisk_req request{};
		uint32_t port = 0;
		uint32_t messages = 0;
		size_t place = 0; // in the driver's table
	};

	/* What came of a read: the reply's error number, 0 or below, and what the pages hold. */
	struct Outcome {
		int64_t error;
		std::string data;
	};

	FakeKernel()
	{
		std::string pattern = std::filesystem::temp_directory_path() / "kernel-XXXXXX";
		sys = mkdtemp(pattern.data());
		for (int &socket : sockets_)
			socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	}
	~FakeKernel()
	{
		for (int socket : sockets_)
			close(socket);
		std::filesystem::remove_all(sys);
	}
	FakeKernel(const FakeKernel &) = delete;
	FakeKernel &operator=(const FakeKernel &) = delete;

	int execute(uint32_t command, std::optional<zorvat::DiskHandle> handle,
		    std::span<std::byte> record)
	{
		if (before_command)
			before_command(command);
		if (auto error = errors.find(command); error != errors.end())
			return -error->second;
		if (command == WTFLR_ALLOC_DISK_IOCTL_INDEX)
			return allocate(record);
		if (command == WTFLR_LIST_DISKS_IOCTL_INDEX)
			return list(record);
		auto disk = disks.find(handle.value());
		if (disk == disks.end() || first_hole() < disk->second.place)
			return -EINVAL;
		return execute_on(command, *disk, record);
	}

	/* The handle of the only disk. */
	zorvat::DiskHandle handle() const
	{
		return disks.begin()->first;
	}

	/* As the block layer asks: blocks, at a place within a page. */
	wt_netlinkmsg_hdr request(uint64_t start, int64_t count, size_t page_offset = 0)
	{
		Disk &disk = disks.begin()->second;
		return {.version = 1,
			.id = ++disk.messages,
			.diskhandle = std::bit_cast<void *>(handle()),
			.code = WT_NETLINK_CMD_READ,
			.offset_sector = start,
			.num_sectors = count,
			.io_buffer = area(disk) + page_offset};
	}

	Outcome read(uint64_t start, int64_t count, size_t page_offset = 0)
	{
		const Disk &disk = disks.begin()->second;
		const size_t length = count * disk.request.wtfad_blocksize;
		show(page_offset + length, PROT_READ | PROT_WRITE);
		std::memset(area(disk), 0xee, (page_offset + length + 4095) / 4096 * 4096);
		const auto reply = ask(request(start, count, page_offset));
		Outcome outcome{std::min<int64_t>(reply.num_sectors, 0),
				{area(disk) + page_offset, length}};
		show(page_offset + length, PROT_NONE);
		return outcome;
	}

	/* Sends a message of any content and waits for the reply to it. */
	wt_netlinkmsg_hdr ask(const wt_netlinkmsg_hdr &message)
	{
		send(std::as_bytes(std::span(&message, 1)));
		return receive();
	}

	wt_netlinkmsg_hdr receive()
	{
		wt_netlinkmsg_hdr reply{};
		if (recv(link(), &reply, sizeof(reply), MSG_WAITALL) != sizeof(reply))
			reply.num_sectors = -EPIPE;
		return reply;
	}

	void send(std::span<const std::byte> bytes)
	{
		::send(link(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
	}

	/* Connects with a new socket; the one before stays as it is. */
	int connect_to(uint32_t port)
	{
		connected_++;
		sockaddr_in address{};
		address.sin_family = AF_INET;
		address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
		address.sin_port = htons(port);
		return connect(link(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0
			       ? 0
			       : -errno;
	}

	/* The command thread has a copy of every socket: closing one here would not end it. */
	void cut()
	{
		shutdown(link(), SHUT_RDWR);
	}

	std::filesystem::path sys;
	std::map<zorvat::DiskHandle, Disk> disks;
	std::map<uint32_t, int> errors; // by command index, positive
	std::function<void(uint32_t command)> before_command;
	std::optional<Outcome> partition_table; // as read while the disk was resumed

private:
	static char *area(const Disk &disk)
	{
		return static_cast<char *>(disk.request.wtfad_servicearea);
	}

	int link() const
	{
		return sockets_.at(connected_ - 1);
	}

	std::filesystem::path directory(const Disk &disk) const
	{
		return sys / "zorvat" / "restore-volumes" / disk.name;
	}

	/* The driver's search for a disk ends here, and the next new disk is put here. */
	size_t first_hole() const
	{
		std::vector<bool> taken(disks.size() + 1);
		for (const auto &[handle, disk] : disks)
			if (disk.place < taken.size())
				taken[disk.place] = true;
		return std::ranges::find(taken, false) - taken.begin();
	}

	void show(size_t length, int protection)
	{
		mprotect(area(disks.begin()->second), (length + 4095) / 4096 * 4096, protection);
	}

	int allocate(std::span<std::byte> record)
	{
		Disk disk;
		std::memcpy(&disk.request, record.data(), sizeof(disk.request));
		if (disk.request.wtfad_blocksize < 512)
			return -EINVAL;
		const std::string letter(1, static_cast<char>('a' + named_++));
		disk.name = "zorvat-" + letter;
		disk.place = first_hole();
		mprotect(disk.request.wtfad_servicearea, 4 << 20, PROT_NONE);
		const uint64_t handle = next_handle;
		std::memcpy(record.subspan(sizeof(disk.request)).data(), &handle, sizeof(handle));
		disks[zorvat::DiskHandle{handle}] = disk;
		show_in_sysfs(handle, disk);
		next_handle += 0x1000;
		return 0;
	}

	void show_in_sysfs(uint64_t handle, const Disk &disk) const
	{
		std::filesystem::create_directories(directory(disk));
		const auto put = [&](const char *file, uint64_t value) {
			std::ofstream(directory(disk) / file) << value;
		};
		put("block-size", disk.request.wtfad_blocksize);
		put("sectors", disk.request.wtfad_numblocks);
		put("serivce-pid", disk.request.wtfad_pid);
		put("datalink-portid", disk.port);
		put("major-id", 250);
		std::ofstream(directory(disk) / "volume-handle") << std::hex << handle;
	}

	int list(std::span<std::byte> record) const
	{
		uint64_t *words = reinterpret_cast<uint64_t *>(record.data());
		*words = disks.size() + lost_handles;
		for (const auto &entry : disks)
			*++words = static_cast<uint64_t>(entry.first);
		return 0;
	}

	int execute_on(uint32_t command, std::pair<const zorvat::DiskHandle, Disk> &entry,
		       std::span<std::byte> record)
	{
		Disk &disk = entry.second;
		switch (command) {
		case WTFLR_RESUME_DISK_IOCTL_INDEX:
			return disk.port ? -EINVAL : resume(disk, record);
		case WTFLR_SUSPEND_DISK_IOCTL_INDEX:
			return disk.port ? suspend(disk) : -EINVAL;
		case WTFLR_DESTROY_DISK_IOCTL_INDEX:
			if (disk.port)
				suspend(disk);
			std::filesystem::remove_all(directory(disk));
			disks.erase(entry.first);
			return 0;
		case WTFLR_GET_DISKATTRS_IOCTL_INDEX:
			return attributes(entry.first, disk, record);
		}
		return -EOPNOTSUPP;
	}

	int resume(Disk &disk, std::span<std::byte> record)
	{
		std::memcpy(&disk.port, record.data(), sizeof(disk.port));
		if (const int error = connect_to(disk.port))
			return error;
		partition_table = read(0, 1);
		return 0;
	}

	int suspend(Disk &disk)
	{
		wt_netlinkmsg_hdr message{};
		message.version = 1;
		message.id = WT_NETLINK_CLOSE_ID;
		message.code = WT_NETLINK_CMD_CLOSE;
		send(std::as_bytes(std::span(&message, 1)));
		cut();
		disk.port = 0;
		return 0;
	}

	static int attributes(zorvat::DiskHandle handle, const Disk &disk,
			      std::span<std::byte> record)
	{
		wtflr_disk_attrs attributes{};
		attributes.wtfda_handle = std::bit_cast<void *>(handle);
		std::ranges::copy(disk.name, attributes.wtfda_name);
		attributes.wtfda_blocksize = disk.request.wtfad_blocksize;
		attributes.wtfda_numblocks = disk.request.wtfad_numblocks;
		attributes.wtfda_pid = disk.request.wtfad_pid;
		attributes.wtfda_portid = disk.port;
		attributes.wtfda_devt = 250u << 20;
		std::memcpy(record.data(), &attributes, sizeof(attributes));
		return 0;
	}

	/* Made beforehand, for all threads to have them, whatever table of files they use. */
	std::array<int, 6> sockets_;
	size_t connected_ = 0;
	int named_ = 0;

public:
	uint64_t next_handle = 0xffffc90000001000;
	size_t lost_handles = 0; // by which a list claims to be longer
};

class FakeRestoreDriver final : public zorvat::Transport
{
public:
	explicit FakeRestoreDriver(FakeKernel &kernel) : kernel_(kernel)
	{
	}

	int execute(const zorvat::Command &command, const zorvat::Target &target,
		    std::span<std::byte> record) const override
	{
		std::optional<zorvat::DiskHandle> handle;
		if (auto *disk = std::get_if<zorvat::DiskHandle>(&target))
			handle = *disk;
		return kernel_.execute(command.index, handle, record);
	}

private:
	FakeKernel &kernel_;
};

#endif
