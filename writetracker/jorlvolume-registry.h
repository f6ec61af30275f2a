// SPDX-License-Identifier: GPL-2.0
// The table of all restore disks. User space names a disk by the address of its record: an address
// becomes a record only if exactly that one is registered.
#ifndef WT_JORLVOLUME_REGISTRY_H
#define WT_JORLVOLUME_REGISTRY_H

#include "../h/wt.h"
#include "../kernel-abstractions/block.h"
#include "../kernel-abstractions/kfifo.h"
#include "../kernel-abstractions/kobject.h"
#include "../kernel-abstractions/mm.h"
#include "../kernel-abstractions/socket.h"
#include "../kernel-abstractions/sync.h"
#include "../kernel-abstractions/thread.h"
#include "atomic.h"

constexpr size_t JORL_DISK_NAME_SIZE = 32;

// One restore disk. It is freed, and torn down, when the last reference on kobj goes.
struct jorlvolume_info {
	ka_kobject kobj;
	char dvi_name[JORL_DISK_NAME_SIZE];
	int dvi_major;             // every disk has its own; 0: none
	ka_mutex dvi_mtx;          // serialises start, stop, and access to dvi_userdata
	int dvi_pid;               // of the serving process
	uint32_t dvi_datalink_pid; // the server's port; 0 while stopped
	gendisk *dvi_disk;
	ka_disk_owner dvi_disk_owner;     // what disk and queue point at
	ka_spinlock dvi_request_spinlock; // the queue's lock
	request_queue *dvi_queue;
	bool dvi_is_serving; // under the queue's lock: requests go to the service thread
	bool dvi_is_added;   // under dvi_mtx: the disk is in the system
	size_t dvi_sectors;  // in blocks of dvi_block_size
	size_t dvi_block_size;
	task_struct *dvi_service_thread; // while started
	ka_wait_queue dvi_service_waitqueue;
	ka_kfifo *dvi_kfifo; // of request pointers, for the service thread
	ka_spinlock dvi_kfifo_spinlock;
	socket *dvi_sd_socket;      // the data link, while started
	unsigned int dvi_sd_msguid; // of the last message; goes on over stop and start
	wt_jorl_disk_user_data_t dvi_userdata;
	ka_mapping dvi_servicearea; // the server's memory in which requests' pages are shown
};

extern ka_kobj_type g_kobj_jorlvolinfo_type;

// Prepares the lock; once, before anything else here.
void jorlvolume_registry_setup();
// Creates the table; keeps one that exists. 0 or -ENOMEM.
int jorlvolume_registry_init();
// Drops every disk and the table. Always 0.
int jorlvolume_registry_cleanup();

// A name that no disk had since the driver was loaded.
void assign_disk_name(char name[JORL_DISK_NAME_SIZE]);

// Whether a record at that address would get the slot that its lookup looks at first.
bool jorlvolume_registry_has_home(wt_jorl_diskhandle_t handle);
// Enters the record and takes over the caller's counted reference. -EEXIST for a known one, -EINVAL
// without a table, -ENOMEM; then the caller keeps the reference.
int add_jorlvolume_info(jorlvolume_info *volume);
// Takes the record out and drops the registry's reference. -ENOENT for an unknown handle.
int remove_jorlvolume_info(wt_jorl_diskhandle_t handle);

// A counted reference keeps record and module. Lookup: null for a handle that is not registered.
jorlvolume_info *lookup_jorlvolume_info(wt_jorl_diskhandle_t handle);
jorlvolume_info *jorlvolume_info_get(jorlvolume_info *volume);
void jorlvolume_info_put(jorlvolume_info *volume);

// Calls back for every disk, with a reference and without the registry's lock: the callback may
// sleep, create disks and remove them.
void for_each_jorlvolume_info(void (*callback)(jorlvolume_info *volume, void *arg), void *arg);

// A counted reference that drops itself.
class JorlVolumeRef
{
public:
	// Takes over the reference that the caller holds; null is allowed.
	explicit JorlVolumeRef(jorlvolume_info *volume) : volume(volume)
	{
	}
	~JorlVolumeRef()
	{
		if (volume)
			jorlvolume_info_put(volume);
	}
	JorlVolumeRef(const JorlVolumeRef &) = delete;
	JorlVolumeRef &operator=(const JorlVolumeRef &) = delete;

	jorlvolume_info *get() const
	{
		return volume;
	}
	explicit operator bool() const
	{
		return volume != nullptr;
	}

private:
	jorlvolume_info *volume;
};

#endif
