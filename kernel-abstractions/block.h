/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The block layer: devices and disks, bios, a queue's make-request function, a disk's operations
 * table.
 */
#ifndef KA_BLOCK_H
#define KA_BLOCK_H

#include "sync.h"

KA_BEGIN_DECLS

struct block_device;
struct gendisk;
struct request;
struct request_queue;
struct super_block;

/* --- Block devices: a whole disk or a partition ------------------------------------------- */

#define KA_FMODE_READ    1u
#define KA_BDEVNAME_SIZE 32

/* Opens by number. An error pointer; -ENXIO when the device is gone. */
struct block_device *ka_open_by_devnum(ka_dev_t dev, unsigned int mode);
void ka_blkdev_put(struct block_device *bdev, unsigned int mode);

/* The number of the block device that a path names, as the calling process sees it. */
int ka_lookup_bdev(const char *path, ka_dev_t *dev);

/* Writes out everything dirty: the file system's, then the device's own pages. */
int ka_fsync_bdev(struct block_device *bdev);
/*
 * Freezes the file system mounted on the device, if there is one, until the thaw. The result (a
 * super block, null, or an error pointer) goes to the matching thaw, which undoes nothing that the
 * freeze did not do.
 */
struct super_block *ka_freeze_bdev(struct block_device *bdev);
int ka_thaw_bdev(struct block_device *bdev, struct super_block *frozen);

/* Of an open device. Any context. */
ka_dev_t ka_bdev_dev(struct block_device *bdev);
struct gendisk *ka_bdev_disk(struct block_device *bdev); /* null: none that can be hooked */
struct request_queue *ka_bdev_queue(struct block_device *bdev);
/*
 * One more reference on a queue: it outlives its disk then. Null when the disk is on its way out.
 * Giving it back may sleep; null is allowed.
 */
struct request_queue *ka_get_queue(struct request_queue *queue);
void ka_put_queue(struct request_queue *queue);
ka_dev_t ka_bdev_whole_dev(struct block_device *bdev);  /* the number of its whole disk */
ka_sector_t ka_bdev_start(struct block_device *bdev);   /* on the whole disk; 0 for one */
ka_sector_t ka_bdev_sectors(struct block_device *bdev); /* length; a whole disk's capacity */
int ka_bdev_partno(struct block_device *bdev);          /* 0: a whole disk */
void ka_bdevname(struct block_device *bdev, char name[KA_BDEVNAME_SIZE]);
int ka_disk_is_removable(struct gendisk *disk);

/* --- Bios and make-request functions ------------------------------------------------------ */

/*
 * A bio on its way to a disk, as the make-request function gets it. What the accessors say is
 * what was submitted to the disk: the device is the whole disk and the sector is the disk's own.
 *
 * They may be called after the bio was handed on. A kernel on which the bio may be gone by then
 * answers from what it kept; the 2.6.32 kernel answers from the bio as it is.
 */
struct ka_bio;

ka_dev_t ka_bio_dev(const struct ka_bio *bio);
/* The write bit: set on every operation that changes data. */
int ka_bio_is_write(const struct ka_bio *bio);
ka_sector_t ka_bio_sector(const struct ka_bio *bio);
/* The number of segments; 0 on a kernel where it belongs to the bio's owner. */
unsigned int ka_bio_segments(const struct ka_bio *bio);
/* The length of the current segment in bytes. Only for a bio that has segments. */
uint64_t ka_bio_segment_bytes(const struct ka_bio *bio);
/* The length of what the bio affects, in bytes. */
uint64_t ka_bio_bytes(const struct ka_bio *bio);

/*
 * Takes a bio for a queue. Runs in the context of whoever submits, which may sleep. 0, or an error
 * when the bio was not taken: then the kernel asks the queue again (2.6.32), or hands the bio to
 * the disk itself.
 */
typedef int ka_make_request_fn(struct request_queue *queue, struct ka_bio *bio);

/* The function that a queue has now. It may be called with a bio of that queue. Any context. */
ka_make_request_fn *ka_queue_make_request(struct request_queue *queue);
/*
 * Compare and exchange: installs `to` if the queue has `from`. Returns what the queue had, which
 * is `from` exactly when the exchange was done.
 */
ka_make_request_fn *ka_queue_cmpxchg_make_request(struct request_queue *queue,
						  ka_make_request_fn *from, ka_make_request_fn *to);
/* Stores unconditionally. Does not wait for I/O. */
void ka_queue_set_make_request(struct request_queue *queue, ka_make_request_fn *function);
/*
 * After a store: returns when no bio is on its way through the function that was replaced, if the
 * kernel can tell. No file system may be frozen: such a bio may wait for it.
 */
void ka_queue_drain_make_request(struct request_queue *queue);

/* --- A disk's table of operations --------------------------------------------------------- */

/* A whole copy of a table of block-device operations. */
struct ka_block_device_operations {
	KA_STORAGE(BLOCK_DEVICE_OPERATIONS);
};

/* An ioctl entry: called in the context of the process, which may sleep. */
typedef int ka_bdev_ioctl_fn(struct block_device *bdev, unsigned int mode, unsigned int cmd,
			     unsigned long arg);

/* The ioctl entries that a table can have. A kernel without one of them never calls it. */
enum ka_ioctl_entry {
	KA_IOCTL,
	KA_LOCKED_IOCTL,
	KA_COMPAT_IOCTL,
	KA_IOCTL_ENTRIES
};

/* A disk's table, identified by its address. */
const struct ka_block_device_operations *ka_disk_fops(struct gendisk *disk);
/* Compare and exchange of the disk's pointer; returns what it was. */
const struct ka_block_device_operations *
ka_disk_cmpxchg_fops(struct gendisk *disk, const struct ka_block_device_operations *from,
		     const struct ka_block_device_operations *to);
