// SPDX-License-Identifier: GPL-2.0
// Restore disks. The block layer's requests wait in a kfifo for the disk's service thread, which
// has one at a time answered by the server: per bio it shows the pages in the service area, sends a
// request header, waits for the reply and takes the pages away again.
#include "jorl-volume.h"

#include "../kernel-abstractions/memory.h"
#include "../kernel-abstractions/module.h"
#include "../kernel-abstractions/task.h"
#include "guards.h"
#include "jorl-manager.h"
#include "jorl-netlink.h"
#include "wt-logging.h"

static constexpr wt_log_group wt_group = WT_LOG_GROUP_JORL_VOLUME;

static constexpr size_t PAGE_BYTES = 4096;
static constexpr size_t MIN_SERVICE_AREA = 4194304;
static constexpr unsigned int KFIFO_BYTES = 8192;
static constexpr unsigned int KFIFO_ENTRY = sizeof(void *); // a request's address
static constexpr unsigned int QUEUE_DEPTH = 2048;           // more than the kfifo takes
static constexpr int DISK_MINORS = 16;

int jorl_volume_init()
{
	return 0;
}

int jorl_volume_cleanup()
{
	return 0;
}

// --- Records and names ---------------------------------------------------------------------------

static jorlvolume_info *volume_of(ka_disk_owner *owner)
{
	return reinterpret_cast<jorlvolume_info *>(
		reinterpret_cast<char *>(owner) -
		__builtin_offsetof(jorlvolume_info, dvi_disk_owner));
}

// A spinlock held with interrupts off.
class SpinLockIrq
{
public:
	explicit SpinLockIrq(ka_spinlock &lock) : lock(lock), flags(ka_spin_lock_irqsave(&lock))
	{
	}
	~SpinLockIrq()
	{
		ka_spin_unlock_irqrestore(&lock, flags);
	}
	SpinLockIrq(const SpinLockIrq &) = delete;
	SpinLockIrq &operator=(const SpinLockIrq &) = delete;

private:
	ka_spinlock &lock;
	unsigned long flags;
};

// --- Operations of the block device --------------------------------------------------------------

extern "C" {

static int jorl_volume_open(ka_disk_owner *owner)
{
	jorlvolume_info_get(volume_of(owner));
	return 0;
}

static int jorl_volume_release(ka_disk_owner *owner)
{
	jorlvolume_info_put(volume_of(owner));
	return 0;
}

static int jorl_volume_getgeo(ka_disk_owner *owner, ka_disk_geometry *geometry)
{
	const jorlvolume_info *volume = volume_of(owner);
	const uint64_t sectors = (volume->dvi_block_size >> 9) * volume->dvi_sectors;
	geometry->heads = 4;
	geometry->sectors = 16;
	geometry->start = 0;
	geometry->cylinders = static_cast<unsigned short>(sectors / 64);
	return 0;
}

// With the queue's lock held.
static void jorl_volume_request_fn(request_queue *queue)
{
	jorlvolume_info *volume = volume_of(ka_queue_owner(queue));
	while (request *pending = ka_blk_fetch_request(queue)) {
		// A stopped disk has nobody who would serve it.
		if (!ka_request_is_fs(pending) || !volume->dvi_is_serving) {
			ka_blk_end_request_all(pending, -KA_EIO);
			continue;
		}
		if (ka_kfifo_put(volume->dvi_kfifo, &pending, KFIFO_ENTRY) < KFIFO_ENTRY) {
			ka_blk_requeue_request(queue, pending);
			ka_blk_stop_queue(queue); // the thread starts it again
			break;
		}
	}
	ka_wake_up(&volume->dvi_service_waitqueue);
}

} // extern "C"

static constexpr ka_disk_operations jorl_volume_ops = {jorl_volume_open, jorl_volume_release,
						       jorl_volume_getgeo};

// --- The service thread --------------------------------------------------------------------------

namespace
{

// One bio on its way through the server.
struct Transfer {
	jorlvolume_info *volume;
	size_t mapped; // bytes of the service area that show pages
};

} // namespace

extern "C" {

static int map_page(void *arg, unsigned long pfn)
{
	auto *transfer = static_cast<Transfer *>(arg);
	ka_cond_resched();
	int err = ka_mapping_show_page(&transfer->volume->dvi_servicearea, transfer->mapped, pfn);
	if (err == 0)
		transfer->mapped += PAGE_BYTES;
	else
		WT_ERROR("[Disk-%s] Unable to map kernel page %p to address process adress space "
			 "%p. Error(%ld)\n",
			 transfer->volume->dvi_name, reinterpret_cast<void *>(pfn),
			 reinterpret_cast<void *>(
				 ka_mapping_start(&transfer->volume->dvi_servicearea) +
				 transfer->mapped),
			 static_cast<long>(err));
	return err;
}

} // extern "C"

