// SPDX-License-Identifier: GPL-2.0
// The model kernel itself, where the tests of the driver lean on more than meets the eye.
#include <thread>

#include "fixture.h"
#include "kernel-abstractions/mm.h"
#include "kernel-abstractions/thread.h"

namespace
{

constexpr size_t page = 4096;

std::vector<unsigned long> closed;

void note_closed(ka_mapping *, unsigned long start)
{
	closed.push_back(start);
}

TEST_F(Model, MappingsShowPages)
{
	model::ProcessMapping first(4 * page), second(4 * page);
	const bool ascending = first.address() < second.address();
	model::ProcessMapping &low = ascending ? first : second, &high = ascending ? second : first;
	ka_mapping mapping = {}, other = {};
	EXPECT_EQ(ka_mapping_is_taken(&mapping), 0);
	EXPECT_EQ(ka_mapping_start(&mapping), 0u);
	ka_mapping_give_back(&mapping);
	EXPECT_EQ(ka_mapping_take(&mapping, high.address(4 * page), nullptr), -2);

	// The first that ends above the address.
	closed.clear();
	ASSERT_EQ(ka_mapping_take(&mapping, nullptr, note_closed), 0);
	EXPECT_EQ(ka_mapping_start(&mapping), reinterpret_cast<unsigned long>(low.address()));
	EXPECT_EQ(ka_mapping_take(&other, low.address(), nullptr), -16);

	EXPECT_EQ(ka_mapping_show_page(&mapping, page, 7), 0);
	EXPECT_EQ(ka_mapping_show_page(&mapping, 3 * page, 8), 0);
	EXPECT_EQ(ka_mapping_show_page(&mapping, 3 * page + 1, 9), -5);
	EXPECT_TRUE(low.is_shown(page));
	EXPECT_FALSE(low.is_shown(0));
	low.split(2 * page);
	EXPECT_EQ(ka_mapping_size(&mapping), 2 * page);
	EXPECT_EQ(ka_mapping_show_page(&mapping, 2 * page, 9), -5);
	low.unmap(0, page);
	EXPECT_EQ(ka_mapping_start(&mapping), reinterpret_cast<unsigned long>(low.address(page)));
	EXPECT_EQ(model::shown_pages(), 2u);
	EXPECT_EQ(ka_mapping_zap(&mapping), 0); // the part that was split off as well
	EXPECT_EQ(model::shown_pages(), 0u);
	low.unmap(0, 2 * page);
	EXPECT_EQ(ka_mapping_size(&mapping), 0u);
	EXPECT_EQ(ka_mapping_show_page(&mapping, 0, 9), -5);
	EXPECT_EQ(ka_mapping_is_taken(&mapping), 1);
	low.unmap();
	const auto at = [&](size_t offset) {
		return reinterpret_cast<unsigned long>(low.address(offset));
	};
	EXPECT_THAT(closed, ElementsAre(at(0), at(page), at(2 * page)));
	ka_mapping_give_back(&mapping);

	ASSERT_EQ(ka_mapping_take(&mapping, high.address(), nullptr), 0);
	ka_mapping_give_up(&mapping);
	EXPECT_EQ(ka_mapping_take(&mapping, high.address(), nullptr), -16);
}

// A request function that takes one request at a time and leaves it to the test.
request *fetched;

void take_one(request_queue *queue)
{
	if (fetched)
		return;
	fetched = ka_blk_fetch_request(queue);
	EXPECT_THROW(ka_synchronize_sched(), model::Bug); // under a spinlock
	if (fetched && !ka_request_first_bio(fetched)) {
		ka_blk_end_request_all(fetched, -5);
		EXPECT_THROW(ka_request_is_fs(fetched), model::Bug);
		fetched = nullptr;
	}
}

TEST_F(Model, QueuesHandOutRequests)
{
	constexpr ka_disk_operations operations = {};
	ka_disk_owner owner = {&operations};
	ka_spinlock lock;
	ka_spin_lock_init(&lock, "lock");
	fetched = nullptr;
	request_queue *queue = ka_blk_init_queue(take_one, &lock, 2, &owner);
	gendisk *disk = ka_alloc_disk(1, queue);
	const ka_disk_description description = {200, "served", 0, 1, 1};
	ka_disk_describe(disk, &owner, &description);
	ASSERT_EQ(ka_add_disk(&disk), 0);
	const gendisk *first = disk;
	auto open = std::make_unique<model::OpenDisk>("served");
	ka_del_gendisk(disk);
	ASSERT_EQ(ka_add_disk(&disk), 0);
	EXPECT_NE(disk, first);
	EXPECT_EQ(open->submit({}).wait(), -6); // to the disk of before
	open = std::make_unique<model::OpenDisk>("served");

	const model::Request a = open->submit({{.sector = 0, .bytes = 512}});
	const model::Request b = open->submit({{.sector = 1, .bytes = 512}});
	request *taken = fetched;
	EXPECT_THROW(ka_blk_end_request_all(taken, 0), model::Bug); // without the lock
	std::atomic<bool> submitted{false};
	std::thread submitter([&] { // waits for one to end
		const model::Request c = open->submit({});
		submitted = true;
		EXPECT_EQ(c.wait(), -5);
	});
	EXPECT_FALSE(submitted);
	const auto with_lock = [&](const std::function<void()> &action) {
		const unsigned long flags = ka_spin_lock_irqsave(&lock);
		action();
		ka_spin_unlock_irqrestore(&lock, flags);
	};
	with_lock([&] {
		ka_blk_requeue_request(queue, taken);
		ka_blk_stop_queue(queue);
		fetched = nullptr;
		EXPECT_EQ(ka_blk_fetch_request(queue), nullptr);
		ka_blk_start_queue(queue);
		EXPECT_EQ(fetched, taken);
		fetched = nullptr;
		ka_blk_end_request_all(taken, 0);
		ka_blk_start_queue(queue);
	});
	EXPECT_EQ(a.wait(), 0);
	while (!submitted)
		std::this_thread::yield();
	std::thread deleter([&] { ka_del_gendisk(disk); }); // waits for both
	with_lock([&] {
		ka_blk_end_request_all(std::exchange(fetched, nullptr), -1);
		ka_blk_start_queue(queue);
	});
	EXPECT_EQ(b.wait(), -1);
	deleter.join();
	submitter.join();
	open.reset();
	ka_blk_cleanup_queue(queue);
	ka_put_disk(disk);
}

TEST_F(Model, ThreadsWakeAndStop)
{
	static ka_wait_queue queue;
	static std::atomic<int> work, done;
	ka_init_waitqueue_head(&queue);
	work = done = 0;
	const auto function = [](void *) {
		while (!ka_kthread_should_stop()) {
			const auto has_work = [](void *) {
				return static_cast<int>(work > done || ka_kthread_should_stop());
			};
			EXPECT_EQ(ka_wait_event_interruptible(&queue, has_work, nullptr), 0);
			done = work.load();
		}
		return 7;
	};
	task_struct *thread = ka_kthread_create(function, nullptr, "a-name-that-is-too-long");
	EXPECT_THAT(model::threads(), ElementsAre("a-name-that-is-"));
	ka_wake_up_process(thread);
	for (int i = 1; i <= 1000; i++) {
		work = i;
		ka_wake_up(&queue);
	}
	while (done != 1000)
		std::this_thread::yield();
	EXPECT_EQ(ka_kthread_stop(thread), 7);
	EXPECT_EQ(ka_kthread_stop(ka_kthread_create(function, nullptr, "idle")), -4);
	EXPECT_THROW(ka_kthread_should_stop(), model::Bug);
}

} // namespace
