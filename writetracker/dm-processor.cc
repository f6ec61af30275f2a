// SPDX-License-Identifier: GPL-2.0
// The model of device-mapper devices. Three records meet when a snapshot is made: the visible
// origin volume (a "snapshot-origin" table on the hidden device whose name ends in -real), that
// hidden device (which leads back to the volume), and the snapshot (a "snapshot" table on the
// hidden device). The snapshot's first resume after its table was loaded is the moment to switch.
#include "dm-processor.h"

#include "../kernel-abstractions/memory.h"
#include "../kernel-abstractions/task.h"
#include "guards.h"
#include "hash-chains.h"
#include "scan.h"
#include "volume-manager.h"
#include "wt-logging.h"

static constexpr wt_log_group wt_group = WT_LOG_GROUP_DM_PROCESSOR;

// --- What is known of the devices ----------------------------------------------------------------

struct LvmVolTraits {
	using Key = ka_dev_t;
	static Key key(const lvm_vol_node *node)
	{
		return node->lvn_data.lvd_devt;
	}
	static unsigned int hash(Key dev)
	{
		return (dev * 0x9e370001u) >> 24;
	}
	static lvm_vol_node *&next(lvm_vol_node *node)
	{
		return node->lvn_node;
	}
};

static ka_mutex mtx_lvm_vol_data; // guards all that follows
static HashChains<lvm_vol_node, LvmVolTraits> lvm_vol_data_buckets;
static char volume_name[sizeof(dm_ioctl::name)]; // the logical-volume part of a device's name

// Null when memory is short.
static lvm_vol_data *find_or_create(ka_dev_t dev)
{
	lvm_vol_node *node = lvm_vol_data_buckets.find(dev);
	if (node)
		return &node->lvn_data;
	node = static_cast<lvm_vol_node *>(ka_vmalloc(sizeof(lvm_vol_node)));
	if (!node)
		return nullptr;
	memset(node, 0, sizeof(*node));
	node->lvn_data.lvd_devt = dev;
	lvm_vol_data_buckets.add(node);
	return &node->lvn_data;
}

static void clear_lvm_map()
{
	lvm_vol_data_buckets.drain([](lvm_vol_node *node) { ka_vfree(node); });
}

void dm_processor_setup()
{
	ka_mutex_init(&mtx_lvm_vol_data, "&mtx_lvm_vol_data");
}

int dmp_init()
{
	return 0;
}

void dmp_uninit()
{
	MutexLock lock(mtx_lvm_vol_data);
	clear_lvm_map();
}

// --- Sessions ------------------------------------------------------------------------------------

int dmp_session_start(dmp_handle *handle)
{
	handle->dmp_pid = ka_current_pid();
	handle->dmp_is_version_supported = false;
	return 0;
}

void dmp_session_end(dmp_handle *handle)
{
	handle->dmp_pid = 0;
	handle->dmp_is_version_supported = false;
}

int dmp_ioctl_precall(const dmp_handle *handle, unsigned int cmd)
{
	switch (cmd - DM_IOCTL_BASE) {
	case DM_REMOVE_ALL:
	case DM_DEV_SUSPEND:
	case DM_TABLE_LOAD:
	case DM_TABLE_CLEAR:
	case DM_TABLE_STATUS:
		return 0;
	case DM_VERSION:
		return handle->dmp_is_version_supported ? -KA_EINVAL : 0;
	default:
		return -KA_EINVAL;
	}
}

// --- Tables --------------------------------------------------------------------------------------

// "major:minor" at the head of the text.
static bool parse_devt(const char *text, ka_dev_t *dev)
{
	unsigned int major, minor;
	if (!scan_unsigned(&text, &major) || *text++ != ':' || !scan_unsigned(&text, &minor))
		return false;
	*dev = ka_mkdev(major, minor);
	return true;
}

// The device that a target's parameters name: the whole of them, or their first word.
static int origin_of(char *params, bool first_word, ka_dev_t *dev)
{
	if (parse_devt(params, dev))
		return 0;
	if (first_word) {
		while (is_space(*params))
			params++;
		char *end = params;
		while (*end && !is_space(*end))
			end++;
		*end = '\0';
	}
	if (ka_lookup_bdev(params, dev) == 0)
		return 0;
	WT_WARN("Unable to retrive devt of snap-origin target\n");
	return -KA_ENOTBLK;
}

// The device `dev` is the visible origin volume over the hidden device that its target names.
static int take_origin_target(lvm_vol_data *voldata, ka_dev_t dev, char *params)
{
	ka_dev_t origin;
	int err = origin_of(params, false, &origin);
	if (err != 0)
		return err;
	lvm_vol_data *real = find_or_create(origin);
	if (!real) {
		WT_WARN("Unable to allocate memory hold volume data\n");
		return -KA_ENOMEM;
	}
	real->lvd_dep = dev;
	real->lvd_flags = 0;
	voldata->lvd_dep = origin;
	voldata->lvd_flags = LVD_SNAPSHOT_ORIGIN;
	return 0;
}

