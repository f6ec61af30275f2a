// SPDX-License-Identifier: GPL-2.0
// The restore-disk subsystem's context. It comes up on first use, owns the directory
// "restore-volumes", and goes when its last reference does. And the operations on disks.
#ifndef WT_JORL_MANAGER_H
#define WT_JORL_MANAGER_H

#include "jorlvolume-registry.h"

struct jorlmanager_context_t {
	ka_kobject kobj;            // its reference count is the manager's
	Atomic<int> is_initialized; // 1 from the start of initialisation to that of cleanup
};

extern jorlmanager_context_t jorlmanager_context;

// Prepares locks and work; once, before anything else here.
void jorl_manager_setup();
// Initialises the manager if needed. The caller holds a reference afterwards. An error leaves the
// manager marked as initialised, except -EINTR, when a signal came first.
int init_jorl_manager();
// Destroys all disks and takes the manager down. Harmless on one that is not up.
int cleanup_jorl_manager();
// At unload, after that: nothing of the manager's runs any more.
void jorl_manager_settle();

// A reference on the manager, which is initialised if needed. Traced in the log, whatever the
// verbosity.
class JorlManagerRef
{
public:
	enum When {
		ALWAYS,
		// For a reader of the manager's files: whoever takes the manager down waits for him
		// with the mutex that initialising needs.
		IF_UP
	};
	explicit JorlManagerRef(When when = ALWAYS);
	~JorlManagerRef();
	JorlManagerRef(const JorlManagerRef &) = delete;
	JorlManagerRef &operator=(const JorlManagerRef &) = delete;

	// False when the manager could not be referenced.
	explicit operator bool() const
	{
		return held;
	}
	// Gives the reference up without dropping it.
	void release()
	{
		held = false;
	}
	// Has it dropped by the shared work queue: by a reader of the manager's files, which must
	// not drop the last one.
	void drop_later();
	// How many there are beside this one and those still to be dropped.
	static unsigned int others();

private:
	bool held;
};

// A disk for the request, whose limits were checked. An error pointer on failure.
jorlvolume_info *jorlmanager_create_disk(const wtflr_allocdisk_req *req);
// All wait interruptibly for the disk's mutex: -EINTR.
//
// -EINVAL for a disk that is started. A start that fails leaves the disk marked as started.
int jorlmanager_start_disk(jorlvolume_info *volume, unsigned int port_num);
// -EINVAL for a disk that is stopped.
int jorlmanager_stop_disk(jorlvolume_info *volume);
// Stops the disk if needed and drops the registry's reference; the caller needs one of his own.
int jorlmanager_destroy_disk(jorlvolume_info *volume);
int jorlmanager_set_disk_userdata(jorlvolume_info *volume, wt_jorl_disk_user_data_t user_data);
int jorlmanager_get_disk_userdata(jorlvolume_info *volume, wt_jorl_disk_user_data_t *user_data);

#endif
