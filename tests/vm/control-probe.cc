// SPDX-License-Identifier: GPL-2.0
// Sends the driver requests that no well-behaved program would, and compares its answers:
//
//   control-probe control DISK        ioctls on the control device
//   control-probe block DISK          ioctls on the disk's own device
//   control-probe netlink DISK        generic netlink
//   control-probe unprivileged DISK   all three, without capabilities
//
// DISK is a whole disk that the driver knows and, but for "unprivileged", tracks. Prints each
// answer that is not the expected one; the exit status is 0 if there was none.
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <iostream>
#include <linux/fs.h>
#include <memory>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <system_error>
#include <unistd.h>
#include <vector>

#include "wt.h"

namespace
{

constexpr int kernel_enoioctlcmd = 515;
// What user space gets to see of it: ENOTTY, and EINVAL from kernels before 3.x.
constexpr int not_the_drivers = -1;
constexpr uint32_t unknown_device = (4095u << 20) | 0xfffffu;

int failures = 0;

std::string name_of(int error)
{
	if (error == not_the_drivers)
		return "not the driver's ioctl";
	if (error == kernel_enoioctlcmd)
		return "error 515";
	return error == 0 ? "success" : strerrorname_np(error);
}

void compare(std::string_view transport, std::string_view request, int expected, int got)
{
	const bool equal =
		expected == not_the_drivers ? got == ENOTTY || got == EINVAL : got == expected;
	if (equal)
		return;
	failures++;
	std::cout << transport << ": " << request << ": expected " << name_of(expected) << ", got "
		  << name_of(got) << '\n';
}

[[noreturn]] void give_up(const std::string &what)
{
	throw std::system_error(errno, std::generic_category(), what);
}

int open_or_give_up(const std::string &path)
{
	const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
	if (fd < 0)
		give_up(path);
	return fd;
}

// The number as the driver's interface encodes it: major in the top 12 bits.
uint32_t device_number(const std::string &disk)
{
	struct stat status = {};
	if (stat(disk.c_str(), &status) < 0)
		give_up(disk);
	return major(status.st_rdev) << 20 | minor(status.st_rdev);
}

// A page that can be used, followed by one that cannot: what is placed at its end is cut off there.
class EdgeOfMemory
{
public:
	explicit EdgeOfMemory(int protection)
	    : page_(static_cast<size_t>(sysconf(_SC_PAGESIZE))),
	      base_(static_cast<char *>(mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE,
					     MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)))
	{
		if (base_ == MAP_FAILED || mprotect(base_ + page_, page_, PROT_NONE) < 0)
			give_up("mmap");
		protection_ = protection;
	}
	EdgeOfMemory(const EdgeOfMemory &) = delete;
	EdgeOfMemory &operator=(const EdgeOfMemory &) = delete;
	~EdgeOfMemory()
	{
		munmap(base_, 2 * page_);
	}

	void *place(const std::vector<char> &bytes)
	{
		char *const place = base_ + page_ - bytes.size();
		if (mprotect(base_, page_, PROT_READ | PROT_WRITE) < 0)
			give_up("mprotect");
		std::memcpy(place, bytes.data(), bytes.size());
		if (mprotect(base_, page_, protection_) < 0)
			give_up("mprotect");
		return place;
	}

private:
	size_t page_;
	char *base_;
	int protection_ = PROT_NONE;
};

template <typename... Records> std::vector<char> bytes_of(const Records &...records)
{
	std::vector<char> bytes;
	const auto append = [&bytes](const auto &record) {
		const auto *const from = reinterpret_cast<const char *>(&record);
		bytes.insert(bytes.end(), from, from + sizeof(record));
	};
	(append(records), ...);
	return bytes;
}

std::vector<char> first(size_t size, std::vector<char> bytes)
{
	bytes.resize(size);
	return bytes;
}

std::vector<char> extents_request(uint64_t capacity)
{
	return bytes_of(uint64_t{0}, capacity);
}

// --- ioctls

enum class Access {
	readable,
	writable
};

struct IoctlCase {
	std::string_view what;
	unsigned long command;
	std::vector<char> argument; // placed so that memory ends where it does
	Access access;
	int expected;
};

int ioctl_error(int fd, unsigned long command, void *argument)
{
	return ioctl(fd, command, argument) < 0 ? errno : 0;
}

