// SPDX-License-Identifier: GPL-2.0
// The control device /dev/zorvat-control and the generic-netlink family "zorvat-control".
#include "control-device.h"

#include "../h/wt.h"
#include "../kernel-abstractions/chardev.h"
#include "../kernel-abstractions/memory.h"
#include "../kernel-abstractions/module.h"
#include "../kernel-abstractions/task.h"
#include "genl-reply.h"
#include "jorl-genlhandler.h"
#include "jorl-manager.h"
#include "volume-ioctl.h"
#include "volume-registry.h"
#include "writetracker.h"
#include "wt-logging.h"

static constexpr wt_log_group wt_group = WT_LOG_GROUP_CONTROL_DEVICE;

// --- The control device --------------------------------------------------------------------------

// The argument is a device number, and behind it the command's record.
static long volume_ioctl(unsigned int index, unsigned long arg)
{
	ka_dev_t dev;
	if (ka_copy_from_user(&dev, reinterpret_cast<void *>(arg), sizeof(dev)) != 0) {
		WT_ERROR("Unable to copy devt from the userland\n");
		return -KA_EACCES;
	}
	VolumeRef volume(lookup_volume_info(dev));
	if (!volume) {
		WT_ERROR("Unknown device %d:%d\n", ka_major(dev), ka_minor(dev));
		return -KA_EINVAL;
	}
	return process_volume_ioctl(volume.get(), index,
				    reinterpret_cast<void *>(arg + sizeof(dev)));
}

extern "C" {

static long wt_ctl_ioctl(file *, unsigned int command, unsigned long arg)
{
	if (WT_IOCTL_TYPE_OF(command) != WT_IOCTL_TYPE)
		return -KA_ENOIOCTLCMD;
	if (!ka_capable_sys_admin())
		return -KA_EACCES;
	const unsigned int index = WT_IOCTL_INDEX_OF(command);
	if (index >= WT_MAX_IOCTL_INDEX) {
		WT_WARN("Invalid command %d on control device\n", command);
		return -KA_EACCES;
	}
	switch (index) {
	case WT_GET_DRIVER_VERSION_IOCTL_INDEX:
		return copy_driver_version(wt_group, reinterpret_cast<void *>(arg));
	case WT_PATCH_IOCTL_INDEX:
	case WT_UNPATCH_IOCTL_INDEX:
		return 0;
	}
	// Restore disks are served over netlink only.
	if (index >= WT_MAX_VOLUME_IOCTL_INDEX)
		return -KA_ENOIOCTLCMD;
	return volume_ioctl(index, arg);
}

// 32-bit callers use the 64-bit records.
static long wt_compat_ctl_ioctl(file *filp, unsigned int command, unsigned long arg)
{
	return wt_ctl_ioctl(filp, command, arg);
}
}

static ka_miscdevice _wt_misc = {KA_MISC_DYNAMIC_MINOR, KA_MODULE_NAME,      WT_CONTROL_NODE_NAME,
				 wt_ctl_ioctl,          wt_compat_ctl_ioctl, {}};

// --- The generic-netlink family ------------------------------------------------------------------

static int acknowledge_error(sk_buff *skb, const genl_info *info, int err)
{
	ka_netlink_ack(skb, info, err);
	return err;
}

// Builds and sends the reply. The send's failure is told apart: its buffer is gone by then.
static int reply_version(const genl_info *info)
{
	GenlReply reply(info, sizeof(wt_version));
	if (!reply.is_valid()) {
		WT_ERROR("Unable to allocate enough memory for response of command %s\n",
			 "WT_GET_DRIVER_VERSION_IOCTL_INDEX");
		return -KA_ENOMEM;
	}
	{
		ContextRef context;
		if (!context)
			return -KA_EAGAIN;
		KA_BUG_ON(ka_genl_cmd(info) != WT_GET_DRIVER_VERSION_IOCTL_INDEX);
		int err = reply.put(WT_GENATTR_VERSION, sizeof(wt_version),
				    &wt_context.driver_version);
		if (err != 0) {
			WT_ERROR("Unable set version command response(%d)\n", err);
			return -KA_EMSGSIZE;
		}
	}
	int err = reply.send();
	if (err != 0)
		WT_ERROR("Unable to send reply to command %s.Err(%d)\n",
			 "WT_GET_DRIVER_VERSION_IOCTL_INDEX", err);
	return err;
}

