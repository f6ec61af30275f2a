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

/* A text file of an object. The driver fills the fields before `kernel`, with static storage. */
struct ka_attribute {
	const char *name;
	unsigned short mode; /* permission bits */
	struct {
		KA_STORAGE(ATTRIBUTE);
	} kernel;
};

/* Text files are read and written whole; a page bounds both. */
#define KA_SYSFS_PAGE 4096

/*
 * How the text files of an object are read and written. Both run in the context of the process that
 * reads or writes; the object's directory stays until they return.
 */
struct ka_sysfs_ops {
	/*
	 * Fills the page; the length of the text, or a negative error. A reader gets at most
	 * KA_SYSFS_PAGE - 1 bytes: a greater length is cut to that without a complaint.
	 */
	long (*show)(struct ka_kobject *kobj, struct ka_attribute *attribute, char *page);
	/* The length taken, or a negative error. A NUL follows the text. */
	long (*store)(struct ka_kobject *kobj, struct ka_attribute *attribute, const char *page,
		      size_t length);
};

/*
 * What the objects of one type share. The driver fills the first fields, with static storage; the
 * rest belongs to the layer below.
 */
struct ka_kobj_type {
	/* Called when the last reference goes, by whoever dropped it. */
	void (*release)(struct ka_kobject *kobj);
	/* Null for objects without text files. */
	const struct ka_sysfs_ops *sysfs_ops;
	/* The files that come with the directory, in this order, up to a null; null: none. */
	struct ka_attribute *const *default_attrs;
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
/*
 * Removes the directory, if there is one, with its files. Waits for reads and writes of the text
 * files: the caller must hold no lock that a show or store takes.
 */
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

/* -EINVAL for an object without a directory. Neither may run while the directory is removed. */
int ka_sysfs_create_bin_file(struct ka_kobject *kobj, struct ka_bin_attribute *attribute);
/* Does nothing when there is no such file. */
void ka_sysfs_remove_bin_file(struct ka_kobject *kobj, struct ka_bin_attribute *attribute);

KA_END_DECLS

#endif
