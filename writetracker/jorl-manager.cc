// SPDX-License-Identifier: GPL-2.0
// The manager of restore disks: its life by references, and create, start, stop, destroy.
#include "jorl-manager.h"

#include "../kernel-abstractions/memory.h"
#include "../kernel-abstractions/work.h"
#include "guards.h"
#include "jorl-manager-sysfs.h"
#include "jorl-netlink.h"
#include "jorl-volume.h"
#include "writetracker.h"
#include "wt-logging.h"

static constexpr wt_log_group wt_group = WT_LOG_GROUP_JORL_MANAGER;

jorlmanager_context_t jorlmanager_context;

static ka_mutex mtx_jorlinit; // serialises initialisation and cleanup
static ka_delayed_work uninit_jorlmanager;
static ka_delayed_work drop_references_work;
static Atomic<int> references_to_drop;

namespace
{

struct initializer {
	const char *name;
	int (*init)();
	int (*cleanup)();
};

} // namespace

static constexpr initializer _initializer_list[] = {
	{"jorlvolume_registry", jorlvolume_registry_init, jorlvolume_registry_cleanup},
	{"jorl_netlink", jorl_netlink_init, jorl_netlink_cleanup},
	{"jorl_volume", jorl_volume_init, jorl_volume_cleanup},
};
static constexpr int INITIALIZERS = sizeof(_initializer_list) / sizeof(_initializer_list[0]);
static constexpr int NETLINK_INITIALIZER = 1;

// --- References ----------------------------------------------------------------------------------

JorlManagerRef::JorlManagerRef(When when) : held(false)
{
	WT_TRACE("newref-driver-context.Remaining references=%u",
		 ka_kobject_references(&jorlmanager_context.kobj) + 1);
	if (jorlmanager_context.is_initialized.get()) {
		held = ka_kobject_get(&jorlmanager_context.kobj) != nullptr;
		return;
	}
	if (when == IF_UP)
		return;
	const int err = init_jorl_manager();
	held = err == 0;
	if (!held)
		WT_TRACE_ERROR("Unable to initialize the jorl-manager. Error(%d)", err);
}

unsigned int JorlManagerRef::others()
{
	return ka_kobject_references(&jorlmanager_context.kobj) - 1 -
	       static_cast<unsigned int>(references_to_drop.get());
}

static void drop_reference()
{
	ka_kobject_put(&jorlmanager_context.kobj);
	WT_TRACE("delref-jorlmanager-context.Remaining references=%u",
		 ka_kobject_references(&jorlmanager_context.kobj));
}

JorlManagerRef::~JorlManagerRef()
{
	if (held)
		drop_reference();
}

static void drop_references(ka_delayed_work *)
{
	for (int count = references_to_drop.exchange(0); count > 0; count--)
		drop_reference();
}

void JorlManagerRef::drop_later()
{
	if (!held)
		return;
	held = false;
	references_to_drop.increment();
	ka_schedule_delayed_work(&drop_references_work, 0);
}

// --- Up and down ---------------------------------------------------------------------------------

static void void_cleanup_jorl_manager(ka_delayed_work *)
{
	const int err = cleanup_jorl_manager();
	if (err != 0)
		WT_ERROR("[JRMG] Error uninitializing the the jorl manager. error(%d)\n", err);
}

// The last reference is gone. Whoever holds the mutex sees to the rest himself.
static void cleanup_jorlmanager_context(ka_kobject *)
{
	if (!ka_mutex_is_locked(&mtx_jorlinit))
		ka_schedule_delayed_work(&uninit_jorlmanager, 0);
}

static ka_kobj_type jorlmanager_context_type = {
	cleanup_jorlmanager_context, &g_jorl_sysfs_ops, g_jorl_sysfs_attrs, {}};

void jorl_manager_setup()
{
	ka_mutex_init(&mtx_jorlinit, "&mtx_jorlinit");
	ka_init_delayed_work(&uninit_jorlmanager, void_cleanup_jorl_manager);
	ka_init_delayed_work(&drop_references_work, drop_references);
	jorlvolume_registry_setup();
}

