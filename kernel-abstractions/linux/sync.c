/* SPDX-License-Identifier: GPL-2.0 */
/* Locks, completions, grace periods. */
#include "../sync.h"

#include <linux/lockdep.h>
#include <linux/rcupdate.h>

#include "objects.h"
#include "this-kernel.h"

#ifdef CONFIG_LOCKDEP
/* One class per name: the validator wants a static key for each. */
static struct lock_class_key *lock_class_of(const char *name)
{
	static struct {
		const char *name;
		struct lock_class_key key;
	} classes[16];
	static DEFINE_SPINLOCK(lock);
	unsigned int i;

	spin_lock(&lock);
	for (i = 0; i < ARRAY_SIZE(classes) - 1; i++)
		if (!classes[i].name || strcmp(classes[i].name, name) == 0)
			break;
	classes[i].name = name;
	spin_unlock(&lock);
	return &classes[i].key;
}
#else
static struct lock_class_key *lock_class_of(const char *name)
{
	static struct lock_class_key key;

	return &key;
}
#endif

void ka_mutex_init(struct ka_mutex *mutex, const char *name)
{
	__mutex_init(KA_OBJECT(struct mutex, mutex), name, lock_class_of(name));
}

void ka_mutex_lock(struct ka_mutex *mutex)
{
	mutex_lock(KA_OBJECT(struct mutex, mutex));
}

int ka_mutex_lock_interruptible(struct ka_mutex *mutex)
{
	return mutex_lock_interruptible(KA_OBJECT(struct mutex, mutex));
}

int ka_mutex_trylock(struct ka_mutex *mutex)
{
	return mutex_trylock(KA_OBJECT(struct mutex, mutex));
}

void ka_mutex_unlock(struct ka_mutex *mutex)
{
	kernel_mutex_unlock(KA_OBJECT(struct mutex, mutex));
}

int ka_mutex_is_locked(struct ka_mutex *mutex)
{
	return mutex_is_locked(KA_OBJECT(struct mutex, mutex));
}

void ka_rwsem_init(struct ka_rwsem *sem, const char *name)
{
	__init_rwsem(KA_OBJECT(struct rw_semaphore, sem), name, lock_class_of(name));
}

void ka_down_read(struct ka_rwsem *sem)
{
	down_read(KA_OBJECT(struct rw_semaphore, sem));
}

void ka_up_read(struct ka_rwsem *sem)
{
	up_read(KA_OBJECT(struct rw_semaphore, sem));
}

void ka_down_write(struct ka_rwsem *sem)
{
	down_write(KA_OBJECT(struct rw_semaphore, sem));
}

void ka_up_write(struct ka_rwsem *sem)
{
	up_write(KA_OBJECT(struct rw_semaphore, sem));
}

void ka_spin_lock_init(struct ka_spinlock *lock, const char *name)
{
	spinlock_t *kernel = KA_OBJECT(spinlock_t, lock);

	spin_lock_init(kernel);
	lockdep_set_class_and_name(kernel, lock_class_of(name), name);
}

unsigned long ka_spin_lock_irqsave(struct ka_spinlock *lock)
{
	unsigned long flags;

	spin_lock_irqsave(KA_OBJECT(spinlock_t, lock), flags);
	return flags;
}

void ka_spin_unlock_irqrestore(struct ka_spinlock *lock, unsigned long flags)
{
	spin_unlock_irqrestore(KA_OBJECT(spinlock_t, lock), flags);
}

void ka_init_completion(struct ka_completion *completion)
{
	init_completion(KA_OBJECT(struct completion, completion));
}

void ka_complete_all(struct ka_completion *completion)
{
	complete_all(KA_OBJECT(struct completion, completion));
}

void ka_wait_for_completion(struct ka_completion *completion)
{
	wait_for_completion(KA_OBJECT(struct completion, completion));
}

void ka_rcu_read_lock_sched(void)
{
	rcu_read_lock_sched();
}

void ka_rcu_read_unlock_sched(void)
{
	rcu_read_unlock_sched();
}

void ka_synchronize_sched(void)
{
	kernel_synchronize_sched();
}