// What the answer in the message means. A receive that failed leaves the request in it, whose
// positive count of blocks reads as success; so does a reply that was cut short.
static int reply_outcome(const jorlvolume_info *volume, const wt_netlinkmsg_hdr &message,
			 int received)
{
	// Unsigned: an error is more than enough.
	if (static_cast<unsigned int>(received) < sizeof(message)) {
		WT_INFO("[Disk-%s] Error %ld returned for socket io request\n", volume->dvi_name,
			static_cast<long>(received));
		return 0;
	}
	if (message.code != WT_NETLINK_REP_OK)
		WT_INFO("[Disk-%s] Error %ld returned for block request\n", volume->dvi_name,
			static_cast<long>(message.num_sectors));
	if (message.num_sectors >= 0)
		return 0;
	const bool is_error = message.num_sectors >= -static_cast<int64_t>(KA_MAX_ERRNO);
	return is_error ? static_cast<int>(message.num_sectors) : -KA_EIO;
}

// Has the server fill the pages that are shown.
static int ask_server(jorlvolume_info *volume, uint64_t start, uint64_t count, unsigned int offset)
{
	wt_netlinkmsg_hdr message = {};
	message.version = WT_NETLINK_VERSION;
	message.id = ++volume->dvi_sd_msguid;
	message.diskhandle = volume;
	message.code = WT_NETLINK_CMD_READ;
	message.offset_sector = start;
	message.num_sectors = static_cast<int64_t>(count);
	message.io_buffer =
		reinterpret_cast<void *>(ka_mapping_start(&volume->dvi_servicearea) + offset);

	int sent = jorl_netlink_send(volume->dvi_sd_socket, &message, sizeof(message));
	if (sent >= 0 && static_cast<unsigned int>(sent) < sizeof(message)) {
		sent = -KA_EIO;
		WT_ERROR(
			"[Disk-%s] Unable to send the entire message on the socket. Just %ld bytes "
			"written :-(\n",
			volume->dvi_name, static_cast<long>(sent));
	}
	if (sent < 0) {
		WT_ERROR(
			"[Disk-%s] Unable to send the disk i/o request on the socket. Error(%ld)\n",
			volume->dvi_name, static_cast<long>(sent));
		return sent;
	}
	return reply_outcome(volume, message,
			     jorl_netlink_recv(volume->dvi_sd_socket, &message, sizeof(message)));
}

static int serve_bio(jorlvolume_info *volume, bio *bio)
{
	ka_bio_extent extent;
	ka_request_bio_extent(bio, &extent);
	const uint64_t sectors_per_block = volume->dvi_block_size >> 9;
	const uint64_t start = extent.sector / sectors_per_block;
	uint64_t count = (extent.bytes >> 9) / sectors_per_block;
	if (start + count > volume->dvi_sectors) {
		WT_WARN("[Disk-%s] Request beyond disk boundary for Start=%lu Count=%lu Type=%s. "
			"Truncating the request\n",
			volume->dvi_name, static_cast<unsigned long>(start),
			static_cast<unsigned long>(count), extent.is_write ? "WRITE" : "READ");
		count = volume->dvi_sectors - start;
	}
	if (extent.is_write)
		return -KA_EIO;

	Transfer transfer = {volume, 0};
	int outcome = ka_request_bio_for_each_page(bio, map_page, &transfer);
	if (outcome == 0)
		outcome = ask_server(volume, start, count, extent.offset);
	if (transfer.mapped == 0)
		return outcome;
	const int zapped = ka_mapping_zap(&volume->dvi_servicearea);
	if (zapped == 0)
		return outcome;
	WT_ERROR("[Disk-%s] Error zapping the pte entries at %p. Error=%d\n", volume->dvi_name,
		 reinterpret_cast<void *>(ka_mapping_start(&volume->dvi_servicearea)), zapped);
	return zapped;
}

static void end_request(jorlvolume_info *volume, request *pending, int outcome)
{
	SpinLockIrq lock(volume->dvi_request_spinlock);
	ka_blk_end_request_all(pending, outcome);
}