void try_ioctls(std::string_view transport, int fd, const std::vector<IoctlCase> &cases)
{
	for (const IoctlCase &one : cases) {
		EdgeOfMemory edge(one.access == Access::writable ? PROT_READ | PROT_WRITE
								 : PROT_READ);
		compare(transport, one.what, one.expected,
			ioctl_error(fd, one.command, edge.place(one.argument)));
	}
}

// What a volume's commands answer, whether a device number precedes the record (on the control
// device) or not (on the disk itself).
std::vector<IoctlCase> volume_cases(const std::vector<char> &prefix)
{
	const auto with = [&prefix](std::vector<char> record) {
		record.insert(record.begin(), prefix.begin(), prefix.end());
		return record;
	};
	const auto start_level = [&with](int level) { return with(bytes_of(backUp{level, 0})); };
	constexpr auto writable = Access::writable;
	constexpr auto readable = Access::readable;

	return {
		{"level, record cut short", WT_IOCTL(WT_GET_BACKUP_LEVEL_IOCTL_INDEX),
		 with(std::vector<char>(15)), writable, EACCES},
		{"level, record not writable", WT_IOCTL(WT_GET_BACKUP_LEVEL_IOCTL_INDEX),
		 with(std::vector<char>(16)), readable, EACCES},
		{"start, record cut short", WT_IOCTL(WT_START_IOCTL_INDEX),
		 with(std::vector<char>(15)), writable, EACCES},
		{"start, level 2", WT_IOCTL(WT_START_IOCTL_INDEX), start_level(2), writable,
		 EINVAL},
		{"start, level -1", WT_IOCTL(WT_START_IOCTL_INDEX), start_level(-1), writable,
		 EINVAL},
		{"start, record not writable", WT_IOCTL(WT_START_IOCTL_INDEX), start_level(1),
		 readable, EACCES},
		{"bitmap size, record cut short", WT_IOCTL(WT_BMSIZE_IOCTL_INDEX),
		 with(std::vector<char>(11)), writable, EACCES},
		{"bitmap", WT_IOCTL(WT_BITMAP_IOCTL_INDEX), with(std::vector<char>(24)), writable,
		 not_the_drivers},
		{"save time, record cut short", WT_IOCTL(WT_DATA_IOCTL_INDEX),
		 with(std::vector<char>(15)), writable, EACCES},
		{"save time, record not writable", WT_IOCTL(WT_DATA_IOCTL_INDEX),
		 with(bytes_of(WI_DATA{1, 0})), readable, EACCES},
		{"extents, request cut short", WT_IOCTL(WT_GET_EXTENTS_IOCTL_INDEX),
		 with(std::vector<char>(15)), writable, EACCES},
		{"extents, capacity 0", WT_IOCTL(WT_GET_EXTENTS_IOCTL_INDEX),
		 with(extents_request(0)), writable, 0},
		{"extents, request not writable", WT_IOCTL(WT_GET_EXTENTS_IOCTL_INDEX),
		 with(extents_request(0)), readable, EACCES},
		{"extents, capacity beyond memory", WT_IOCTL(WT_GET_EXTENTS_IOCTL_INDEX),
		 with(extents_request(uint64_t{1} << 40)), writable, ENOMEM},
		{"extents, capacity 2^60", WT_IOCTL(WT_GET_EXTENTS_IOCTL_INDEX),
		 with(extents_request(uint64_t{1} << 60)), writable, ENOMEM},
		{"extents, capacity 2^64-1", WT_IOCTL(WT_GET_EXTENTS_IOCTL_INDEX),
		 with(extents_request(UINT64_MAX)), writable, ENOMEM},
		{"identifier, record cut short", WT_IOCTL(WT_GET_VOLUME_UUID_IOCTL_INDEX),
		 with(std::vector<char>(15)), writable, EACCES},
	};
}