static int take_snapshot_target(lvm_vol_data *voldata, char *params)
{
	ka_dev_t origin;
	int err = origin_of(params, true, &origin);
	if (err != 0)
		return err;
	voldata->lvd_dep = origin;
	voldata->lvd_flags = LVD_SNAPSHOT;
	return 0;
}

// The targets of a table, one after the other, never outside the buffer.
class TargetWalk
{
public:
	TargetWalk(const dmp_buffer &table, bool is_answer)
	    : table(table), is_answer(is_answer), position(table.param->data_start)
	{
	}
	// False when the target, or the string after it, does not lie in the buffer.
	bool read(dm_target_spec *spec)
	{
		if (position > table.size || table.size - position <= sizeof(*spec))
			return false;
		memcpy(spec, bytes() + position, sizeof(*spec));
		const size_t room = table.size - position - sizeof(*spec);
		return strnlen(params(), room) < room;
	}
	// The parameters of the target read last.
	char *params() const
	{
		return bytes() + position + sizeof(dm_target_spec);
	}
	// False when the next target is not behind this one: a walk must come to an end.
	bool advance(const dm_target_spec &spec)
	{
		const size_t next = (is_answer ? table.param->data_start : position) + spec.next;
		if (next < position + sizeof(spec))
			return false;
		position = next;
		return true;
	}

private:
	char *bytes() const
	{
		return reinterpret_cast<char *>(table.param);
	}

	const dmp_buffer &table;
	const bool is_answer;
	size_t position;
};

template <size_t Size> static bool is_type(const dm_target_spec &spec, const char (&type)[Size])
{
	return strncmp(spec.target_type, type, Size) == 0;
}

// A device without targets is forgotten but for its place: the number goes with the rest, so its
// record is not found again.
static void forget_table(ka_dev_t dev)
{
	lvm_vol_data *data = find_or_create(dev);
	if (data)
		*data = {};
	else
		WT_WARN("Unable to allocate memory hold volume data\n");
}

// Reads the table in a request or in an answer into the record of its device.
static int update_lvm_vol_data(lvm_vol_data *voldata, const dmp_buffer &table, unsigned int command)
{
	const dm_ioctl *param = table.param;
	if (param->flags & DM_BUFFER_FULL_FLAG) {
		WT_WARN("Unable to retrieve information of all the targets (buffer full)  of "
			"device %s\n",
			param->name);
		return -1;
	}
	// Of a request, the number that the process wrote: 0 when it named the device otherwise.
	const ka_dev_t dev = dm_dev(param->dev);
	if (param->target_count == 0) {
		forget_table(dev);
		return 0;
	}

	TargetWalk walk(table, command == DM_TABLE_STATUS);
	for (uint32_t left = param->target_count;;) {
		dm_target_spec spec;
		if (!walk.read(&spec))
			return -KA_EINVAL;
		if (is_type(spec, "snapshot-origin"))
			return take_origin_target(voldata, dev, walk.params());
		if (is_type(spec, "snapshot"))
			return take_snapshot_target(voldata, walk.params());
		voldata->lvd_flags = 0;
		voldata->lvd_trigger = 0;
		if (--left == 0)
			return 0;
		if (!walk.advance(spec))
			return -KA_EINVAL;
	}
}

static int table_changed(lvm_vol_data *voldata, const dmp_buffer &in, unsigned int command)
{
	const int err = update_lvm_vol_data(voldata, in, command);
	voldata->lvd_trigger = err == 0 && (voldata->lvd_flags & LVD_SNAPSHOT) ? 1 : 0;
	return err;
}

// --- Suspend and resume --------------------------------------------------------------------------

// The logical-volume part of the name "group-volume-layer", in which "--" stands for a dash. Empty
// when there is no such part.
static void extract_volume_name(const char *name)
{
	while (*name && !(name[0] == '-' && name[1] != '-'))
		name += *name == '-' ? 2 : 1;
	if (*name)
		name++;
	size_t length = 0;
	while (*name && length < sizeof(volume_name) - 1) {
		if (*name == '-' && *++name != '-')
			break;
		volume_name[length++] = *name++;
	}
	volume_name[length] = '\0';
	volume_name[sizeof(volume_name) - 1] = '\0';
}

static bool is_backup_snapshot(const char *name)
{
	static constexpr char PREFIX[] = "ZKR_snapshot";
	extract_volume_name(name);
	return strncmp(volume_name, PREFIX, sizeof(PREFIX) - 1) == 0;
}

// The volume of that number with a reference, or none: then the process's request fails.
static volume_info *related_volume(ka_dev_t dev, long *ret)
{
	volume_info *volume = lookup_volume_info(dev);
	if (!volume) {
		WT_WARN("Unable to fetch the volume info for Unknown block write to device %d:%d\n",
			ka_major(dev), ka_minor(dev));
		*ret = -KA_EINVAL;
	}
	return volume;
}