static int publish_manager()
{
	memset(&jorlmanager_context.kobj, 0, sizeof(jorlmanager_context.kobj));
	ka_kobject_init(&jorlmanager_context.kobj, &jorlmanager_context_type);
	ContextRef context;
	if (!context) {
		ka_kobject_put(&jorlmanager_context.kobj);
		return -KA_EAGAIN;
	}
	int err = ka_kobject_add(&jorlmanager_context.kobj, &wt_context.kobj, "restore-volumes");
	if (err != 0) {
		ka_kobject_put(&jorlmanager_context.kobj);
		WT_WARN("[JRMG] Error adding jorl-manager context to the sysfs.(%d)\n", err);
	}
	return err;
}

// Deliberately partial: a failure undoes no more than the entry before the last one.
static int undo_initializers(int failed, int err)
{
	WT_ERROR("[JRMG] Error initializing %s. err(%d)\n", _initializer_list[failed].name, err);
	if (failed <= NETLINK_INITIALIZER)
		return err;
	const initializer &netlink = _initializer_list[NETLINK_INITIALIZER];
	err = netlink.cleanup();
	if (err != 0)
		WT_ERROR("[JRMG] Error Cleaningup %s. err(%d)\n", netlink.name, err);
	return err;
}

int init_jorl_manager()
{
	InterruptibleMutexLock lock(mtx_jorlinit);
	if (lock.error() != 0) {
		WT_ERROR("[JRMG] Unable to lock jorl mutex error(%d)\n", lock.error());
		return lock.error();
	}
	if (jorlmanager_context.is_initialized.get())
		return ka_kobject_get(&jorlmanager_context.kobj) ? 0 : -KA_EAGAIN;
	jorlmanager_context.is_initialized.set(1);
	int err = publish_manager();
	if (err != 0)
		return err;
	for (int i = 0; i < INITIALIZERS; i++) {
		err = _initializer_list[i].init ? _initializer_list[i].init() : 0;
		if (err != 0)
			return undo_initializers(i, err);
	}
	WT_INFO("[JRMG] Initialization Complete\n");
	return 0;
}

extern "C" {

static void _jorlmanager_destroy_all_disk_callback(jorlvolume_info *volume, void *)
{
	const int err = jorlmanager_destroy_disk(volume);
	if (err != 0)
		WT_WARN("[JRMG] Unable to destroy volume %s. Error %d\n", volume->dvi_name, err);
}

} // extern "C"

int cleanup_jorl_manager()
{
	WT_INFO("[JRMG] Jorl Manager Unloading\n");
	InterruptibleMutexLock lock(mtx_jorlinit);
	if (lock.error() != 0) {
		WT_ERROR("[JRMG] Unable to lock jorl mutex error(%d)\n", lock.error());
		return lock.error();
	}
	if (jorlmanager_context.is_initialized.get()) {
		jorlmanager_context.is_initialized.set(0);
		for_each_jorlvolume_info(_jorlmanager_destroy_all_disk_callback, nullptr);
		for (int i = INITIALIZERS; i-- > 0;) {
			const initializer &entry = _initializer_list[i];
			const int err = entry.cleanup ? entry.cleanup() : 0;
			if (err != 0)
				WT_ERROR("Error Un-initializing %s. err(%d)\n", entry.name, err);
		}
		ka_kobject_del(&jorlmanager_context.kobj);
	}
	WT_INFO("[JRMG] Jorl Manager Un-initilization Complete\n");
	return 0;
}

void jorl_manager_settle()
{
	ka_cancel_delayed_work_sync(&drop_references_work);
	drop_references(nullptr); // what was cancelled
	ka_cancel_delayed_work_sync(&uninit_jorlmanager);
}

// --- Disks ---------------------------------------------------------------------------------------

