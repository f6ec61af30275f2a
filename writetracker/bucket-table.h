// SPDX-License-Identifier: GPL-2.0
// The table under the driver's registries: open addressing, linear probing upwards without
// wrap-around, a power of two of slots, grown by doubling. It does no locking and owns no record.
// What allocates is apart from what changes the table, so that nobody who searches waits for
// memory.
#ifndef WT_BUCKET_TABLE_H
#define WT_BUCKET_TABLE_H

#include "../kernel-abstractions/log.h"
#include "../kernel-abstractions/memory.h"

// log2 of a power of two, by the value's remainder modulo 37: the 33 remainders of 0 and of 2^0 to
// 2^31 are distinct. Four entries are reached by none of them.
constexpr int Mod37BitPosition[37] = {32, 0, 1,  26, 2,  23, 27, 0,  3,  16, 24, 30, 28,
				      11, 0, 13, 4,  7,  17, 0,  25, 22, 31, 15, 29, 10,
				      12, 6, 0,  21, 14, 9,  5,  20, 8,  19, 18};

constexpr uint32_t hash_bits_of(uint32_t length)
{
	return Mod37BitPosition[(length & -length) % 37];
}

static_assert(hash_bits_of(128) == 7 && hash_bits_of(1u << 31) == 31 && hash_bits_of(0) == 32);

constexpr uint32_t INITIAL_TABLE_LENGTH = 128;

// Traits say what a slot is:
//   Key, Bucket      the key's and the slot's type; an all-zero slot is empty
//   occupied(bucket) whether the slot holds a record
//   key(bucket)      its key
//   hash(key, bits)  the home index, below 2^bits
//   keeps_length     whether a table is made anew with the length of the one before
//   duplicate(index) called when a search for a free slot meets its own key
template <typename Traits> class BucketTable
{
public:
	using Key = typename Traits::Key;
	using Bucket = typename Traits::Bucket;

	bool exists() const
	{
		return buckets != nullptr;
	}
	uint32_t size() const
	{
		return length;
	}
	Bucket &operator[](uint32_t index)
	{
		return buckets[index];
	}

	// The array of a first table, for create; null when memory is short.
	Bucket *allocate_first() const
	{
		return allocate(first_length());
	}
	// Only when there is no table.
	void create(Bucket *first)
	{
		buckets = first;
		length = first_length();
		num_bits = hash_bits_of(length);
	}

	// Frees the table. Its length and number of bits keep their last values.
	void destroy()
	{
		ka_vfree(buckets);
		buckets = nullptr;
	}

	// The key's slot, or null.
	Bucket *__lookup_bucket(Key key)
	{
		if (!buckets)
			return nullptr;
		for (uint32_t i = Traits::hash(key, num_bits); i < length; i++) {
			if (!Traits::occupied(buckets[i]))
				return nullptr;
			if (Traits::key(buckets[i]) == key)
				return &buckets[i];
		}
		return nullptr;
	}

	bool home_is_free(Key key) const
	{
		return !Traits::occupied(buckets[Traits::hash(key, num_bits)]);
	}

	// The slot where the key may be stored: an empty one, the key's own if it is there already
	// (then it is occupied), or null when the probe runs off the end.
	Bucket *lookup_free(Key key)
	{
		return __lookup_free_bucket(key, buckets, length);
	}

	// An array of twice the size with all entries in it, for grow. Null when memory is short.
	//
	// The probes are bounded by the new number of hash bits, not by the new length, and while
	// entries move their home is still computed from the old length. So a table grows only when
	// all entries live in its first few slots; any other layout is a bug that stops the kernel.
	Bucket *allocate_larger()
	{
		Bucket *larger = allocate(2 * length);
		if (!larger)
			return nullptr;
		for (uint32_t i = 0; i < length; i++) {
			if (!Traits::occupied(buckets[i]))
				continue;
			Bucket *slot =
				__lookup_free_bucket(Traits::key(buckets[i]), larger, num_bits + 1);
			KA_BUG_ON(!slot);
			*slot = buckets[i];
		}
		return larger;
	}
	// Makes the larger array the table, and searches it for the key's slot, with the number of
	// hash bits as the bound once more. Null when the probe finds nothing.
	Bucket *grow(Bucket *larger, Key key)
	{
		ka_kfree(buckets);
		buckets = larger;
		length *= 2;
		num_bits++;
		return __lookup_free_bucket(key, buckets, num_bits);
	}

private:
	uint32_t first_length() const
	{
		return Traits::keeps_length ? length : INITIAL_TABLE_LENGTH;
	}

	static Bucket *allocate(uint32_t count)
	{
		auto *memory = static_cast<Bucket *>(ka_vmalloc(count * sizeof(Bucket)));
		if (memory)
			memset(memory, 0, count * sizeof(Bucket));
		return memory;
	}

	// The home comes from the table's current length, whatever array is searched; `bound` only
	// limits the index.
	Bucket *__lookup_free_bucket(Key key, Bucket *array, uint32_t bound)
	{
		if (!array)
			return nullptr;
		for (uint32_t i = Traits::hash(key, hash_bits_of(length)); i < bound; i++) {
			if (!Traits::occupied(array[i]))
				return &array[i];
			if (Traits::key(array[i]) == key) {
				Traits::duplicate(i);
				return &array[i];
			}
		}
		return nullptr;
	}

	Bucket *buckets = nullptr;
	uint32_t length = INITIAL_TABLE_LENGTH;
	uint32_t num_bits = 0;
};

#endif
