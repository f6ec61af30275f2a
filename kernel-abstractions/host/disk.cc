// SPDX-License-Identifier: GPL-2.0
/* Disks of the driver's own: queues that serve requests, and the processes that read from them. */
#include <algorithm>

#include "block-internal.h"
#include "kernel-abstractions/log.h"

namespace model
{
namespace
{

constexpr unsigned int first_dynamic_major = 250;
constexpr unsigned int page_size = 4096;

class QueueLock
{
public:
	explicit QueueLock(const request_queue &queue)
	    : lock_(queue.lock), flags_(ka_spin_lock_irqsave(lock_))
	{
	}
	~QueueLock()
	{
		ka_spin_unlock_irqrestore(lock_, flags_);
	}
	QueueLock(const QueueLock &) = delete;
	QueueLock &operator=(const QueueLock &) = delete;

private:
	ka_spinlock *lock_;
	unsigned long flags_;
};

void require_lock(const request_queue *queue, const char *call)
{
	if (!is_held(queue->lock))
		throw Bug(printed("%s: without the queue's lock", call));
}

void run(request_queue &queue)
{
	if (queue.stopped || queue.waiting.empty())
		return;
	CallIntoDriver call("a request function");
	queue.request_fn(&queue);
}

/* The request, which is the driver's. */
template <typename T> T &checked(T *request, const char *call)
{
	if (request->state != request::State::fetched)
		throw Bug(printed("%s: the request is not the driver's", call));
	return *request;
}

void end(request &request, int error)
{
	std::lock_guard guard(block().lock);
	request.error = error;
	request.state = request::State::ended;
	request.queue->unfinished--;
	block().request_ended.notify_all();
}

using Locked = std::unique_lock<std::mutex>;

void wait_for_requests(Locked &lock, const char *call, const std::function<bool()> &condition)
{
	if (!block().request_ended.wait_for(lock, hang, condition))
		throw Bug(printed("%s: hung", call));
}

void add_bio(request &request, const BioSpec &spec)
{
	auto &bio = request.bios.emplace_back();
	bio.request = &request;
	bio.extent = {spec.sector, spec.bytes, spec.write, spec.offset};
	for (uint64_t at = 0; at < spec.offset + spec.bytes; at += page_size)
		bio.pages.push_back(new_page());
	if (request.bios.size() > 1)
		std::prev(request.bios.end(), 2)->next = &bio;
}

/* Not yet submitted. */
request &new_request(const std::vector<BioSpec> &bios, bool fs)
{
	std::lock_guard guard(block().lock);
	auto &request = block().requests.emplace_back();
	request.fs = fs;
	for (auto &spec : bios)
		add_bio(request, spec);
	return request;
}

/* Waits while as many are under way as the queue takes; whether the disk is there. */
bool account(request &request, const gendisk &disk)
{
	Locked lock(block().lock);
	wait_for_requests(lock, "submit",
			  [&] { return !disk.live || disk.queue->unfinished < disk.queue->depth; });
	if (!disk.live)
		return false;
	request.queue = disk.queue;
	disk.queue->unfinished++;
	return true;
}

void submit(request &request, const gendisk &disk)
{
	if (!account(request, disk)) {
		request.error = -KA_ENXIO;
		request.state = request::State::ended;
		return;
	}
	QueueLock lock(*disk.queue);
	disk.queue->waiting.push_back(&request);
	run(*disk.queue);
}

int wait_for(const request &request)
{
	Locked lock(block().lock);
	wait_for_requests(lock, "a request",
			  [&] { return request.state == request::State::ended; });
	return request.error;
}

/* Reads the begin of a new disk, which is open, and asks for its geometry, as others do. */
void probe(gendisk &disk)
{
	Probe result{.requests = 0, .chunks = 2, .error = 0, .geometry = {1, 1, 1, 1}};
	std::vector<BioSpec> bios;
	if (disk.spec.sectors >= page_size / 512)
		bios.push_back({.sector = 0, .bytes = page_size});
	request &read = new_request(bios, true);
	read.chunks = result.chunks;
	submit(read, disk);
	if (read.state != request::State::waiting || disk.queue->stopped) {
		result.error = wait_for(read);
		result.requests = 1;
	}
	result.chunks -= read.chunks;
	if (disk.owner->operations->getgeo)
		disk.owner->operations->getgeo(disk.owner, &result.geometry);
	std::lock_guard guard(block().lock);
	block().probes.push_back(result);
}

/* The list's node is what goes: the caller has the block layer's lock. */
void discard(gendisk *disk)
{
	block().disks.remove_if([&](auto &other) { return &other == disk; });
}

/* A disk that was added before gets a successor, since it may still be in use. */
gendisk &successor(gendisk &old)
{
	std::lock_guard guard(block().lock);
	auto &fresh = block().disks.emplace_back();
	fresh.spec = old.spec;
	fresh.queue = old.queue;
	fresh.own = true;
	fresh.minors = old.minors;
	fresh.read_only = old.read_only;
	fresh.owner = old.owner;
	make_native(fresh);
	old.own = false;
	old.replaced = true;
	if (whole(&old).opens == 0)
		discard(&old);
	return fresh;
}

/* One more opener of the disk, which did not call its open yet. */
gendisk &begin_open(const std::string &name)
{
	std::lock_guard guard(block().lock);
	for (auto &disk : block().disks) {
		if (!disk.own || !disk.live || disk.spec.name != name)
			continue;
		whole(&disk).opens++;
		return disk;
	}
	throw std::runtime_error("no disk " + name);
}

void end_open(gendisk *disk)
{
	std::lock_guard guard(block().lock);
	if (--whole(disk).opens < 0)
		violation("a disk is closed that is not open");
	if (whole(disk).opens == 0 && disk->replaced)
		discard(disk);
}

} // namespace

int open_own(gendisk *disk)
{
	CallIntoDriver call("a disk's open");
	auto *open = disk->owner->operations->open;
	const int error = open ? open(disk->owner) : 0;
	if (error != 0)
		end_open(disk);
	return error;
}

/* The owner may put the disk meanwhile. */
void release_own(gendisk *disk)
{
	CallIntoDriver call("a disk's release");
	ka_disk_owner *owner = disk->owner;
	end_open(disk);
	if (owner->operations->release)
		owner->operations->release(owner);
}

std::vector<Probe> probes()
{
	std::lock_guard guard(block().lock);
	return block().probes;
}

void keep_new_disks_out_of_set()
{
	block().new_disks_without_set = true;
}

std::vector<std::string> added_disks()
{
	std::lock_guard guard(block().lock);
	std::vector<std::string> names;
	for (auto &disk : block().disks)
		if (disk.own && disk.live)
			names.push_back(disk.spec.name);
	return names;
}

bool Request::has_ended() const
{
	return request_->state == request::State::ended;
}

int Request::wait() const
{
	return wait_for(*request_);
}

std::vector<char> Request::data(size_t number) const
{
	const auto &bio = *std::next(request_->bios.begin(), static_cast<ptrdiff_t>(number));
	std::vector<char> data;
	for (unsigned long pfn : bio.pages)
		data.insert(data.end(), page_bytes(pfn), page_bytes(pfn) + page_size);
	data.erase(data.begin(), data.begin() + bio.extent.offset);
	data.resize(bio.extent.bytes);
	return data;
}

OpenDisk::OpenDisk(const std::string &name) : disk_(&begin_open(name)), error_(open_own(disk_))
{
}

OpenDisk::~OpenDisk()
{
	if (error_ == 0)
		release_own(disk_);
}

ka_disk_geometry OpenDisk::geometry() const
{
	ka_disk_geometry geometry = {};
	if (disk_->owner->operations->getgeo(disk_->owner, &geometry) != 0)
		throw Bug("getgeo failed");
	return geometry;
}

ka_dev_t OpenDisk::dev() const
{
	return whole(disk_).dev->devt;
}

ka_sector_t OpenDisk::capacity() const
{
	return disk_->spec.sectors;
}

bool OpenDisk::is_stopped() const
{
	QueueLock lock(*disk_->queue);
	return disk_->queue->stopped;
}

int OpenDisk::minors() const
{
	return disk_->minors;
}

Request OpenDisk::submit(const std::vector<BioSpec> &bios, bool fs) const
{
	request &made = new_request(bios, fs);
	model::submit(made, *disk_);
	return Request(&made);
}

void report_requests(Report &report)
{
	for (auto &request : block().requests)
		if (request.queue && request.state != request::State::ended)
			report.emplace_back("a request has not ended");
}

} // namespace model

