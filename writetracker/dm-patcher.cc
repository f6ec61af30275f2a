// SPDX-License-Identifier: GPL-2.0
// The hook in the control device. The character device's table gets another open; the file that it
// opens gets a private copy of the device-mapper's table with another ioctl and another release.
#include "dm-patcher.h"

#include "../kernel-abstractions/memory.h"
#include "../kernel-abstractions/task.h"
#include "guards.h"
#include "hash-chains.h"
#include "writetracker.h"
#include "wt-logging.h"

static constexpr wt_log_group wt_group = WT_LOG_GROUP_DM_PATCHER;

static constexpr char DEFAULT_CONTROL_PATH[] = "/dev/mapper/control";

// Taken in this order.
static ka_mutex mtx_dm_patch_unpatch;
static ka_mutex mtx_dmp_handle_map; // guards the map and all that hangs in it

static ka_dev_t dev_mappercontrol;
static cdev *mappercontrol_driver;
// What was found. Both tables stay set for good, so that a call that is still on its way finds
// them.
static const ka_file_operations *g_misc_oldfops; // set: patched, now or once
static const ka_file_operations *g_dmcontrol_oldfops;
static ka_file_entries
	dmcontrol_entries; // of that table, which goes with the device-mapper's module
static ka_file_operations g_misc_newfops;
static ka_file_operations g_dm_newfops;
static bool is_unpatched; // under the map's mutex: no file may be hooked any more

static Atomic<int> g_active_ioctl_count;

// --- The map of hooked files ---------------------------------------------------------------------

struct DmpHandleTraits {
	using Key = const file *;
	static Key key(const dmp_handle_node *node)
	{
		return node->dhn_data.dmp_filp;
	}
	static unsigned int hash(Key filp)
	{
		return (reinterpret_cast<uint64_t>(filp) * 0x9e37fffffffc0001ull) >> 56;
	}
	static dmp_handle_node *&next(dmp_handle_node *node)
	{
		return node->dhn_node;
	}
};

static HashChains<dmp_handle_node, DmpHandleTraits> dmp_handle_buckets;

static void assert_map_is_locked()
{
	KA_BUG_ON(!ka_mutex_is_locked(&mtx_dmp_handle_map));
}

static void dmp_handle_put(dmp_handle_node *node)
{
	assert_map_is_locked();
	if (--node->refcount == 0)
		ka_vfree(node);
}

// A handle with the map's reference and the caller's. Null when memory is short.
static dmp_handle_node *dmp_handle_map_add(file *filp)
{
	assert_map_is_locked();
	auto *node = static_cast<dmp_handle_node *>(ka_vmalloc(sizeof(dmp_handle_node)));
	if (!node) {
		WT_ERROR("Unable to add the file:%p to dmp_map.Error:%d\n",
			 static_cast<void *>(filp), -KA_ENOMEM);
		return nullptr;
	}
	memset(node, 0, sizeof(*node));
	node->dhn_data.dmp_filp = filp;
	node->refcount = 2;
	dmp_handle_buckets.add(node);
	return node;
}

// The file's handle with one more reference, or null.
static dmp_handle_node *dmp_handle_map_lookup(const file *filp)
{
	assert_map_is_locked();
	dmp_handle_node *node = dmp_handle_buckets.find(filp);
	if (node)
		node->refcount++;
	return node;
}

// Takes the handle out of the map and drops two references: the map's and the caller's.
static void dmp_handle_map_remove(dmp_handle_node *node)
{
	assert_map_is_locked();
	dmp_handle_buckets.remove_from(node->dhn_data.dmp_filp, node);
	dmp_handle_put(node);
	dmp_handle_put(node);
}

// The file goes without having been released: its handle stays, but looks at it no more.
static void dmp_handle_map_disown(const file *filp)
{
	MutexLock lock(mtx_dmp_handle_map);
	dmp_handle_node *node = dmp_handle_buckets.find(filp);
	if (node)
		node->dhn_data.dmp_filp = nullptr;
}

