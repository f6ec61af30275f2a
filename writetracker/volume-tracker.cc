// SPDX-License-Identifier: GPL-2.0
// Write interception and the changed-block bitmap.
#include "volume-tracker.h"

#include "../kernel-abstractions/memory.h"
#include "../kernel-abstractions/task.h"
#include "guards.h"
#include "udev-patcher.h"
#include "wt-logging.h"

static constexpr wt_log_group wt_group = WT_LOG_GROUP_VOLUME_TRACKER;

static constexpr uint64_t ALL_ONES = ~uint64_t(0);
static constexpr unsigned long HOOK_CALL_LIMIT = 500; // jiffies that a switch waits for hook calls

// --- The hook ----------------------------------------------------------------------------------

// Clears a mask's bits in a word that other writers change at the same time.
static void clear_bits_in_one_word(uint64_t *word, uint64_t mask)
{
	uint64_t seen = atomic_read(word);
	for (;;) {
		const uint64_t found = atomic_cmpxchg(word, seen, seen & ~mask);
		if (found == seen)
			return;
		seen = found;
	}
}

// The same for the first and the last word of a range. The value expected is the one read first,
// on every retry: a word that another writer changed in between is waited for until it holds that
// value again.
static void clear_bits_in_end_word(uint64_t *word, uint64_t mask)
{
	const uint64_t seen = atomic_read(word);
	while (atomic_cmpxchg(word, seen, seen & ~mask) != seen) {
	}
}

static void clear_whole_word(uint64_t *word)
{
	for (;;) {
		const uint64_t seen = atomic_read(word);
		if (atomic_cmpxchg(word, seen, uint64_t(0)) == seen)
			return;
	}
}

// The words that a bitmap has in memory: the hook marks up to two blocks more than a write covers,
// and on a volume whose last blocks fill the last word these lie in a word that is not part of it.
static uint64_t words_in_memory(uint64_t size)
{
	return size / sizeof(uint64_t) + 1;
}

// Marks the blocks first to last, both inclusive, as written. Those beyond the bitmap's memory are
// dropped: a volume that changed its extent but could not be made to stop tracking outgrows it.
static void mark_blocks_written(hbitmap *bitmap, uint64_t first, uint64_t last)
{
	const uint64_t end = words_in_memory(bitmap->size) * WT_WORD_BLOCKS;
	if (first >= end)
		return;
	if (last >= end)
		last = end - 1;
	const uint64_t first_word = first / WT_WORD_BLOCKS;
	const uint64_t last_word = last / WT_WORD_BLOCKS;
	const uint64_t from_first = ALL_ONES >> (first % WT_WORD_BLOCKS);
	const uint64_t up_to_last = ALL_ONES << (WT_WORD_BLOCKS - 1 - last % WT_WORD_BLOCKS);

	if (first_word == last_word) {
		clear_bits_in_one_word(&bitmap->bitmap[first_word], from_first & up_to_last);
		return;
	}
	clear_bits_in_end_word(&bitmap->bitmap[first_word], from_first);
	for (uint64_t word = first_word + 1; word < last_word; word++)
		clear_whole_word(&bitmap->bitmap[word]);
	clear_bits_in_end_word(&bitmap->bitmap[last_word], up_to_last);
}

// Accounts for a bio that was handed on. 0, or -EINVAL for a write beyond the volume's end.
static int account_write(volume_info *volume, const ka_bio *bio)
{
	// Of a bio with segments only the current one counts.
	const uint64_t bytes = ka_bio_segments(bio) ? ka_bio_segment_bytes(bio) : ka_bio_bytes(bio);
	const ka_sector_t sectors = bytes / 512 + (bytes % 512 != 0);
	const ka_sector_t start = ka_bio_sector(bio);
	const ka_sector_t end = volume->vi_end.get();

	if (start + sectors > end) {
		WT_WARN("Writes %lu-%lu beyond disk size of %lu blocks\n",
			static_cast<unsigned long>(start),
			static_cast<unsigned long>(start + sectors),
			static_cast<unsigned long>(end));
		return -KA_EINVAL;
	}
	// A switch replaces the bitmap and waits for this section before it reads the old one.
	SchedReadSection section;
	hbitmap *bitmap = volume->vi_bitmap.get();
	if (bitmap) {
		const uint64_t first = start >> WT_BLOCK_SHIFT;
		mark_blocks_written(bitmap, first, first + (sectors >> WT_BLOCK_SHIFT) + 1);
	}
	return 0;
}