using namespace model;

request_queue *ka_blk_init_queue(ka_request_fn *function, ka_spinlock *lock, unsigned int depth,
				 ka_disk_owner *owner)
{
	might_sleep("ka_blk_init_queue");
	if (injected("ka_blk_init_queue", -KA_ENOMEM))
		return nullptr;
	std::lock_guard guard(block().lock);
	auto &queue = block().queues.emplace_back();
	queue.request_fn = function;
	queue.depth = depth;
	queue.owner = owner;
	ka_spin_lock_init(&queue.own_lock, "a queue's own");
	queue.lock = lock ? lock : &queue.own_lock;
	return &queue;
}

void ka_blk_cleanup_queue(request_queue *queue)
{
	might_sleep("ka_blk_cleanup_queue");
	std::lock_guard guard(block().lock);
	for (auto &disk : block().disks)
		if (disk.queue == queue && disk.live)
			violation("ka_blk_cleanup_queue: a disk uses it");
	if (queue->unfinished > 0)
		violation("ka_blk_cleanup_queue: requests are under way");
	block().queues.remove_if([&](auto &other) { return &other == queue; });
}

ka_disk_owner *ka_queue_owner(request_queue *queue)
{
	return queue->owner;
}

int ka_blk_queue_block_size(request_queue *, unsigned short logical, size_t physical)
{
	if (long error = injected("ka_blk_queue_block_size", -KA_EINVAL))
		return static_cast<int>(error);
	if (logical == physical && logical <= page_size && std::has_single_bit(logical))
		return 0;
	ka_printk(3, "block size %zu: not on this kernel\n", physical);
	return -KA_EINVAL;
}

