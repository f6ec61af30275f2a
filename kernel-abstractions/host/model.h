/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The model kernel as tests and benchmarks see it.
 *
 * The contract of kernel-abstractions/ is implemented over ordinary user space: this header is the
 * other side, where a test plugs disks, raises events, opens nodes, sends netlink requests, makes
 * calls fail, lets time pass and asks what is left over.
 *
 * Time is simulated. It passes when a test says so (advance), one jiffy per ka_schedule, and to
 * the next delayed work when a task waits for a completion while no work runs. Works run on real
 * threads. Everything may be used from any thread unless noted.
 */
#ifndef ZORVAT_MODEL_H
#define ZORVAT_MODEL_H

#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "kernel-abstractions/block.h"
#include "kernel-abstractions/chardev.h"
#include "kernel-abstractions/device.h"

/*
 * A bio. A test fills it and submits it; the lower driver's function may change it while it has
 * it. Without segments it looks as bios do to a driver of a 6.1 kernel.
 */
struct ka_bio {
	ka_sector_t sector = 0;
	uint64_t bytes = 0;
	bool write = true;
	std::span<const uint32_t> segments = {}; /* lengths in bytes */
	size_t current = 0;                      /* the current segment */

	/* The kernel's. */
	ka_dev_t dev = 0;
	bool ended = false;
	int error = 0;
};

namespace model
{

/* --- The machine -------------------------------------------------------------------------- */

/*
 * A state that must never occur: the driver's BUG, or a call that would hang or crash a kernel.
 * One that happens on a work queue is kept for leaks().
 */
class Bug : public std::exception
{
public:
	explicit Bug(std::string text);
	const char *what() const noexcept override;

private:
	std::string text_;
};

/*
 * A fresh kernel: no devices, no objects, nothing to fail, an empty log. What was left of the one
 * before is discarded. `module` is any address in the driver's shared library: its data is put back
 * to what it was at the first boot, as loading does. No other thread may be using the model.
 */
void boot(const void *module = nullptr);

/*
 * What should not be there once everything was given back: objects, references, memory, open
 * devices, queues, buffers, locks held by the caller, pointers to the driver in kernel tables, and
 * errors noticed on the way. One line each.
 */
std::vector<std::string> leaks();
/* Puts the module's data back in a kernel that goes on. */
void reload();
/* The kobject of that name is meant to stay, with the memory it lies in; if it does not, that is
 * reported. */
void expect_leaked_object(const std::string &name);

/* Counts since the last call: unlocks of a mutex that the caller did not hold; vmalloc memory given
 * to ka_kfree. */
int take_stray_unlocks();
int take_mismatched_releases();

/* --- Failures ----------------------------------------------------------------------------- */

/*
 * The nth call of that contract function from now, and the times - 1 after it, fail. error is what
 * the call returns where it returns one; 0 for the call's usual one. A send that fails with
 * a positive number sends just so many bytes; one that fails with -EINTR leaves a signal pending.
 */
void fail(const std::string &call, int nth = 1, long error = 0, int times = 1);
/* Runs the action on the caller's thread right before the nth call from now does its work. */
void before(const std::string &call, std::function<void()> action, int nth = 1);

/* --- Log, time, tasks, memory ------------------------------------------------------------- */

/* The kernel log, a line per printk call with its level's marker: "<3>[zorvat-ERROR]:..." */
std::vector<std::string> log();
/* How many lines of the log contain the text. */
int logged(const std::string &text);
void clear_log();

/* Lets jiffies pass: each delayed work runs at its time, the works are done on return. */
void advance(unsigned long jiffies);
/* Returns when no work is queued or running; no time passes. */
void settle();

/* While it exists its thread has no administrative capability. */
class Unprivileged
{
public:
	Unprivileged();
	~Unprivileged();
	Unprivileged(const Unprivileged &) = delete;
	Unprivileged &operator=(const Unprivileged &) = delete;

private:
	bool before_;
};

/* Memory of the calling process. Copies reach nothing else, and stop at its ends. */
class UserMemory
{
public:
	enum class Access {
		read_write,
		read_only,
		none
	};

	explicit UserMemory(size_t size, Access access = Access::read_write);
	~UserMemory();
	UserMemory(const UserMemory &) = delete;
	UserMemory &operator=(const UserMemory &) = delete;

	void set_access(Access access);
	unsigned char *data();
	size_t size() const;
	unsigned long address() const; /* as an ioctl argument */
	void fill(unsigned char byte);
	template <typename T> T get(size_t offset = 0) const
	{
		T value;
		read(&value, sizeof(value), offset);
		return value;
	}
	template <typename T> void put(const T &value, size_t offset = 0)
	{
		write(&value, sizeof(value), offset);
	}

private:
	void read(void *to, size_t size, size_t offset) const;
	void write(const void *from, size_t size, size_t offset);

