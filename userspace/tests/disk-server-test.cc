// SPDX-License-Identifier: GPL-2.0
/* A disk's server against the kernel end of the data link. */
#include <condition_variable>
#include <csignal>
#include <dirent.h>
#include <fstream>
#include <future>
#include <gmock/gmock.h>
#include <mutex>
#include <sys/fsuid.h>
#include <thread>
#include <zorvat/disk-server.h>

#include "fake-kernel.h"

using testing::HasSubstr;
using zorvat::BlockSource;
using zorvat::DiskServer;
using zorvat::Errc;
using zorvat::Error;

namespace
{

std::string pattern(size_t bytes)
{
	std::string text(bytes, 0);
	for (size_t i = 0; i < bytes; i++)
		text[i] = static_cast<char>(i * 7 + i / 256);
	return text;
}

/* A file that has no name any more. */
class ImageFile
{
public:
	explicit ImageFile(const std::string &content)
	{
		std::string name = std::filesystem::temp_directory_path() / "image-XXXXXX";
		fd_ = mkstemp(name.data());
		std::ofstream(name) << content;
		unlink(name.c_str());
	}
	~ImageFile()
	{
		close(fd_);
	}
	std::string path() const
	{
		return "/proc/self/fd/" + std::to_string(fd_);
	}

private:
	int fd_;
};

/* Fails in the second half; in the first it waits, if told to, until it is cancelled. */
class HalfSource final : public BlockSource
{
public:
	static constexpr uint64_t half = 64 * 1024;

	uint64_t size() const override
	{
		return 2 * half;
	}
	int read(uint64_t offset, std::span<std::byte>) noexcept override
	{
		std::unique_lock lock(lock_);
		changed_.wait(lock, [this] { return !slow || cancelled_; });
		return cancelled_ ? ECANCELED : offset >= half ? EIO : 0;
	}
	void cancel() noexcept override
	{
		std::lock_guard lock(lock_);
		cancelled_ = true;
		changed_.notify_all();
	}

	bool slow = false;

private:
	std::mutex lock_;
	std::condition_variable changed_;
	bool cancelled_ = false;
};

std::vector<int> open_files()
{
	std::vector<int> files;
	DIR *directory = opendir("/proc/thread-self/fd");
	while (const dirent *entry = readdir(directory)) {
		const int fd = std::atoi(entry->d_name);
		if (entry->d_name[0] != '.' && fd != dirfd(directory))
			files.push_back(fd);
	}
	closedir(directory);
	return files;
}

class DiskServerTest : public testing::Test
{
protected:
	void serve(std::unique_ptr<BlockSource> source, size_t block_size = 512)
	{
		server_ = std::make_unique<DiskServer>(
			std::make_shared<FakeRestoreDriver>(kernel_), std::move(source),
			zorvat::DiskServerOptions{.block_size = block_size,
						  .paths = {.sys = kernel_.sys}});
	}
	void serve(const std::string &content, size_t block_size = 512)
	{
		const ImageFile image(content);
		serve(zorvat::open_image(image.path()), block_size);
	}

