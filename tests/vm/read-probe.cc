// SPDX-License-Identifier: GPL-2.0
// Reads a disk in ways that copying it as a whole does not, and compares with the image behind it:
//
//   read-probe IMAGE DISK BLOCK_SIZE
//
// Buffered reads of any length at any offset, and direct ones into buffers scattered over pages
// that begin and end anywhere the block size lets them.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <sys/uio.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace
{

constexpr size_t page = 4096;
constexpr int rounds = 200;

int open_or_throw(const char *path, int flags)
{
	const int fd = open(path, O_RDONLY | O_CLOEXEC | flags);
	if (fd < 0)
		throw std::system_error(errno, std::generic_category(), path);
	return fd;
}

std::vector<char> read_exactly(int fd, uint64_t offset, size_t size)
{
	std::vector<char> data(size);
	if (pread(fd, data.data(), size, static_cast<off_t>(offset)) != static_cast<ssize_t>(size))
		throw std::system_error(errno, std::generic_category(), "read of the image");
	return data;
}

class Probe
{
public:
	Probe(const char *image_path, const char *disk_path, size_t block_size)
	    : image(open_or_throw(image_path, 0)), buffered(open_or_throw(disk_path, 0)),
	      direct(open_or_throw(disk_path, O_DIRECT)),
	      size(static_cast<uint64_t>(lseek(image, 0, SEEK_END))), block(block_size)
	{
	}
	void read_anywhere()
	{
		const uint64_t offset = below(size - 1);
		const size_t length = 1 + below(std::min<uint64_t>(size - offset, 300'000) - 1);
		if (read_exactly(buffered, offset, length) != read_exactly(image, offset, length))
			throw std::runtime_error("a buffered read differs");
	}
	void read_scattered()
	{
		const size_t pieces = 1 + below(12);
		const size_t unit = std::max<size_t>(block, 512);
		std::vector<std::unique_ptr<char, void (*)(void *)>> memory;
		std::vector<iovec> vectors;
		size_t total = 0;
		for (size_t i = 0; i < pieces; i++) {
			const size_t length = unit * (1 + below(24));
			const size_t shift = unit * below(page / unit);
			void *base = nullptr;
			if (posix_memalign(&base, page, shift + length) != 0)
				throw std::bad_alloc();
			memory.emplace_back(static_cast<char *>(base), free);
			vectors.push_back({static_cast<char *>(base) + shift, length});
			total += length;
		}
		const uint64_t offset = below((size - total) / block) * block;
		const ssize_t got = preadv(direct, vectors.data(), static_cast<int>(pieces),
					   static_cast<off_t>(offset));
		if (got != static_cast<ssize_t>(total))
			throw std::system_error(errno, std::generic_category(), "a direct read");
		const std::vector<char> expected = read_exactly(image, offset, total);
		size_t done = 0;
		for (const iovec &vector : vectors) {
			if (memcmp(vector.iov_base, expected.data() + done, vector.iov_len) != 0)
				throw std::runtime_error("a direct read differs");
			done += vector.iov_len;
		}
	}

private:
	uint64_t below(uint64_t limit) // or equal to it, never more
	{
		return std::uniform_int_distribution<uint64_t>(0, limit)(random);
	}

	int image, buffered, direct;
	uint64_t size;
	size_t block;
	std::mt19937_64 random{std::random_device{}()};
};

} // namespace

int main(int argc, char **argv)
try {
	if (argc != 4)
		throw std::runtime_error("usage: read-probe IMAGE DISK BLOCK_SIZE");
	Probe probe(argv[1], argv[2], std::stoul(argv[3]));
	for (int i = 0; i < rounds; i++) {
		probe.read_anywhere();
		probe.read_scattered();
	}
	return 0;
} catch (const std::exception &error) {
	std::cerr << "read-probe: " << error.what() << '\n';
	return 1;
}