// Hands the bio to the function that was there before the hook, then accounts for it if it writes.
static int forward_and_account(volume_info *volume, request_queue *queue, ka_bio *bio)
{
	ka_make_request_fn *forward = volume->vi_mrqfn_old.get();
	if (forward) {
		const int err = forward(queue, bio);
		if (err != 0) {
			WT_WARN("Error(%d) performing IO on device [%d:%d].\n", err,
				ka_major(volume->vi_devt), ka_minor(volume->vi_devt));
			return err;
		}
	}
	return ka_bio_is_write(bio) ? account_write(volume, bio) : 0;
}

int writetracker_mrqfn(request_queue *queue, ka_bio *bio)
{
	const ka_dev_t dev = ka_bio_dev(bio);
	int err = -KA_ENXIO;
	volume_info *volume = lookup_volume_info(dev);
	if (volume) {
		volume->vi_reqcount.increment();
		err = forward_and_account(volume, queue, bio);
		volume->vi_reqcount.decrement();
		volume_info_put(volume);
	} else {
		WT_WARN("Unknown block write to device %d:%d\n", ka_major(dev), ka_minor(dev));
	}
	if (err == 0)
		return 0;

	WT_WARN("Error(%d) tracking  device [%d:%d]. Stopping volume tracking\n", err,
		ka_major(dev), ka_minor(dev));
	udev_schedule_event(DISK_OFFLINE, dev);
	return err == -KA_EINVAL ? 0 : err;
}

// --- Bitmaps -----------------------------------------------------------------------------------

int volume_info_allocate_bitmap(volume_info *volume)
{
	KA_BUG_ON(!ka_mutex_is_locked(&volume->vi_mtx));
	// One byte per 1024 sectors in whole words, and a word for the blocks beyond the last.
	const uint64_t sectors = volume->vi_end.get() - volume->vi_start.get();
	const uint64_t size = ((sectors >> 10) & ~uint64_t(7)) + 8;
	const uint64_t allocated = words_in_memory(size) * sizeof(uint64_t);

	auto *bitmap = static_cast<hbitmap *>(ka_vmalloc(sizeof(hbitmap) + allocated));
	if (!bitmap) {
		WT_ERROR("Unable to allocated the cbt bitmap for disk %s\n", volume->vi_dname);
		return -KA_ENOMEM;
	}
	memset(bitmap->bitmap, 0xff, allocated);
	bitmap->size = static_cast<int64_t>(size);
	volume->vi_bitmap.set(bitmap);
	return 0;
}

// Adds the blocks of another bitmap, as far as the sizes go: 0 means written, so AND is the union.
static void add_written(hbitmap *to, const hbitmap *from)
{
	const int64_t size = to->size < from->size ? to->size : from->size;
	for (int64_t i = size / static_cast<int64_t>(sizeof(uint64_t)); i-- > 0;)
		to->bitmap[i] &= atomic_read(&from->bitmap[i]);
}

// Returns once no hook call is in progress, or after a while: a busy disk always has one.
static void wait_for_hook_calls(const volume_info *volume)
{
	const unsigned long start = ka_jiffies();
	while (volume->vi_reqcount.get() != 0 && ka_jiffies() - start < HOOK_CALL_LIMIT)
		ka_schedule();
}