	FakeKernel kernel_;
	std::unique_ptr<DiskServer> server_;
};

TEST_F(DiskServerTest, ServesAllOfTheImageAndZerosBehindIt)
{
	for (size_t block_size : {512, 1024, 4096}) {
		const std::string content = pattern(2'500'000 + 777);
		const std::string padded =
			content + std::string(block_size - content.size() % block_size, 0);
		serve(content, block_size);
		EXPECT_EQ(server_->disk().blocks, padded.size() / block_size);
		server_->resume();
		EXPECT_EQ(kernel_.partition_table->data, padded.substr(0, block_size));

		const uint64_t blocks = padded.size() / block_size;
		const uint64_t steps[] = {1, 8, 1024 * 1024 / block_size};
		for (uint64_t start = 0, i = 0; start < blocks; i++) {
			const uint64_t count = std::min(steps[i % 3], blocks - start);
			const auto outcome = kernel_.read(start, count, i % 8 * 512);
			EXPECT_EQ(outcome.error, 0);
			ASSERT_EQ(outcome.data,
				  padded.substr(start * block_size, count * block_size))
				<< start;
			start += count;
		}
		EXPECT_EQ(server_->statistics().bytes, padded.size() + block_size);
		EXPECT_EQ(server_->statistics().errors, 0u);
		server_->stop();
		EXPECT_TRUE(kernel_.disks.empty());
	}
}

TEST_F(DiskServerTest, ChecksEveryFieldOfARequest)
{
	using Header = wt_netlinkmsg_hdr;
	struct Violation {
		const char *name;
		void (*commit)(Header &request);
		int error;
	};
	constexpr int64_t blocks = 16 * 1024;
	const Violation violations[] = {
		{"version", [](Header &request) { request.version = 2; }, EPROTO},
		{"other disk", [](Header &request) { request.diskhandle = &request; }, ENODEV},
		{"no disk", [](Header &request) { request.diskhandle = nullptr; }, ENODEV},
		{"write", [](Header &request) { request.code = WT_NETLINK_CMD_WRITE; }, EROFS},
		{"size", [](Header &request) { request.code = WT_NETLINK_CMD_GETSZ; }, EOPNOTSUPP},
		{"reply", [](Header &request) { request.code = WT_NETLINK_REP_OK; }, EOPNOTSUPP},
		{"garbage", [](Header &request) { request.code = 0xdeadbeef; }, EOPNOTSUPP},
		{"at the end", [](Header &request) { request.offset_sector = blocks; }, EINVAL},
		{"over the end", [](Header &request) { request.offset_sector = blocks - 7; },
		 EINVAL},
		{"wrapping range", [](Header &request) { request.offset_sector = UINT64_MAX - 3; },
		 EINVAL},
		{"more than all", [](Header &request) { request.num_sectors = blocks + 1; },
		 EINVAL},
		{"negative count", [](Header &request) { request.num_sectors = -1; }, EINVAL},
		{"least count", [](Header &request) { request.num_sectors = INT64_MIN; }, EINVAL},
		{"wrapping length",
		 [](Header &request) { request.num_sectors = INT64_MAX / 512 + 2; }, EINVAL},
		{"more than the area", [](Header &request) { request.num_sectors = 8193; }, EINVAL},
		{"no memory", [](Header &request) { request.io_buffer = nullptr; }, EINVAL},
		{"last address",
		 [](Header &request) { request.io_buffer = reinterpret_cast<void *>(-1); }, EINVAL},
		{"before the area",
		 [](Header &request) {
			 request.io_buffer = static_cast<char *>(request.io_buffer) - 1;
		 },
		 EINVAL},
		{"over the area's end",
		 [](Header &request) {
			 request.io_buffer =
				 static_cast<char *>(request.io_buffer) + (4 << 20) - 4095;
		 },
		 EINVAL},
		/* All is well with this one, but for the memory that nobody shows. */
		{"memory not shown", [](Header &) {}, EFAULT},
	};
	serve(std::string(blocks * 512, 'x'));
	server_->resume();
	for (const Violation &violation : violations) {
		Header request = kernel_.request(0, 8);
		violation.commit(request);
		const Header reply = kernel_.ask(request);
		EXPECT_EQ(reply.num_sectors, -violation.error) << violation.name;
		EXPECT_EQ(reply.code, WT_NETLINK_REP_ERR + 0u) << violation.name;
		EXPECT_EQ(reply.id, request.id);
	}
	EXPECT_EQ(server_->statistics().errors, std::size(violations));
	EXPECT_EQ(kernel_.ask(kernel_.request(5, 0)).num_sectors, 0);
	EXPECT_EQ(kernel_.read(blocks - 8, 8).data, std::string(4096, 'x'));
}

TEST_F(DiskServerTest, AnErrorOfTheSourceIsThatOfItsRequestOnly)
{
	serve(std::make_unique<HalfSource>());
	server_->resume();
	constexpr uint64_t half = HalfSource::half / 512;
	EXPECT_EQ(kernel_.read(half, 8).error, -EIO);
	EXPECT_EQ(kernel_.read(0, 8).error, 0);
	EXPECT_EQ(server_->statistics().errors, 1u);
	EXPECT_EQ(server_->statistics().last_error, EIO);
}

TEST_F(DiskServerTest, ZerosBehindTheImageNeedTheMemoryToo)
{
	serve(std::string(100, 'x'));
	kernel_.connect_to(server_->port());
	EXPECT_EQ(kernel_.ask(kernel_.request(0, 1)).num_sectors, -EFAULT);
	EXPECT_EQ(kernel_.read(0, 1).data, std::string(100, 'x') + std::string(412, 0));
}

TEST_F(DiskServerTest, AnImageThatWasCutIsAnErrorNotZeros)
{
	const ImageFile image(pattern(64 * 1024));
	serve(zorvat::open_image(image.path()));
	server_->resume();
	ASSERT_EQ(truncate(image.path().c_str(), 10'000), 0);
	EXPECT_EQ(kernel_.read(0, 8).error, 0);
	EXPECT_EQ(kernel_.read(16, 8).error, -EIO);
}

TEST_F(DiskServerTest, SuspendedDiskIsServedAgain)
{
	serve(pattern(64 * 1024));
	for (int round = 0; round < 3; round++) {
		server_->resume();
		EXPECT_EQ(kernel_.read(3, 2).data, pattern(64 * 1024).substr(3 * 512, 1024));
		const auto &disk = kernel_.disks.begin()->second;
		EXPECT_EQ(disk.port, server_->port());
		server_->suspend();
		EXPECT_EQ(disk.port, 0u);
		/* What the driver does not tell now, the server does. */
		EXPECT_EQ(ask_server_port(server_->disk()), server_->port());
	}
	const auto disk = server_->disk();
	server_.reset();
	EXPECT_THROW(ask_server_port(disk), Error);
}

TEST_F(DiskServerTest, LinkMayBeLostAtAnyByteAndMessagesComeInPieces)
{
	serve(pattern(64 * 1024));
	server_->resume();
	for (size_t sent : {0, 1, 47}) {
		const auto request = kernel_.request(1, 1);
		kernel_.send(std::as_bytes(std::span(&request, 1)).first(sent));
		kernel_.cut();
		ASSERT_EQ(kernel_.connect_to(server_->port()), 0);
		EXPECT_EQ(kernel_.read(1, 1).data, pattern(1024).substr(512));
	}
	const auto request = kernel_.request(2, 0);
	for (const std::byte &byte : std::as_bytes(std::span(&request, 1)))
		kernel_.send({&byte, 1});
	EXPECT_EQ(kernel_.receive().id, request.id);

	/* The one before is still open, yet the driver has given it up: it connected anew. */
	ASSERT_EQ(kernel_.connect_to(server_->port()), 0);
	EXPECT_EQ(kernel_.read(1, 1).data, pattern(1024).substr(512));
}

TEST_F(DiskServerTest, StrangersAreSentAway)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "only root can be somebody else";
	serve(pattern(64 * 1024));
	server_->resume();
	std::thread([&] {
		setfsuid(65534);
		const int stranger = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
		sockaddr_in address{};
		address.sin_family = AF_INET;
		address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
		address.sin_port = htons(server_->port());
		ASSERT_EQ(
			connect(stranger, reinterpret_cast<sockaddr *>(&address), sizeof(address)),
			0);
		const auto request = kernel_.request(0, 1);
		send(stranger, &request, sizeof(request), MSG_NOSIGNAL);
		char byte;
		EXPECT_LE(recv(stranger, &byte, 1, 0), 0);
		close(stranger);
	}).join();
	EXPECT_EQ(server_->statistics().requests, 1u);
	EXPECT_EQ(kernel_.read(1, 1).data, pattern(1024).substr(512));
}

TEST_F(DiskServerTest, EndsWhenSomebodyElseDestroysTheDisk)
{
	serve(pattern(64 * 1024));
	server_->resume();
	auto waiting = std::async(std::launch::async, [&] { server_->wait(); });
	EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);

	/* Its handle is used for another disk at once, which is not ours to destroy. */
	const auto handle = kernel_.handle();
	kernel_.execute(WTFLR_DESTROY_DISK_IOCTL_INDEX, handle, {});
	waiting.get();
	kernel_.disks[handle] = {.name = "zorvat-z"};
	server_->stop();
	EXPECT_EQ(kernel_.disks.size(), 1u);
	EXPECT_EQ(kernel_.disks[handle].name, "zorvat-z");
}

TEST_F(DiskServerTest, StopEndsAReadThatWaitsForTheSource)
{
	auto source = std::make_unique<HalfSource>();
	HalfSource &control = *source;
	serve(std::move(source));
	server_->resume();
	control.slow = true;
	auto reading = std::async(std::launch::async, [&] { return kernel_.read(0, 8).error; });
	EXPECT_EQ(reading.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
	server_->request_stop();
	EXPECT_EQ(reading.get(), -ECANCELED);
	server_->wait();
	server_->stop();
	server_->stop();
	EXPECT_TRUE(kernel_.disks.empty());
}

TEST_F(DiskServerTest, CommandsAreGivenByAThreadWithoutTheLink)
{
	serve(pattern(64 * 1024));
	size_t looked = 0;
	kernel_.before_command = [&](uint32_t) {
		for (const int fd : open_files()) {
			sockaddr_in address{};
			socklen_t length = sizeof(address);
			if (getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0 ||
			    address.sin_family != AF_INET)
				continue;
			EXPECT_NE(ntohs(address.sin_port), server_->port());
			looked++;
		}
	};
	server_->resume();
	server_->suspend();
	server_->resume();
	server_->stop();
	EXPECT_GT(looked, 0u);
}

TEST_F(DiskServerTest, ChildrenAndCoreDumpsDoNotGetTheArea)
{
	serve(pattern(512));
	const auto address = reinterpret_cast<uintptr_t>(
		kernel_.disks.begin()->second.request.wtfad_servicearea);
	std::ifstream maps("/proc/self/smaps");
	std::string line, flags;
	for (bool found = false; flags.empty() && std::getline(maps, line);) {
		found |= line.find('-') != line.npos &&
			 std::strtoull(line.c_str(), nullptr, 16) == address;
		if (found && line.starts_with("VmFlags:"))
			flags = line + " ";
	}
	for (const char *flag : {" sh ", " dc ", " dd "})
		EXPECT_THAT(flags, HasSubstr(flag));
}

TEST_F(DiskServerTest, LeavesNothingBehindWhateverFails)
{
	const auto before = open_files();
	struct Failure {
		const char *name;
		uint32_t command;
		size_t image_bytes;
		size_t area_bytes;
	};
	const Failure failures[] = {
		{"allocate", WTFLR_ALLOC_DISK_IOCTL_INDEX, 512, 4 << 20},
		{"attributes", WTFLR_GET_DISKATTRS_IOCTL_INDEX, 512, 4 << 20},
		{"resume", WTFLR_RESUME_DISK_IOCTL_INDEX, 512, 4 << 20},
		{"empty image", 0, 0, 4 << 20},
		{"area", 0, 512, SIZE_MAX / 4096 * 4096},
	};
	for (const Failure &failure : failures) {
		kernel_.errors.clear();
		if (failure.command)
			kernel_.errors[failure.command] = ENOMEM;
		try {
			const ImageFile image(std::string(failure.image_bytes, 'x'));
			DiskServer server(
				std::make_shared<FakeRestoreDriver>(kernel_),
				zorvat::open_image(image.path()),
				{.area_bytes = failure.area_bytes, .paths = {.sys = kernel_.sys}});
			server.resume();
			ADD_FAILURE() << failure.name;
		} catch (const Error &) {
		}
		EXPECT_TRUE(kernel_.disks.empty()) << failure.name;
		EXPECT_EQ(open_files(), before) << failure.name;
	}

	/* A driver that refuses to destroy is told of, and the server ends all the same. */
	kernel_.errors = {{WTFLR_DESTROY_DISK_IOCTL_INDEX, EINTR}};
	serve(pattern(512));
	server_->resume();
	EXPECT_THROW(server_->stop(), Error);
	server_.reset();
	EXPECT_EQ(open_files(), before);
}

TEST(BlockSize, IsWhatTheBlockLayerCanDo)
{
	for (size_t bytes : {512, 1024, 2048, 4096})
		EXPECT_TRUE(zorvat::is_usable_block_size(bytes)) << bytes;
	for (size_t bytes : {0, 1, 256, 511, 513, 1536, 8192, 65536})
		EXPECT_FALSE(zorvat::is_usable_block_size(bytes)) << bytes;
}

} // namespace
