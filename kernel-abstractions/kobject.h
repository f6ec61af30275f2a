/* SPDX-License-Identifier: GPL-2.0 */
/* Kernel objects: reference-counted records that are directories in sysfs, and their files. */
#ifndef KA_KOBJECT_H
#define KA_KOBJECT_H

#include "types.h"

KA_BEGIN_DECLS

struct file;

struct ka_kobject {
	KA_STORAGE(KOBJECT);
};

/*
 * What the objects of one type share. The driver fills the first fields, with static storage; the
 * rest belongs to the layer below.
 */
struct ka_kobj_type {
	/* Called when the last reference goes, by whoever dropped it. */
	void (*release)(struct ka_kobject *kobj);
	struct {
		KA_STORAGE(KOBJ_TYPE);
	} kernel;
};

/* Reference count 1, in no directory. */
void ka_kobject_init(struct ka_kobject *kobj, struct ka_kobj_type *type);
/*
 * Makes the object a directory of that name below parent (null: below /sys). The object keeps a
 * reference on its parent while it is one. On failure the caller still drops its reference.
 */
int ka_kobject_add(struct ka_kobject *kobj, struct ka_kobject *parent, const char *name);
/* Removes the directory; waits for running reads and writes of its files. */
void ka_kobject_del(struct ka_kobject *kobj);
/* One more reference; the object, or null when it can no longer be referenced. Any context. */
struct ka_kobject *ka_kobject_get(struct ka_kobject *kobj);
/* Drops one; the last calls the type's release. May sleep. */
void ka_kobject_put(struct ka_kobject *kobj);

/*
 * A binary file of an object. The driver fills the fields before `kernel`; a copy may be made
 * while the file does not exist. The struct stays where it is while the file exists.
 */
struct ka_bin_attribute {
	const char *name;
	unsigned short mode; /* permission bits */
	size_t size;         /* 0: no limit announced */
	void *private_data;
	/*
	 * One read of at most a page into a kernel buffer: the number of bytes put there, 0 at the
	 * end, or a negative error. Runs in the reader's context with a reference on kobj.
	 * Removing the file does not wait for it.
	 */
	long (*read)(struct file *file, struct ka_kobject *kobj, struct ka_bin_attribute *attribute,
		     char *buffer, long long offset, size_t count);
	struct {
		KA_STORAGE(BIN_ATTRIBUTE);
	} kernel;
};

int ka_sysfs_create_bin_file(struct ka_kobject *kobj, struct ka_bin_attribute *attribute);
/* Does nothing when there is no such file. */
void ka_sysfs_remove_bin_file(struct ka_kobject *kobj, struct ka_bin_attribute *attribute);

KA_END_DECLS

#endif
