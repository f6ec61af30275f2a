/* SPDX-License-Identifier: GPL-2.0 */
/* Queues of bytes: this kernel's have a lock with them. */
#include "../../kfifo.h"

#include <linux/kfifo.h>

#include "../objects.h"

static struct kfifo *kernel_fifo(struct ka_kfifo *fifo)
{
	return (struct kfifo *)fifo;
}

struct ka_kfifo *ka_kfifo_alloc(unsigned int size, struct ka_spinlock *lock)
{
	return (struct ka_kfifo *)kfifo_alloc(size, GFP_KERNEL, KA_OBJECT(spinlock_t, lock));
}

void ka_kfifo_free(struct ka_kfifo *fifo)
{
	kfifo_free(kernel_fifo(fifo));
}

unsigned int ka_kfifo_put(struct ka_kfifo *fifo, const void *from, unsigned int length)
{
	return kfifo_put(kernel_fifo(fifo), from, length);
}

unsigned int ka_kfifo_get(struct ka_kfifo *fifo, void *to, unsigned int length)
{
	return kfifo_get(kernel_fifo(fifo), to, length);
}

unsigned int ka_kfifo_len(struct ka_kfifo *fifo)
{
	return kfifo_len(kernel_fifo(fifo));
}

void ka_kfifo_reset(struct ka_kfifo *fifo)
{
	kfifo_reset(kernel_fifo(fifo));
}
