// SPDX-License-Identifier: GPL-2.0
// Block device discovery and uevent interception.
#include "udev-patcher.h"

#include "../kernel-abstractions/memory.h"
#include "../kernel-abstractions/task.h"
#include "../kernel-abstractions/work.h"
#include "atomic.h"
#include "guards.h"
#include "volume-manager.h"
#include "writetracker.h"
#include "wt-logging.h"

static constexpr wt_log_group wt_group = WT_LOG_GROUP_UDEV_PATCHER;

static constexpr unsigned long JIFFIES_PER_SECOND = 1000;
// A new device gets this long to settle before it is opened.
static constexpr unsigned long ADD_DELAY = 1000;
static constexpr char TEMPORARY_DISK_NAME[] = "zorvat-control";
static constexpr char uevent_action[] = "ACTION=";

// What each event is called in a uevent, and who handles it.
static constexpr struct {
	const char *word;
	int (*handle)(ka_dev_t dev);
	unsigned long delay;
} disk_actions[DISK_EVENTS] = {
	{"add", volume_add, ADD_DELAY}, {"remove", volume_remove, 0},
	{"change", volume_change, 0},   {"move", volume_move, 0},
	{"online", volume_online, 0},   {"offline", volume_offline, 0},
};

namespace
{

// One pending event. The slot is free while enw_event is DISK_NO_EVENT.
struct event_notify_work {
	int enw_event;
	ka_dev_t enw_dev;
	ka_delayed_work enw_work;
};

constexpr unsigned int EVENT_SLOTS = 256;

// A counted reference on a device.
class DeviceRef
{
public:
	explicit DeviceRef(device *dev) : dev(ka_get_device(dev))
	{
	}
	~DeviceRef()
	{
		if (dev)
			ka_put_device(dev);
	}
	DeviceRef(const DeviceRef &) = delete;
	DeviceRef &operator=(const DeviceRef &) = delete;

	device *get() const
	{
		return dev;
	}

private:
	device *dev;
};

} // namespace

// The patch state and the slots. The lock sleeps, so it is let go before anybody waits for events
// in work: their handlers take it.
static ka_mutex lock_bd_ops;
static kset *device_kset; // referenced; null: not patched
static ka_class *block_class_type;
static const ka_kset_uevent_ops *uevent_ops_old; // kept after unpatching: an event may be under way
static ka_kset_uevent_ops uevent_ops_new;
static workqueue_struct *wq_event_notifier;
static event_notify_work arr_event_notify[EVENT_SLOTS];

void udev_patcher_setup()
{
	ka_mutex_init(&lock_bd_ops, "lock_bd_ops");
}

// --- Events ------------------------------------------------------------------------------------

static event_notify_work *slot_of(ka_delayed_work *work)
{
	return reinterpret_cast<event_notify_work *>(
		reinterpret_cast<char *>(work) - __builtin_offsetof(event_notify_work, enw_work));
}

static void __event_notifier(ka_delayed_work *work)
{
	int event;
	ka_dev_t dev;
	{
		MutexLock lock(lock_bd_ops);
		event_notify_work *slot = slot_of(work);
		event = slot->enw_event;
		dev = slot->enw_dev;
		slot->enw_event = DISK_NO_EVENT;
		if (!device_kset)
			return;
	}
	if (event < 0 || event >= DISK_EVENTS)
		WT_WARN("Empty event to be dispatched\n");
	else
		disk_actions[event].handle(dev);
}

// Whether the user wants devices of this major. An empty list admits all.
static bool is_major_admitted(ka_dev_t dev)
{
	ContextRef context;
	if (!context) {
		WT_WARN("Unable to fetch the driver context\n");
		return true;
	}
	const unsigned int count = atomic_read(&wt_context.arg_arr_tracked_major_numbers_count);
	for (unsigned int i = 0; i < count; i++)
		if (wt_context.arg_arr_tracked_major_numbers[i] == ka_major(dev))
			return true;
	return count == 0;
}

static event_notify_work *find_free_slot()
{
	for (event_notify_work &slot : arr_event_notify)
		if (slot.enw_event == DISK_NO_EVENT)
			return &slot;
	return nullptr;
}

// With lock_bd_ops held and the work queue there. Does not sleep.
static int udev_schedule_event_locked(disk_event event, ka_dev_t dev)
{
	if (!is_major_admitted(dev))
		return 0;
	event_notify_work *slot = find_free_slot();
	if (!slot) {
		WT_WARN("Unable to find a free work element to notify event\n");
		return -KA_EAGAIN;
	}
	slot->enw_event = event;
	slot->enw_dev = dev;
	const unsigned long delay = disk_actions[event].delay;
	if (delay != 0)
		WT_INFO("Delaying event handling by %lu seconds\n", delay / JIFFIES_PER_SECOND);
	ka_init_delayed_work(&slot->enw_work, __event_notifier);
	if (!ka_queue_delayed_work(wq_event_notifier, &slot->enw_work, delay)) {
		WT_WARN("Unable to add event to event-notifier-workqueue\n");
		slot->enw_event = DISK_NO_EVENT;
		return -KA_EAGAIN;
	}
	return 0;
}