void try_control(uint32_t device)
{
	const int fd = open_or_give_up("/dev/" WT_CONTROL_NODE_NAME);
	const std::vector<char> disk = bytes_of(device);
	const std::vector<char> nothing;
	constexpr auto writable = Access::writable;

	try_ioctls(
		"control device", fd,
		{
			{"foreign type", 0xa000 | WT_GET_DRIVER_VERSION_IOCTL_INDEX,
			 std::vector<char>(sizeof(wt_version)), writable, not_the_drivers},
			{"terminal ioctl", TCGETS, std::vector<char>(64), writable,
			 not_the_drivers},
			{"version with direction and size",
			 _IOR(WT_IOCTL_TYPE, WT_GET_DRIVER_VERSION_IOCTL_INDEX, wt_version),
			 std::vector<char>(sizeof(wt_version)), writable, 0},
			{"version, record cut short", WT_IOCTL(WT_GET_DRIVER_VERSION_IOCTL_INDEX),
			 std::vector<char>(sizeof(wt_version) - 1), writable, EACCES},
			{"index 0", WT_IOCTL(0), disk, writable, not_the_drivers},
			{"index 14", WT_IOCTL(WT_MAX_VOLUME_IOCTL_INDEX), disk, writable,
			 not_the_drivers},
			{"patch", WT_IOCTL(WT_PATCH_IOCTL_INDEX), nothing, writable, 0},
			{"unpatch", WT_IOCTL(WT_UNPATCH_IOCTL_INDEX), nothing, writable, 0},
			{"halt", WT_IOCTL(WT_HALT_IOCTL_INDEX), disk, writable, not_the_drivers},
			{"restore disk command", WT_IOCTL(WTFLR_ALLOC_DISK_IOCTL_INDEX), disk,
			 writable, not_the_drivers},
			{"index 27", WT_IOCTL(WTFLR_MAX_IOCTL_INDEX), disk, writable,
			 not_the_drivers},
			{"index 28", WT_IOCTL(WT_MAX_IOCTL_INDEX), disk, writable, EACCES},
			{"index 200", WT_IOCTL(200), disk, writable, EACCES},
			{"device number cut short", WT_IOCTL(WT_IS_DRIVER_PRESENT_IOCTL_INDEX),
			 std::vector<char>(3), writable, EACCES},
			{"unknown device", WT_IOCTL(WT_IS_DRIVER_PRESENT_IOCTL_INDEX),
			 bytes_of(unknown_device), writable, EINVAL},
			{"known device", WT_IOCTL(WT_IS_DRIVER_PRESENT_IOCTL_INDEX), disk, writable,
			 0},
		});
	try_ioctls("control device", fd, volume_cases(disk));
	close(fd);
}

// The granularity's copy runs the wrong way round and must not reach the caller's record.
void try_granularity(int fd)
{
	bmReg record{-1};
	const int error = ioctl_error(fd, WT_IOCTL(WT_BMCONFIG_IOCTL_INDEX), &record);
	compare("disk", "granularity", EACCES, error);
	if (record.BlocksPerBit != -1) {
		failures++;
		std::cout << "disk: granularity: the caller's record was written\n";
	}
}

void try_block(const std::string &path)
{
	const int fd = open_or_give_up(path);
	int sector_size = 0;

	try_ioctls("disk", fd, volume_cases({}));
	try_granularity(fd);
	compare("disk", "index 14", not_the_drivers,
		ioctl_error(fd, WT_IOCTL(WT_MAX_VOLUME_IOCTL_INDEX), nullptr));
	compare("disk", "the disk driver's unknown ioctl", not_the_drivers,
		ioctl_error(fd, 0xdead, nullptr));
	compare("disk", "the block layer's own ioctl", 0, ioctl_error(fd, BLKSSZGET, &sector_size));
	close(fd);
}

// --- Generic netlink

struct Attribute {
	int type;
	std::vector<char> payload;
};

struct NetlinkCase {
	std::string_view what;
	int command;
	std::vector<Attribute> attributes;
	int expected;
	size_t reply_size = 0; // of the reply's attribute; 0: an acknowledgement
};

// One socket to the driver's family.
class Family
{
public:
	Family() : socket_(nl_socket_alloc(), nl_socket_free)
	{
		if (!socket_ || genl_connect(socket_.get()) < 0)
			throw std::runtime_error("no netlink socket");
		id_ = genl_ctrl_resolve(socket_.get(), WT_GENL_FAMILY_NAME);
		if (id_ < 0)
			throw std::runtime_error("no such family: " WT_GENL_FAMILY_NAME);
		nl_socket_disable_auto_ack(socket_.get());
	}

	struct Answer {
		int error = 0;
		size_t attribute_size = 0;
	};