	std::unique_ptr<unsigned char[]> memory_; /* exactly as large as asked for */
	size_t size_;
};

/* How many allocations of that size there are, which are meant to stay. */
int forget_memory(size_t size);
/* Calls of ka_vmalloc so far. */
uint64_t allocations();
/* Called by each allocation that may start I/O to make room, the kernel's own included. */
void on_reclaim(std::function<void()> action);

/* --- sysfs -------------------------------------------------------------------------------- */

bool sysfs_exists(const std::string &path); /* a directory or a file */
std::vector<std::string> sysfs_list(const std::string &directory);
int sysfs_mode(const std::string &path); /* a file's permission bits; -ENOENT without one */
struct SysfsText {
	long result;      /* of the show function, or -ENOENT, -EACCES as its open gives */
	std::string text; /* what a reader gets */
};
/* Text files: both keep the object's directory from going, as its removal waits for them. */
SysfsText sysfs_show(const std::string &path);
long sysfs_store(const std::string &path, const std::string &text);
/* One read of a binary file, at most a page: what its function returned; -ENOENT without one. */
long sysfs_read(const std::string &path, std::span<char> buffer, long long offset = 0);

/* --- Disks -------------------------------------------------------------------------------- */

struct PartitionSpec {
	ka_sector_t start, sectors;
};

struct DiskSpec {
	std::string name = "sda";
	unsigned int major = 8;
	unsigned int minor = 0; /* its partitions follow it */
	ka_sector_t sectors = 1 << 20;
	std::vector<PartitionSpec> partitions = {};
	bool removable = false;
	bool mounted = false;   /* a freeze finds a super block */
	bool in_set = true;     /* else only its parent is in the set of all devices */
	bool bare = false;      /* its block devices have no gendisk */
	bool no_ioctls = false; /* its table has no ioctl entries */
};

/* What became of a bio. */
struct Submitted {
	int result; /* of the make-request function */
	bool taken; /* by that function; else the bio went to the disk itself afterwards */
	int error;  /* with which it ended */
};

/* An ioctl that reached the disk's own driver. */
struct NativeIoctl {
	ka_ioctl_entry entry;
	ka_dev_t dev;
	unsigned int mode, cmd;
	unsigned long arg;
};

/* What a disk's own driver answers to every ioctl. */
constexpr int native_ioctl_result = 4711;

/* A handle on a disk; valid until the next boot, also when the disk is gone. */
class Disk
{
public:
	explicit Disk(gendisk *disk) : disk_(disk)
	{
	}

	ka_dev_t dev(int partition = 0) const;
	gendisk *get() const
	{
		return disk_;
	}
	request_queue *queue() const;

	/* Through the queue's make-request function. A partition's bio is remapped to the disk. */
	Submitted submit(ka_bio &bio, int partition = 0) const;
	Submitted write(ka_sector_t sector, uint64_t bytes, int partition = 0) const;
	/* What the disk's own make-request function does; by default it ends the bio, returns 0. */
	void lower_driver(std::function<int(ka_bio &)> function) const;
	uint64_t native_bios() const;

	/* As a process does on an open device, through the table that the disk has now. */
	int ioctl(unsigned int cmd, unsigned long arg, int partition = 0,
		  ka_ioctl_entry entry = KA_IOCTL) const;
	/* An ioctl that reaches the disk's own driver is recorded there. */
	std::vector<NativeIoctl> native_ioctls() const;
	/* Replaces the disk's table; null is possible. */
	void set_fops(const ka_block_device_operations *fops) const;
	const ka_block_device_operations *native_fops() const;
	ka_make_request_fn *native_make_request() const;

	/* A new place and length, without an event. */
	void resize(ka_sector_t start, ka_sector_t sectors, int partition = 0) const;
	/* Raises the event on the disk's device. The result of the set's uevent operation. */
	int raise(const std::string &action, int partition = 0) const;
	/* Unplugs: no longer found by number or in the set; "remove" for each of its devices. */
	void remove() const;

private:
	gendisk *disk_;
};

/* Plugs a disk: its devices enter the set, with an "add" event each. */
Disk add_disk(const DiskSpec &spec = {});
/* What was done to block devices, as "freeze 8:0": open, put, fsync, freeze, thaw, hook, fops. */
std::vector<std::string> take_block_calls();

/* What a temporary disk of the driver's answered when it was added. */
struct Probe {
	int requests, chunks, error;
	ka_disk_geometry geometry;
};
std::vector<Probe> probes();
/* Disks of the driver's do not enter the set of all devices. */
void keep_new_disks_out_of_set();

/* --- Disks of the driver's, as processes use them ------------------------------------------ */

/* Whoever adds a disk waits until its first page was read, or that failed. */
std::vector<std::string> added_disks();

/*
 * A bio in a request. It lies in pages that are no neighbours, of which the first may be entered at
 * an offset. Nobody checks it against the disk's capacity.
 */
struct BioSpec {
	ka_sector_t sector;
	unsigned int bytes;
	unsigned int offset = 0;
	bool write = false;
};

/* A handle on a request; valid until the next boot. */
class Request
{
public:
	explicit Request(request *request) : request_(request)
	{
	}