int volume_info_switch_bitmap(volume_info *volume)
{
	if (!volume->vi_istracked) {
		WT_WARN("Tracking not enabled on volume %s\n", volume->vi_dname);
		return -KA_EINVAL;
	}
	// A write may have been handed on before the switch, and so be in the snapshot, but be
	// accounted for after it, by a task that lost the processor in between. What such calls
	// write counts on both sides: it would be missing from the increment up to the switch, and
	// other writes that are marked meanwhile must not be missing from the next.
	const bool calls_in_progress = volume->vi_reqcount.get() != 0;
	hbitmap *old = volume->vi_bitmap.get();
	int err = volume_info_allocate_bitmap(volume);
	if (err != 0)
		return err;
	if (calls_in_progress)
		wait_for_hook_calls(volume);
	ka_synchronize_sched(); // the last hook call that saw the old bitmap is done with it
	if (calls_in_progress)
		add_written(old, volume->vi_bitmap.get());

	hbitmap *snapshot = volume->vi_bitmap_snapshot;
	if (!snapshot) {
		volume->vi_bitmap_snapshot = old;
		return 0;
	}
	// After a change of size the newer bitmap is the one to keep.
	hbitmap *kept = snapshot->size == old->size ? snapshot : old;
	hbitmap *discarded = kept == snapshot ? old : snapshot;
	add_written(kept, discarded);
	volume->vi_bitmap_snapshot = kept;
	ka_vfree(discarded);
	return 0;
}

// --- Start and stop ----------------------------------------------------------------------------

// Puts the hook into the queue unless it is there already.
static void install_hook(volume_info *volume, request_queue *queue)
{
	if (ka_queue_make_request(queue) == writetracker_mrqfn)
		return;
	// A retry writes what the failed exchange found, not the hook: whoever hooks the queue at
	// the same moment wins, and vi_mrqfn_new tells.
	ka_make_request_fn *desired = writetracker_mrqfn;
	for (;;) {
		ka_make_request_fn *current = ka_queue_make_request(queue);
		volume->vi_mrqfn_old.set(current);
		ka_make_request_fn *found = ka_queue_cmpxchg_make_request(queue, current, desired);
		if (found == current)
			break;
		desired = found;
	}
	volume->vi_mrqfn_new = ka_queue_make_request(queue);
}

// Opens the volume's device or says why tracking cannot go on without it.
static int open_volume_device(volume_info *volume, OpenDevice &device)
{
	device.open(volume->vi_devt);
	if (device.error() != 0)
		WT_ERROR("Unable to get the block device pointer to disk %s\n", volume->vi_dname);
	return device.error();
}

int volume_info_start_tracking(volume_info *volume)
{
	KA_BUG_ON(!ka_mutex_is_locked(&volume->vi_mtx));
	if (volume->vi_istracked)
		return -KA_EINVAL;
	OpenDevice device;
	int err = open_volume_device(volume, device);
	if (err != 0)
		return err;
	err = volume_info_allocate_bitmap(volume);
	if (err != 0)
		return err;

	request_queue *queue = ka_bdev_queue(device.get());
	ka_fsync_bdev(device.get());
	super_block *frozen = ka_freeze_bdev(device.get());
	install_hook(volume, queue);
	ka_thaw_bdev(device.get(), frozen);
	volume->vi_queue = ka_get_queue(queue);
	volume->vi_istracked = 1;
	return 0;
}

// Puts the function that the hook replaced back into the queue. -EINVAL when the queue no longer
// has the hook: somebody came after us, and forwards to us.
static int remove_hook(volume_info *volume, block_device *bdev)
{
	request_queue *queue = ka_bdev_queue(bdev);
	int err = 0;
	ka_fsync_bdev(bdev);
	super_block *frozen = ka_freeze_bdev(bdev);
	if (ka_queue_make_request(queue) == writetracker_mrqfn)
		ka_queue_set_make_request(queue, volume->vi_mrqfn_old.get());
	else
		err = -KA_EINVAL;
	ka_thaw_bdev(bdev, frozen);
	if (err != 0)
		WT_WARN("!!Cannot Untrack: Overstaking of Request Queue Function of Disk:%s\n",
			volume->vi_dname);
	return err;
}