/* Copies the whole table `from`, with its ioctl entries replaced by those given. */
void ka_fops_copy_with_ioctls(struct ka_block_device_operations *to,
			      const struct ka_block_device_operations *from,
			      ka_bdev_ioctl_fn *const entries[KA_IOCTL_ENTRIES]);
/*
 * Calls the table's ioctl entry; -ENOIOCTLCMD when it has none. A kernel that falls back on another
 * entry where one is missing falls back here too. Process context.
 */
int ka_fops_call_ioctl(const struct ka_block_device_operations *fops, enum ka_ioctl_entry entry,
		       struct block_device *bdev, unsigned int mode, unsigned int cmd,
		       unsigned long arg);

/* --- Disks of one's own ------------------------------------------------------------------- */

/* Called under the queue's lock, in any context, when there may be requests to fetch. */
typedef void ka_request_fn(struct request_queue *queue);

struct ka_disk_owner;

struct ka_disk_geometry {
	unsigned char heads, sectors;
	unsigned short cylinders;
	unsigned long start;
};

/* The operations of a disk of the driver's, in process context. Null: nothing to do. */
struct ka_disk_operations {
	int (*open)(struct ka_disk_owner *owner);
	int (*release)(struct ka_disk_owner *owner);
	int (*getgeo)(struct ka_disk_owner *owner, struct ka_disk_geometry *geometry);
};

/* What disk and queue know their record by. Embedded in it; lives as long as both. */
struct ka_disk_owner {
	const struct ka_disk_operations *operations;
};

/* A disk whose queue is the driver's is described to the block layer by this. */
struct ka_disk_description {
	unsigned int major; /* its first minor is 0 */
	const char *name;
	ka_sector_t capacity;
	int read_only;
	int without_partitions; /* they are never looked for */
};

/* The most pages that a bio on a queue of the driver's touches. */
#define KA_BIO_MAX_PAGES 1024

/*
 * A queue that calls the function, under that lock or, for null, one of its own. At most `depth`
 * requests are under way. Segments of a bio on it are contiguous but for the pages' boundaries:
 * only the first may begin inside a page and only the last end there. Null when memory is short.
 */
struct request_queue *ka_blk_init_queue(ka_request_fn *function, struct ka_spinlock *lock,
					unsigned int depth, struct ka_disk_owner *owner);
void ka_blk_cleanup_queue(struct request_queue *queue);
struct ka_disk_owner *ka_queue_owner(struct request_queue *queue);
/* In bytes, before the disk is added. -EINVAL, with a line in the kernel log, for one that this
 * kernel cannot have. */
int ka_blk_queue_block_size(struct request_queue *queue, unsigned short logical, size_t physical);

/* The next six are called with the queue's lock held. */

/* The next request, started; null when there is none or the queue is stopped. */
struct request *ka_blk_fetch_request(struct request_queue *queue);
/* Gives a request back that was fetched: it will be the next one. */
void ka_blk_requeue_request(struct request_queue *queue, struct request *request);
/* Until the start, the request function is not called. The start calls it. */
void ka_blk_stop_queue(struct request_queue *queue);
void ka_blk_start_queue(struct request_queue *queue);
/* Ends the current chunk of a request; returns 0 when that was the last. */
int ka_blk_end_request_cur(struct request *request, int error);
/* Ends the whole request: 0 or a negative error. */
void ka_blk_end_request_all(struct request *request, int error);

/* Whether it reads or writes for a file system or a process, rather than commands the device. */
int ka_request_is_fs(const struct request *request);

/*
 * The bios of a request that was fetched and has not ended, in their order. Unlike a struct ka_bio
 * they are the request's and do not change meanwhile.
 */
struct bio;
struct bio *ka_request_first_bio(struct request *request); /* null: a request without data */
struct bio *ka_request_next_bio(struct bio *bio);

struct ka_bio_extent {
	ka_sector_t sector; /* on the disk */
	uint64_t bytes;
	int is_write;
	unsigned int offset; /* of the first segment in its page */
};
void ka_request_bio_extent(const struct bio *bio, struct ka_bio_extent *extent);
/*
 * Calls back for each page segment in order, with its page's frame number, until non-zero. -EIO
 * without a call for a bio that somebody made up past the block layer and whose segments are not
 * what the queue asks for.
 */
int ka_request_bio_for_each_page(struct bio *bio, int (*callback)(void *arg, unsigned long pfn),
				 void *arg);

/* A block major: the number, which is dynamic, or a negative error. */
int ka_register_blkdev(const char *name);
void ka_unregister_blkdev(unsigned int major, const char *name);

/* A disk with that many minors, not yet in the system, not owning its queue. Null when short. */
struct gendisk *ka_alloc_disk(int minors, struct request_queue *queue);
/* Before ka_add_disk. */
void ka_disk_describe(struct gendisk *disk, struct ka_disk_owner *owner,
		      const struct ka_disk_description *description);
int ka_disk_is_read_only(const struct gendisk *disk);
/*
 * Enters the disk, and reads its partitions. A disk may be entered again after it was deleted: a
 * kernel that cannot do that puts a fresh one, described alike, in the place of *disk.
 */
int ka_add_disk(struct gendisk **disk);
/* Only after ka_add_disk succeeded. Requests under way come to their end first. */
void ka_del_gendisk(struct gendisk *disk);
/*
 * The last use of the disk. The queue may have been cleaned up before or not. Both may happen in
 * the disk's own release operation.
 */
void ka_put_disk(struct gendisk *disk);

KA_END_DECLS

#endif
