// SPDX-License-Identifier: GPL-2.0
/*
 * Disks, partitions, queues and bios. A disk's make-request function and its table of operations
 * are two independent pointers, as on the 2.6.32 kernel.
 */
#include "kernel-abstractions/block.h"

#include "block-internal.h"

namespace model
{
namespace
{

constexpr int enotty = 25;

struct Fops {
	const void *owner;
	const void *open;
	ka_bdev_ioctl_fn *entries[KA_IOCTL_ENTRIES];
};

void note(const char *call, const block_device *bdev)
{
	std::lock_guard guard(block().lock);
	block().calls.push_back(std::string(call) + " " + dev_name(bdev->dev->devt));
}

block_device &part(const gendisk *disk, int partition)
{
	return *std::next(const_cast<gendisk *>(disk)->devices.begin(), partition);
}

int native_make_request(request_queue *queue, ka_bio *bio)
{
	gendisk &disk = *queue->disk;
	disk.bios.fetch_add(1, std::memory_order_relaxed);
	if (disk.lower)
		return disk.lower(*bio);
	bio->ended = true;
	return 0;
}

template <ka_ioctl_entry entry>
int native_ioctl(block_device *bdev, unsigned int mode, unsigned int cmd, unsigned long arg)
{
	std::lock_guard guard(bdev->disk->lock);
	bdev->disk->ioctls.push_back({entry, bdev->dev->devt, mode, cmd, arg});
	return native_ioctl_result;
}

bool fits(const block_device &bdev, const ka_bio &bio)
{
	ka_sector_t length = bio.bytes / 512 + (bio.bytes % 512 != 0);
	ka_sector_t end = bdev.sectors.load(std::memory_order_relaxed);
	return length <= end && bio.sector <= end - length;
}

void report_disk(Report &report, gendisk &disk)
{
	for (auto &bdev : disk.devices) {
		if (bdev.opens != 0)
			report.push_back(bdev.dev->name + ": open");
		if (bdev.freezes != 0)
			report.push_back(bdev.dev->name + ": frozen");
	}
	if (disk.own)
		report.push_back("disk " + disk.spec.name);
	else if (disk.live && in_module(reinterpret_cast<void *>(disk.queue->make_request.load())))
		report.push_back(disk.spec.name + ": its queue points at the module");
	if (disk.live && !disk.own && disk.fops != &disk.native_fops && disk.fops &&
	    in_module(reinterpret_cast<void *>(in<Fops>(disk.fops.load()).entries[KA_IOCTL])))
		report.push_back(disk.spec.name + ": its table points at the module");
}

} // namespace

Block &block()
{
	static Block instance;
	return instance;
}

block_device &whole(const gendisk *disk)
{
	return const_cast<gendisk *>(disk)->devices.front();
}

void make_native(gendisk &disk)
{
	disk.queue->make_request = native_make_request;
	new (disk.native_fops.storage) Fops{&disk, &disk, {}};
	disk.fops = &disk.native_fops;
}

void add_block_device(gendisk &disk, device *parent, ka_sector_t start, ka_sector_t sectors)
{
	int partno = static_cast<int>(disk.devices.size());
	ka_dev_t dev = ka_mkdev(disk.spec.major, disk.spec.minor + partno);
	std::string name = disk.spec.name + (partno ? std::to_string(partno) : "");
	auto &bdev = disk.devices.emplace_back();
	bdev.disk = &disk;
	bdev.dev = new_device(name, dev, block_class(), parent, disk.spec.in_set);
	bdev.partno = partno;
	bdev.start = start;
	bdev.sectors = sectors;
	bdev.super.dev = dev;
}

void announce(gendisk &disk)
{
	disk.live = true;
	for (auto &bdev : disk.devices)
		device_add(bdev.dev);
}

void withdraw(gendisk &disk)
{
	disk.live = false;
	for (auto bdev = disk.devices.rbegin(); bdev != disk.devices.rend(); ++bdev)
		device_del(bdev->dev);
}

Disk add_disk(const DiskSpec &spec)
{
	auto *parent = new_device("host", 0, nullptr, nullptr, true);
	parent->added = true;
	std::unique_lock guard(block().lock);
	auto &disk = block().disks.emplace_back();
	disk.spec = spec;
	disk.queue = &block().queues.emplace_back();
	disk.queue->disk = &disk;
	make_native(disk);
	if (!spec.no_ioctls) {
		auto &fops = in<Fops>(&disk.native_fops);
		fops.entries[KA_IOCTL] = native_ioctl<KA_IOCTL>;
		fops.entries[KA_LOCKED_IOCTL] = native_ioctl<KA_LOCKED_IOCTL>;
		fops.entries[KA_COMPAT_IOCTL] = native_ioctl<KA_COMPAT_IOCTL>;
	}
	add_block_device(disk, parent, 0, spec.sectors);
	for (auto &partition : spec.partitions)
		add_block_device(disk, whole(&disk).dev, partition.start, partition.sectors);
	guard.unlock();
	announce(disk);
	return Disk(&disk);
}

ka_dev_t Disk::dev(int partition) const
{
	return part(disk_, partition).dev->devt;
}

request_queue *Disk::queue() const
{
	return disk_->queue;
}

Submitted Disk::submit(ka_bio &bio, int partition) const
{
	block_device &bdev = part(disk_, partition);
	bio.dev = whole(disk_).dev->devt;
	bio.ended = false;
	bio.error = 0;
	if (!fits(bdev, bio)) {
		bio.error = -KA_EIO;
		return {-KA_EIO, false, bio.error};
	}
	bio.sector += bdev.start.load(std::memory_order_relaxed);
	auto *function = disk_->queue->make_request.load(std::memory_order_acquire);
	int result = function(disk_->queue, &bio);
	bool taken = bio.ended;
	if (!taken)
		bio.error = model::native_make_request(disk_->queue, &bio);
	return {result, taken, bio.error};
}

Submitted Disk::write(ka_sector_t sector, uint64_t bytes, int partition) const
{
	ka_bio bio{.sector = sector, .bytes = bytes};
	return submit(bio, partition);
}

void Disk::lower_driver(std::function<int(ka_bio &)> function) const
{
	disk_->lower = std::move(function);
}

uint64_t Disk::native_bios() const
{
	return disk_->bios;
}

int Disk::ioctl(unsigned int cmd, unsigned long arg, int partition, ka_ioctl_entry entry) const
{
	/* A kernel is not preempted between the pointer and the entry. */
	ka_rcu_read_lock_sched();
	const Fops fops = in<Fops>(disk_->fops.load(std::memory_order_acquire));
	ka_rcu_read_unlock_sched();
	if (fops.owner != disk_ || fops.open != disk_)
		throw Bug("ioctl: the table lost its other entries");
	if (!fops.entries[entry])
		return -enotty;
	CallIntoDriver call("a block device's ioctl");
	return fops.entries[entry](&part(disk_, partition), KA_FMODE_READ, cmd, arg);
}

std::vector<NativeIoctl> Disk::native_ioctls() const
{
	std::lock_guard guard(disk_->lock);
	return disk_->ioctls;
}

void Disk::set_fops(const ka_block_device_operations *fops) const
{
	disk_->fops = fops;
}

const ka_block_device_operations *Disk::native_fops() const
{
	return &disk_->native_fops;
}

ka_make_request_fn *Disk::native_make_request() const
{
	return model::native_make_request;
}

void Disk::resize(ka_sector_t start, ka_sector_t sectors, int partition) const
{
	part(disk_, partition).start = start;
	part(disk_, partition).sectors = sectors;
}

int Disk::raise(const std::string &action, int partition) const
{
	return raise_uevent(part(disk_, partition).dev, action);
}

void Disk::remove() const
{
	withdraw(*disk_);
}

std::vector<std::string> take_block_calls()
{
	std::lock_guard guard(block().lock);
	return std::exchange(block().calls, {});
}

void set_root(const Disk *disk)
{
	block().root = disk ? &whole(disk->get()) : nullptr;
}

void reset_block()
{
	auto &b = block();
	b.disks.clear();
	b.queues.clear();
	b.requests.clear();
	b.majors.clear();
	b.root = nullptr;
	b.calls.clear();
	b.probes.clear();
	b.new_disks_without_set = false;
}

void report_block(Report &report)
{
	auto &b = block();
	std::lock_guard guard(b.lock);
	for (auto &disk : b.disks)
		report_disk(report, disk);
	for (auto &queue : b.queues) {
		if (queue.request_fn)
			report.push_back("a request queue");
		if (queue.references != 0)
			report.push_back("references on a queue");
	}
	report_requests(report);
	for (auto &[major, name] : b.majors)
		report.push_back("block major of " + name);
}

} // namespace model