int volume_info_stop_tracking(volume_info *volume, bool unpatch_mrfqn)
{
	KA_BUG_ON(!ka_mutex_is_locked(&volume->vi_mtx));
	if (!volume->vi_istracked)
		return -KA_EINVAL;
	OpenDevice device;
	if (unpatch_mrfqn) {
		int err = open_volume_device(volume, device);
		if (err == 0)
			err = remove_hook(volume, device.get());
		if (err != 0)
			return err;
		// Where the kernel cannot tell who is in the hook, a call may have gone to sleep in
		// its lookup, before it is counted. Forwarding nowhere, it would lose its bio.
		ka_queue_drain_make_request(ka_bdev_queue(device.get()));
		wait_for_volume_lookups();
		ka_queue_drain_make_request(ka_bdev_queue(device.get()));
	}
	while (volume->vi_reqcount.get() != 0)
		ka_schedule();

	hbitmap *bitmap = volume->vi_bitmap.get();
	volume->vi_mrqfn_old.set(nullptr);
	volume->vi_bitmap.set(nullptr);
	ka_synchronize_sched(); // a hook call that was not counted yet may have seen the bitmap
	ka_vfree(bitmap);
	ka_vfree(volume->vi_bitmap_snapshot);
	volume->vi_bitmap_snapshot = nullptr;
	ka_put_queue(volume->vi_queue);
	volume->vi_queue = nullptr;
	volume->vi_istracked = 0;
	return 0;
}

// --- Extents -----------------------------------------------------------------------------------

namespace
{

// Collects runs of written blocks. Positions are sectors and never go back.
class ExtentCollector
{
public:
	explicit ExtentCollector(wt_extents *extents) : extents(extents)
	{
	}
	void written_from(uint64_t sector)
	{
		if (open)
			return;
		open = true;
		start = sector;
	}
	void unwritten_from(uint64_t sector)
	{
		if (!open)
			return;
		extents->wtes_extents[count++] = {start, sector - start};
		open = false;
	}
	bool is_open() const
	{
		return open;
	}
	bool is_full() const
	{
		return count >= extents->wtes_size;
	}
	int result() const
	{
		return static_cast<int>(count);
	}

private:
	wt_extents *extents;
	size_t count = 0;
	uint64_t start = 0;
	bool open = false;
};

} // namespace

// Walks the runs of one word from the block `first` of it on, whose sector is `cursor`.
static void collect_from_word(uint64_t word, unsigned int first, uint64_t cursor,
			      ExtentCollector &collector)
{
	unsigned int left = WT_WORD_BLOCKS - first;
	word <<= first;
	while (left > 0 && !collector.is_full()) {
		const bool unwritten = word >> 63;
		const uint64_t inverted = unwritten ? ~word : word;
		unsigned int run = inverted ? __builtin_clzll(inverted) : WT_WORD_BLOCKS;
		if (run > left)
			run = left;
		if (unwritten)
			collector.unwritten_from(cursor);
		else
			collector.written_from(cursor);
		cursor += run * WT_BLOCK_SECTORS;
		left -= run;
		word = run < WT_WORD_BLOCKS ? word << run : 0;
	}
}

int volume_info_get_extents(const hbitmap *bitmap, uint64_t offset, wt_extents *extents)
{
	const uint64_t words = static_cast<uint64_t>(bitmap->size) / sizeof(uint64_t);
	ExtentCollector collector(extents);
	uint64_t index = offset / WT_WORD_SECTORS;
	if (index >= words || collector.is_full())
		return 0;

	// An unaligned start inside a written block begins a run right there.
	uint64_t cursor = offset;
	if (cursor % WT_BLOCK_SECTORS != 0) {
		const uint64_t block = offset / WT_BLOCK_SECTORS % WT_WORD_BLOCKS;
		if (!(atomic_read(&bitmap->bitmap[index]) << block >> 63))
			collector.written_from(offset);
		cursor = (offset / WT_BLOCK_SECTORS + 1) * WT_BLOCK_SECTORS;
		index = cursor / WT_WORD_SECTORS;
	}
	unsigned int first = cursor / WT_BLOCK_SECTORS % WT_WORD_BLOCKS;
	for (; index < words && !collector.is_full(); index++) {
		const uint64_t word = atomic_read(&bitmap->bitmap[index]);
		if (word != ALL_ONES || collector.is_open())
			collect_from_word(word, first,
					  index * WT_WORD_SECTORS + first * WT_BLOCK_SECTORS,
					  collector);
		first = 0;
	}
	return collector.result();
}
