// SPDX-License-Identifier: GPL-2.0
/* Images, block devices and a real NBD server as sources. */
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <gmock/gmock.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <zorvat/block-source.h>
#include <zorvat/error.h>

using testing::HasSubstr;
using zorvat::BlockSource;

namespace fs = std::filesystem;

namespace
{

std::string pattern(size_t bytes)
{
	std::string text(bytes, 0);
	for (size_t i = 0; i < bytes; i++)
		text[i] = static_cast<char>(i * 11 + i / 509);
	return text;
}

void run(std::vector<std::string> words, pid_t *background = nullptr)
{
	std::vector<char *> arguments;
	for (std::string &word : words)
		arguments.push_back(word.data());
	arguments.push_back(nullptr);
	pid_t pid = 0;
	ASSERT_EQ(posix_spawnp(&pid, arguments[0], nullptr, nullptr, arguments.data(), environ), 0)
		<< words[0];
	if (background) {
		*background = pid;
		return;
	}
	int status = 0;
	waitpid(pid, &status, 0);
	ASSERT_EQ(status, 0) << words[0];
}

class Sources : public testing::Test
{
protected:
	void SetUp() override
	{
		std::string pattern = fs::temp_directory_path() / "source-XXXXXX";
		directory_ = mkdtemp(pattern.data());
		void *memory = mmap(nullptr, memory_bytes, PROT_READ | PROT_WRITE,
				    MAP_SHARED | MAP_ANONYMOUS, -1, 0);
		memory_ = {static_cast<std::byte *>(memory), memory_bytes};
	}
	void TearDown() override
	{
		stop_server(SIGKILL);
		munmap(memory_.data(), memory_.size());
		fs::remove_all(directory_);
	}

	void put(const std::string &content)
	{
		std::ofstream(directory_ / "image") << content;
	}
	void start_server(std::vector<std::string> options = {"-f", "raw"},
			  const char *image = "image")
	{
		std::vector<std::string> words = {"qemu-nbd", "-r", "--persistent", "-k",
						  directory_ / "socket"};
		words.insert(words.end(), options.begin(), options.end());
		words.push_back(directory_ / image);
		run(words, &server_);
		while (!fs::exists(directory_ / "socket") && kill(server_, 0) == 0)
			std::this_thread::sleep_for(std::chrono::milliseconds(5));
	}
	void stop_server(int signal)
	{
		if (server_ <= 0)
			return;
		kill(server_, signal);
		waitpid(server_, nullptr, 0);
		fs::remove(directory_ / "socket");
		server_ = 0;
	}
	std::string uri() const
	{
		return "nbd+unix:///?socket=" + (directory_ / "socket").native();
	}

	/* What the source has there, or "error N". */
	std::string read(BlockSource &source, uint64_t offset, size_t length)
	{
		if (const int error = source.read(offset, memory_.first(length)))
			return "error " + std::to_string(error);
		return {reinterpret_cast<const char *>(memory_.data()), length};
	}

	static std::string error_of(const std::string &name)
	{
		try {
			zorvat::open_source(name);
			return "none";
		} catch (const zorvat::Error &error) {
			EXPECT_EQ(error.code(), zorvat::Errc::bad_image);
			return error.what();
		}
	}

	static constexpr size_t memory_bytes = 8 << 20;
	fs::path directory_;
	std::span<std::byte> memory_;
	pid_t server_ = 0;
};

std::string error(int number)
{
	return "error " + std::to_string(number);
}

TEST_F(Sources, WhatCannotBeServedIsNamed)
{
	EXPECT_THAT(error_of(directory_ / "image"), HasSubstr("No such file"));
	EXPECT_THAT(error_of(directory_), HasSubstr("neither a file nor a block device"));
	EXPECT_THAT(error_of("/dev/null"), HasSubstr("neither a file nor a block device"));
	ASSERT_EQ(mkfifo((directory_ / "pipe").c_str(), 0600), 0);
	EXPECT_THAT(error_of(directory_ / "pipe"), HasSubstr("neither a file"));
	EXPECT_THAT(error_of(uri()), HasSubstr("is the server running"));
	EXPECT_THAT(error_of("nbd://["), HasSubstr("nbd://["));
}

TEST_F(Sources, NbdServesWhatTheImageHas)
{
	const std::string content = pattern((6 << 20) + 512 * 3);
	put(content);
	run({"qemu-img", "convert", "-f", "raw", "-O", "qcow2", directory_ / "image",
	     directory_ / "image.qcow2"});
	start_server({"-f", "qcow2"}, "image.qcow2");
	auto source = zorvat::open_source(uri());
	ASSERT_EQ(source->size(), content.size());
	const std::pair<uint64_t, size_t> ranges[] = {
		{0, 512},
		{1, 1},
		{777, 100'000},
		{12'288, 5 << 20},
		{content.size() - 512, 512},
		{content.size() - 1, 1},
	};
	for (const auto &[offset, length] : ranges)
		EXPECT_TRUE(read(*source, offset, length) == content.substr(offset, length))
			<< offset;
}

TEST_F(Sources, MemoryThatIsGoneIsAnError)
{
	put(pattern(1 << 20));
	start_server();
	std::unique_ptr<BlockSource> sources[] = {zorvat::open_source(uri()),
						  zorvat::open_source(directory_ / "image")};
	for (auto &source : sources) {
		mprotect(memory_.data() + 4096, 4096, PROT_NONE);
		EXPECT_EQ(source->read(0, memory_.first(8192)), EFAULT);
		mprotect(memory_.data() + 4096, 4096, PROT_READ | PROT_WRITE);
		EXPECT_TRUE(read(*source, 0, 8192) == pattern(8192));
	}
}

TEST_F(Sources, NbdServerMayGoAndComeBack)
{
	put(pattern(1 << 20));
	start_server();
	auto source = zorvat::open_nbd(uri());
	stop_server(SIGKILL);
	EXPECT_THAT(read(*source, 0, 4096), HasSubstr("error"));
	start_server();
	EXPECT_TRUE(read(*source, 0, 4096) == pattern(4096));

	stop_server(SIGKILL);
	read(*source, 0, 4096);
	put(pattern(2 << 20));
	start_server();
	EXPECT_EQ(read(*source, 0, 4096), error(ESTALE));
	EXPECT_EQ(read(*source, 0, 4096), error(ESTALE));
}

TEST_F(Sources, NbdServerThatDoesNotAnswerIsLeft)
{
	put(pattern(1 << 20));
	start_server();
	auto source = zorvat::open_nbd(uri());
	kill(server_, SIGSTOP);
	auto reading = std::async(std::launch::async, [&] { return read(*source, 0, 4096); });
	EXPECT_EQ(reading.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
	source->cancel();
	EXPECT_EQ(reading.get(), error(ECANCELED));
	EXPECT_EQ(read(*source, 0, 4096), error(ECANCELED));
}

} // namespace
