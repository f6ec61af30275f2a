/* SPDX-License-Identifier: GPL-2.0 */
/* Kernel objects and their files. */
#include "../kobject.h"

#include <linux/string.h>

#include "objects.h"
#include "this-kernel.h"

static struct ka_kobject *contract_kobject(struct kobject *kobj)
{
	return container_of((void *)kobj, struct ka_kobject, storage);
}

static struct ka_kobj_type *contract_type(struct kobject *kobj)
{
	return KA_CONTAINER(get_ktype(kobj), struct ka_kobj_type, kernel);
}

static void release_kobject(struct kobject *kobj)
{
	contract_type(kobj)->release(contract_kobject(kobj));
}

/* A text that fills the page is cut by every kernel, but not without a line in its log. */
static ssize_t show_attribute(struct kobject *kobj, struct attribute *attr, char *page)
{
	struct ka_attribute *attribute = KA_CONTAINER(attr, struct ka_attribute, kernel);
	ssize_t length =
		contract_type(kobj)->sysfs_ops->show(contract_kobject(kobj), attribute, page);

	return min_t(ssize_t, length, KA_SYSFS_PAGE - 1);
}

static ssize_t store_attribute(struct kobject *kobj, struct attribute *attr, const char *page,
			       size_t length)
{
	struct ka_attribute *attribute = KA_CONTAINER(attr, struct ka_attribute, kernel);

	return contract_type(kobj)->sysfs_ops->store(contract_kobject(kobj), attribute, page,
						     length);
}

static const struct sysfs_ops attribute_ops = {
	.show = show_attribute,
	.store = store_attribute,
};

void ka_kobject_init(struct ka_kobject *kobj, struct ka_kobj_type *type)
{
	struct kobj_type *ktype = KA_OBJECT(struct kobj_type, &type->kernel);

	BUILD_BUG_ON(KA_SYSFS_PAGE != PAGE_SIZE);
	ktype->release = release_kobject;
	ktype->sysfs_ops = &attribute_ops;
	kobject_init(KA_OBJECT(struct kobject, kobj), ktype);
}

/*
 * What kernels do themselves with a type's default files, which each of them calls differently. The
 * directory's removal takes them along.
 */
static int create_files(struct kobject *kobj)
{
	struct ka_attribute *const *attributes = contract_type(kobj)->default_attrs;
	int error = 0;

	for (; attributes && *attributes && !error; attributes++) {
		struct attribute *attr = KA_OBJECT(struct attribute, &(*attributes)->kernel);

		sysfs_attr_init(attr);
		attr->name = (*attributes)->name;
		attr->mode = (*attributes)->mode;
		error = sysfs_create_file(kobj, attr);
	}
	return error;
}

int ka_kobject_add(struct ka_kobject *kobj, struct ka_kobject *parent, const char *name)
{
	struct kobject *object = KA_OBJECT(struct kobject, kobj);
	int error =
		kobject_add(object, parent ? KA_OBJECT(struct kobject, parent) : NULL, "%s", name);

	if (error)
		return error;
	error = create_files(object);
	if (error)
		kobject_del(object);
	return error;
}

void ka_kobject_del(struct ka_kobject *kobj)
{
	struct kobject *object = KA_OBJECT(struct kobject, kobj);

	if (object->state_in_sysfs)
		kobject_del(object);
}

struct ka_kobject *ka_kobject_get(struct ka_kobject *kobj)
{
	return kernel_kobject_get(KA_OBJECT(struct kobject, kobj)) ? kobj : NULL;
}

void ka_kobject_put(struct ka_kobject *kobj)
{
	kobject_put(KA_OBJECT(struct kobject, kobj));
}

unsigned int ka_kobject_references(const struct ka_kobject *kobj)
{
	return kernel_kobject_references(KA_OBJECT(const struct kobject, kobj));
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
	struct kernel_bin_read read;
	ssize_t result;

	kobject_get(kobj);
	result = kernel_bin_read_begins(&read, kobj, battr);
	if (!result) {
		result = attribute->read(file, contract_kobject(kobj), attribute, buffer, offset,
					 count);
		result = kernel_bin_read_ends(&read, result);
	}
	kobject_put(kobj);
	kobject_put(parent);
	return result;
}

int ka_sysfs_create_bin_file(struct ka_kobject *kobj, struct ka_bin_attribute *attribute)
{
	struct bin_attribute *battr = KA_OBJECT(struct bin_attribute, &attribute->kernel);

	if (!KA_OBJECT(struct kobject, kobj)->sd)
		return -EINVAL;
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

	if (!battr->attr.name || !KA_OBJECT(struct kobject, kobj)->sd)
		return;
	kernel_bin_reads_give_way(battr);
	sysfs_remove_bin_file(KA_OBJECT(struct kobject, kobj), battr);
}