using namespace model;

block_device *ka_open_by_devnum(ka_dev_t dev, unsigned int)
{
	might_sleep("ka_open_by_devnum");
	if (long error = injected("ka_open_by_devnum", -KA_ENXIO))
		return static_cast<block_device *>(ka_err_ptr(error));
	make_room();
	std::unique_lock guard(block().lock);
	for (auto &disk : block().disks) {
		for (auto &bdev : disk.devices) {
			if (!disk.live || bdev.dev->devt != dev)
				continue;
			bdev.opens++;
			guard.unlock();
			note("open", &bdev);
			const int error = disk.own ? open_own(&disk) : 0;
			return error ? static_cast<block_device *>(ka_err_ptr(error)) : &bdev;
		}
	}
	return static_cast<block_device *>(ka_err_ptr(-KA_ENXIO));
}

int ka_lookup_bdev(const char *path, ka_dev_t *dev)
{
	might_sleep("ka_lookup_bdev");
	if (long error = injected("ka_lookup_bdev", -KA_ENOENT))
		return static_cast<int>(error);
	std::lock_guard guard(block().lock);
	for (auto &disk : block().disks) {
		for (auto &bdev : disk.devices) {
			if (!disk.live || path != "/dev/" + bdev.dev->name)
				continue;
			*dev = bdev.dev->devt;
			return 0;
		}
	}
	return -KA_ENOENT;
}

