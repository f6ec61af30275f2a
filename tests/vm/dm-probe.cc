// SPDX-License-Identifier: GPL-2.0
// Sends the device-mapper's control device requests that no well-behaved program would, about the
// device NAME, and prints the answer to each:
//
//   dm-probe own NAME      requests that the driver answers itself, without asking the kernel
//   dm-probe kernel NAME   requests that the kernel answers, whatever the driver makes of them
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <iostream>
#include <linux/dm-ioctl.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace
{

constexpr size_t page = 4096;

struct Request {
	const char *name;
	unsigned long command;
	uint32_t data_size;
	std::function<void(dm_ioctl &)> change = [](dm_ioctl &) {};
};

// Memory that ends with the last byte of the request: what reads further gets EFAULT.
class RequestMemory
{
public:
	explicit RequestMemory(size_t bytes) : pages((bytes + page - 1) / page * page), size(bytes)
	{
		void *mapped = mmap(nullptr, pages + page, PROT_READ | PROT_WRITE,
				    MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
		if (mapped == MAP_FAILED)
			throw std::runtime_error("mmap");
		base = static_cast<char *>(mapped);
		mprotect(base + pages, page, PROT_NONE);
	}
	~RequestMemory()
	{
		munmap(base, pages + page);
	}
	RequestMemory(const RequestMemory &) = delete;
	RequestMemory &operator=(const RequestMemory &) = delete;

	char *data()
	{
		return base + pages - size;
	}

private:
	size_t pages, size;
	char *base;
};

dm_target_spec &first_target(dm_ioctl &request)
{
	return *reinterpret_cast<dm_target_spec *>(reinterpret_cast<char *>(&request) +
						   sizeof(request));
}

void send(int control, const std::string &device, const Request &request, size_t memory_size)
{
	RequestMemory memory(memory_size);
	dm_ioctl header = {};
	header.version[0] = DM_VERSION_MAJOR;
	header.data_size = request.data_size;
	header.data_start = sizeof(header);
	strncpy(header.name, device.c_str(), sizeof(header.name) - 1);
	memcpy(memory.data(), &header, std::min(sizeof(header), memory_size));
	if (memory_size >= sizeof(header))
		request.change(*reinterpret_cast<dm_ioctl *>(memory.data()));
	const int result = ioctl(control, request.command, memory.data());
	std::cout << request.name << ": " << (result < 0 ? strerrorname_np(errno) : "success")
		  << '\n';
}

void ask_driver(int control, const std::string &device)
{
	const Request requests[] = {
		{"data_size 0", DM_VERSION, 0},
		{"data_size 311", DM_DEV_SUSPEND, sizeof(dm_ioctl) - 1},
		{"data_size 312 of 305 bytes", DM_DEV_SUSPEND, sizeof(dm_ioctl)},
		{"data_size beyond the memory", DM_TABLE_LOAD, 1 << 20},
		{"half a header", DM_TABLE_STATUS, sizeof(dm_ioctl)},
	};
	const size_t memory[] = {sizeof(dm_ioctl), sizeof(dm_ioctl), 305, 8192, 150};
	for (size_t i = 0; i < std::size(requests); i++)
		send(control, device, requests[i], memory[i]);
}

void ask_kernel(int control, const std::string &device)
{
	constexpr uint32_t size = 1000;
	const auto one_target = [](dm_ioctl &request, const char *type) -> dm_target_spec & {
		request.target_count = 1;
		dm_target_spec &target = first_target(request);
		target.length = 2048;
		strcpy(target.target_type, type);
		return target;
	};
	const Request requests[] = {
		{"no device", DM_TABLE_CLEAR, size, [](auto &r) { r.name[0] = '\0'; }},
		{"clear, targets beyond the data", DM_TABLE_CLEAR, size,
		 [](auto &r) { r.target_count = 0xffffffff; }},
		{"clear, data beyond the buffer", DM_TABLE_CLEAR, size,
		 [](auto &r) {
			 r.target_count = 2;
			 r.data_start = 0xfffffff0;
		 }},
		{"clear, data at the very end", DM_TABLE_CLEAR, size,
		 [](auto &r) {
			 r.target_count = 1;
			 r.data_start = size - sizeof(dm_target_spec);
		 }},
		{"clear, next outside", DM_TABLE_CLEAR, size,
		 [&](auto &r) {
			 one_target(r, "linear").next = 0x7fffffff;
			 r.target_count = 2;
		 }},
		{"clear, next on the spot", DM_TABLE_CLEAR, size,
		 [&](auto &r) {
			 one_target(r, "linear").next = 0;
			 r.target_count = 0xffffffff;
		 }},
		{"clear, next backwards", DM_TABLE_CLEAR, size,
		 [&](auto &r) {
			 one_target(r, "linear").next = 0xffffffd8;
			 r.target_count = 0xffffffff;
		 }},
		{"clear, snapshot without an end", DM_TABLE_CLEAR, size,
		 [&](auto &r) {
			 char *params = reinterpret_cast<char *>(&one_target(r, "snapshot") + 1);
			 memset(params, '/', size - sizeof(dm_ioctl) - sizeof(dm_target_spec));
		 }},
		{"clear, origin that is no device", DM_TABLE_CLEAR, size,
		 [&](auto &r) {
			 char *params =
				 reinterpret_cast<char *>(&one_target(r, "snapshot-origin") + 1);
			 strcpy(params, "/nowhere");
		 }},
		{"clear, name without an end", DM_TABLE_CLEAR, size,
		 [](auto &r) { memset(r.name, 'x', sizeof(r.name)); }},
		{"load, data beyond the buffer", DM_TABLE_LOAD, size,
		 [](auto &r) {
			 r.target_count = 1;
			 r.data_start = 5000;
		 }},
		{"load, no targets", DM_TABLE_LOAD, size},
		{"load, unknown type", DM_TABLE_LOAD, size,
		 [&](auto &r) { one_target(r, "nonsense"); }},
		{"status, no room", DM_TABLE_STATUS, sizeof(dm_ioctl),
		 [](auto &r) { r.flags = DM_STATUS_TABLE_FLAG; }},
		{"status, of nothing", DM_TABLE_STATUS, size, [](auto &r) { r.name[0] = '\0'; }},
		{"unknown command", _IOWR(DM_IOCTL, 200, dm_ioctl), size},
		{"foreign command", _IO('x', 1), size},
		{"other version", DM_VERSION, size, [](auto &r) { r.version[0] = 99; }},
	};
	for (auto &request : requests)
		send(control, device, request, size);
}

} // namespace

int main(int argc, char **argv)
try {
	const std::string_view what = argc == 3 ? argv[1] : "";
	if (what != "own" && what != "kernel")
		throw std::runtime_error("usage: dm-probe own|kernel NAME");
	const int control = open("/dev/mapper/control", O_RDWR | O_CLOEXEC);
	if (control < 0)
		throw std::runtime_error("cannot open /dev/mapper/control");
	if (what == "own")
		ask_driver(control, argv[2]);
	else
		ask_kernel(control, argv[2]);
	return 0;
} catch (const std::exception &error) {
	std::cerr << "dm-probe: " << error.what() << '\n';
	return 2;
}
