/* SPDX-License-Identifier: GPL-2.0 */
/* The kernel log, formatted output, and the end of the road. Any context. */
#ifndef KA_LOG_H
#define KA_LOG_H

#include "types.h"

KA_BEGIN_DECLS

/* Kernel log levels: what stands in the marker at the head of a line, "<3>" for an error. */
enum {
	KA_LOG_EMERG = 0,
	KA_LOG_ERR = 3,
	KA_LOG_WARNING = 4,
	KA_LOG_INFO = 6
};

/* One printk call: the level's marker, then the text. The text need not end in a line feed. */
void ka_printk(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* snprintf of the kernel: always terminates, returns the length that the whole text has. */
int ka_snprintf(char *buffer, size_t size, const char *format, ...)
	__attribute__((format(printf, 3, 4)));

/*
 * BUG: a state that must never occur. Stops the kernel (the model kernel throws): does not return.
 * Use KA_BUG_ON.
 */
void ka_bug(const char *file, int line);

KA_END_DECLS

/* The trap is never reached; it tells compiler and tools that nothing follows. */
#define KA_BUG_ON(condition)                                                                       \
	do {                                                                                       \
		if (__builtin_expect(!!(condition), 0)) {                                          \
			ka_bug(__FILE__, __LINE__);                                                \
			__builtin_trap();                                                          \
		}                                                                                  \
	} while (0)

#endif