static void serve_request(jorlvolume_info *volume, request *pending)
{
	for (bio *bio = ka_request_first_bio(pending); bio; bio = ka_request_next_bio(bio)) {
		const int outcome = serve_bio(volume, bio);
		if (outcome < 0) {
			end_request(volume, pending, outcome);
			WT_WARN("[Disk-%s] Error completing request %p. Error(%ld)\n",
				volume->dvi_name, static_cast<void *>(pending),
				static_cast<long>(outcome));
			return;
		}
	}
	end_request(volume, pending, 0);
}

// Null when there is none.
static request *next_request(jorlvolume_info *volume)
{
	request *pending;
	const unsigned int got = ka_kfifo_get(volume->dvi_kfifo, &pending, KFIFO_ENTRY);
	return got < KFIFO_ENTRY ? nullptr : pending;
}

static void restart_queue(jorlvolume_info *volume)
{
	SpinLockIrq lock(volume->dvi_request_spinlock);
	ka_blk_start_queue(volume->dvi_queue);
}

extern "C" {

static int has_work(void *arg)
{
	const auto *volume = static_cast<jorlvolume_info *>(arg);
	return ka_kthread_should_stop() || ka_kfifo_len(volume->dvi_kfifo) > 1;
}

static int volume_service_thread_fn(void *arg)
{
	auto *volume = static_cast<jorlvolume_info *>(arg);
	while (!ka_kthread_should_stop()) {
		if (ka_kfifo_len(volume->dvi_kfifo) < 2)
			ka_wait_event_interruptible(&volume->dvi_service_waitqueue, has_work,
						    volume);
		if (ka_kthread_should_stop())
			break;
		while (request *pending = next_request(volume))
			serve_request(volume, pending);
		restart_queue(volume);
	}
	return 0;
}

} // extern "C"

// --- Start and stop ------------------------------------------------------------------------------

static void accept_requests(jorlvolume_info *volume)
{
	SpinLockIrq lock(volume->dvi_request_spinlock);
	volume->dvi_is_serving = true;
}

// Fails what waits for the thread, which is gone, and what comes from now on.
static void refuse_requests(jorlvolume_info *volume)
{
	{
		SpinLockIrq lock(volume->dvi_request_spinlock);
		volume->dvi_is_serving = false;
	}
	while (request *pending = next_request(volume))
		end_request(volume, pending, -KA_EIO);
	restart_queue(volume);
}

static void disconnect(jorlvolume_info *volume)
{
	if (volume->dvi_sd_socket)
		jorl_netlink_disconnect(volume->dvi_sd_socket);
	volume->dvi_sd_socket = nullptr;
}

static void end_thread(jorlvolume_info *volume)
{
	if (volume->dvi_service_thread)
		ka_kthread_stop(volume->dvi_service_thread);
	volume->dvi_service_thread = nullptr;
}

static int create_thread(jorlvolume_info *volume)
{
	char name[JORL_DISK_NAME_SIZE + sizeof("service-")];
	ka_snprintf(name, sizeof(name), "service-%s", volume->dvi_name);
	task_struct *thread = ka_kthread_create(volume_service_thread_fn, volume, name);
	ka_kfifo_reset(volume->dvi_kfifo);
	if (ka_is_err(thread)) {
		const int err = static_cast<int>(ka_ptr_err(thread));
		WT_ERROR("[JRVOL] Unable to create disk service thread for disk %s. Error(%d)\n",
			 volume->dvi_name, err);
		disconnect(volume);
		return err;
	}
	volume->dvi_service_thread = thread;
	return 0;
}

static int connect_to_server(jorlvolume_info *volume)
{
	socket *sock = jorl_netlink_connect(volume->dvi_datalink_pid);
	if (ka_is_err(sock)) {
		WT_ERROR("[JRVOL] Error connecting to port %u for disk %s\n",
			 volume->dvi_datalink_pid, volume->dvi_name);
		end_thread(volume);
		return static_cast<int>(ka_ptr_err(sock));
	}
	ka_sock_end_with_process(sock, &volume->dvi_servicearea);
	volume->dvi_sd_socket = sock;
	return 0;
}

int jorlvolume_start(jorlvolume_info *volume)
{
	char comm[KA_TASK_COMM_LEN];
	ka_current_comm(comm);
	WT_INFO("[JRVOL] Starting disk disk %s by task %s(%d)\n", volume->dvi_name, comm,
		ka_current_pid());
	int err = create_thread(volume);
	if (err == 0)
		err = connect_to_server(volume);
	if (err != 0)
		return err;

	accept_requests(volume);
	ka_wake_up_process(volume->dvi_service_thread);
	err = ka_add_disk(&volume->dvi_disk);
	volume->dvi_is_added = err == 0;
	if (err != 0) {
		WT_ERROR("[JRVOL] Unable to add disk %s. Error(%d)\n", volume->dvi_name, err);
		end_thread(volume);
		refuse_requests(volume);
		disconnect(volume);
	}
	return err;
}