	// A request without acknowledgement asked for: the driver answers each with a message.
	Answer ask(int command, const std::vector<Attribute> &attributes)
	{
		const std::unique_ptr<nl_msg, decltype(&nlmsg_free)> message(nlmsg_alloc(),
									     nlmsg_free);
		genlmsg_put(message.get(), NL_AUTO_PORT, NL_AUTO_SEQ, id_, 0, 0,
			    static_cast<uint8_t>(command), WT_GENL_FAMILY_VERSION);
		for (const Attribute &attribute : attributes)
			nla_put(message.get(), attribute.type,
				static_cast<int>(attribute.payload.size()),
				attribute.payload.data());
		if (nl_send_auto(socket_.get(), message.get()) < 0)
			throw std::runtime_error("cannot send");
		return receive(nlmsg_hdr(message.get())->nlmsg_seq);
	}

private:
	// The first message for the request: an error may be acknowledged twice.
	Answer receive(uint32_t sequence)
	{
		for (;;) {
			sockaddr_nl from{};
			unsigned char *buffer = nullptr;
			const int size = nl_recv(socket_.get(), &from, &buffer, nullptr);
			const std::unique_ptr<unsigned char, decltype(&free)> owner(buffer, free);
			if (size <= 0)
				throw std::runtime_error("cannot receive");
			const auto *const header = reinterpret_cast<nlmsghdr *>(buffer);
			if (header->nlmsg_seq == sequence)
				return read(header);
		}
	}

	static Answer read(const nlmsghdr *header)
	{
		if (header->nlmsg_type == NLMSG_ERROR)
			return {-static_cast<const nlmsgerr *>(nlmsg_data(header))->error, 0};
		auto *const generic = static_cast<genlmsghdr *>(nlmsg_data(header));
		const nlattr *const attribute = genlmsg_attrdata(generic, 0);
		if (!nla_ok(attribute, genlmsg_attrlen(generic, 0)))
			return {};
		return {0, static_cast<size_t>(nla_len(attribute))};
	}

	std::unique_ptr<nl_sock, decltype(&nl_socket_free)> socket_;
	int id_ = -1;
};

void try_netlink_cases(const std::vector<NetlinkCase> &cases)
{
	Family family;
	for (const NetlinkCase &one : cases) {
		const Family::Answer answer = family.ask(one.command, one.attributes);
		compare("netlink", one.what, one.expected, answer.error);
		if (answer.attribute_size != one.reply_size) {
			failures++;
			std::cout << "netlink: " << one.what << ": expected " << one.reply_size
				  << " bytes of reply, got " << answer.attribute_size << '\n';
		}
	}
}

void try_netlink(uint32_t device)
{
	const Attribute disk{WT_GENATTR_DISKHANDLE, bytes_of(device)};
	const auto start = [](int level) {
		return Attribute{WT_GENATTR_BACKUP, bytes_of(backUp{level, 0})};
	};
	const auto extents = [](uint64_t capacity) {
		return Attribute{WT_GENATTR_BACKUP, extents_request(capacity)};
	};
	const auto zeroes = [](int type, size_t size) {
		return Attribute{type, std::vector<char>(size)};
	};
	constexpr int present = WT_IS_DRIVER_PRESENT_IOCTL_INDEX;
	constexpr int get_extents = WT_GET_EXTENTS_IOCTL_INDEX;
	constexpr uint64_t largest_capacity = 4095; // 16 bytes each and 8, in 64 KiB less 4

	try_netlink_cases({
		{"no device", present, {}, EINVAL},
		{"empty device", present, {zeroes(WT_GENATTR_DISKHANDLE, 0)}, EINVAL},
		{"device cut short",
		 present,
		 {{WT_GENATTR_DISKHANDLE, first(3, bytes_of(device))}},
		 EINVAL},
		{"unknown device",
		 present,
		 {{WT_GENATTR_DISKHANDLE, bytes_of(unknown_device)}},
		 EINVAL},
		{"known device", present, {disk}, 0},
		{"version", WT_GET_DRIVER_VERSION_IOCTL_INDEX, {}, 0, sizeof(wt_version)},
		{"start without record", WT_START_IOCTL_INDEX, {disk}, EINVAL},
		{"start, record cut short",
		 WT_START_IOCTL_INDEX,
		 {disk, zeroes(WT_GENATTR_BACKUP, 15)},
		 EINVAL},
		{"start, level 2", WT_START_IOCTL_INDEX, {disk, start(2)}, EINVAL},
		{"start, level -1", WT_START_IOCTL_INDEX, {disk, start(-1)}, EINVAL},
		{"bitmap", WT_BITMAP_IOCTL_INDEX, {disk}, kernel_enoioctlcmd},
		{"save time without record", WT_DATA_IOCTL_INDEX, {disk}, 0, sizeof(WI_DATA)},
		{"save time, record cut short",
		 WT_DATA_IOCTL_INDEX,
		 {disk, zeroes(WT_GENATTR_WI_DATA, 15)},
		 0,
		 sizeof(WI_DATA)},
		{"extents without record", get_extents, {disk}, EINVAL},
		{"extents, record cut short",
		 get_extents,
		 {disk, zeroes(WT_GENATTR_BACKUP, 15)},
		 EINVAL},
		{"extents, capacity 0", get_extents, {disk, extents(0)}, 0, 8},
		{"extents, largest capacity",
		 get_extents,
		 {disk, extents(largest_capacity)},
		 0,
		 16 * largest_capacity + 8},
		{"extents, capacity beyond an attribute",
		 get_extents,
		 {disk, extents(largest_capacity + 1)},
		 EMSGSIZE},
		{"extents, capacity 2^60", get_extents, {disk, extents(uint64_t{1} << 60)}, ENOMEM},
		{"extents, capacity 2^64-1", get_extents, {disk, extents(UINT64_MAX)}, ENOMEM},
		{"command 14", WT_MAX_VOLUME_IOCTL_INDEX, {disk}, EOPNOTSUPP},
		{"halt", WT_HALT_IOCTL_INDEX, {disk}, EOPNOTSUPP},
		{"restore disk's user data", WTFLR_GET_DISK_USER_DATA_IOCTL_INDEX, {}, EOPNOTSUPP},
		{"command 28", WT_MAX_IOCTL_INDEX, {}, EOPNOTSUPP},
		{"known device after all this", present, {disk}, 0},
	});
}

