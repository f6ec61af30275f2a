// SPDX-License-Identifier: GPL-2.0
// The block device of a restore disk and its service thread, against a server that misbehaves.
#include "writetracker/jorl-volume.h"

#include <limits>
#include <thread>

#include "restore-fixture.h"

namespace
{

TEST_F(Restore, ServesReads)
{
	struct {
		size_t block_size;
		std::vector<BioSpec> bios;
		std::vector<std::pair<uint64_t, int64_t>> asked; // blocks: first, count
	} const cases[] = {
		{512, {{.sector = 0, .bytes = 512}}, {{0, 1}}},
		{512, {{.sector = 7, .bytes = 4096, .offset = 1536}}, {{7, 8}}},
		{1024,
		 {{.sector = 8, .bytes = 4096}, {.sector = 100, .bytes = 65536, .offset = 1024}},
		 {{4, 4}, {50, 64}}},
		{4096, {{.sector = 16, .bytes = 1 << 20}}, {{2, 256}}},
		{4096, {}, {}}, // no data
	};
	for (auto &c : cases) {
		ProcessMapping memory(area_bytes);
		DiskServer serving(c.block_size);
		jorlvolume_info *volume = create(memory, c.block_size);
		ASSERT_EQ(jorlmanager_start_disk(volume, serving.port()), 0);
		const size_t before = serving.messages().size(); // the partitions were read
		EXPECT_EQ(before, 1u);
		serving.behave([&](int connection, const wt_netlinkmsg_hdr &request) {
			EXPECT_TRUE(memory.is_shown(0));
			serving.serve(connection, request);
		});
		const auto request = OpenDisk(model::added_disks()[0]).submit(c.bios);
		EXPECT_EQ(request.wait(), 0);
		EXPECT_EQ(model::shown_pages(), 0u);
		const auto messages = serving.messages();
		ASSERT_EQ(messages.size(), before + c.asked.size());
		for (size_t i = 0; i < c.asked.size(); i++) {
			auto &message = messages[before + i];
			EXPECT_EQ(message.version, 1u);
			EXPECT_EQ(message.id, before + i + 1);
			EXPECT_EQ(message.diskhandle, volume);
			EXPECT_EQ(std::pair(message.offset_sector, message.num_sectors),
				  c.asked[i]);
			EXPECT_EQ(message.io_buffer, memory.address(c.bios[i].offset));
			EXPECT_EQ(request.data(i),
				  DiskServer::content(c.bios[i].sector * 512, c.bios[i].bytes));
		}
		EXPECT_EQ(destroy(volume), 0);
	}
}

// What a process sees of the device.
TEST_F(Restore, TheDevice)
{
	jorlvolume_info *volume = create(area, 4096, 2048);
	EXPECT_EQ(ka_disk_is_read_only(volume->dvi_disk), 1);
	EXPECT_THAT(model::added_disks(), IsEmpty());
	DiskServer serving(4096);
	ASSERT_EQ(jorlmanager_start_disk(volume, serving.port()), 0);
	{
		const OpenDisk open("zorvat-a");
		EXPECT_EQ(open.dev(), ka_mkdev(static_cast<unsigned int>(volume->dvi_major), 0));
		EXPECT_EQ(open.capacity(), 16384u);
		EXPECT_EQ(open.minors(), 16);
		const ka_disk_geometry geometry = open.geometry();
		EXPECT_EQ(geometry.heads, 4);
		EXPECT_EQ(geometry.sectors, 16);
		EXPECT_EQ(geometry.cylinders, 256);
		EXPECT_EQ(geometry.start, 0u);
	}
	EXPECT_THAT(model::threads(), ElementsAre("service-zorvat-"));
	// A disk without blocks has no sector that could be read.
	ProcessMapping other(area_bytes);
	jorlvolume_info *empty = create(other, 512, 0);
	EXPECT_EQ(jorlmanager_start_disk(empty, server.port()), 0);
	EXPECT_THAT(model::added_disks(), ElementsAre("zorvat-a", "zorvat-b"));
	EXPECT_EQ(destroy(empty) + destroy(volume), 0);
}

// One read of two pages in one bio, answered by the rule of each case.
TEST_F(Created, Outcomes)
{
	constexpr uint32_t ok = WT_NETLINK_REP_OK, err = WT_NETLINK_REP_ERR;
	const auto wrong_ids = [this](int connection, const wt_netlinkmsg_hdr &) {
		DiskServer::reply(connection, {99, 99, this, WT_NETLINK_REP_OK, 99, 0, this});
	};
	const auto unmaps = [&](int connection, const wt_netlinkmsg_hdr &request) {
		area.unmap();
		DiskServer::replies(ok, 0)(connection, request);
	};
	const std::string returned = "returned for block request",
			  io_returned = "returned for socket io request",
			  unsendable = "Unable to send the disk i/o request on the socket. ",
			  unmappable = "Unable to map kernel page ",
			  unzappable = "Error zapping the pte entries at ";
	struct {
		DiskServer::Behaviour behaviour;
		int error;
		std::string line; // of the disk, besides the one about a request that failed
		const char *fails = nullptr;
		int nth = 1;
		long with = 0;
	} const cases[] = {
		{DiskServer::replies(ok, 0), 0, ""},
		{DiskServer::replies(ok, 16), 0, ""},
		{DiskServer::replies(ok, -5), -5, ""},
		// What is no error number is an error all the same.
		{DiskServer::replies(ok, -(int64_t{1} << 32)), -5, ""},
		{DiskServer::replies(ok, std::numeric_limits<int64_t>::min()), -5, ""},
		{DiskServer::replies(err, -12), -12, "Error -12 " + returned},
		{DiskServer::replies(err, 0), 0, "Error 0 " + returned},
		{DiskServer::replies(0, 3), 0, "Error 3 " + returned},
		{wrong_ids, 0, ""},
		{DiskServer::replies_short(47), 0, "Error 47 " + io_returned},
		{DiskServer::replies_short(1), 0, "Error 1 " + io_returned},
		{DiskServer::replies_short(0), 0, "Error 0 " + io_returned},
		// The buffer holds the request still, whose count reads as success.
		{DiskServer::replies(ok, 0), 0, "Error 16 " + returned, "ka_sock_recvmsg", 1, -104},
		{nullptr, 0, "", "ka_sock_recvmsg", 1, -512},
		{nullptr, -32, unsendable + "Error(-32)", "ka_sock_sendmsg", 1, -32},
		{nullptr, 0, "", "ka_sock_sendmsg", 1, 20},
		{nullptr, 0, "", "ka_sock_sendmsg", 1, -4}, // a signal
		{nullptr, -12, unmappable, "ka_mapping_show_page", 1, -12},
		{nullptr, -12, unmappable, "ka_mapping_show_page", 2, -12},
		{nullptr, -22, unzappable, "ka_mapping_zap", 1, -22},
		{DiskServer::replies(ok, -5), -22, unzappable, "ka_mapping_zap", 1, -22},
		{unmaps, -5, unzappable},
	};
	for (auto &c : cases) {
		SCOPED_TRACE(&c - cases);
		model::fail("ka_wait_event_interruptible"); // as if by a signal
		server.behave(DiskServer::replies(ok, 0));
		ASSERT_EQ(start(), 0);
		model::clear_log();
		server.behave(c.behaviour);
		if (c.fails)
			model::fail(c.fails, c.nth, c.with);
		EXPECT_EQ(read({{.sector = 0, .bytes = 2 * page_bytes}}), c.error);
		EXPECT_EQ(model::shown_pages(), 0u);
		ASSERT_EQ(stop(), 0);
		EXPECT_EQ(model::logged("[Disk-zorvat-a] Error completing request"), c.error != 0);
		EXPECT_EQ(logged_disk_lines(), size_t{c.error != 0} + !c.line.empty());
		EXPECT_TRUE(c.line.empty() || model::logged("[Disk-zorvat-a] " + c.line)) << c.line;
	}
	EXPECT_EQ(volume->dvi_sd_msguid, 42u); // not reset by a start
}

TEST_F(Created, RefusesAndTruncates)
{
	ASSERT_EQ(start(), 0);
	const std::string beyond = "[Disk-zorvat-a] Request beyond disk boundary for Start=2047 "
				   "Count=2 Type=";
	const BioSpec last = {.sector = 2047, .bytes = 1024};
	const auto truncated = OpenDisk("zorvat-a").submit({last});
	EXPECT_EQ(truncated.wait(), 0);
	auto expected = DiskServer::content(2047 * 512, 1024);
	std::fill(expected.begin() + 512, expected.end(), 0x5a); // untouched
	EXPECT_EQ(truncated.data(), expected);
	EXPECT_EQ(server.messages().back().num_sectors, 1);
	EXPECT_EQ(model::logged(warn_line(beyond + "READ. Truncating the request")), 1);

	const BioSpec write = {.sector = 2047, .bytes = 1024, .write = true};
	EXPECT_EQ(read({write}), -5);
	EXPECT_EQ(model::logged(warn_line(beyond + "WRITE. Truncating the request")), 1);
	const size_t asked = server.messages().size();
	EXPECT_EQ(read({{.sector = 8, .bytes = 512}, write, {.sector = 9, .bytes = 512}}), -5);
	EXPECT_EQ(server.messages().size(), asked + 1); // what follows an error is not served
	EXPECT_EQ(OpenDisk("zorvat-a").submit({}, false).wait(), -5);
	EXPECT_EQ(read({{.sector = 8, .bytes = 512}}), 0);
}

TEST_F(Created, AFullKfifoStopsTheQueue)
{
	ASSERT_EQ(start(), 0);
	std::atomic<bool> answers{false};
	server.behave([&](int connection, const wt_netlinkmsg_hdr &request) {
		answers.wait(false);
		server.serve(connection, request);
	});
	const size_t before = server.messages().size();
	const OpenDisk open("zorvat-a");
	std::vector<model::Request> requests = {open.submit({{.sector = 0, .bytes = 512}})};
	while (server.messages().size() == before)
		std::this_thread::yield();
	for (unsigned int i = 1; i <= 1024; i++)
		requests.push_back(open.submit({{.sector = i, .bytes = 512}}));
	EXPECT_FALSE(open.is_stopped());
	for (unsigned int i = 1025; i < 1040; i++) {
		requests.push_back(open.submit({{.sector = i, .bytes = 512}}));
		EXPECT_TRUE(open.is_stopped());
	}
	answers = true;
	answers.notify_all();
	for (size_t i = 0; i < requests.size(); i++) {
		EXPECT_EQ(requests[i].wait(), 0);
		EXPECT_EQ(requests[i].data(), DiskServer::content(i * 512, 512));
	}
	const auto messages = server.messages();
	for (size_t i = 0; i < requests.size(); i++)
		EXPECT_EQ(messages[before + i].offset_sector, i); // in their order
	EXPECT_FALSE(open.is_stopped());
}

TEST_F(Created, AServerThatNeverAnswersIsEndedByKillingIt)
{
	ASSERT_EQ(start(), 0);
	server.behave(DiskServer::stays_silent);
	const OpenDisk open("zorvat-a");
	const auto served = open.submit({{.sector = 0, .bytes = 512}}),
		   waiting = open.submit({{.sector = 1, .bytes = 512}});
	std::atomic<bool> stopped{false};
	std::thread stopper([&] {
		EXPECT_EQ(stop(), 0);
		stopped = true;
	});
	while (!model::added_disks().empty())
		std::this_thread::yield();
	EXPECT_EQ(open.submit({{.sector = 2, .bytes = 512}}).wait(), -6);
	EXPECT_FALSE(served.has_ended());
	EXPECT_FALSE(stopped);
	server.kill();
	stopper.join();
	EXPECT_EQ(served.wait(), 0); // as any reply that was cut short
	EXPECT_TRUE(waiting.has_ended());
	EXPECT_EQ(model::shown_pages(), 0u);
}

TEST_F(Created, StartFailures)
{
	struct {
		const char *call;
		int result;
		std::string message;
		int sockets = 0; // that stay
	} const cases[] = {
		{"ka_kthread_create", -12,
		 "[JRVOL] Unable to create disk service thread for disk zorvat-a. Error(-12)"},
		{"ka_sock_create_tcp", -12, "[JRVOL] Error connecting to port "},
		{"ka_sock_connect", -111, "[JRVOL] Error connecting to port ", 1},
		{"ka_add_disk", -12, "[JRVOL] Unable to add disk zorvat-a. Error(-12)"},
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.call);
		model::clear_log();
		model::fail(c.call);
		EXPECT_EQ(start(), c.result);
		EXPECT_EQ(model::logged(c.message), 1);
		EXPECT_EQ(model::forget_sockets(), c.sockets);
		EXPECT_THAT(model::threads(), IsEmpty());
		EXPECT_THAT(model::added_disks(), IsEmpty());
		EXPECT_EQ(volume->dvi_datalink_pid, server.port()); // counts as started
		EXPECT_EQ(start(), -22);
		EXPECT_EQ(stop(), 0);
		EXPECT_EQ(start(), 0);
		EXPECT_EQ(read({{.sector = 0, .bytes = 512}}), 0);
		EXPECT_EQ(stop(), 0);
	}
	model::fail("ka_sock_connect");
	EXPECT_EQ(start(), -111);
	EXPECT_EQ(model::forget_sockets(), 1);
	EXPECT_EQ(destroy(volume), 0);
}

