/* SPDX-License-Identifier: GPL-2.0 */
/* Memory, and copies from and to the calling process. */
#include "../memory.h"

#include <linux/mm.h>
#include <linux/slab.h>
#include <linux/uaccess.h>
#include <linux/vmalloc.h>

#include "this-kernel.h"

void *ka_vmalloc(size_t size)
{
	return kernel_vmalloc_quiet(size);
}

void ka_vfree(const void *memory)
{
	vfree(memory);
}

void ka_kfree(const void *memory)
{
	if (is_vmalloc_addr(memory))
		vfree(memory);
	else
		kfree(memory);
}

unsigned long ka_copy_from_user(void *to, const void *from_user, unsigned long size)
{
	return copy_from_user(to, (const void __user *)from_user, size);
}

unsigned long ka_copy_to_user(void *to_user, const void *from, unsigned long size)
{
	/* Whether the destination is the process's own comes first: only then is the source read.
	 */
	if (!kernel_access_ok(to_user, size))
		return size;
	return copy_to_user((void __user *)to_user, from, size);
}