static int genl_handler_WT_GET_DRIVER_VERSION_IOCTL_INDEX(sk_buff *skb, genl_info *info)
{
	int err = reply_version(info);
	return err != 0 ? acknowledge_error(skb, info, err) : 0;
}

// What a request names its target by. An attribute that is too short counts as missing.
template <typename Target>
static bool read_attribute(const genl_info *info, int type, Target *target)
{
	size_t length;
	const void *data = ka_genl_attr(info, type, &length);
	if (!data || length < sizeof(*target))
		return false;
	memcpy(target, data, sizeof(*target));
	return true;
}

static int wt_genl_handler_volume_request(sk_buff *skb, genl_info *info)
{
	if (!info) {
		WT_ERROR("Null volume genl-request\n");
		return -KA_EINVAL;
	}
	ka_dev_t dev;
	if (!read_attribute(info, WT_GENATTR_DISKHANDLE, &dev)) {
		WT_ERROR("Invalid volume genl-request\n");
		return acknowledge_error(skb, info, -KA_EINVAL);
	}
	VolumeRef volume(lookup_volume_info(dev));
	if (!volume) {
		WT_ERROR("Unknown device %d:%d\n", ka_major(dev), ka_minor(dev));
		return acknowledge_error(skb, info, -KA_EINVAL);
	}
	int err = process_volume_gen_netlink_msg(volume.get(), skb, info);
	volume.reset(nullptr);
	return err != 0 ? acknowledge_error(skb, info, err) : 0;
}

static int no_manager(sk_buff *skb, const genl_info *info)
{
	WT_ERROR("[Control-Device]Unable to get the jorlmanager context\n");
	return acknowledge_error(skb, info, -KA_EAGAIN);
}

// The manager's reference goes before an error is acknowledged.
template <typename Serve>
static int serve_with_manager(sk_buff *skb, const genl_info *info, Serve serve)
{
	int err;
	{
		JorlManagerRef manager;
		if (!manager)
			return no_manager(skb, info);
		err = serve();
	}
	return err != 0 ? acknowledge_error(skb, info, err) : 0;
}

static int wt_genl_handler_jorlmanager_request(sk_buff *skb, genl_info *info)
{
	return serve_with_manager(skb, info, [=] {
		return jorlmanager_process_genl_msg(&jorlmanager_context, skb, info);
	});
}

static int wt_genl_handler_jorlvolume_request(sk_buff *skb, genl_info *info)
{
	if (!info) {
		WT_ERROR("Null jorlvolume genl-request\n");
		return -KA_EINVAL;
	}
	wt_jorl_diskhandle_t handle;
	if (!read_attribute(info, WT_GENATTR_JORL_DISKHANDLE, &handle)) {
		WT_ERROR("Invalid jorlvolume genl-request\n");
		return acknowledge_error(skb, info, -KA_EINVAL);
	}
	return serve_with_manager(skb, info, [=] {
		JorlVolumeRef volume(lookup_jorlvolume_info(handle));
		if (volume)
			return jorlmanager_process_volume_genl_msg(volume.get(), skb, info);
		WT_ERROR("Unknown jorl device %p\n", handle);
		return -KA_EINVAL;
	});
}