TEST_F(Restore, CreationFailures)
{
	struct {
		const char *call;
		int result;
		std::string message;
		bool marked = true; // the service area is of no use any more
	} const cases[] = {
		{"ka_kobject_get", -22, "[JRREG] Unable to lock the jorl-manager context", false},
		{"ka_vmalloc", -12, "[JRREG] Unable to allocate mememory to create disk ", false},
		{"ka_mapping_take", -22, "[JRREG] Unable find the vma associate with service area ",
		 false},
		{"ka_kfifo_alloc", -12, "[JRREG] Unable to kfifo queue for disk "},
		{"ka_blk_init_queue", -12,
		 "[JRREG] Unable to allocate mememory for request queue of disk "},
		{"ka_blk_queue_block_size", -22, ""},
		{"ka_register_blkdev", -12, "Unable to allocate a major number to the disk "},
		{"ka_alloc_disk", -12, "[JRREG] Unable to allocate a the virtual disk "},
		{nullptr, -22, "[JRREG] Unable to add the jorl-disk "}, // no registry
		{"ka_kobject_add", -12, "[JRREG] Unable to add the jorl-disk ", false},
	};
	const unsigned int references = ka_kobject_references(&jorlmanager_context.kobj);
	for (auto &c : cases) {
		SCOPED_TRACE(c.message);
		ProcessMapping memory(area_bytes);
		model::clear_log();
		if (c.call)
			model::fail(c.call);
		else
			jorlvolume_registry_cleanup();
		EXPECT_EQ(ka_ptr_err(create(memory)), c.result);
		if (!c.message.empty()) {
			EXPECT_EQ(model::logged("<3>[zorvat-ERROR]:" + c.message), 1);
		}
		EXPECT_EQ(ka_kobject_references(&jorlmanager_context.kobj), references);
		jorlvolume_registry_init();
		jorlvolume_info *again = create(memory);
		EXPECT_EQ(ka_is_err(again), c.marked);
		EXPECT_EQ(model::logged("[JRREG] Non-compatible service area provide for disk "),
			  c.marked);
		if (!ka_is_err(again)) {
			EXPECT_EQ(destroy(again), 0);
		}
	}
}