	bool has_ended() const;
	/* The error with which it ended. */
	int wait() const;
	/* What is in the pages of a bio; at first, bytes 0x5a. */
	std::vector<char> data(size_t bio = 0) const;

private:
	request *request_;
};

/* A disk that is added, opened by a process. */
class OpenDisk
{
public:
	explicit OpenDisk(const std::string &name); /* throws std::runtime_error without one */
	~OpenDisk();
	OpenDisk(const OpenDisk &) = delete;
	OpenDisk &operator=(const OpenDisk &) = delete;

	ka_disk_geometry geometry() const;
	ka_dev_t dev() const;
	ka_sector_t capacity() const;
	int minors() const;
	bool is_stopped() const; /* its queue */
	/*
	 * Hands the request to the queue and goes on; waits while the queue has as many as it
	 * takes. After the disk was deleted, it ends at once with -ENXIO. fs: no command to the
	 * device.
	 */
	Request submit(const std::vector<BioSpec> &bios, bool fs = true) const;

private:
	gendisk *disk_;
	int error_;
};

/* --- Processes ------------------------------------------------------------------------------ */

/* Names of the driver's kernel threads. */
std::vector<std::string> threads();
/* Sockets that never were connected, which are meant to stay. */
int forget_sockets();

/*
 * A mapping of the process's, whose end unmaps it. Other memory counts as no mapping. An access
 * faults but for where a page is shown.
 */
class ProcessMapping
{
public:
	explicit ProcessMapping(size_t bytes);
	~ProcessMapping();
	ProcessMapping(const ProcessMapping &) = delete;
	ProcessMapping &operator=(const ProcessMapping &) = delete;

	void *address(size_t offset = 0) const;
	void unmap(size_t offset = 0, size_t bytes = SIZE_MAX);
	void split(size_t offset); /* in two, as protecting a part does */
	void set_private_data(const void *data);
	bool is_shown(size_t offset) const;

private:
	unsigned long start_;
	size_t size_;
};
/* In all mappings. */
size_t shown_pages();

/* --- The set of all devices --------------------------------------------------------------- */

/* The block device of the root file system; null: it has none, as at boot. */
void set_root(const Disk *disk);
/* Raises an event with these variables for a device that is no block device. */
int raise_other(const std::vector<std::string> &variables);
kset *devices();
/* The table that the set has at boot; its operations count their calls. */
const ka_kset_uevent_ops *native_uevent_ops();
struct UeventCalls {
	int filter, name, uevent;
};
UeventCalls uevent_calls();
/* What the boot table's uevent operation returns. */
void set_native_uevent_result(int result);
/* Stores unconditionally, as somebody else would; null is possible. */
void set_uevent_ops(const ka_kset_uevent_ops *ops);

/* --- Nodes of misc devices ---------------------------------------------------------------- */

bool node_exists(const std::string &path);

class OpenNode
{
public:
	explicit OpenNode(const std::string &path); /* throws std::runtime_error without a node */
	~OpenNode();
	OpenNode(const OpenNode &) = delete;
	OpenNode &operator=(const OpenNode &) = delete;

	/* Of the open, or 0. Nothing else may be asked of a node that was not opened. */
	int error() const;
	/* Whether its table of operations is one of the driver's. */
	bool is_hooked() const;
	long ioctl(unsigned int cmd, unsigned long arg) const;
	long compat_ioctl(unsigned int cmd, unsigned long arg) const;

private:
	struct file *file_;
};

/* What the device-mapper answers to an ioctl of its control device, which exists from the boot on.
 * By default 0. */
void set_dm_answer(std::function<long(unsigned int cmd, unsigned long arg)> answer);
/* Later opens of the control device find another driver behind it, which answers 0. */
void replace_dm_driver();
struct DmCalls {
	int opens, ioctls, releases;
};
DmCalls dm_calls();

/* The table that opens of misc devices start with; null stores the kernel's own. */
const ka_file_operations *misc_operations();
void set_misc_operations(const ka_file_operations *ops);
/* How many files are open, which are meant to stay so. */
int forget_open_files();

/* --- Generic netlink ---------------------------------------------------------------------- */

using Bytes = std::vector<unsigned char>;

struct GenlRequest {
	uint8_t cmd;
	std::map<int, Bytes> attributes = {};
	uint32_t port = 4242;
	uint32_t seq = 17;
	std::string family = "zorvat-control";
};

/* A message that the sender got: a reply, or an acknowledgement. */
struct GenlMessage {
	bool ack;
	int error; /* of an acknowledgement */
	uint16_t family;
	uint32_t port, seq;
	uint8_t cmd, version;
	std::map<int, Bytes> attributes;
	size_t capacity; /* of the buffer that it came in */
};

/*
 * Sends with the calling thread's capability and returns all answers in their order. The netlink
 * core's own acknowledgement of an error is among them. An unknown family answers -ENOENT.
 */
std::vector<GenlMessage> genl_send(const GenlRequest &request);

template <typename T> Bytes bytes_of(const T &record)
{
	auto begin = reinterpret_cast<const unsigned char *>(&record);
	return Bytes(begin, begin + sizeof(record));
}

} // namespace model

#endif
