/* SPDX-License-Identifier: GPL-2.0 */
/* The module: its name, what its kernel layer sets up, and where the loader enters and leaves. */
#ifndef KA_MODULE_H
#define KA_MODULE_H

#include "types.h"

KA_BEGIN_DECLS

#define KA_MODULE_NAME "zorvat"

/*
 * The layer's own setup, before anything is hooked or registered. On failure, which the layer has
 * explained in the kernel log, loading ends with that error.
 */
int ka_init(void);
/* The last thing that unloading does: no hook of the layer's is left in the kernel afterwards. */
void ka_exit(void);

/*
 * Keeps the module loaded while code of it runs that nothing else accounts for. False when it is
 * being unloaded already. Any context.
 */
int ka_module_get(void);
void ka_module_put(void);
/* The same for somebody who knows that it is not being unloaded. */
void ka_module_hold(void);

/* 16 random bytes with the version-4 and variant bits of a UUID. */
void ka_generate_random_uuid(unsigned char uuid[16]);

/* The driver's entry points, called by the loader. May sleep. */
int init_module(void);
void cleanup_module(void);

KA_END_DECLS

#endif