// The snapshot begins to live: what was written to its origin so far is what it holds.
static int switch_at_resume(lvm_vol_data *snapshot, long *ret, const char *name)
{
	if (!snapshot->lvd_trigger)
		return 0;
	snapshot->lvd_trigger = 0;
	const ka_dev_t dep = snapshot->lvd_dep;
	const lvm_vol_data *real = find_or_create(dep);
	if (!real) {
		WT_WARN("Unable to fetch the lvm_vol_info for %d:%d\n", ka_major(dep),
			ka_minor(dep));
		*ret = -KA_ENOMEM;
		return -KA_ENOMEM;
	}
	VolumeRef volume(related_volume(real->lvd_dep, ret));
	if (!volume)
		return -KA_EINVAL;
	WT_INFO("ZKR Snapshot %s being created for volume %s\n", name, volume->vi_dname);
	if (volume_manager_switch_suspended(volume.get()) != 0) {
		WT_WARN("Unable to switch bitmap for volume %s\n", volume->vi_dname);
		*ret = -KA_EINVAL;
		return -KA_EINVAL;
	}
	return 0;
}

// A hidden device was suspended or resumed: the volume over it gets its write hook back if the
// queue has lost it. The volume itself may be suspended at that moment. Opening it would wait for a
// sync of all devices, which waits for the volume's writes, which wait for this request's process.
static int check_hook_over_real(const lvm_vol_data *voldata, long *ret)
{
	VolumeRef volume(related_volume(voldata->lvd_dep, ret));
	if (!volume)
		return -KA_EINVAL;
	PatientMutexLock lock(volume->vi_mtx); // a stop at this moment must not get its hook back
	if (!lock || !volume->vi_istracked)
		return 0;
	request_queue *queue = volume->vi_queue ? ka_get_queue(volume->vi_queue) : nullptr;
	if (!queue) {
		WT_ERROR("Unable to get the block device pointer to disk %s\n", volume->vi_dname);
		return 0;
	}
	if (ka_queue_make_request(queue) != volume->vi_mrqfn_new)
		ka_queue_set_make_request(queue, volume->vi_mrqfn_new);
	ka_put_queue(queue);
	return 0;
}

static int suspend_or_resume(lvm_vol_data *voldata, long *ret, const dm_ioctl *in,
			     const dm_ioctl *out)
{
	const bool resumes = !(in->flags & DM_SUSPEND_FLAG);
	if (resumes && (voldata->lvd_flags & LVD_SNAPSHOT) && is_backup_snapshot(out->name))
		return switch_at_resume(voldata, ret, out->name);
	if (strstr(out->name, "real"))
		return check_hook_over_real(voldata, ret);
	return 0;
}

// --- Requests ------------------------------------------------------------------------------------

static void check_version(dmp_handle *handle, const uint32_t version[3])
{
	handle->dmp_is_version_supported = version[0] == 4 && version[1] <= 29;
	if (!handle->dmp_is_version_supported)
		WT_WARN("Process %u uses un-supported DM-Interface version:%d.%d.%d\n",
			static_cast<unsigned int>(handle->dmp_pid), version[0], version[1],
			version[2]);
}

static void remove_record(ka_dev_t dev)
{
	lvm_vol_node *node = lvm_vol_data_buckets.find(dev);
	lvm_vol_data_buckets.remove_from(dev, node);
	ka_vfree(node);
}

int dmp_ioctl_postcall(dmp_handle *handle, long *ret, unsigned int cmd, const dmp_buffer &in,
		       const dmp_buffer &out)
{
	if (*ret != 0)
		return 0;
	in.param->name[sizeof(in.param->name) - 1] = '\0';
	out.param->name[sizeof(out.param->name) - 1] = '\0';

	InterruptibleMutexLock lock(mtx_lvm_vol_data);
	if (lock.error() != 0) {
		if (lock.error() != -KA_EINTR)
			WT_WARN("Error Getting the lock for LVM vol data %d\n", lock.error());
		return lock.error();
	}
	const ka_dev_t dev = dm_dev(out.param->dev);
	lvm_vol_data *voldata = find_or_create(dev);
	if (!voldata) {
		WT_WARN("Unable to allocate memory hold volume data\n");
		return -KA_ENOMEM;
	}

	const unsigned int command = cmd - DM_IOCTL_BASE;
	switch (command) {
	case DM_VERSION:
		check_version(handle, out.param->version);
		return 0;
	case DM_REMOVE_ALL:
		clear_lvm_map();
		return 0;
	case DM_DEV_REMOVE: // never examined today, so records stay until DM_REMOVE_ALL
		remove_record(dev);
		return 0;
	case DM_DEV_SUSPEND:
		return suspend_or_resume(voldata, ret, in.param, out.param);
	case DM_TABLE_LOAD:
	case DM_TABLE_CLEAR:
		return table_changed(voldata, in, command);
	case DM_TABLE_STATUS:
		if (!(in.param->flags & DM_STATUS_TABLE_FLAG))
			return 0;
		return update_lvm_vol_data(voldata, out, command);
	default:
		return -KA_EINVAL;
	}
}