request *ka_blk_fetch_request(request_queue *queue)
{
	require_lock(queue, "ka_blk_fetch_request");
	if (queue->stopped || queue->waiting.empty())
		return nullptr;
	request *next = queue->waiting.front();
	queue->waiting.pop_front();
	next->state = request::State::fetched;
	return next;
}

void ka_blk_requeue_request(request_queue *queue, request *request)
{
	require_lock(queue, "ka_blk_requeue_request");
	checked(request, "ka_blk_requeue_request").state = request::State::waiting;
	queue->waiting.push_front(request);
}

void ka_blk_stop_queue(request_queue *queue)
{
	require_lock(queue, "ka_blk_stop_queue");
	queue->stopped = true;
}

void ka_blk_start_queue(request_queue *queue)
{
	require_lock(queue, "ka_blk_start_queue");
	queue->stopped = false;
	run(*queue);
}

int ka_blk_end_request_cur(request *request, int error)
{
	require_lock(request->queue, "ka_blk_end_request_cur");
	if (--checked(request, "ka_blk_end_request_cur").chunks == 0)
		end(*request, error);
	return request->chunks;
}

void ka_blk_end_request_all(request *request, int error)
{
	require_lock(request->queue, "ka_blk_end_request_all");
	checked(request, "ka_blk_end_request_all").chunks = 0;
	end(*request, error);
}

int ka_request_is_fs(const request *request)
{
	return checked(request, "ka_request_is_fs").fs;
}

