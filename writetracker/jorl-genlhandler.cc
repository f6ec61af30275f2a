// SPDX-License-Identifier: GPL-2.0
// The commands that create and list restore disks, and those about one of them.
#include "jorl-genlhandler.h"

#include "../kernel-abstractions/memory.h"
#include "../kernel-abstractions/task.h"
#include "genl-reply.h"
#include "wt-logging.h"

static constexpr wt_log_group wt_group = WT_LOG_GROUP_JORL_GENLHANDLER;

static constexpr size_t REPLY_ROOM = 32;
static constexpr size_t MIN_BLOCK_SIZE = 512;

// --- The manager's commands ----------------------------------------------------------------------

static int start_session(const GenlRequest &request)
{
	JorlManagerRef session;
	if (!session)
		return -KA_EAGAIN;
	session.release(); // deliberate: a session is never given back
	return request.acknowledge();
}

// Nobody knows the disk, but for those who list all; one of them may have destroyed it meanwhile.
static void destroy_unreachable_disk(wt_jorl_diskhandle_t handle)
{
	JorlVolumeRef volume(lookup_jorlvolume_info(handle));
	if (volume)
		jorlmanager_destroy_disk(volume.get());
}

static int alloc_disk(const GenlRequest &request)
{
	const auto *asked = request.attribute<wtflr_allocdisk_req>(WT_GENATTR_FLR_ALLOCDISK_REQ);
	if (!asked)
		return request.invalid();
	wtflr_allocdisk_req req;
	memcpy(&req, asked, sizeof(req));
	GenlReply reply(request.info, REPLY_ROOM);
	if (!reply.is_valid())
		return request.out_of_memory();
	if (req.wtfad_blocksize < MIN_BLOCK_SIZE) {
		WT_ERROR("[JRGENL] Invalid disk creation request for Block-Size=%lu & "
			 "Block-Count=%lu\n",
			 req.wtfad_blocksize, req.wtfad_numblocks);
		return -KA_EINVAL;
	}
	if (req.wtfad_pid == 0)
		req.wtfad_pid = ka_current_pid();

	jorlvolume_info *volume = jorlmanager_create_disk(&req);
	if (ka_is_err(volume))
		return static_cast<int>(ka_ptr_err(volume));
	wt_jorl_diskhandle_t handle = volume;
	int err = reply.put(WT_GENATTR_JORL_DISKHANDLE, sizeof(handle), &handle);
	if (err != 0) {
		WT_ERROR("[JRGENL] Unable set alloc disk command response(%d)\n", err);
		err = -KA_EMSGSIZE;
	} else {
		err = request.send(reply);
	}
	if (err != 0)
		destroy_unreachable_disk(handle);
	return err;
}

namespace
{

// The handles of all disks, in the record that the reply carries.
struct wt_list_diskhandles {
	long err;
	size_t max_count_list; // in handles
	wtflr_jorldisk_handles *handles;

	static wtflr_jorldisk_handles *allocate(size_t size)
	{
		auto *buffer = static_cast<wtflr_jorldisk_handles *>(ka_vmalloc(size));
		if (buffer)
			buffer->count_handles = 0;
		else
			WT_ERROR("Unable to allocate enough space for output buffer\n");
		return buffer;
	}
	size_t size() const
	{
		return sizeof(*handles) + handles->count_handles * sizeof(wt_jorl_diskhandle_t);
	}
	// Room grows by the square of itself.
	void grow()
	{
		wtflr_jorldisk_handles *larger =
			allocate(sizeof(*handles) + 2 * sizeof(wt_jorl_diskhandle_t) *
							    max_count_list * max_count_list);
		if (larger) {
			memcpy(larger, handles, size());
			max_count_list = 2 * max_count_list * max_count_list;
		} else {
			err = -KA_ENOMEM;
		}
		ka_vfree(handles);
		handles = larger;
	}
};

constexpr size_t FIRST_LIST_ROOM = 64;

} // namespace

extern "C" {

static void _jorlvolume_registry_callback(jorlvolume_info *volume, void *arg)
{
	auto *list = static_cast<wt_list_diskhandles *>(arg);
	if (list->err == 0 && list->handles->count_handles == list->max_count_list)
		list->grow();
	if (list->err == 0)
		list->handles->handles[list->handles->count_handles++] = volume;
}

} // extern "C"

static int reply_with_list(const GenlRequest &request, const wt_list_diskhandles &list)
{
	GenlReply reply(request.info,
			list.handles->count_handles * sizeof(wt_jorl_diskhandle_t) + REPLY_ROOM);
	if (!reply.is_valid())
		return request.out_of_memory();
	if (reply.put(WT_GENATTR_JORLDISK_HANDLES, list.size(), list.handles) != 0)
		return -KA_EMSGSIZE;
	return request.send(reply);
}

static int list_disks(const GenlRequest &request)
{
	wt_list_diskhandles list = {
		0, FIRST_LIST_ROOM,
		wt_list_diskhandles::allocate(sizeof(wtflr_jorldisk_handles) +
					      FIRST_LIST_ROOM * sizeof(wt_jorl_diskhandle_t))};
	if (!list.handles)
		return -KA_ENOMEM;
	for_each_jorlvolume_info(_jorlvolume_registry_callback, &list);
	int err = static_cast<int>(list.err);
	if (err != 0)
		WT_ERROR("Unable to fetch jorlvolume list from registry. Error(%d)\n", err);
	else
		err = reply_with_list(request, list);
	ka_vfree(list.handles);
	return err;
}