// A start that failed leaves less to be stopped.
int jorlvolume_stop(jorlvolume_info *volume)
{
	WT_INFO("[JRVOL] Stopping disk disk %s\n", volume->dvi_name);
	if (volume->dvi_is_added)
		ka_del_gendisk(volume->dvi_disk);
	volume->dvi_is_added = false;
	ka_wake_up(&volume->dvi_service_waitqueue);
	end_thread(volume);
	refuse_requests(volume);
	disconnect(volume);
	return 0;
}

// --- Creation ------------------------------------------------------------------------------------

extern "C" {

static void jorlvolume_vma_close(ka_mapping *, unsigned long start)
{
	WT_WARN("[JRVOL] Invalid disk service %p to close\n", reinterpret_cast<void *>(start));
}

} // extern "C"

static int take_service_area(jorlvolume_info *volume, const char *name, const void *servicearea)
{
	ka_mapping *area = &volume->dvi_servicearea;
	const int err = ka_mapping_take(area, servicearea, jorlvolume_vma_close);
	if (err == -KA_EBUSY)
		WT_ERROR("[JRREG] Non-compatible service area provide for disk %s at %p\n", name,
			 servicearea);
	if (err != 0) {
		WT_ERROR("[JRREG] Unable find the vma associate with service area %p associated "
			 "with disk %s\n",
			 servicearea, name);
		return -KA_EINVAL;
	}
	const size_t size = ka_mapping_size(area);
	if (size < MIN_SERVICE_AREA) {
		WT_ERROR(
			"[JRREG] Service area at %p for disk %s not large enough. Need atleast %lu "
			"bytes but only %lu bytes available\n",
			servicearea, name, MIN_SERVICE_AREA, size);
		return -KA_EINVAL;
	}
	return 0;
}

static int make_queue(jorlvolume_info *volume, const char *name)
{
	ka_mutex_init(&volume->dvi_mtx, "&ret->dvi_mtx");
	ka_spin_lock_init(&volume->dvi_request_spinlock, "&ret->dvi_request_spinlock");
	ka_spin_lock_init(&volume->dvi_kfifo_spinlock, "&ret->dvi_kfifo_spinlock");
	ka_init_waitqueue_head(&volume->dvi_service_waitqueue);

	ka_kfifo *kfifo = ka_kfifo_alloc(KFIFO_BYTES, &volume->dvi_kfifo_spinlock);
	if (ka_is_err(kfifo)) {
		const long err = ka_ptr_err(kfifo);
		WT_ERROR("[JRREG] Unable to kfifo queue for disk %s. Error(%ld)\n", name, err);
		return static_cast<int>(err);
	}
	volume->dvi_kfifo = kfifo;
	volume->dvi_disk_owner.operations = &jorl_volume_ops;
	volume->dvi_queue = ka_blk_init_queue(jorl_volume_request_fn, &volume->dvi_request_spinlock,
					      QUEUE_DEPTH, &volume->dvi_disk_owner);
	if (!volume->dvi_queue) {
		WT_ERROR("[JRREG] Unable to allocate mememory for request queue of disk %s\n",
			 name);
		return -KA_ENOMEM;
	}
	const size_t block_size = volume->dvi_block_size;
	return ka_blk_queue_block_size(volume->dvi_queue, static_cast<unsigned short>(block_size),
				       block_size);
}

static int make_disk(jorlvolume_info *volume, const char *name, unsigned int is_rw)
{
	const int major = ka_register_blkdev(name);
	if (major < 0) {
		WT_ERROR("Unable to allocate a major number to the disk %s\n", name);
		return -KA_ENOMEM;
	}
	volume->dvi_major = major;
	volume->dvi_disk = ka_alloc_disk(DISK_MINORS, volume->dvi_queue);
	if (!volume->dvi_disk) {
		WT_ERROR("[JRREG] Unable to allocate a the virtual disk %s\n", name);
		return -KA_ENOMEM;
	}
	const ka_disk_description description = {
		static_cast<unsigned int>(major), name,
		(volume->dvi_block_size >> 9) * volume->dvi_sectors, is_rw == 0, 0};
	ka_disk_describe(volume->dvi_disk, &volume->dvi_disk_owner, &description);
	return 0;
}

