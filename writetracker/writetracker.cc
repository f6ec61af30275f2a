// SPDX-License-Identifier: GPL-2.0
// Load and unload of the driver. Loading only publishes the driver context; the subsystems come up
// in a work item that starts over, once a second, for as long as one of them fails.
#include "writetracker.h"

#include "../kernel-abstractions/memory.h"
#include "../kernel-abstractions/module.h"
#include "../kernel-abstractions/task.h"
#include "../kernel-abstractions/work.h"
#include "atomic.h"
#include "build-info.h"
#include "control-device.h"
#include "dm-patcher.h"
#include "guards.h"
#include "jorl-manager.h"
#include "udev-patcher.h"
#include "version.h"
#include "volume-ioctl.h"
#include "volume-manager.h"
#include "volume-registry.h"
#include "writetracker-sysfs.h"
#include "wt-logging.h"

static constexpr wt_log_group wt_group = WT_LOG_GROUP_WRITETRACKER;

static constexpr unsigned long RETRY_DELAY = 1000;   // jiffies
static constexpr unsigned long UNLOAD_LINGER = 2000; // jiffies

#define WT_STRINGIFY(number) #number
#define WT_NUMBER(number)    WT_STRINGIFY(number)
#define WT_VERSION_NUMBERS                                                                         \
	WT_NUMBER(WT_VERSION_MAJOR)                                                                \
	"." WT_NUMBER(WT_VERSION_MINOR) "." WT_NUMBER(WT_VERSION_MAINTENANCE) "-" WT_NUMBER(       \
		WT_VERSION_BUILD)
#define WT_VERSION_STRING                                                                          \
	"Version:" WT_VERSION_NUMBERS "-Release Build-Date:\"" WT_BUILD_DATE                       \
	"\" Build-Info:\"" WT_BUILD_BRANCH "\""

static_assert(sizeof(WT_VERSION_STRING) <= sizeof(wt_version::wtv_str),
	      "the version string must fit its record");

writetracker_context wt_context = {
	{},
	0,
	{WT_VERSION_MAJOR, WT_VERSION_MINOR, WT_VERSION_MAINTENANCE, WT_VERSION_BUILD, 0,
	 WT_VERSION_STRING},
	{},
	{},
	3,
	nullptr,
	{},
	0,
};

Atomic<int> wt_unpinned_calls;

static ka_delayed_work _init_work;
static Atomic<bool> _flag_to_exit;

static void cleanup_module_context(ka_kobject *)
{
	KA_BUG_ON(wt_context.is_initialized == 0);
	wt_context.is_initialized = 0;
	ka_complete_all(&wt_context.deinit_completion);
}

static ka_kobj_type writetracker_context_type = {
	cleanup_module_context, &g_wt_sysfs_ops, g_wt_sysfs_attr, {}};

// Runs the start-up stages up to the first that fails; 0 or that one's error.
static int start_subsystems()
{
	int err;

	if ((err = volume_registry_init()) != 0)
		WT_ERROR("Error initializing volume registry (%d)\n", err);
	else if ((err = udev_patch()) != 0)
		WT_ERROR("Error patching udev (%d)\n", err);
	else if ((err = init_volume_ioctl()) != 0)
		WT_ERROR("Unable to initialize volume ioctl (%d)\n", err);
	else if ((err = dmp_init()) != 0)
		WT_ERROR("Error initializing the dm-processor(%d)\n", err);
	else if ((err = dm_patch()) != 0)
		WT_ERROR("Error Patching the dm-control device(%d)\n", err);
	else if ((err = init_control_device()) != 0)
		WT_ERROR("Unable to initialize control device (%d)\n", err);
	return err;
}

// Each of these is harmless on a stage that never started.
static void undo_subsystems()
{
	cleanup_control_device();
	dm_unpatch();
	dmp_uninit();
	cleanup_volume_ioctl();
	volume_manager_cleanup(); // no disk may keep a table that lies in a record
	volume_registry_cleanup();
	udev_unpatch();
}

static void init_subsystems(ka_delayed_work *work)
{
	static unsigned int retries; // for whoever looks at a driver that does not come up

	if (!_flag_to_exit.get() && start_subsystems() != 0) {
		undo_subsystems();
		retries++;
		ka_schedule_delayed_work(work, RETRY_DELAY);
		return;
	}
	WT_INFO("Initialization Complete\n");
	ka_complete_all(&wt_context.init_completion);
}

static int publish_context()
{
	KA_BUG_ON(wt_context.is_initialized != 0);
	wt_context.is_initialized = 1;
	ka_kobject_init(&wt_context.kobj, &writetracker_context_type);
	int err = ka_kobject_add(&wt_context.kobj, nullptr, KA_MODULE_NAME);
	if (err != 0) {
		ka_kobject_put(&wt_context.kobj);
		WT_WARN("Error adding writetracker to the sysfs.(%d)\n", err);
		WT_ERROR("Error initializing module state (%d)\n", err);
		return err;
	}
	wt_context.is_initialized = 1;
	return 0;
}

int copy_driver_version(wt_log_group wt_group, void *record)
{
	ContextRef context;
	if (!context)
		return -KA_EAGAIN;
	if (ka_copy_to_user(record, &wt_context.driver_version, sizeof(wt_version)) != 0) {
		WT_ERROR("Unable to copy driver verion info to the usermode\n");
		return -KA_EACCES;
	}
	return 0;
}

int init_module(void)
{
	if (wt_logging_init(static_cast<int>(wt_context.arg_def_verbosity)) != 0) {
		ka_printk(KA_LOG_ERR, "[" KA_MODULE_NAME "]Invalid Log Verbosity %d",
			  static_cast<int>(wt_context.arg_def_verbosity));
		return -KA_EINVAL;
	}
	const wt_version &version = wt_context.driver_version;
	WT_INFO("Driver Version %d.%d.%d-%d Initializing\n", version.wtv_major, version.wtv_minor,
		version.wtv_maintenance, version.wtv_build);
	WT_INFO("Version String: %s\n", version.wtv_str);

	int err = ka_init();
	if (err != 0)
		return err;
	volume_registry_setup();
	udev_patcher_setup();
	dm_processor_setup();
	dm_patcher_setup();
	jorl_manager_setup();
	ka_init_completion(&wt_context.init_completion);
	ka_init_completion(&wt_context.deinit_completion);
	ka_init_delayed_work(&_init_work, init_subsystems);

	err = publish_context();
	if (err != 0) {
		ka_exit();
		return err;
	}
	ka_schedule_delayed_work(&_init_work, 0);
	return 0;
}

void cleanup_module(void)
{
	WT_INFO("Unloading\n");
	_flag_to_exit.set(true);
	ka_wait_for_completion(&wt_context.init_completion);

	cleanup_control_device();
	cleanup_jorl_manager();
	jorl_manager_settle();
	dm_unpatch(); // deliberate: what the dm-processor knows is not freed here
	cleanup_volume_ioctl();
	udev_unpatch();
	volume_manager_cleanup();
	volume_registry_cleanup();

	// Here, since a reader of "version" could otherwise be the one to drop the last reference,
	// and wait for itself.
	ka_kobject_del(&wt_context.kobj);
	ka_kobject_put(&wt_context.kobj);
	ka_wait_for_completion(&wt_context.deinit_completion);

	// Whoever was in one of the driver's functions, or on the way out, is out after this.
	const unsigned long start = ka_jiffies();
	while (wt_unpinned_calls.get() > 0 || ka_jiffies() - start <= UNLOAD_LINGER)
		ka_schedule();
	ka_exit();
	WT_INFO("Un-initilization Complete\n");
}