void ka_blkdev_put(block_device *bdev, unsigned int)
{
	note("put", bdev);
	if (bdev->disk->owner)
		return release_own(bdev->disk);
	if (--bdev->opens < 0)
		violation("ka_blkdev_put: not open");
}

int ka_fsync_bdev(block_device *bdev)
{
	might_sleep("ka_fsync_bdev");
	note("fsync", bdev);
	return static_cast<int>(injected("ka_fsync_bdev", -KA_EIO));
}

super_block *ka_freeze_bdev(block_device *bdev)
{
	might_sleep("ka_freeze_bdev");
	note("freeze", bdev);
	if (long error = injected("ka_freeze_bdev", -KA_EBUSY))
		return static_cast<super_block *>(ka_err_ptr(error));
	bdev->freezes++;
	return bdev->disk->spec.mounted ? &bdev->super : nullptr;
}

int ka_thaw_bdev(block_device *bdev, super_block *frozen)
{
	note("thaw", bdev);
	if (ka_is_err(frozen))
		return 0;
	if (frozen != (bdev->disk->spec.mounted ? &bdev->super : nullptr))
		violation("ka_thaw_bdev: not what the freeze returned");
	if (--bdev->freezes < 0)
		violation("ka_thaw_bdev: not frozen");
	return 0;
}

ka_dev_t ka_bdev_dev(block_device *bdev)
{
	return bdev->dev->devt;
}

gendisk *ka_bdev_disk(block_device *bdev)
{
	return bdev->disk->spec.bare ? nullptr : bdev->disk;
}

request_queue *ka_bdev_queue(block_device *bdev)
{
	return bdev->disk->queue;
}

request_queue *ka_get_queue(request_queue *queue)
{
	if (injected("ka_get_queue", -KA_ENXIO) || !queue->disk->live)
		return nullptr;
	queue->references++;
	return queue;
}

void ka_put_queue(request_queue *queue)
{
	might_sleep("ka_put_queue");
	if (queue && queue->references-- == 0)
		violation("ka_put_queue: not referenced");
}

