// SPDX-License-Identifier: GPL-2.0
// Reads the device-mapper requests that dm-patcher intercepts, keeps just enough of the graph of
// devices to recognise the moment a snapshot of a tracked volume comes into being, and switches the
// volume's bitmap then.
#ifndef WT_DM_PROCESSOR_H
#define WT_DM_PROCESSOR_H

#include "../kernel-abstractions/chardev.h"
#include "dm-interface.h"

// One hooked open of the control device.
struct dmp_handle {
	file *dmp_filp; // null once the file is gone
	int dmp_pid;    // the process that opened it
	bool dmp_is_version_supported;
};

// A private copy of a request: `size` bytes at least as large as the header, whatever data_size
// says, which the process may have changed meanwhile.
struct dmp_buffer {
	dm_ioctl *param;
	size_t size;
};

constexpr uint16_t LVD_SNAPSHOT_ORIGIN = 1; // the last table seen has such a target
constexpr uint16_t LVD_SNAPSHOT = 2;

// What is known of one device.
struct lvm_vol_data {
	ka_dev_t lvd_devt; // the device described
	// With a snapshot or snapshot-origin table, the -real device. Of a -real device, the
	// visible origin volume.
	ka_dev_t lvd_dep;
	uint16_t lvd_flags;
	uint16_t lvd_trigger; // 1: its next resume may switch a bitmap
};

// Its record; records outlive their devices and, at unload, the driver.
struct lvm_vol_node {
	lvm_vol_node *lvn_node; // the next in its chain
	lvm_vol_data lvn_data;
};

// Prepares the lock; once, before anything else here.
void dm_processor_setup();
int dmp_init();
// Forgets all devices.
void dmp_uninit();

// 0: hook the file.
int dmp_session_start(dmp_handle *handle);
void dmp_session_end(dmp_handle *handle);

// 0 when the request is to be examined after the kernel has answered it, -EINVAL when not.
int dmp_ioctl_precall(const dmp_handle *handle, unsigned int cmd);
// Examines a request that the kernel answered with *ret. `in` is what the process sent, `out` the
// buffer afterwards; both are scratch space. An error is for the log, unless *ret, which is what
// the process gets, was changed too. May sleep; -EINTR when a signal came first.
int dmp_ioctl_postcall(dmp_handle *handle, long *ret, unsigned int cmd, const dmp_buffer &in,
		       const dmp_buffer &out);

#endif
