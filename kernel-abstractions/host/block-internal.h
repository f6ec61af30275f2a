/* SPDX-License-Identifier: GPL-2.0 */
/* The block layer's objects, of disks that a test plugs (block.cc) and of the driver's (disk.cc).
 */
#ifndef MODEL_BLOCK_INTERNAL_H
#define MODEL_BLOCK_INTERNAL_H

#include <condition_variable>
#include <deque>
#include <list>
#include <mutex>

#include "internal.h"
#include "kernel-abstractions/sync.h"

struct super_block {
	ka_dev_t dev;
};

struct block_device {
	gendisk *disk;
	device *dev;
	int partno;
	std::atomic<ka_sector_t> start, sectors;
	std::atomic<int> opens{0}, freezes{0};
	super_block super{0};
};

struct bio {
	struct request *request;
	ka_bio_extent extent;
	std::vector<unsigned long> pages; /* page frames */
	bio *next = nullptr;
};

/* Lives until the next boot, so that a driver that uses it after its end is found out. */
struct request {
	enum class State {
		waiting,
		fetched,
		ended
	};

	bool fs = true;
	std::list<bio> bios = {};
	request_queue *queue = nullptr;
	int chunks = 1;
	/* Under the queue's lock. */
	std::atomic<State> state{State::waiting};
	int error = 0;
};

struct request_queue {
	std::atomic<ka_make_request_fn *> make_request;
	std::atomic<int> references{0}; /* those that were asked for */
	gendisk *disk = nullptr;
	/* Of a queue of the driver's. */
	ka_request_fn *request_fn = nullptr;
	ka_disk_owner *owner = nullptr;
	unsigned int depth = 0;
	ka_spinlock own_lock;
	ka_spinlock *lock = nullptr;
	/* Under that lock. */
	std::deque<request *> waiting;
	bool stopped = false;
	/* Requests that were submitted and have not ended; under the block layer's lock. */
	unsigned int unfinished = 0;
};

struct gendisk {
	model::DiskSpec spec;
	request_queue *queue;
	std::atomic<const ka_block_device_operations *> fops{nullptr};
	ka_block_device_operations native_fops;
	std::list<block_device> devices; /* the whole disk first */
	std::atomic<bool> live{false};
	std::function<int(ka_bio &)> lower;
	std::atomic<uint64_t> bios{0};
	std::mutex lock;
	std::vector<model::NativeIoctl> ioctls;
	/* Of a disk of the driver's. */
	bool own = false;
	bool replaced = false; /* by a fresh one; goes with its last user */
	int minors = 0;
	bool read_only = false;
	ka_disk_owner *owner = nullptr;
};

namespace model
{

struct Block {
	std::mutex lock;
	std::condition_variable request_ended;
	std::list<gendisk> disks;
	std::list<request_queue> queues;
	std::list<request> requests;
	std::map<unsigned int, std::string> majors;
	block_device *root = nullptr;
	std::vector<std::string> calls;
	std::vector<Probe> probes;
	bool new_disks_without_set = false;
};

Block &block();
block_device &whole(const gendisk *disk);
/* Gives a disk the table and make-request function of its own driver. */
void make_native(gendisk &disk);
/* With the block layer's lock. */
void add_block_device(gendisk &disk, device *parent, ka_sector_t start, ka_sector_t sectors);
/* Enters and leaves the set of all devices. */
void announce(gendisk &disk);
void withdraw(gendisk &disk);
/* What a disk's owner does when somebody opens or closes it; opens is counted before. */
int open_own(gendisk *disk);
void release_own(gendisk *disk);
void report_requests(Report &report);

} // namespace model

#endif
