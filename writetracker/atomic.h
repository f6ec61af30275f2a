// SPDX-License-Identifier: GPL-2.0
// Atomic access to words that several threads share without a lock. The compiler's builtins serve
// every kernel and every sanitizer alike.
#ifndef WT_ATOMIC_H
#define WT_ATOMIC_H

#include "../kernel-abstractions/types.h"

// Compare and exchange; returns what the word held, which is `expected` exactly on success.
template <typename T> inline T atomic_cmpxchg(T *word, T expected, T desired)
{
	__atomic_compare_exchange_n(word, &expected, desired, false, __ATOMIC_SEQ_CST,
				    __ATOMIC_SEQ_CST);
	return expected;
}

template <typename T> inline T atomic_read(const T *word)
{
	return __atomic_load_n(word, __ATOMIC_ACQUIRE);
}

// A shared value. Zero-filled memory is a valid one of value 0.
template <typename T> class Atomic
{
public:
	T get() const
	{
		return atomic_read(&value);
	}
	void set(T desired)
	{
		__atomic_store_n(&value, desired, __ATOMIC_RELEASE);
	}
	T exchange(T desired)
	{
		return __atomic_exchange_n(&value, desired, __ATOMIC_SEQ_CST);
	}
	// Returns the value and leaves the next one.
	T draw()
	{
		return __atomic_fetch_add(&value, T(1), __ATOMIC_SEQ_CST);
	}
	void increment()
	{
		__atomic_fetch_add(&value, T(1), __ATOMIC_SEQ_CST);
	}
	void decrement()
	{
		__atomic_fetch_sub(&value, T(1), __ATOMIC_SEQ_CST);
	}

private:
	T value;
};

#endif