ka_dev_t ka_bdev_whole_dev(block_device *bdev)
{
	return whole(bdev->disk).dev->devt;
}

ka_sector_t ka_bdev_start(block_device *bdev)
{
	return bdev->start;
}

ka_sector_t ka_bdev_sectors(block_device *bdev)
{
	return bdev->sectors;
}

int ka_bdev_partno(block_device *bdev)
{
	return bdev->partno;
}

void ka_bdevname(block_device *bdev, char name[KA_BDEVNAME_SIZE])
{
	snprintf(name, KA_BDEVNAME_SIZE, "%s", bdev->dev->name.c_str());
}

int ka_disk_is_removable(gendisk *disk)
{
	return disk->spec.removable;
}

ka_dev_t ka_bio_dev(const ka_bio *bio)
{
	return bio->dev;
}

int ka_bio_is_write(const ka_bio *bio)
{
	return bio->write;
}

ka_sector_t ka_bio_sector(const ka_bio *bio)
{
	return bio->sector;
}

unsigned int ka_bio_segments(const ka_bio *bio)
{
	return static_cast<unsigned int>(bio->segments.size());
}

uint64_t ka_bio_segment_bytes(const ka_bio *bio)
{
	if (bio->current >= bio->segments.size())
		throw Bug("ka_bio_segment_bytes: no such segment");
	return bio->segments[bio->current];
}

uint64_t ka_bio_bytes(const ka_bio *bio)
{
	return bio->bytes;
}

ka_make_request_fn *ka_queue_make_request(request_queue *queue)
{
	return queue->make_request.load(std::memory_order_acquire);
}

ka_make_request_fn *ka_queue_cmpxchg_make_request(request_queue *queue, ka_make_request_fn *from,
						  ka_make_request_fn *to)
{
	injected("ka_queue_cmpxchg_make_request", 0);
	note("hook", &whole(queue->disk));
	queue->make_request.compare_exchange_strong(from, to, std::memory_order_acq_rel);
	return from;
}

void ka_queue_set_make_request(request_queue *queue, ka_make_request_fn *function)
{
	note("hook", &whole(queue->disk));
	queue->make_request.store(function, std::memory_order_release);
}

void ka_queue_drain_make_request(request_queue *)
{
	might_sleep("ka_queue_drain_make_request");
}

const ka_block_device_operations *ka_disk_fops(gendisk *disk)
{
	return disk->fops.load(std::memory_order_acquire);
}

const ka_block_device_operations *ka_disk_cmpxchg_fops(gendisk *disk,
						       const ka_block_device_operations *from,
						       const ka_block_device_operations *to)
{
	injected("ka_disk_cmpxchg_fops", 0);
	note("fops", &whole(disk));
	disk->fops.compare_exchange_strong(from, to, std::memory_order_acq_rel);
	return from;
}

void ka_fops_copy_with_ioctls(ka_block_device_operations *to,
			      const ka_block_device_operations *from,
			      ka_bdev_ioctl_fn *const entries[KA_IOCTL_ENTRIES])
{
	auto *fops = new (to->storage) Fops(in<Fops>(from));
	std::copy_n(entries, KA_IOCTL_ENTRIES, fops->entries);
}

int ka_fops_call_ioctl(const ka_block_device_operations *fops, ka_ioctl_entry entry,
		       block_device *bdev, unsigned int mode, unsigned int cmd, unsigned long arg)
{
	ka_bdev_ioctl_fn *function = in<Fops>(fops).entries[entry];
	return function ? function(bdev, mode, cmd, arg) : -KA_ENOIOCTLCMD;
}

device *ka_disk_device(gendisk *disk)
{
	return whole(disk).dev;
}

device *ka_bdev_disk_device(block_device *bdev)
{
	return ka_disk_device(ka_bdev_disk(bdev));
}

int ka_path_super_bdev(const char *path, block_device **bdev)
{
	might_sleep("ka_path_super_bdev");
	if (long error = injected("ka_path_super_bdev", -KA_ENOENT))
		return static_cast<int>(error);
	if (std::string(path) != "/")
		return -KA_ENOENT;
	*bdev = block().root;
	return 0;
}
