/* SPDX-License-Identifier: GPL-2.0 */
/* The kernel log and formatted output. */
#include "../log.h"

#include <linux/kernel.h>

#include "this-kernel.h"

void ka_printk(int level, const char *format, ...)
{
	va_list args;

	va_start(args, format);
	kernel_vprintk(level, format, args);
	va_end(args);
}

int ka_snprintf(char *buffer, size_t size, const char *format, ...)
{
	va_list args;
	int length;

	va_start(args, format);
	length = vsnprintf(buffer, size, format, args);
	va_end(args);
	return length;
}

void ka_bug(const char *file, int line)
{
	printk(KERN_CRIT "kernel BUG at %s:%d!\n", file, line);
	BUG();
}
