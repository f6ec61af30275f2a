/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The binary interface between the driver and user space: command indices, ioctl encoding,
 * generic-netlink attributes and the records that travel with them.
 *
 * Valid C and C++, on the kernel side and in user space. All records have the natural layout of
 * the 64-bit x86 ABI (little-endian); 32-bit callers use the same layout. Sizes and offsets are
 * part of the interface and are checked at the end of this file.
 */
#ifndef ZORVAT_WT_H
#define ZORVAT_WT_H

#ifdef __KERNEL__
#include <linux/stddef.h>
#include <linux/types.h>
#else
#include <stddef.h>
#include <stdint.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The control device's node and the generic-netlink family. */
#define WT_CONTROL_NODE_NAME   "zorvat-control"
#define WT_GENL_FAMILY_NAME    "zorvat-control"
#define WT_GENL_FAMILY_VERSION 1

/*
 * Commands. One number space serves as the ioctl's number byte and as the generic-netlink command.
 */
enum {
	WT_IS_DRIVER_PRESENT_IOCTL_INDEX = 1,  /* succeeds on any known volume */
	WT_GET_DRIVER_VERSION_IOCTL_INDEX = 2, /* -> wt_version */
	WT_GET_BACKUP_LEVEL_IOCTL_INDEX = 3,   /* -> backUp, length in sectors */
	WT_BMCONFIG_IOCTL_INDEX = 4,           /* -> bmReg */
	WT_START_IOCTL_INDEX = 5,              /* backUp -> backUp, length in bytes */
	WT_BMSIZE_IOCTL_INDEX = 6,             /* -> BITMAP.nBMSize */
	WT_BITMAP_IOCTL_INDEX = 7,             /* reserved, served by no transport */
	WT_STOP_IOCTL_INDEX = 8,               /* accepted, does nothing */
	WT_DATA_IOCTL_INDEX = 9,               /* WI_DATA <-> WI_DATA */
	WT_GET_EXTENTS_IOCTL_INDEX = 10,       /* wt_extents_request -> wt_extents */
	WT_CLEAR_SNAPSHOT_BITMAP_IOCTL_INDEX = 11,
	WT_SWITCH_VOLUME_CBT_IOCTL_INDEX = 12,
	WT_GET_VOLUME_UUID_IOCTL_INDEX = 13, /* -> wt_volume_uuid_t */
	WT_MAX_VOLUME_IOCTL_INDEX = 14,      /* bound: volume commands are below */
	WT_PATCH_IOCTL_INDEX = 15,           /* accepted on the control device, no effect */
	WT_UNPATCH_IOCTL_INDEX = 16,         /* accepted on the control device, no effect */
	WT_HALT_IOCTL_INDEX = 17,            /* not served */
	WTFLR_START_SESSION_IOCTL_INDEX = 18,
	WTFLR_ALLOC_DISK_IOCTL_INDEX = 19,
	WTFLR_RESUME_DISK_IOCTL_INDEX = 20,
	WTFLR_SUSPEND_DISK_IOCTL_INDEX = 21,
	WTFLR_DESTROY_DISK_IOCTL_INDEX = 22,
	WTFLR_GET_DISKATTRS_IOCTL_INDEX = 23,
	WTFLR_LIST_DISKS_IOCTL_INDEX = 24,
	WTFLR_GET_DISK_USER_DATA_IOCTL_INDEX = 25, /* registered on neither transport */
	WTFLR_SET_DISK_USER_DATA_IOCTL_INDEX = 26, /* registered on neither transport */
	WTFLR_MAX_IOCTL_INDEX = 27,
	WT_MAX_IOCTL_INDEX = 28
};

/*
 * An ioctl command word is the driver's when its type byte (bits 8-15) is WT_IOCTL_TYPE; the
 * number byte (bits 0-7) is the command. Direction and size bits are ignored.
 *
 * On the control device a volume command's argument points at a 32-bit device number (major in
 * the top 12 bits, minor in the low 20) immediately followed, at offset 4, by the command's
 * record; the version query points at a wt_version. On a disk's own device the argument points
 * at the record itself.
 */
#define WT_IOCTL_TYPE          0xA1u
#define WT_IOCTL(index)        ((WT_IOCTL_TYPE << 8) | (unsigned int)(index))
#define WT_IOCTL_TYPE_OF(cmd)  (((cmd) >> 8) & 0xffu)
#define WT_IOCTL_INDEX_OF(cmd) ((cmd)&0xffu)