TEST_F(Restore, ServiceAreas)
{
	ProcessMapping small(area_bytes - page_bytes);
	EXPECT_EQ(ka_ptr_err(create(small)), -22);
	EXPECT_EQ(model::logged(" for disk zorvat-a not large enough. Need atleast 4194304 bytes "
				"but only 4190208 bytes available"),
		  1);
	jorlvolume_info *volume = create(area);
	ASSERT_FALSE(ka_is_err(volume));
	EXPECT_EQ(ka_ptr_err(create(area)), -22); // it has a disk
	EXPECT_EQ(destroy(volume), 0);
	volume = create(area); // free again
	ASSERT_FALSE(ka_is_err(volume));
	EXPECT_EQ(destroy(volume), 0);
	// More than this kernel can, also in their lower bits.
	for (size_t block_size : {size_t{8192}, size_t{65536}, size_t{1536},
				  (size_t{1} << 32) + 512, std::numeric_limits<size_t>::max()}) {
		ProcessMapping memory(area_bytes);
		EXPECT_EQ(ka_ptr_err(create(memory, block_size)), -22);
	}
}

// The process keeps power over its mapping.
TEST_F(Created, TheAreaShrinksAndGoes)
{
	ASSERT_EQ(start(), 0);
	area.split(page_bytes);
	EXPECT_EQ(read({{.sector = 0, .bytes = 512}}), 0);
	EXPECT_EQ(read({{.sector = 0, .bytes = 2 * page_bytes}}), -5);
	EXPECT_EQ(model::shown_pages(), 0u);
	area.unmap(0, page_bytes);
	std::ostringstream line;
	line << "[JRVOL] Invalid disk service " << area.address() << " to close";
	EXPECT_EQ(model::logged(warn_line(line.str())), 1);
	EXPECT_EQ(read({{.sector = 0, .bytes = 512}}), -5);
	area.unmap();
	EXPECT_EQ(read({{.sector = 0, .bytes = 512}}), -5);
	EXPECT_EQ(destroy(volume), 0);
}

