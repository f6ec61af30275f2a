/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The vocabulary of the contract: scalar types, error numbers, storage for kernel objects.
 *
 * The headers of this folder declare everything that the driver's core needs of a kernel, once,
 * in the words of the 2.6.32 kernel. linux/ implements them over a real kernel, host/ over a model
 * kernel in user space. All of them are valid C and C++; all functions have C linkage.
 *
 * Two kinds of kernel objects:
 * - objects that a record of the driver embeds (a mutex, a kobject, a table of operations): a
 *   struct of the contract that holds storage of exactly the size and alignment that the kernel's
 *   own headers give the object. kernel-sizes.h, made at build time, says how much.
 * - objects met by pointer (a bio, a queue, a disk): opaque types with accessor functions.
 *
 * Unless a function says otherwise: it may be called from process context only, it may sleep, it
 * returns 0 or a negative error number, and a pointer result is null or valid. "Error pointer"
 * means that an error number may be encoded in the pointer: see ka_is_err().
 */
#ifndef KA_TYPES_H
#define KA_TYPES_H

#ifdef __KERNEL__
#include <linux/stddef.h>
#include <linux/types.h>
#else
#include <stddef.h>
#include <stdint.h>
#endif

#include "kernel-sizes.h"

#ifdef __cplusplus
#define KA_BEGIN_DECLS extern "C" {
#define KA_END_DECLS   }
#else
#define KA_BEGIN_DECLS
#define KA_END_DECLS
#endif

/*
 * Storage for one kernel object; KA_SIZEOF_<NAME> comes from kernel-sizes.h. The storage of every
 * kernel object is pointer-aligned. linux/ checks both against the real type.
 */
#define KA_STORAGE(NAME) unsigned char storage[KA_SIZEOF_##NAME] __attribute__((aligned(8)))

/* A device number in the kernel's encoding: major in the top 12 bits, minor in the low 20. */
typedef uint32_t ka_dev_t;
/* A position or a length in 512-byte sectors. */
typedef uint64_t ka_sector_t;

#define KA_MINORBITS 20

static inline unsigned int ka_major(ka_dev_t dev)
{
	return dev >> KA_MINORBITS;
}

static inline unsigned int ka_minor(ka_dev_t dev)
{
	return dev & ((1u << KA_MINORBITS) - 1);
}

static inline ka_dev_t ka_mkdev(unsigned int major, unsigned int minor)
{
	return (major << KA_MINORBITS) | minor;
}

/* Error numbers of x86-64 Linux, as user space sees them (used negated). */
enum {
	KA_ENOENT = 2,
	KA_EINTR = 4,
	KA_EIO = 5,
	KA_ENXIO = 6,
	KA_EAGAIN = 11,
	KA_ENOMEM = 12,
	KA_EACCES = 13,
	KA_EFAULT = 14,
	KA_ENOTBLK = 15,
	KA_EBUSY = 16,
	KA_EEXIST = 17,
	KA_EINVAL = 22,
	KA_EFBIG = 27,
	KA_EPIPE = 32,
	KA_EMSGSIZE = 90,
	KA_ECONNRESET = 104,
	KA_ENOTCONN = 107,
	KA_EINPROGRESS = 115,
	KA_ERESTARTSYS = 512, /* a signal arrived; never seen by user space */
	KA_ENOIOCTLCMD = 515  /* not an ioctl of this driver; user space sees ENOTTY */
};

#define KA_MAX_ERRNO 4095

static inline void *ka_err_ptr(long error)
{
	return (void *)error;
}

static inline long ka_ptr_err(const void *ptr)
{
	return (long)ptr;
}

/* True when the pointer carries an error number (a negative one, read with ka_ptr_err). */
static inline int ka_is_err(const void *ptr)
{
	return (uintptr_t)ptr >= (uintptr_t)-KA_MAX_ERRNO;
}

#endif