// Gives the files that are still open the character device's table and forgets them.
static void dmp_handle_map_clear()
{
	MutexLock lock(mtx_dmp_handle_map);
	is_unpatched = true;
	dmp_handle_buckets.drain([](dmp_handle_node *node) {
		file *filp = node->dhn_data.dmp_filp;
		if (filp && ka_file_ops(filp) == &g_dm_newfops)
			ka_file_set_ops(filp, g_misc_oldfops);
		dmp_handle_put(node);
	});
}

// The map's mutex on behalf of a process; logs what kept it from being taken.
class MapLock : public InterruptibleMutexLock
{
public:
	MapLock() : InterruptibleMutexLock(mtx_dmp_handle_map)
	{
		if (error() != 0)
			WT_ERROR("Unable to take the dmp_handle_mutex.Error:%d\n", error());
	}
};

// --- Ioctls --------------------------------------------------------------------------------------

static constexpr uint32_t MAX_REQUEST = 256u << 20; // bytes

// A private copy of a request as it stands in the process's memory. Wiped before it is freed: it
// may hold the key of an encrypted device.
class RequestCopy
{
public:
	RequestCopy() = default;
	~RequestCopy()
	{
		if (buffer.param)
			memset(buffer.param, 0, buffer.size);
		ka_vfree(buffer.param);
	}
	RequestCopy(const RequestCopy &) = delete;
	RequestCopy &operator=(const RequestCopy &) = delete;

	// -EFAULT when the request cannot be read or says that it is smaller than `least`, -ENOMEM
	// when it says that it is larger than any that the kernel takes.
	int read(const void *user, uint32_t least)
	{
		dm_ioctl header = {};
		if (ka_copy_from_user(&header, user, DM_HEADER_SIZE) != 0 ||
		    header.data_size < least)
			return -KA_EFAULT;
		if (header.data_size > MAX_REQUEST)
			return -KA_ENOMEM;
		// The kernel answers some commands with less than a whole header.
		const size_t size =
			header.data_size < sizeof(header) ? sizeof(header) : header.data_size;
		buffer.param = static_cast<dm_ioctl *>(ka_vmalloc(size));
		if (!buffer.param)
			return -KA_ENOMEM;
		buffer.size = size;
		memset(buffer.param, 0, size);
		return ka_copy_from_user(buffer.param, user, header.data_size) == 0 ? 0
										    : -KA_EFAULT;
	}
	const dmp_buffer &get() const
	{
		return buffer;
	}

private:
	dmp_buffer buffer = {nullptr, 0};
};

static long dm_ioctl_of_kernel(file *filp, unsigned int cmd, unsigned long arg)
{
	return dmcontrol_entries.unlocked_ioctl(filp, cmd, arg);
}

// Has the kernel run the request and shows it to the processor. Returns what the process gets; *err
// is what went wrong in the driver.
static long examine(dmp_handle *handle, file *filp, unsigned int cmd, unsigned long arg, long *err)
{
	const auto *user = reinterpret_cast<const void *>(arg);
	RequestCopy in, out;

	*err = in.read(user, sizeof(dm_ioctl));
	if (*err != 0) {
		WT_WARN("Error copying in-dmparams from process %d\n", ka_current_pid());
		return *err;
	}
	long ret = dm_ioctl_of_kernel(filp, cmd, arg);
	*err = out.read(user, 0);
	if (*err != 0) {
		WT_WARN("Error copying out-dmparams from process %d\n", ka_current_pid());
		return ret;
	}
	*err = dmp_ioctl_postcall(handle, &ret, cmd, in.get(), out.get());
	if (*err != 0)
		WT_WARN("Unable to process LVM request %x for process %d Error:%ld\n", cmd,
			ka_current_pid(), *err);
	return ret;
}

static long examine_or_forward(dmp_handle *handle, file *filp, unsigned int cmd, unsigned long arg)
{
	long err = dmp_ioctl_precall(handle, cmd);
	long ret = err;
	if (err == -KA_EINVAL) {
		ret = dm_ioctl_of_kernel(filp, cmd, arg);
		err = 0;
	} else if (err == 0) {
		ret = examine(handle, filp, cmd, arg, &err);
	}
	// What goes wrong in here never fails a request that the kernel has granted.
	if (err != 0 && ret == 0)
		WT_WARN("Unable to handle LVM request %x for process %d Error:%ld\n", cmd,
			ka_current_pid(), err);
	if (ret != 0)
		WT_INFO("Returning error for LVM request 0x%x for process %d Error:%ld Ret:%ld\n",
			cmd, ka_current_pid(), err, ret);
	return ret;
}

