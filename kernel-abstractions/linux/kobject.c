/* SPDX-License-Identifier: GPL-2.0 */
/* Kernel objects and their binary files. */
#include "../kobject.h"

#include <linux/string.h>

#include "objects.h"
#include "this-kernel.h"

static struct ka_kobject *contract_kobject(struct kobject *kobj)
{
	return container_of((void *)kobj, struct ka_kobject, storage);
}

static void release_kobject(struct kobject *kobj)
{
	struct ka_kobj_type *type = KA_CONTAINER(get_ktype(kobj), struct ka_kobj_type, kernel);

	type->release(contract_kobject(kobj));
}

void ka_kobject_init(struct ka_kobject *kobj, struct ka_kobj_type *type)
{
	struct kobj_type *ktype = KA_OBJECT(struct kobj_type, &type->kernel);

	ktype->release = release_kobject;
	kobject_init(KA_OBJECT(struct kobject, kobj), ktype);
}

int ka_kobject_add(struct ka_kobject *kobj, struct ka_kobject *parent, const char *name)
{
	return kobject_add(KA_OBJECT(struct kobject, kobj),
			   parent ? KA_OBJECT(struct kobject, parent) : NULL, "%s", name);
}

void ka_kobject_del(struct ka_kobject *kobj)
{
	kobject_del(KA_OBJECT(struct kobject, kobj));
}

struct ka_kobject *ka_kobject_get(struct ka_kobject *kobj)
{
	return kernel_kobject_get(KA_OBJECT(struct kobject, kobj)) ? kobj : NULL;
}

void ka_kobject_put(struct ka_kobject *kobj)
{
	kobject_put(KA_OBJECT(struct kobject, kobj));
}

/*
 * The file may be removed by somebody who holds a lock that this read waits for, so the removal
 * must not wait for the read. The references keep the object, and with it what the file reads, and
 * its parent, the driver's context, which unloading waits for.
 */
static ssize_t read_bin_file(struct file *file, struct kobject *kobj, struct bin_attribute *battr,
			     char *buffer, loff_t offset, size_t count)
{
	struct ka_bin_attribute *attribute = KA_CONTAINER(battr, struct ka_bin_attribute, kernel);
	struct kobject *parent = kobject_get(kobj->parent);
	void *protection;
	ssize_t result;

	kobject_get(kobj);
	protection = kernel_sysfs_unprotect(kobj, &battr->attr);
	result = attribute->read(file, contract_kobject(kobj), attribute, buffer, offset, count);
	kernel_sysfs_reprotect(protection);
	kobject_put(kobj);
	kobject_put(parent);
	return result;
}

int ka_sysfs_create_bin_file(struct ka_kobject *kobj, struct ka_bin_attribute *attribute)
{
	struct bin_attribute *battr = KA_OBJECT(struct bin_attribute, &attribute->kernel);

	memset(battr, 0, sizeof(*battr));
	sysfs_bin_attr_init(battr);
	battr->attr.name = attribute->name;
	battr->attr.mode = attribute->mode;
	battr->size = attribute->size;
	battr->read = read_bin_file;
	return sysfs_create_bin_file(KA_OBJECT(struct kobject, kobj), battr);
}

void ka_sysfs_remove_bin_file(struct ka_kobject *kobj, struct ka_bin_attribute *attribute)
{
	struct bin_attribute *battr = KA_OBJECT(struct bin_attribute, &attribute->kernel);

	if (battr->attr.name)
		sysfs_remove_bin_file(KA_OBJECT(struct kobject, kobj), battr);
}
