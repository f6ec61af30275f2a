/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Locks, completions and grace periods. Records embed them; each is initialised before use, and
 * none needs to be destroyed. Atomic counters and words are the compiler's, in the core.
 */
#ifndef KA_SYNC_H
#define KA_SYNC_H

#include "types.h"

KA_BEGIN_DECLS

struct ka_mutex {
	KA_STORAGE(MUTEX);
};

/* name: the lock class's name, a string constant. All mutexes of one name share one class. */
void ka_mutex_init(struct ka_mutex *mutex, const char *name);
void ka_mutex_lock(struct ka_mutex *mutex);
/* 0, or -EINTR with the mutex not taken when a signal arrived. */
int ka_mutex_lock_interruptible(struct ka_mutex *mutex);
/* Whether the mutex was free and is taken now. */
int ka_mutex_trylock(struct ka_mutex *mutex);
/* Does nothing to a mutex that nobody holds. */
void ka_mutex_unlock(struct ka_mutex *mutex);
/* Whether anybody holds it. Any context. */
int ka_mutex_is_locked(struct ka_mutex *mutex);

struct ka_rwsem {
	KA_STORAGE(RWSEM);
};

void ka_rwsem_init(struct ka_rwsem *sem, const char *name);
void ka_down_read(struct ka_rwsem *sem);
void ka_up_read(struct ka_rwsem *sem);
void ka_down_write(struct ka_rwsem *sem);
void ka_up_write(struct ka_rwsem *sem);

struct ka_completion {
	KA_STORAGE(COMPLETION);
};

void ka_init_completion(struct ka_completion *completion);
/* Releases all present and future waiters. Any context. */
void ka_complete_all(struct ka_completion *completion);
/* Not interruptible. */
void ka_wait_for_completion(struct ka_completion *completion);

/*
 * A scheduler read section: short, does not sleep. ka_synchronize_sched returns when every section
 * that was running at its call has ended; it sleeps.
 */
void ka_rcu_read_lock_sched(void);
void ka_rcu_read_unlock_sched(void);
void ka_synchronize_sched(void);

KA_END_DECLS

#endif
