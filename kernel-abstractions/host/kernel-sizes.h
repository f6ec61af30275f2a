/* SPDX-License-Identifier: GPL-2.0 */
/* Sizes of the model kernel's objects that records embed; checked where the objects are defined. */
#ifndef KA_KERNEL_SIZES_H
#define KA_KERNEL_SIZES_H

#define KA_SIZEOF_MUTEX                   24
#define KA_SIZEOF_RWSEM                   16
#define KA_SIZEOF_SPINLOCK                16
#define KA_SIZEOF_COMPLETION              8
#define KA_SIZEOF_WAIT_QUEUE              8
#define KA_SIZEOF_KOBJECT                 16
#define KA_SIZEOF_BLOCK_DEVICE_OPERATIONS 40
#define KA_SIZEOF_KSET_UEVENT_OPS         24
#define KA_SIZEOF_FILE_OPERATIONS         32
#define KA_SIZEOF_MAPPING                 8

/* Objects that the model keeps elsewhere, by address; storage that nothing reads. */
#define KA_SIZEOF_KOBJ_TYPE     8
#define KA_SIZEOF_ATTRIBUTE     8
#define KA_SIZEOF_BIN_ATTRIBUTE 8
#define KA_SIZEOF_DELAYED_WORK  8
#define KA_SIZEOF_MISCDEVICE    8
#define KA_SIZEOF_GENL_FAMILY   8

#endif