int udev_schedule_event(disk_event event, ka_dev_t dev)
{
	MutexLock lock(lock_bd_ops);
	if (!device_kset)
		return -KA_EINTR;
	int err = udev_schedule_event_locked(event, dev);
	if (err != 0) {
		WT_WARN("Event notification not scheduled,error(%d). Retrying..\n", err);
		ka_udelay(10);
	}
	return err;
}

// The event that the first ACTION variable names, or DISK_NO_EVENT.
static disk_event event_of(const kobj_uevent_env *env)
{
	constexpr size_t prefix = sizeof(uevent_action) - 1;
	for (int i = 0; i < ka_uevent_variables(env); i++) {
		const char *variable = ka_uevent_variable(env, i);
		if (strncmp(variable, uevent_action, prefix) != 0)
			continue;
		for (int event = 0; event < DISK_EVENTS; event++)
			if (strcmp(variable + prefix, disk_actions[event].word) == 0)
				return static_cast<disk_event>(event);
		break;
	}
	return DISK_NO_EVENT;
}

// The devices set's uevent operation. It only watches: the event goes on as it came.
static int uevent_filter(kset *set, kobject *kobj, kobj_uevent_env *env)
{
	{
		DeviceRef dev(ka_kobject_device(kobj));
		if (dev.get() && ka_device_class(dev.get()) == atomic_read(&block_class_type)) {
			const disk_event event = event_of(env);
			if (event != DISK_NO_EVENT)
				udev_schedule_event(event, ka_device_devt(dev.get()));
		}
	}
	return ka_uevent_ops_call(atomic_read(&uevent_ops_old), set, kobj, env);
}

// --- Finding the block class and the set of all devices ------------------------------------------

// Takes class and set from a block device's device object, with a reference on the set. -EINVAL
// when neither it nor an ancestor is in a set.
static int take_class_and_set(device *dev)
{
	kset *set = nullptr;
	for (device *ancestor = dev; ancestor && !set; ancestor = ka_device_parent(ancestor))
		set = ka_device_kset(ancestor);
	if (!set)
		return -KA_EINVAL;
	device_kset = ka_kset_get(set);
	__atomic_store_n(&block_class_type, ka_device_class(dev), __ATOMIC_RELEASE);
	return 0;
}

static void tempblock_request(request_queue *queue)
{
	while (request *pending = ka_blk_fetch_request(queue))
		while (ka_blk_end_request_cur(pending, -KA_EIO) != 0) {
		}
}

static int tempblock_getgeo(ka_disk_owner *, ka_disk_geometry *geometry)
{
	*geometry = {};
	return 0;
}

static constexpr ka_disk_operations temp_ops = {nullptr, nullptr, tempblock_getgeo};
static ka_disk_owner temp_owner = {&temp_ops};
static constexpr unsigned int TEMP_QUEUE_DEPTH = 64;

// Adds an empty disk for as long as it takes to look at its device object.
static int learn_from_disk(request_queue *queue, unsigned int major)
{
	gendisk *disk = ka_alloc_disk(1, queue);
	if (!disk) {
		WT_ERROR("[JRREG] Unable to allocate a major number to the disk %s\n",
			 TEMPORARY_DISK_NAME);
		return -KA_ENOMEM;
	}
	const ka_disk_description description = {major, TEMPORARY_DISK_NAME, 0, 1, 1};
	ka_disk_describe(disk, &temp_owner, &description);
	int err = ka_add_disk(&disk);
	if (err == 0) {
		DeviceRef dev(ka_disk_device(disk));
		err = take_class_and_set(dev.get());
		if (err != 0)
			WT_ERROR("[UDEV] Failed getting the Devices kset\n");
		ka_del_gendisk(disk);
	}
	ka_put_disk(disk);
	return err;
}

static int learn_with_major(request_queue *queue)
{
	const int major = ka_register_blkdev(TEMPORARY_DISK_NAME);
	if (major < 0) {
		WT_ERROR("Unable to allocate a major number to the disk %s\n", TEMPORARY_DISK_NAME);
		return major;
	}
	int err = learn_from_disk(queue, static_cast<unsigned int>(major));
	ka_unregister_blkdev(static_cast<unsigned int>(major), TEMPORARY_DISK_NAME);
	return err;
}

// For a system whose root file system is on no block device.
static int learn_from_temporary_disk()
{
	int err = -KA_ENOMEM;
	request_queue *queue =
		ka_blk_init_queue(tempblock_request, nullptr, TEMP_QUEUE_DEPTH, &temp_owner);
	if (queue) {
		err = learn_with_major(queue);
		ka_blk_cleanup_queue(queue);
	} else {
		WT_ERROR("[UDEV] Unable to create temporary request queue\n");
	}
	if (err != 0)
		WT_ERROR("[UDEV] Unable to find the class and ksets for the block devices on this "
			 "kernel. Error=%d\n",
			 err);
	return err;
}