// From the registration on others may find the record.
static int register_disk(jorlvolume_info *volume, const char *name)
{
	ka_kobject_init(&volume->kobj, &g_kobj_jorlvolinfo_type);
	ka_module_hold();
	int err = add_jorlvolume_info(volume);
	if (err != 0) {
		ka_module_put();
		WT_ERROR("[JRREG] Unable to add the jorl-disk %s to volume registry. error (%ld)\n",
			 name, static_cast<long>(err));
		return err;
	}
	err = ka_kobject_add(&volume->kobj, &jorlmanager_context.kobj, name);
	if (err != 0)
		WT_ERROR("[JRREG] Unable to add the jorl-disk %s to sysfs. error (%ld)\n", name,
			 static_cast<long>(err));
	return err;
}

static int build(jorlvolume_info *volume, const char *name, unsigned int is_rw,
		 const void *servicearea)
{
	int err = take_service_area(volume, name, servicearea);
	if (err == 0)
		err = make_queue(volume, name);
	if (err == 0)
		err = make_disk(volume, name, is_rw);
	return err != 0 ? err : register_disk(volume, name);
}

// Gives back what a record holds, in part or as a whole.
static void tear_down(jorlvolume_info *volume, const char *name)
{
	if (volume->dvi_queue)
		ka_blk_cleanup_queue(volume->dvi_queue);
	if (volume->dvi_disk)
		ka_put_disk(volume->dvi_disk);
	if (volume->dvi_major != 0)
		ka_unregister_blkdev(static_cast<unsigned int>(volume->dvi_major), name);
	if (volume->dvi_kfifo)
		ka_kfifo_free(volume->dvi_kfifo);
}

// A zeroed record, somewhere in the first page of its memory: there where the table of records has
// the home slot of the address still free. Addresses of whole pages would share two homes. Records
// beside their homes become unreachable when others go, and make the table grow, which halts the
// kernel in nearly every state.
static jorlvolume_info *allocate_record()
{
	static constexpr size_t STEP = 8;
	static_assert(alignof(jorlvolume_info) <= STEP);
	auto *memory = static_cast<char *>(ka_vmalloc(PAGE_BYTES + sizeof(jorlvolume_info)));
	if (!memory)
		return nullptr;
	for (char *place = memory; place < memory + PAGE_BYTES; place += STEP)
		if (jorlvolume_registry_has_home(place)) {
			memset(place, 0, sizeof(jorlvolume_info));
			return reinterpret_cast<jorlvolume_info *>(place);
		}
	ka_vfree(memory);
	return nullptr;
}

static void free_record(const jorlvolume_info *volume)
{
	ka_vfree(reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(volume) & ~(PAGE_BYTES - 1)));
}

jorlvolume_info *alloc_jorlvolume_info(size_t block_size, size_t num_blocks, unsigned int is_rw,
				       const void *servicearea)
{
	char name[JORL_DISK_NAME_SIZE];
	JorlManagerRef manager;
	assign_disk_name(name);
	if (!manager) {
		WT_ERROR("[JRREG] Unable to lock the jorl-manager context\n");
		return static_cast<jorlvolume_info *>(ka_err_ptr(-KA_EINVAL));
	}
	jorlvolume_info *volume = allocate_record();
	if (!volume) {
		WT_ERROR("[JRREG] Unable to allocate mememory to create disk %s\n", name);
		return static_cast<jorlvolume_info *>(ka_err_ptr(-KA_ENOMEM));
	}
	memcpy(volume->dvi_name, name, sizeof(name));
	volume->dvi_sectors = num_blocks;
	volume->dvi_block_size = block_size;

	int err = build(volume, name, is_rw, servicearea);
	if (err == 0)
		return volume;
	if (remove_jorlvolume_info(volume) == 0)
		return static_cast<jorlvolume_info *>(ka_err_ptr(err));
	tear_down(volume, name);
	// The mapping stays marked: it serves no other disk.
	ka_mapping_give_up(&volume->dvi_servicearea);
	free_record(volume);
	return static_cast<jorlvolume_info *>(ka_err_ptr(err));
}

void cleanup_jorlvolume_info(jorlvolume_info *volume)
{
	char name[JORL_DISK_NAME_SIZE];
	ka_snprintf(name, sizeof(name), "%.30s", volume->dvi_name);
	// Only a disk whose destruction a signal kept off is still started.
	if (volume->dvi_is_added)
		jorlvolume_stop(volume);
	tear_down(volume, name);
	ka_mapping_give_back(&volume->dvi_servicearea);
	free_record(volume);
}