class ActiveIoctl
{
public:
	ActiveIoctl()
	{
		g_active_ioctl_count.increment();
	}
	~ActiveIoctl()
	{
		g_active_ioctl_count.decrement();
	}
	ActiveIoctl(const ActiveIoctl &) = delete;
	ActiveIoctl &operator=(const ActiveIoctl &) = delete;
};

extern "C" {

static long dm_unlocked_ioctl(file *filp, unsigned int cmd, unsigned long arg)
{
	ModulePin pin;
	ActiveIoctl active;
	KA_BUG_ON(!g_dmcontrol_oldfops);

	dmp_handle_node *node;
	bool was_hooked;
	{
		MapLock lock;
		if (lock.error() != 0)
			return lock.error();
		node = dmp_handle_map_lookup(filp);
		was_hooked = node || is_unpatched;
	}
	KA_BUG_ON(!was_hooked);
	if (!node) // the call was on its way when the file lost its hook
		return dm_ioctl_of_kernel(filp, cmd, arg);
	// The kernel refuses the requests of others without a look at their memory.
	const long ret = ka_capable_sys_admin()
				 ? examine_or_forward(&node->dhn_data, filp, cmd, arg)
				 : dm_ioctl_of_kernel(filp, cmd, arg);
	MutexLock lock(mtx_dmp_handle_map);
	dmp_handle_put(node);
	return ret;
}

static int dm_release(inode *node, file *filp)
{
	ModulePin pin;
	KA_BUG_ON(!g_dmcontrol_oldfops);
	MapLock lock;
	if (lock.error() != 0) {
		dmp_handle_map_disown(filp);
		return lock.error();
	}
	const int ret = dmcontrol_entries.release ? dmcontrol_entries.release(node, filp) : 0;
	KA_BUG_ON(ka_inode_rdev(node) != dev_mappercontrol);
	dmp_handle_node *handle = dmp_handle_map_lookup(filp);
	if (!handle) {
		WT_WARN("DMP-Handle for File:%p not found\n", static_cast<void *>(filp));
		return ret;
	}
	dmp_session_end(&handle->dhn_data);
	dmp_handle_map_remove(handle); // deliberate: the opener's reference is kept for good
	return ret;
}

} // extern "C"

// --- Opens ---------------------------------------------------------------------------------------

// The first control device that is opened tells the device-mapper's own table.
static void capture_dm_operations(file *filp)
{
	if (g_dmcontrol_oldfops)
		return;
	g_dmcontrol_oldfops = ka_file_ops(filp);
	dmcontrol_entries = ka_file_ops_entries(g_dmcontrol_oldfops);
	const ka_file_entries entries = {nullptr, dm_unlocked_ioctl, dm_release};
	ka_file_ops_copy(&g_dm_newfops, g_dmcontrol_oldfops, &entries);
}

static bool is_of_captured_kind(file *filp)
{
	return ka_file_ops_entries(ka_file_ops(filp)).unlocked_ioctl ==
	       dmcontrol_entries.unlocked_ioctl;
}

// Whether the file that the kernel has just opened shall be hooked.
static bool begin_session(dmp_handle_node *handle, file *filp)
{
	capture_dm_operations(filp);
	if (!is_of_captured_kind(filp)) {
		WT_WARN("Mismatch in old and new ioctl calls to DM control.Ignoring the dm-open\n");
		return false;
	}
	return dmp_session_start(&handle->dhn_data) == 0;
}