/* Generic-netlink attribute types. */
enum {
	WT_GENATTR_VERSION = 17,           /* wt_version */
	WT_GENATTR_DISKHANDLE = 18,        /* u32: a volume's device number */
	WT_GENATTR_JORL_DISKHANDLE = 19,   /* wt_jorl_diskhandle_t */
	WT_GENATTR_JORLDISK_HANDLES = 20,  /* wtflr_jorldisk_handles with its handles */
	WT_GENATTR_VOLUME_UUID_T = 21,     /* wt_volume_uuid_t */
	WT_GENATTR_BACKUP = 22,            /* backUp; also wt_extents_request and wt_extents */
	WT_GENATTR_BITMAP = 23,            /* BITMAP */
	WT_GENATTR_WI_DATA = 24,           /* WI_DATA */
	WT_GENATTR_BMREG = 25,             /* bmReg */
	WT_GENATTR_FLR_DISK_ATTRS = 26,    /* wtflr_disk_attrs */
	WT_GENATTR_FLR_ALLOCDISK_REQ = 27, /* wtflr_allocdisk_req */
	WT_GENATTR_FLR_PORT_ID = 28,       /* wtflr_portid_t */
	WT_GENATTR_JORL_DISK_USER_DATA = 29,
	WT_GENATTR_MAX_ATTR = 30
};

typedef unsigned char wt_volume_uuid_t[16];
typedef void *wt_jorl_diskhandle_t;     /* names one restore disk; only ever echoed by user space */
typedef void *wt_jorl_disk_user_data_t; /* stored for user space, opaque to the driver */
typedef unsigned long wtflr_portid_t;

struct wt_version {
	uint32_t wtv_major;
	uint32_t wtv_minor;
	uint32_t wtv_maintenance;
	uint32_t wtv_build;
	uint8_t wtv_is_debug;
	char wtv_str[128]; /* NUL-terminated */
};

/* Save time of the volume's last backup, opaque to the driver. */
typedef struct _wi_data {
	int32_t bRequest; /* 0: set from savetime; any other value: get */
	uint64_t savetime;
} WI_DATA, *pWI_DATA;

/*
 * level: in a request 1 starts and 0 stops tracking; in a reply the level found (1: tracked, an
 * incremental backup is possible). PartitionLength is in 512-byte sectors in the reply to
 * WT_GET_BACKUP_LEVEL_IOCTL_INDEX and in bytes in the reply to WT_START_IOCTL_INDEX.
 */
struct backUp {
	int32_t level;
	uint64_t PartitionLength;
};

struct bmReg {
	int32_t BlocksPerBit; /* 512-byte sectors that one bitmap bit covers: 128 */
};

typedef struct _BITMAP {
	void *pnBitmap;   /* not used by the served commands */
	uint32_t nBMSize; /* bytes */
	uint8_t nBMShift;
	unsigned long dwCurrentBit;
} BITMAP, *PBITMAP;

/* One run of changed blocks, in 512-byte sectors of the disk. */
struct wt_extent {
	uint64_t wte_start;
	uint64_t wte_length;
};

/* wtes_size: in a request the capacity in extents. */
struct wt_extents {
	size_t wtes_size;
	struct wt_extent wtes_extents[];
};

struct wt_extents_request {
	uint64_t wer_start_from; /* sector from which to report */
	struct wt_extents wer_extents;
};

/* What a request for extents carries at least: where to start, and the capacity. */
#define WT_EXTENTS_REQUEST_HEADER_SIZE 16

struct wtflr_jorldisk_handles {
	size_t count_handles;
	wt_jorl_diskhandle_t handles[];
};

struct wtflr_allocdisk_req {
	size_t wtfad_blocksize;
	size_t wtfad_numblocks;
	uint32_t wtfad_isrw;
	int32_t wtfad_pid;
	void *wtfad_servicearea;
};

struct wtflr_disk_attrs {
	wt_jorl_diskhandle_t wtfda_handle;
	char wtfda_name[32];
	size_t wtfda_blocksize;
	size_t wtfda_numblocks;
	int32_t wtfda_pid;
	wtflr_portid_t wtfda_portid;
	uint32_t wtfda_devt; /* kernel encoding */
	uint32_t wtfda_protocol;
	uint32_t wtfda_isrw;
};

