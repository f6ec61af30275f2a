/* SPDX-License-Identifier: GPL-2.0 */
/* Queues of bytes, with the lock that a kfifo of this kernel does not have. */
#include "../../kfifo.h"

#include <linux/err.h>
#include <linux/kfifo.h>
#include <linux/slab.h>

#include "../objects.h"

struct ka_kfifo {
	struct kfifo fifo;
	spinlock_t *lock;
};

struct ka_kfifo *ka_kfifo_alloc(unsigned int size, struct ka_spinlock *lock)
{
	struct ka_kfifo *fifo = kmalloc(sizeof(*fifo), GFP_KERNEL);
	int err;

	if (!fifo)
		return ERR_PTR(-ENOMEM);
	fifo->lock = KA_OBJECT(spinlock_t, lock);
	err = kfifo_alloc(&fifo->fifo, size, GFP_KERNEL);
	if (!err)
		return fifo;
	kfree(fifo);
	return ERR_PTR(err);
}

void ka_kfifo_free(struct ka_kfifo *fifo)
{
	kfifo_free(&fifo->fifo);
	kfree(fifo);
}

unsigned int ka_kfifo_put(struct ka_kfifo *fifo, const void *from, unsigned int length)
{
	return kfifo_in_spinlocked(&fifo->fifo, (const unsigned char *)from, length, fifo->lock);
}

unsigned int ka_kfifo_get(struct ka_kfifo *fifo, void *to, unsigned int length)
{
	unsigned long flags;
	unsigned int given;

	spin_lock_irqsave(fifo->lock, flags);
	given = kfifo_out(&fifo->fifo, (unsigned char *)to, length);
	if (kfifo_is_empty(&fifo->fifo))
		kfifo_reset(&fifo->fifo);
	spin_unlock_irqrestore(fifo->lock, flags);
	return given;
}

unsigned int ka_kfifo_len(struct ka_kfifo *fifo)
{
	unsigned long flags;
	unsigned int length;

	spin_lock_irqsave(fifo->lock, flags);
	length = kfifo_len(&fifo->fifo);
	spin_unlock_irqrestore(fifo->lock, flags);
	return length;
}

void ka_kfifo_reset(struct ka_kfifo *fifo)
{
	unsigned long flags;

	spin_lock_irqsave(fifo->lock, flags);
	kfifo_reset(&fifo->fifo);
	spin_unlock_irqrestore(fifo->lock, flags);
}
