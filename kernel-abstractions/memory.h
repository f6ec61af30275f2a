/* SPDX-License-Identifier: GPL-2.0 */
/* Memory: virtually contiguous allocations, copies from and to the calling process. */
#ifndef KA_MEMORY_H
#define KA_MEMORY_H

#include "types.h"

KA_BEGIN_DECLS

/*
 * Virtually contiguous memory, page aligned, not cleared. Null when memory is short; any size may
 * be asked for, and a failure is not reported in the kernel log. Freed with ka_vfree (null is
 * allowed). May sleep, but starts no I/O to make room: the caller may be the one who will resume
 * the device that it would go to.
 */
void *ka_vmalloc(size_t size);
void ka_vfree(const void *memory);

/* The general-purpose release. Takes what ka_vmalloc returned as well. */
void ka_kfree(const void *memory);

/*
 * Copies between the kernel and the calling process. The result is the number of bytes that could
 * not be copied: 0 on success. Neither end needs to be checked beforehand: an address that is not
 * the process's own copies nothing.
 */
unsigned long ka_copy_from_user(void *to, const void *from_user, unsigned long size);
unsigned long ka_copy_to_user(void *to_user, const void *from, unsigned long size);

KA_END_DECLS

/* Byte and string functions: the C library's, which every kernel exports under its own name. */
#ifndef __KERNEL__
#if __STDC_HOSTED__
#include <string.h>
#else
KA_BEGIN_DECLS
void *memcpy(void *to, const void *from, size_t size);
void *memset(void *memory, int byte, size_t size);
int strcmp(const char *a, const char *b);
int strncmp(const char *a, const char *b, size_t count);
size_t strlen(const char *text);
size_t strnlen(const char *text, size_t max);
char *strstr(const char *text, const char *part);
KA_END_DECLS
#endif
#endif

#endif