static constexpr ka_genl_ops _wt_genl_family_ops[] = {
	{WT_GET_DRIVER_VERSION_IOCTL_INDEX, 0, genl_handler_WT_GET_DRIVER_VERSION_IOCTL_INDEX},
	{WT_IS_DRIVER_PRESENT_IOCTL_INDEX, KA_GENL_ADMIN_PERM, wt_genl_handler_volume_request},
	{WT_GET_BACKUP_LEVEL_IOCTL_INDEX, KA_GENL_ADMIN_PERM, wt_genl_handler_volume_request},
	{WT_BMCONFIG_IOCTL_INDEX, KA_GENL_ADMIN_PERM, wt_genl_handler_volume_request},
	{WT_START_IOCTL_INDEX, KA_GENL_ADMIN_PERM, wt_genl_handler_volume_request},
	{WT_BMSIZE_IOCTL_INDEX, KA_GENL_ADMIN_PERM, wt_genl_handler_volume_request},
	{WT_BITMAP_IOCTL_INDEX, KA_GENL_ADMIN_PERM, wt_genl_handler_volume_request},
	{WT_STOP_IOCTL_INDEX, KA_GENL_ADMIN_PERM, wt_genl_handler_volume_request},
	{WT_DATA_IOCTL_INDEX, KA_GENL_ADMIN_PERM, wt_genl_handler_volume_request},
	{WT_GET_EXTENTS_IOCTL_INDEX, KA_GENL_ADMIN_PERM, wt_genl_handler_volume_request},
	{WT_CLEAR_SNAPSHOT_BITMAP_IOCTL_INDEX, KA_GENL_ADMIN_PERM, wt_genl_handler_volume_request},
	{WT_SWITCH_VOLUME_CBT_IOCTL_INDEX, KA_GENL_ADMIN_PERM, wt_genl_handler_volume_request},
	{WT_GET_VOLUME_UUID_IOCTL_INDEX, KA_GENL_ADMIN_PERM, wt_genl_handler_volume_request},
	{WTFLR_START_SESSION_IOCTL_INDEX, KA_GENL_ADMIN_PERM, wt_genl_handler_jorlmanager_request},
	{WTFLR_ALLOC_DISK_IOCTL_INDEX, KA_GENL_ADMIN_PERM, wt_genl_handler_jorlmanager_request},
	{WTFLR_LIST_DISKS_IOCTL_INDEX, KA_GENL_ADMIN_PERM, wt_genl_handler_jorlmanager_request},
	{WTFLR_RESUME_DISK_IOCTL_INDEX, KA_GENL_ADMIN_PERM, wt_genl_handler_jorlvolume_request},
	{WTFLR_SUSPEND_DISK_IOCTL_INDEX, KA_GENL_ADMIN_PERM, wt_genl_handler_jorlvolume_request},
	{WTFLR_DESTROY_DISK_IOCTL_INDEX, KA_GENL_ADMIN_PERM, wt_genl_handler_jorlvolume_request},
	{WTFLR_GET_DISKATTRS_IOCTL_INDEX, KA_GENL_ADMIN_PERM, wt_genl_handler_jorlvolume_request},
};

static constexpr size_t GENL_OPS = sizeof(_wt_genl_family_ops) / sizeof(_wt_genl_family_ops[0]);
static_assert(GENL_OPS <= KA_GENL_MAX_OPS);

static ka_genl_family _wt_genl_family = {
	0, WT_GENL_FAMILY_NAME, 0, WT_GENL_FAMILY_VERSION, WT_GENATTR_MAX_ATTR, {}};
const ka_genl_family *wt_genl_family;

// --- Opening and closing
// ---------------------------------------------------------------------------

static int register_control_device()
{
	if (_wt_misc.minor != KA_MISC_DYNAMIC_MINOR)
		return 0;
	int err = ka_misc_register(&_wt_misc);
	if (err != 0) {
		_wt_misc.minor = KA_MISC_DYNAMIC_MINOR;
		WT_ERROR("misc_register failed for control device (%d)\n", err);
	}
	return err;
}

static int register_netlink_family()
{
	if (_wt_genl_family.id != 0)
		return 0;
	int err = ka_genl_register_family_with_ops(&_wt_genl_family, _wt_genl_family_ops, GENL_OPS);
	if (err != 0) {
		_wt_genl_family.id = 0;
		WT_ERROR("genl_register_family failed for control device (%d)\n", err);
	}
	return err;
}

int init_control_device()
{
	// Requests may arrive before the registration has returned.
	wt_genl_family = &_wt_genl_family;
	int err = register_control_device();
	return err != 0 ? err : register_netlink_family();
}

int cleanup_control_device()
{
	if (_wt_misc.minor != KA_MISC_DYNAMIC_MINOR) {
		ka_misc_deregister(&_wt_misc);
		_wt_misc.minor = KA_MISC_DYNAMIC_MINOR;
	}
	if (_wt_genl_family.id != 0) {
		ka_genl_unregister_family(&_wt_genl_family);
		_wt_genl_family.id = 0;
	}
	return 0;
}