// --- Without capabilities

void try_unprivileged(const std::string &path)
{
	constexpr uid_t nobody = 65534;
	const uint32_t device = device_number(path);
	const int control = open_or_give_up("/dev/" WT_CONTROL_NODE_NAME);
	const int disk = open_or_give_up(path);
	if (setresgid(nobody, nobody, nobody) < 0 || setresuid(nobody, nobody, nobody) < 0)
		give_up("setresuid");

	try_ioctls("unprivileged, control device", control,
		   {{"version", WT_IOCTL(WT_GET_DRIVER_VERSION_IOCTL_INDEX),
		     std::vector<char>(sizeof(wt_version)), Access::writable, EACCES},
		    {"present", WT_IOCTL(WT_IS_DRIVER_PRESENT_IOCTL_INDEX), bytes_of(device),
		     Access::writable, EACCES},
		    {"foreign type", 0xa000, {}, Access::writable, not_the_drivers}});
	try_ioctls("unprivileged, disk", disk,
		   {{"start", WT_IOCTL(WT_START_IOCTL_INDEX), bytes_of(backUp{1, 0}),
		     Access::writable, EACCES}});
	const Attribute handle{WT_GENATTR_DISKHANDLE, bytes_of(device)};
	try_netlink_cases(
		{{"unprivileged version",
		  WT_GET_DRIVER_VERSION_IOCTL_INDEX,
		  {},
		  0,
		  sizeof(wt_version)},
		 {"unprivileged present", WT_IS_DRIVER_PRESENT_IOCTL_INDEX, {handle}, EPERM},
		 {"unprivileged start",
		  WT_START_IOCTL_INDEX,
		  {handle, {WT_GENATTR_BACKUP, bytes_of(backUp{1, 0})}},
		  EPERM}});
}

void run(std::string_view what, const std::string &disk)
{
	if (what == "control")
		try_control(device_number(disk));
	else if (what == "block")
		try_block(disk);
	else if (what == "netlink")
		try_netlink(device_number(disk));
	else if (what == "unprivileged")
		try_unprivileged(disk);
	else
		throw std::runtime_error("unknown topic");
}

} // namespace

int main(int argc, char **argv)
try {
	if (argc != 3)
		throw std::runtime_error(
			"usage: control-probe control|block|netlink|unprivileged DISK");
	run(argv[1], argv[2]);
	return failures == 0 ? 0 : 1;
} catch (const std::exception &error) {
	std::cerr << "control-probe: " << error.what() << '\n';
	return 2;
}
