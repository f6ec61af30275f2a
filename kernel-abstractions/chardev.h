/* SPDX-License-Identifier: GPL-2.0 */
/* Character devices: misc devices of the driver's own, open files and their operations. */
#ifndef KA_CHARDEV_H
#define KA_CHARDEV_H

#include "types.h"

KA_BEGIN_DECLS

struct cdev;
struct file;
struct inode;

/* Entries of a table of file operations: called in the context of the process, may sleep. */
typedef int ka_file_fn(struct inode *inode, struct file *file); /* open, release */
typedef long ka_ioctl_fn(struct file *file, unsigned int cmd, unsigned long arg);

/* --- Misc devices of the driver's own ------------------------------------------------------ */

#define KA_MISC_DYNAMIC_MINOR 255

/*
 * A misc device that takes ioctls and nothing else: no read, write or mmap, not seekable, the
 * module as owner. The driver fills the fields before `kernel`; static storage.
 */
struct ka_miscdevice {
	int minor; /* KA_MISC_DYNAMIC_MINOR before registering; the minor given afterwards */
	const char *name;
	const char *nodename; /* the node below /dev */
	ka_ioctl_fn *unlocked_ioctl;
	ka_ioctl_fn *compat_ioctl;
	struct {
		KA_STORAGE(MISCDEVICE);
	} kernel;
};

/* On failure `minor` may hold anything. */
int ka_misc_register(struct ka_miscdevice *misc);
/* Leaves `minor` as it is. */
void ka_misc_deregister(struct ka_miscdevice *misc);

/* --- Open files ---------------------------------------------------------------------------- */

/* Opens for reading and writing on the kernel's own behalf. An error pointer on failure. */
struct file *ka_filp_open(const char *path);
/* The last use; the file's release has run when it returns. */
void ka_filp_close(struct file *file);

/* Of an open file. Any context. */
struct inode *ka_file_inode(struct file *file);
ka_dev_t ka_inode_rdev(struct inode *inode);
struct cdev *ka_inode_cdev(struct inode *inode); /* null: no character device */

/* --- Tables of file operations -------------------------------------------------------------- */

/* A whole copy of a table. A table is identified by its address. */
struct ka_file_operations {
	KA_STORAGE(FILE_OPERATIONS);
};

/* The entries that the driver calls or replaces; null where a table has none. */
struct ka_file_entries {
	ka_file_fn *open;
	ka_ioctl_fn *unlocked_ioctl;
	ka_file_fn *release;
};

struct ka_file_entries ka_file_ops_entries(const struct ka_file_operations *ops);
/* Copies the whole table `from` and replaces those of its entries that are given. */
void ka_file_ops_copy(struct ka_file_operations *to, const struct ka_file_operations *from,
		      const struct ka_file_entries *replaced);

/* What opens of a character device start with. The store is unconditional. */
const struct ka_file_operations *ka_cdev_ops(struct cdev *cdev);
void ka_cdev_set_ops(struct cdev *cdev, const struct ka_file_operations *ops);
/*
 * What an open file has. The store moves no reference on the module that a table belongs to: the
 * file's close gives up one of the table that it has then.
 */
const struct ka_file_operations *ka_file_ops(struct file *file);
void ka_file_set_ops(struct file *file, const struct ka_file_operations *ops);

KA_END_DECLS

#endif
