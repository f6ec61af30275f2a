/* SPDX-License-Identifier: GPL-2.0 */
/* Misc devices, open files and their tables of operations. */
#include "../chardev.h"

#include <linux/cdev.h>
#include <linux/fs.h>
#include <linux/module.h>
#include <linux/string.h>

#include "objects.h"
#include "this-kernel.h"

int ka_misc_register(struct ka_miscdevice *device)
{
	struct ka_kernel_misc *kernel = KA_OBJECT(struct ka_kernel_misc, &device->kernel);
	int err;

	memset(kernel, 0, sizeof(*kernel));
	kernel->fops.owner = THIS_MODULE;
	kernel->fops.open = nonseekable_open;
	kernel->fops.unlocked_ioctl = device->unlocked_ioctl;
	kernel->fops.compat_ioctl = device->compat_ioctl;
	kernel->misc.minor = device->minor;
	kernel->misc.name = device->name;
	kernel->misc.nodename = device->nodename;
	kernel->misc.fops = &kernel->fops;
	err = misc_register(&kernel->misc);
	device->minor = kernel->misc.minor;
	return err;
}

void ka_misc_deregister(struct ka_miscdevice *device)
{
	misc_deregister(&KA_OBJECT(struct ka_kernel_misc, &device->kernel)->misc);
}

struct file *ka_filp_open(const char *path)
{
	return filp_open(path, O_RDWR, 0);
}

void ka_filp_close(struct file *file)
{
	kernel_filp_close(file);
}

struct inode *ka_file_inode(struct file *file)
{
	return file->f_path.dentry->d_inode;
}

ka_dev_t ka_inode_rdev(struct inode *inode)
{
	return inode->i_rdev;
}

struct cdev *ka_inode_cdev(struct inode *inode)
{
	return S_ISCHR(inode->i_mode) ? inode->i_cdev : NULL;
}

struct ka_file_entries ka_file_ops_entries(const struct ka_file_operations *ops)
{
	const struct file_operations *fops = KA_OBJECT(const struct file_operations, ops);

	return (struct ka_file_entries){fops->open, fops->unlocked_ioctl, fops->release};
}

void ka_file_ops_copy(struct ka_file_operations *to, const struct ka_file_operations *from,
		      const struct ka_file_entries *replaced)
{
	struct file_operations *fops = KA_OBJECT(struct file_operations, to);

	*fops = *KA_OBJECT(const struct file_operations, from);
	if (replaced->open)
		fops->open = replaced->open;
	if (replaced->unlocked_ioctl)
		fops->unlocked_ioctl = replaced->unlocked_ioctl;
	if (replaced->release)
		fops->release = replaced->release;
}

const struct ka_file_operations *ka_cdev_ops(struct cdev *cdev)
{
	return (const struct ka_file_operations *)cdev->ops;
}

void ka_cdev_set_ops(struct cdev *cdev, const struct ka_file_operations *ops)
{
	cdev->ops = (const struct file_operations *)ops;
}

const struct ka_file_operations *ka_file_ops(struct file *file)
{
	return (const struct ka_file_operations *)file->f_op;
}

void ka_file_set_ops(struct file *file, const struct ka_file_operations *ops)
{
	file->f_op = (const struct file_operations *)ops;
}
