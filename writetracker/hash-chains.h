// SPDX-License-Identifier: GPL-2.0
// A hash table of 256 chains of records that carry their own link. It does no locking and owns no
// record.
#ifndef WT_HASH_CHAINS_H
#define WT_HASH_CHAINS_H

#include "../kernel-abstractions/types.h"

// Traits say what a record is:
//   Key                the key's type
//   key(const Node *)  a record's key
//   hash(Key)          its chain, below 256
//   next(Node *)       a reference to the record's link
template <typename Node, typename Traits> class HashChains
{
public:
	using Key = typename Traits::Key;

	// The record that was added last under the key, or null.
	Node *find(Key key) const
	{
		Node *node = heads[Traits::hash(key)];
		while (node && Traits::key(node) != key)
			node = Traits::next(node);
		return node;
	}

	void add(Node *node)
	{
		Node *&head = heads[Traits::hash(Traits::key(node))];
		Traits::next(node) = head;
		head = node;
	}

	// Takes the record out of the chain of that key, which is where it was added. Does nothing
	// when it is not there.
	void remove_from(Key key, Node *node)
	{
		Node **link = &heads[Traits::hash(key)];
		while (*link && *link != node)
			link = &Traits::next(*link);
		if (!*link)
			return;
		*link = Traits::next(node);
		Traits::next(node) = nullptr;
	}

	// Empties the table and gives every record to the function.
	template <typename Function> void drain(Function function)
	{
		for (Node *&head : heads) {
			while (Node *node = head) {
				head = Traits::next(node);
				Traits::next(node) = nullptr;
				function(node);
			}
		}
	}

private:
	Node *heads[256];
};

#endif