jorlvolume_info *jorlmanager_create_disk(const wtflr_allocdisk_req *req)
{
	if (!req->wtfad_servicearea) {
		WT_ERROR("[JRMG] No service area provided\n");
		return static_cast<jorlvolume_info *>(ka_err_ptr(-KA_EINVAL));
	}
	if (req->wtfad_isrw != 0) {
		WT_ERROR("[JRMG] Only RO volumes are supported at the moment\n");
		return static_cast<jorlvolume_info *>(ka_err_ptr(-KA_EINVAL));
	}
	// A size that cannot be rounded is refused with those that are too large.
	const size_t rounded = req->wtfad_blocksize > SIZE_MAX - 511
				       ? req->wtfad_blocksize
				       : (req->wtfad_blocksize + 511) / 512 * 512;
	jorlvolume_info *volume = alloc_jorlvolume_info(
		rounded < 512 ? 512 : rounded, req->wtfad_numblocks, 0, req->wtfad_servicearea);
	if (ka_is_err(volume)) {
		WT_ERROR("[JRMG] Unable to allocate jorl disk. error(%ld)\n", ka_ptr_err(volume));
		return volume;
	}
	volume->dvi_pid = req->wtfad_pid;
	return volume;
}

namespace
{

// A disk's mutex on behalf of a process; logs what kept it from being taken.
class DiskLock : public InterruptibleMutexLock
{
public:
	explicit DiskLock(jorlvolume_info *volume) : InterruptibleMutexLock(volume->dvi_mtx)
	{
		if (error() != 0)
			WT_ERROR("[JRMG] Unable to lock volume mutex on disk %s. Error(%d)\n",
				 volume->dvi_name, error());
	}
};

} // namespace

int jorlmanager_start_disk(jorlvolume_info *volume, unsigned int port_num)
{
	DiskLock lock(volume);
	if (lock.error() != 0)
		return lock.error();
	const char *name = volume->dvi_name;
	if (volume->dvi_datalink_pid != 0) {
		WT_WARN("[JRMG] I/O Servicing on disk %s already started by PID=%u PORT=%u\n", name,
			static_cast<unsigned int>(volume->dvi_pid), volume->dvi_datalink_pid);
		return -KA_EINVAL;
	}
	volume->dvi_datalink_pid = port_num;
	const int err = jorlvolume_start(volume);
	if (err == 0)
		WT_INFO("[JRMG] Started IO servicing on Disk %s. Port(%u)\n", name, port_num);
	else
		WT_ERROR("[JRMG] Unable to start IO servicing on Disk %s. Error(%d)\n", name, err);
	return err;
}

static int stop(jorlvolume_info *volume)
{
	const int err = jorlvolume_stop(volume);
	if (err != 0)
		WT_ERROR("[JRMG] Unable to stop IO servicing on Disk %s. Error(%d)\n",
			 volume->dvi_name, err);
	return err;
}

int jorlmanager_stop_disk(jorlvolume_info *volume)
{
	DiskLock lock(volume);
	if (lock.error() != 0)
		return lock.error();
	const char *name = volume->dvi_name;
	if (volume->dvi_datalink_pid == 0) {
		WT_WARN("[JRMG] I/O Servicing on disk %s already stopped\n", name);
		return -KA_EINVAL;
	}
	const int err = stop(volume);
	if (err == 0) {
		WT_INFO("[JRMG] Stopped IO servicing on Disk %s. Port(%u)\n", name,
			volume->dvi_datalink_pid);
		volume->dvi_datalink_pid = 0;
	}
	return err;
}

int jorlmanager_destroy_disk(jorlvolume_info *volume)
{
	DiskLock lock(volume);
	if (lock.error() != 0)
		return lock.error();
	if (volume->dvi_datalink_pid != 0) {
		const int err = stop(volume);
		if (err != 0)
			return err;
	}
	WT_INFO("[JRMG] Destorying the jorl-volume structure for Disk %s\n", volume->dvi_name);
	remove_jorlvolume_info(volume);
	return 0;
}

int jorlmanager_set_disk_userdata(jorlvolume_info *volume, wt_jorl_disk_user_data_t user_data)
{
	DiskLock lock(volume);
	if (lock.error() == 0)
		volume->dvi_userdata = user_data;
	return lock.error();
}

int jorlmanager_get_disk_userdata(jorlvolume_info *volume, wt_jorl_disk_user_data_t *user_data)
{
	DiskLock lock(volume);
	if (lock.error() == 0)
		*user_data = volume->dvi_userdata;
	return lock.error();
}