TEST_F(Created, OpenersKeepTheRecord)
{
	ASSERT_EQ(start(), 0);
	auto open = std::make_unique<OpenDisk>("zorvat-a");
	EXPECT_EQ(destroy(volume), 0);
	EXPECT_EQ(lookup_jorlvolume_info(volume), nullptr);
	EXPECT_EQ(open->submit({{.sector = 0, .bytes = 512}}).wait(), -6);
	EXPECT_EQ(open->geometry().heads, 4);
	open.reset(); // puts the disk in its own release
	jorlvolume_info *next = create(area);
	EXPECT_FALSE(ka_is_err(next));
}

TEST_F(Created, ReadersDuringStopAndStart)
{
	ASSERT_EQ(start(), 0);
	std::atomic<bool> over{false};
	std::atomic<int> reads{0};
	std::vector<std::thread> readers;
	for (unsigned int i = 0; i < 3; i++) {
		readers.emplace_back([&, i] {
			for (unsigned int sector = i; !over; sector = (sector + 37) % 1000) {
				if (model::added_disks().empty())
					continue;
				try {
					const OpenDisk open("zorvat-a");
					const auto request = open.submit(
						{{.sector = sector, .bytes = 5120, .offset = 512}});
					const int error = request.wait();
					EXPECT_TRUE(error == 0 || error == -6) << error;
					if (error != 0)
						continue;
					EXPECT_EQ(request.data(),
						  DiskServer::content(sector * 512, 5120));
					reads++;
				} catch (const std::runtime_error &) {
					continue; // stopped in between
				}
			}
		});
	}
	for (int round = 0; round < 10; round++) {
		for (int until = reads + 20; reads < until;)
			std::this_thread::yield();
		EXPECT_EQ(stop(), 0);
		EXPECT_EQ(start(), 0);
	}
	over = true;
	for (auto &reader : readers)
		reader.join();
}

} // namespace