// Sets device_kset and block_class_type.
static int find_class_and_set()
{
	block_device *root = nullptr;
	int err = ka_path_super_bdev("/", &root);
	if (err != 0) {
		WT_ERROR("Unable to lookup root path(%d)\n", err);
		return err;
	}
	if (!root)
		return learn_from_temporary_disk();
	DeviceRef dev(ka_bdev_disk_device(root));
	err = take_class_and_set(dev.get());
	if (err != 0)
		WT_ERROR("Failed getting the Devices kset\n");
	return err;
}

// --- Patching ----------------------------------------------------------------------------------

static void announce_if_block_device(kobject *kobj)
{
	DeviceRef dev(ka_kobject_device(kobj));
	if (!dev.get() || ka_device_class(dev.get()) != block_class_type)
		return;
	const ka_dev_t devt = ka_device_devt(dev.get());
	int err = udev_schedule_event_locked(DISK_ADD, devt);
	if (err != 0)
		WT_WARN("Unable to register device %s(%d:%d),error(%d)\n",
			ka_device_name(dev.get()), ka_major(devt), ka_minor(devt), err);
}

static void swap_uevent_operations()
{
	const ka_kset_uevent_ops *found;
	const ka_kset_uevent_ops *expected;
	do {
		expected = ka_kset_get_uevent_ops(device_kset);
		__atomic_store_n(&uevent_ops_old, expected, __ATOMIC_RELEASE);
		ka_uevent_ops_copy_with_uevent(&uevent_ops_new, expected, uevent_filter);
		found = ka_kset_cmpxchg_uevent_ops(device_kset, expected, &uevent_ops_new);
	} while (found != expected);
}

static int udev_patch_locked()
{
	wq_event_notifier = ka_create_singlethread_workqueue("zorvatEvent");
	if (!wq_event_notifier) {
		WT_ERROR("Unable to allocated event notifier workqueue\n");
		return -KA_ENOMEM;
	}
	for (event_notify_work &slot : arr_event_notify)
		slot.enw_event = DISK_NO_EVENT;
	int err = find_class_and_set();
	if (err != 0) {
		ka_destroy_workqueue(wq_event_notifier);
		wq_event_notifier = nullptr;
		return err;
	}
	swap_uevent_operations();
	ka_kset_for_each(device_kset, announce_if_block_device);
	return 0;
}

int udev_patch()
{
	int err = 0;
	{
		MutexLock lock(lock_bd_ops);
		if (!device_kset)
			err = udev_patch_locked();
	}
	WT_INFO("Udev Patch Complete\n");
	return err;
}

int udev_refresh_devices()
{
	WT_INFO("[UDEV] Reiterating list of supported devices\n");
	{
		MutexLock lock(lock_bd_ops);
		if (device_kset)
			ka_kset_for_each(device_kset, announce_if_block_device);
	}
	WT_INFO("[UDEV] Reiterating list of supported devices complete\n");
	return 0;
}

// Takes the operations out of the set and hands over the queue to be destroyed.
static workqueue_struct *udev_unpatch_locked()
{
	const ka_kset_uevent_ops *found =
		ka_kset_cmpxchg_uevent_ops(device_kset, &uevent_ops_new, uevent_ops_old);
	ka_kset_put(device_kset);
	device_kset = nullptr;
	__atomic_store_n(&block_class_type, nullptr, __ATOMIC_RELEASE);
	if (found != &uevent_ops_new) {
		// Unloading would leave a pointer into freed code behind.
		WT_FATAL("Cant unload this module as some has patched device kset's uevent_ops");
		KA_BUG_ON(true);
	}
	workqueue_struct *queue = wq_event_notifier;
	wq_event_notifier = nullptr;
	return queue;
}

// Drops what still waits for its delay: a queue that goes away must not have any. Nothing is
// scheduled any more, so a slot only ever becomes free here.
static void drop_delayed_events()
{
	for (event_notify_work &slot : arr_event_notify) {
		bool pending;
		{
			MutexLock lock(lock_bd_ops);
			pending = slot.enw_event != DISK_NO_EVENT;
		}
		if (!pending)
			continue;
		ka_cancel_delayed_work_sync(&slot.enw_work);
		MutexLock lock(lock_bd_ops);
		slot.enw_event = DISK_NO_EVENT;
	}
}

void udev_unpatch()
{
	workqueue_struct *queue = nullptr;
	{
		MutexLock lock(lock_bd_ops);
		if (device_kset)
			queue = udev_unpatch_locked();
	}
	if (queue) {
		drop_delayed_events();
		ka_flush_workqueue(queue);
		ka_destroy_workqueue(queue);
	}
	WT_INFO("Udev Un-Patch Complete\n");
}

int udev_ispatched()
{
	return uevent_ops_old ? 0 : 1;
}