extern "C" {

// Opens every device of the character device's driver.
static int dm_misc_open(inode *node, file *filp)
{
	ModulePin pin;
	KA_BUG_ON(!g_misc_oldfops);
	ka_file_fn *open = ka_file_ops_entries(g_misc_oldfops).open;
	if (ka_inode_rdev(node) != dev_mappercontrol)
		return open(node, filp);

	MapLock lock;
	if (lock.error() != 0)
		return lock.error();
	if (is_unpatched)
		return open(node, filp);
	dmp_handle_node *handle = dmp_handle_map_add(filp);
	if (!handle)
		return -KA_ENOMEM;
	const int err = open(node, filp);
	if (err == 0 && begin_session(handle, filp))
		ka_file_set_ops(filp, &g_dm_newfops);
	else
		dmp_handle_map_remove(handle);
	return err;
}

} // extern "C"

// --- Patch and unpatch ---------------------------------------------------------------------------

// The control node, opened on the driver's own behalf. Closed when it goes out of scope.
class ControlNode
{
public:
	ControlNode()
	    : filp(ka_filp_open(wt_context.arg_dm_control_device ? wt_context.arg_dm_control_device
								 : DEFAULT_CONTROL_PATH))
	{
		if (!is_open())
			WT_ERROR("Unable to lookup path %ld\n\n", ka_ptr_err(filp));
	}
	~ControlNode()
	{
		close();
	}
	ControlNode(const ControlNode &) = delete;
	ControlNode &operator=(const ControlNode &) = delete;

	bool is_open() const
	{
		return !ka_is_err(filp);
	}
	void close()
	{
		if (is_open())
			ka_filp_close(release());
	}
	// Gives the open file up without closing it.
	file *release()
	{
		file *kept = filp;
		filp = static_cast<file *>(ka_err_ptr(-KA_ENOENT));
		return kept;
	}
	ka_dev_t rdev() const
	{
		return ka_inode_rdev(ka_file_inode(filp));
	}
	// The character device of its driver: of every device of that major.
	cdev *driver() const
	{
		return ka_inode_cdev(ka_file_inode(filp));
	}

private:
	file *filp;
};

void dm_patcher_setup()
{
	ka_mutex_init(&mtx_dm_patch_unpatch, "&mtx_dm_patch_unpatch");
	ka_mutex_init(&mtx_dmp_handle_map, "&mtx_dmp_handle_map");
}

int dm_patch()
{
	ContextRef context;
	if (!context)
		return -KA_EAGAIN;
	MutexLock lock(mtx_dm_patch_unpatch);
	if (g_misc_oldfops)
		return -KA_EBUSY;
	ControlNode node;
	if (!node.is_open())
		return -KA_ENOENT;
	cdev *driver = node.driver();
	KA_BUG_ON(!driver);

	dev_mappercontrol = node.rdev();
	mappercontrol_driver = driver;
	g_misc_oldfops = ka_cdev_ops(driver);
	const ka_file_entries entries = {dm_misc_open, nullptr, nullptr};
	ka_file_ops_copy(&g_misc_newfops, g_misc_oldfops, &entries);
	ka_cdev_set_ops(driver, &g_misc_newfops);
	node.close();
	WT_INFO("Done Replacing function pointers\n\n");
	g_active_ioctl_count.set(0);
	return 0;
}

// Takes the hook out of the driver that has it, unless somebody else put theirs over it.
static void restore_open()
{
	if (ka_cdev_ops(mappercontrol_driver) == &g_misc_newfops)
		ka_cdev_set_ops(mappercontrol_driver, g_misc_oldfops);
}

// The module may be on its way out and nobody looks at the result, so what can be taken out goes
// also where the path leads nowhere any more, or to another driver.
int dm_unpatch()
{
	ContextRef context;
	if (!context)
		return -KA_EAGAIN;
	MutexLock lock(mtx_dm_patch_unpatch);
	if (!g_misc_oldfops)
		return -KA_EBUSY;
	ControlNode node;
	int err = 0;
	if (!node.is_open()) {
		err = -KA_ENOENT;
	} else if (cdev *driver = node.driver();
		   !driver || ka_cdev_ops(driver) != &g_misc_newfops) {
		WT_ERROR("Cannot unload module since Misc Device already re-patched\n");
		node.release(); // deliberate: this file stays open
		err = -KA_EEXIST;
	}
	restore_open();
	node.close(); // a last time with the hook, which releases it properly
	dmp_handle_map_clear();
	if (g_active_ioctl_count.get() > 0)
		ka_schedule();
	return err;
}
