// SPDX-License-Identifier: GPL-2.0
// Scoped ownership of what the contract hands out: locks, read sections, open devices.
#ifndef WT_GUARDS_H
#define WT_GUARDS_H

#include "../kernel-abstractions/block.h"
#include "../kernel-abstractions/memory.h"
#include "../kernel-abstractions/module.h"
#include "../kernel-abstractions/sync.h"
#include "../kernel-abstractions/task.h"
#include "atomic.h"

template <typename T, void (*Lock)(T *), void (*Unlock)(T *)> class ScopedLock
{
public:
	explicit ScopedLock(T &lock) : lock(lock)
	{
		Lock(&lock);
	}
	~ScopedLock()
	{
		Unlock(&lock);
	}
	ScopedLock(const ScopedLock &) = delete;
	ScopedLock &operator=(const ScopedLock &) = delete;

private:
	T &lock;
};

using MutexLock = ScopedLock<ka_mutex, ka_mutex_lock, ka_mutex_unlock>;
using ReadLock = ScopedLock<ka_rwsem, ka_down_read, ka_up_read>;
using WriteLock = ScopedLock<ka_rwsem, ka_down_write, ka_up_write>;

// A mutex taken on behalf of a process that a signal may call away: check error() before going on.
class InterruptibleMutexLock
{
public:
	explicit InterruptibleMutexLock(ka_mutex &mutex)
	    : mutex(mutex), err(ka_mutex_lock_interruptible(&mutex))
	{
	}
	~InterruptibleMutexLock()
	{
		if (err == 0)
			ka_mutex_unlock(&mutex);
	}
	InterruptibleMutexLock(const InterruptibleMutexLock &) = delete;
	InterruptibleMutexLock &operator=(const InterruptibleMutexLock &) = delete;

	int error() const
	{
		return err;
	}

private:
	ka_mutex &mutex;
	int err;
};

// The mutex of a volume that LVM may have suspended, unless whoever holds it does not let it go
// within a second: he may be waiting, to flush the volume or to freeze it, for that very suspension
// to end.
class PatientMutexLock
{
public:
	explicit PatientMutexLock(ka_mutex &mutex) : mutex(mutex)
	{
		const unsigned long start = ka_jiffies();
		while (!(held = ka_mutex_trylock(&mutex)) && ka_jiffies() - start <= 1000)
			ka_schedule();
	}
	~PatientMutexLock()
	{
		if (held)
			ka_mutex_unlock(&mutex);
	}
	PatientMutexLock(const PatientMutexLock &) = delete;
	PatientMutexLock &operator=(const PatientMutexLock &) = delete;

	explicit operator bool() const
	{
		return held;
	}

private:
	ka_mutex &mutex;
	bool held;
};

// A read section that ka_synchronize_sched waits for.
class SchedReadSection
{
public:
	SchedReadSection()
	{
		ka_rcu_read_lock_sched();
	}
	~SchedReadSection()
	{
		ka_rcu_read_unlock_sched();
	}
	SchedReadSection(const SchedReadSection &) = delete;
	SchedReadSection &operator=(const SchedReadSection &) = delete;
};

// Calls under way although the module is being unloaded. Unloading waits for them.
extern Atomic<int> wt_unpinned_calls;

// One call into the driver by somebody who keeps no reference on the module: the code stays while
// it lives.
class ModulePin
{
public:
	ModulePin() : held(ka_module_get() != 0)
	{
		if (!held)
			wt_unpinned_calls.increment();
	}
	~ModulePin()
	{
		if (held)
			ka_module_put();
		else
			wt_unpinned_calls.decrement();
	}
	ModulePin(const ModulePin &) = delete;
	ModulePin &operator=(const ModulePin &) = delete;

private:
	bool held;
};

// A block device opened by number for reading.
class OpenDevice
{
public:
	OpenDevice() = default;
	explicit OpenDevice(ka_dev_t dev) : bdev(ka_open_by_devnum(dev, KA_FMODE_READ))
	{
	}
	~OpenDevice()
	{
		close();
	}
	OpenDevice(const OpenDevice &) = delete;
	OpenDevice &operator=(const OpenDevice &) = delete;

	// The open's error, or 0.
	int error() const
	{
		return ka_is_err(bdev) ? static_cast<int>(ka_ptr_err(bdev)) : 0;
	}
	block_device *get() const
	{
		return bdev;
	}
	void open(ka_dev_t dev)
	{
		close();
		bdev = ka_open_by_devnum(dev, KA_FMODE_READ);
	}
	void close()
	{
		if (bdev && !ka_is_err(bdev))
			ka_blkdev_put(bdev, KA_FMODE_READ);
		bdev = nullptr;
	}

private:
	block_device *bdev = nullptr;
};

#endif
