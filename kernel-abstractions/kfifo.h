/* SPDX-License-Identifier: GPL-2.0 */
/* A queue of bytes of fixed size, under a lock of the driver's. Any context, but for alloc and
 * free. */
#ifndef KA_KFIFO_H
#define KA_KFIFO_H

#include "sync.h"

KA_BEGIN_DECLS

struct ka_kfifo;

/* size: a power of two. An error pointer on failure. The lock must outlive the queue. */
struct ka_kfifo *ka_kfifo_alloc(unsigned int size, struct ka_spinlock *lock);
void ka_kfifo_free(struct ka_kfifo *fifo);

/* Each takes the lock with interrupts saved. The results are the bytes accepted and given. */
unsigned int ka_kfifo_put(struct ka_kfifo *fifo, const void *from, unsigned int length);
/* A queue that becomes empty is reset to its start. */
unsigned int ka_kfifo_get(struct ka_kfifo *fifo, void *to, unsigned int length);
unsigned int ka_kfifo_len(struct ka_kfifo *fifo);
void ka_kfifo_reset(struct ka_kfifo *fifo);

KA_END_DECLS

#endif