bio *ka_request_first_bio(request *request)
{
	auto &bios = checked(request, "ka_request_first_bio").bios;
	return bios.empty() ? nullptr : &bios.front();
}

bio *ka_request_next_bio(bio *bio)
{
	checked(bio->request, "ka_request_next_bio");
	return bio->next;
}

void ka_request_bio_extent(const bio *bio, ka_bio_extent *extent)
{
	checked(bio->request, "ka_request_bio_extent");
	*extent = bio->extent;
}

int ka_request_bio_for_each_page(bio *bio, int (*callback)(void *arg, unsigned long pfn), void *arg)
{
	checked(bio->request, "ka_request_bio_for_each_page");
	for (unsigned long pfn : bio->pages)
		if (int result = callback(arg, pfn))
			return result;
	return 0;
}

int ka_register_blkdev(const char *name)
{
	might_sleep("ka_register_blkdev");
	if (long error = injected("ka_register_blkdev", -KA_EBUSY))
		return static_cast<int>(error);
	std::lock_guard guard(block().lock);
	unsigned int major = first_dynamic_major;
	while (block().majors.contains(major))
		major--;
	block().majors[major] = name;
	return static_cast<int>(major);
}

void ka_unregister_blkdev(unsigned int major, const char *name)
{
	std::lock_guard guard(block().lock);
	auto found = block().majors.find(major);
	if (found == block().majors.end() || found->second != name)
		return violation("ka_unregister_blkdev: not registered");
	block().majors.erase(found);
}

gendisk *ka_alloc_disk(int minors, request_queue *queue)
{
	might_sleep("ka_alloc_disk");
	if (injected("ka_alloc_disk", -KA_ENOMEM))
		return nullptr;
	std::lock_guard guard(block().lock);
	auto &disk = block().disks.emplace_back();
	disk.own = true;
	disk.minors = minors;
	disk.queue = queue;
	make_native(disk);
	return &disk;
}

void ka_disk_describe(gendisk *disk, ka_disk_owner *owner, const ka_disk_description *description)
{
	disk->owner = owner;
	disk->spec.name = description->name;
	disk->spec.major = description->major;
	disk->spec.sectors = description->capacity;
	disk->read_only = description->read_only;
	if (disk->spec.name.size() > 31)
		throw Bug("ka_disk_describe: a name of more than 31 characters");
}

int ka_disk_is_read_only(const gendisk *disk)
{
	return disk->read_only;
}

int ka_add_disk(gendisk **disk)
{
	might_sleep("ka_add_disk");
	if (long error = injected("ka_add_disk", -KA_ENOMEM))
		return static_cast<int>(error);
	if ((*disk)->live)
		throw Bug("ka_add_disk: it is added");
	if (!(*disk)->devices.empty())
		*disk = &successor(**disk);
	{
		std::lock_guard guard(block().lock);
		(*disk)->spec.in_set = !block().new_disks_without_set;
		(*disk)->queue->disk = *disk;
		add_block_device(**disk, nullptr, 0, (*disk)->spec.sectors);
		whole(*disk).opens++;
	}
	announce(**disk);
	if (open_own(*disk) == 0) {
		probe(**disk);
		release_own(*disk);
	}
	return 0;
}

void ka_del_gendisk(gendisk *disk)
{
	might_sleep("ka_del_gendisk");
	{
		Locked lock(block().lock);
		if (!disk->live.exchange(false))
			return violation("ka_del_gendisk: not added");
		block().request_ended.notify_all(); /* for whoever wants to submit */
		wait_for_requests(lock, "ka_del_gendisk",
				  [&] { return disk->queue->unfinished == 0; });
	}
	withdraw(*disk);
}

void ka_put_disk(gendisk *disk)
{
	might_sleep("ka_put_disk");
	std::lock_guard guard(block().lock);
	if (disk->live)
		violation("ka_put_disk: still added");
	if (!disk->devices.empty() && whole(disk).opens > 0)
		violation("ka_put_disk: still open");
	discard(disk);
}
