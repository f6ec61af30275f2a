// SPDX-License-Identifier: GPL-2.0
/* Queues of bytes. */
#include "kernel-abstractions/kfifo.h"

#include <list>
#include <mutex>

#include "internal.h"

/* in and out count all bytes that ever came and went; they wrap. */
struct ka_kfifo {
	std::vector<unsigned char> buffer;
	ka_spinlock *lock;
	unsigned int in = 0, out = 0;
};

namespace model
{
namespace
{

struct Kfifos {
	std::mutex lock;
	std::list<ka_kfifo> all;
};

Kfifos &state()
{
	static Kfifos instance;
	return instance;
}

class FifoLock
{
public:
	explicit FifoLock(ka_kfifo &fifo)
	    : lock_(fifo.lock), flags_(ka_spin_lock_irqsave(fifo.lock))
	{
	}
	~FifoLock()
	{
		ka_spin_unlock_irqrestore(lock_, flags_);
	}
	FifoLock(const FifoLock &) = delete;
	FifoLock &operator=(const FifoLock &) = delete;

private:
	ka_spinlock *lock_;
	unsigned long flags_;
};

unsigned char &byte_at(ka_kfifo &fifo, unsigned int position)
{
	return fifo.buffer[position & (fifo.buffer.size() - 1)];
}

} // namespace

void reset_kfifos()
{
	state().all.clear();
}

void report_kfifos(Report &report)
{
	std::lock_guard guard(state().lock);
	for (auto &fifo : state().all)
		report.push_back(printed("kfifo of %zu bytes", fifo.buffer.size()));
}

} // namespace model

using namespace model;

ka_kfifo *ka_kfifo_alloc(unsigned int size, ka_spinlock *lock)
{
	might_sleep("ka_kfifo_alloc");
	if (long error = injected("ka_kfifo_alloc", -KA_ENOMEM))
		return static_cast<ka_kfifo *>(ka_err_ptr(error));
	if (size == 0 || (size & (size - 1)) != 0)
		throw Bug("ka_kfifo_alloc: not a power of two");
	std::lock_guard guard(state().lock);
	auto &fifo = state().all.emplace_back();
	fifo.buffer.resize(size);
	fifo.lock = lock;
	return &fifo;
}

void ka_kfifo_free(ka_kfifo *fifo)
{
	might_sleep("ka_kfifo_free");
	std::lock_guard guard(state().lock);
	if (state().all.remove_if([&](auto &other) { return &other == fifo; }) == 0)
		violation("ka_kfifo_free: not allocated");
}

unsigned int ka_kfifo_put(ka_kfifo *fifo, const void *from, unsigned int length)
{
	FifoLock lock(*fifo);
	const auto room = static_cast<unsigned int>(fifo->buffer.size()) - (fifo->in - fifo->out);
	length = std::min(length, room);
	for (unsigned int i = 0; i < length; i++)
		byte_at(*fifo, fifo->in + i) = static_cast<const unsigned char *>(from)[i];
	fifo->in += length;
	return length;
}

unsigned int ka_kfifo_get(ka_kfifo *fifo, void *to, unsigned int length)
{
	FifoLock lock(*fifo);
	length = std::min(length, fifo->in - fifo->out);
	for (unsigned int i = 0; i < length; i++)
		static_cast<unsigned char *>(to)[i] = byte_at(*fifo, fifo->out + i);
	fifo->out += length;
	if (fifo->in == fifo->out)
		fifo->in = fifo->out = 0;
	return length;
}

unsigned int ka_kfifo_len(ka_kfifo *fifo)
{
	FifoLock lock(*fifo);
	return fifo->in - fifo->out;
}

void ka_kfifo_reset(ka_kfifo *fifo)
{
	FifoLock lock(*fifo);
	fifo->in = fifo->out = 0;
}
