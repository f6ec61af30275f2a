/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A mapping in a process's address space that the driver has taken over to show pages in it.
 *
 * The process keeps power over its address space: at any moment it may unmap, move, split or
 * protect the mapping, fork, or end. Whatever it does, nothing here touches memory that is not the
 * mapping's, no page stays shown in any process after ka_mapping_zap, and once the mapping that was
 * taken is gone the calls fail with -EIO. The address space itself is pinned, not kept in use.
 */
#ifndef KA_MM_H
#define KA_MM_H

#include "types.h"

KA_BEGIN_DECLS

/* Embedded in a record; all zero: nothing taken. */
struct ka_mapping {
	KA_STORAGE(MAPPING);
};

/*
 * Takes over the calling process's first mapping that ends above the address. It becomes one for
 * raw pages, is not inherited by children, keeps its operations but for close, and has `mapping` as
 * its private data. -ENOENT when there is none; -EBUSY when it has private data already or is no
 * shared mapping of plain memory, which alone can show pages; -ENOMEM.
 *
 * closed, which may be null, is called when the mapping or a part split off it goes, with where
 * that began, under the address space's lock; it must not sleep.
 */
int ka_mapping_take(struct ka_mapping *mapping, const void *address,
		    void (*closed)(struct ka_mapping *mapping, unsigned long start));
/*
 * Gives the mapping its operations back, and all parts split off it, if they are there still.
 * Clears the private data, or leaves it, so that nobody can take the mapping again. Harmless when
 * nothing was taken.
 */
void ka_mapping_give_back(struct ka_mapping *mapping);
void ka_mapping_give_up(struct ka_mapping *mapping);

/* Whether one was taken, even if it is gone since. */
int ka_mapping_is_taken(const struct ka_mapping *mapping);
/* Where it begins and its length in bytes; 0 when it is gone. */
unsigned long ka_mapping_start(struct ka_mapping *mapping);
size_t ka_mapping_size(struct ka_mapping *mapping);

/*
 * Shows the page of that frame number at the offset from the mapping's present start. Takes the
 * address space's lock for writing. -EIO when the mapping, or its process, is gone or has become
 * too short.
 */
int ka_mapping_show_page(struct ka_mapping *mapping, size_t offset, unsigned long pfn);
/*
 * Takes all pages out of the mapping and of what was split off it. -EIO when it is gone, or its
 * process is being killed.
 */
int ka_mapping_zap(struct ka_mapping *mapping);

KA_END_DECLS

#endif