/*
 * The data link: a TCP connection on the loopback address between the driver and the process that
 * serves a restore disk. The port id of WTFLR_RESUME_DISK_IOCTL_INDEX is the port where that
 * process listens. One message layout travels both ways, a reply to each request, and never the
 * data: the server puts it at io_buffer, where the driver shows it the pages of the request.
 */
#define WT_NETLINK_VERSION  1u
#define WT_NETLINK_CLOSE_ID 0xffffffffu /* id of the close message */

enum wt_netlinkmsg_code {
	WT_NETLINK_CMD_READ = 1,
	WT_NETLINK_CMD_WRITE = 2, /* never sent */
	WT_NETLINK_CMD_GETSZ = 3, /* never sent */
	WT_NETLINK_CMD_CLOSE = 4, /* the driver is done with this connection; not replied to */
	WT_NETLINK_REP_OK = 128,
	WT_NETLINK_REP_ERR = 129
};

struct wt_netlinkmsg_hdr {
	uint32_t version;
	uint32_t id; /* counts a disk's requests from 1 */
	wt_jorl_diskhandle_t diskhandle;
	uint32_t code;          /* wt_netlinkmsg_code; four bytes without meaning follow */
	uint64_t offset_sector; /* first block, in blocks of the disk */
	int64_t num_sectors;    /* blocks; in a reply, below 0: the error number */
	void *io_buffer;        /* in the server's address space */
};

#ifdef __cplusplus
} /* extern "C" */

#define WT_LAYOUT(record, size) static_assert(sizeof(record) == (size), #record)
#define WT_OFFSET(record, field, offset)                                                           \
	static_assert(__builtin_offsetof(record, field) == (offset), #record "." #field)

WT_LAYOUT(wt_version, 148);
WT_OFFSET(wt_version, wtv_is_debug, 16);
WT_OFFSET(wt_version, wtv_str, 17);
WT_LAYOUT(WI_DATA, 16);
WT_OFFSET(WI_DATA, savetime, 8);
WT_LAYOUT(backUp, 16);
WT_OFFSET(backUp, PartitionLength, 8);
WT_LAYOUT(bmReg, 4);
WT_LAYOUT(BITMAP, 24);
WT_OFFSET(BITMAP, nBMSize, 8);
WT_OFFSET(BITMAP, nBMShift, 12);
WT_OFFSET(BITMAP, dwCurrentBit, 16);
WT_LAYOUT(wt_extent, 16);
WT_LAYOUT(wt_extents, 8);
WT_OFFSET(wt_extents, wtes_extents, 8);
WT_LAYOUT(wt_extents_request, WT_EXTENTS_REQUEST_HEADER_SIZE);
WT_OFFSET(wt_extents_request, wer_extents, 8);
WT_LAYOUT(wtflr_jorldisk_handles, 8);
WT_LAYOUT(wtflr_allocdisk_req, 32);
WT_OFFSET(wtflr_allocdisk_req, wtfad_isrw, 16);
WT_OFFSET(wtflr_allocdisk_req, wtfad_pid, 20);
WT_OFFSET(wtflr_allocdisk_req, wtfad_servicearea, 24);
WT_LAYOUT(wtflr_disk_attrs, 88);
WT_OFFSET(wtflr_disk_attrs, wtfda_name, 8);
WT_OFFSET(wtflr_disk_attrs, wtfda_blocksize, 40);
WT_OFFSET(wtflr_disk_attrs, wtfda_pid, 56);
WT_OFFSET(wtflr_disk_attrs, wtfda_portid, 64);
WT_OFFSET(wtflr_disk_attrs, wtfda_devt, 72);
WT_OFFSET(wtflr_disk_attrs, wtfda_isrw, 80);
WT_LAYOUT(wt_netlinkmsg_hdr, 48);
WT_OFFSET(wt_netlinkmsg_hdr, id, 4);
WT_OFFSET(wt_netlinkmsg_hdr, diskhandle, 8);
WT_OFFSET(wt_netlinkmsg_hdr, code, 16);
WT_OFFSET(wt_netlinkmsg_hdr, offset_sector, 24);
WT_OFFSET(wt_netlinkmsg_hdr, num_sectors, 32);
WT_OFFSET(wt_netlinkmsg_hdr, io_buffer, 40);

#undef WT_LAYOUT
#undef WT_OFFSET
#endif

#endif