int jorlmanager_process_genl_msg(jorlmanager_context_t *, sk_buff *skb, genl_info *info)
{
	switch (ka_genl_cmd(info)) {
	case WTFLR_START_SESSION_IOCTL_INDEX:
		return start_session({skb, info, wt_group, "WTFLR_START_SESSION_IOCTL_INDEX"});
	case WTFLR_ALLOC_DISK_IOCTL_INDEX:
		return alloc_disk({skb, info, wt_group, "WTFLR_ALLOC_DISK_IOCTL_INDEX"});
	case WTFLR_LIST_DISKS_IOCTL_INDEX:
		return list_disks({skb, info, wt_group, "WTFLR_LIST_DISKS_IOCTL_INDEX"});
	default:
		return -KA_ENOIOCTLCMD;
	}
}

// --- A disk's commands ---------------------------------------------------------------------------

namespace
{

struct DiskRequest : GenlRequest {
	jorlvolume_info *volume;

	int missing(const char *attribute) const
	{
		WT_ERROR("Invalid gen-netlink message %s. Missing Attr %s\n", command, attribute);
		return -KA_EINVAL;
	}
	// Answers a command that has nothing but success or failure; `deed` is for the message.
	int conclude(int err, const char *deed) const
	{
		if (err != 0)
			WT_ERROR("Unable to %s the disk %s due to error %d\n", deed,
				 volume->dvi_name, err);
		return acknowledge_or_error(err);
	}
};

} // namespace

static int resume_disk(const DiskRequest &request)
{
	const auto *port = request.attribute<wtflr_portid_t>(WT_GENATTR_FLR_PORT_ID);
	if (!port)
		return request.missing("WT_GENATTR_FLR_PORT_ID");
	wtflr_portid_t port_id;
	memcpy(&port_id, port, sizeof(port_id));
	return request.conclude(
		jorlmanager_start_disk(request.volume, static_cast<unsigned int>(port_id)),
		"start");
}

static int suspend_disk(const DiskRequest &request)
{
	return request.conclude(jorlmanager_stop_disk(request.volume), "stop");
}

static int destroy_disk(const DiskRequest &request)
{
	return request.conclude(jorlmanager_destroy_disk(request.volume), "destroy");
}

static int get_disk_attributes(const DiskRequest &request)
{
	const jorlvolume_info *volume = request.volume;
	wtflr_disk_attrs attrs;
	memset(&attrs, 0, sizeof(attrs));
	attrs.wtfda_handle = request.volume;
	ka_snprintf(attrs.wtfda_name, sizeof(attrs.wtfda_name), "%s", volume->dvi_name);
	attrs.wtfda_blocksize = volume->dvi_block_size;
	attrs.wtfda_numblocks = volume->dvi_sectors;
	attrs.wtfda_pid = volume->dvi_pid;
	attrs.wtfda_portid = volume->dvi_datalink_pid;
	attrs.wtfda_devt = ka_mkdev(static_cast<unsigned int>(volume->dvi_major), 0);
	attrs.wtfda_isrw = ka_disk_is_read_only(volume->dvi_disk) ? 0 : 1;
	return request.reply(WT_GENATTR_FLR_DISK_ATTRS, &attrs, sizeof(attrs));
}

static int get_user_data(const DiskRequest &request)
{
	wt_jorl_disk_user_data_t user_data;
	const int err = jorlmanager_get_disk_userdata(request.volume, &user_data);
	if (err != 0)
		return request.conclude(err, "get user data for");
	return request.reply(WT_GENATTR_JORL_DISK_USER_DATA, &user_data, sizeof(user_data));
}

static int set_user_data(const DiskRequest &request)
{
	const auto *given =
		request.attribute<wt_jorl_disk_user_data_t>(WT_GENATTR_JORL_DISK_USER_DATA);
	if (!given)
		return request.missing("WT_GENATTR_JORL_DISK_USER_DATA");
	wt_jorl_disk_user_data_t user_data;
	memcpy(&user_data, given, sizeof(user_data));
	return request.conclude(jorlmanager_set_disk_userdata(request.volume, user_data),
				"set user data for");
}

namespace
{

struct disk_command {
	const char *name;
	int (*run)(const DiskRequest &request); // null: not about one disk
};

} // namespace

// By command index, from the first of them on. The family lets the last two not through.
static constexpr disk_command disk_commands[] = {
	{"WTFLR_RESUME_DISK_IOCTL_INDEX", resume_disk},
	{"WTFLR_SUSPEND_DISK_IOCTL_INDEX", suspend_disk},
	{"WTFLR_DESTROY_DISK_IOCTL_INDEX", destroy_disk},
	{"WTFLR_GET_DISKATTRS_IOCTL_INDEX", get_disk_attributes},
	{"WTFLR_LIST_DISKS_IOCTL_INDEX", nullptr},
	{"WTFLR_GET_DISK_USER_DATA_IOCTL_INDEX", get_user_data},
	{"WTFLR_SET_DISK_USER_DATA_IOCTL_INDEX", set_user_data},
};
static constexpr size_t DISK_COMMANDS = sizeof(disk_commands) / sizeof(disk_commands[0]);

int jorlmanager_process_volume_genl_msg(jorlvolume_info *volume, sk_buff *skb, genl_info *info)
{
	const size_t index = ka_genl_cmd(info) - size_t{WTFLR_RESUME_DISK_IOCTL_INDEX};
	if (index >= DISK_COMMANDS || !disk_commands[index].run)
		return -KA_ENOIOCTLCMD;
	return disk_commands[index].run({{skb, info, wt_group, disk_commands[index].name}, volume});
}
