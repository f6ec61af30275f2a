// SPDX-License-Identifier: GPL-2.0
// The part of the device-mapper's ioctl interface, major version 4, that requests are read by.
#ifndef WT_DM_INTERFACE_H
#define WT_DM_INTERFACE_H

#include "../kernel-abstractions/types.h"

// A request: this header, and for some commands data after it. The kernel answers in the same
// buffer.
struct dm_ioctl {
	uint32_t version[3];
	uint32_t data_size;    // of the whole buffer, in bytes
	uint32_t data_start;   // of the data, from the start of the buffer
	uint32_t target_count; // table load and status: how many targets the data describes
	int32_t open_count;
	uint32_t flags; // DM_*_FLAG
	uint32_t event_nr;
	uint32_t padding;
	uint64_t dev; // in user space's encoding: see dm_dev
	char name[128];
	char uuid[129];
	char data[7];
};

// One target of a table. Its parameters, a string, follow it.
struct dm_target_spec {
	uint64_t sector_start;
	uint64_t length;
	int32_t status;
	// Where the next one is: bytes from the start of this one in a request, from the start of
	// the data in an answer.
	uint32_t next;
	char target_type[16];
};

// What the kernel reads and writes of every request.
constexpr size_t DM_HEADER_SIZE = offsetof(dm_ioctl, data);

static_assert(sizeof(dm_ioctl) == 312 && DM_HEADER_SIZE == 305);
static_assert(offsetof(dm_ioctl, dev) == 40 && offsetof(dm_ioctl, name) == 48);
static_assert(sizeof(dm_target_spec) == 40 && offsetof(dm_target_spec, next) == 20);

constexpr uint32_t DM_SUSPEND_FLAG = 1u << 1; // of a suspend request; a resume has none
constexpr uint32_t DM_STATUS_TABLE_FLAG = 1u << 4;
constexpr uint32_t DM_BUFFER_FULL_FLAG = 1u << 8;

// The commands, by their number in the ioctl word.
enum dm_command : unsigned int {
	DM_VERSION = 0,
	DM_REMOVE_ALL = 1,
	DM_DEV_REMOVE = 4,
	DM_DEV_SUSPEND = 6, // and resume
	DM_TABLE_LOAD = 9,
	DM_TABLE_CLEAR = 10,
	DM_TABLE_STATUS = 12
};

// _IOWR(0xfd, 0, struct dm_ioctl).
constexpr unsigned int DM_IOCTL_BASE = 0xc138fd00u;

constexpr ka_dev_t dm_dev(uint64_t dev)
{
	return static_cast<ka_dev_t>((dev & 0xfff00) >> 8) << KA_MINORBITS |
	       static_cast<ka_dev_t>((dev & 0xff) | ((dev >> 12) & 0xfff00));
}

static_assert(dm_dev(0x123'0fd'45) == (0xfdu << KA_MINORBITS | 0x12345));

#endif
