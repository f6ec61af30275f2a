// SPDX-License-Identifier: GPL-2.0
// Judges a report of changed extents without the driver's help:
//
//   oracle images BEFORE AFTER EXTENTS   every 64 KiB block whose content differs is reported
//   oracle equal IMAGE IMAGE             no block differs
//   oracle log LOG EXTENTS               every block written according to a dm-log-writes log is
//                                        reported, and no other but those the rule adds
//
// EXTENTS is what "zorvatctl extents" prints: one "start length" per line, in sectors, followed by
// "possible" where the driver could not tell. Prints one line of figures; the exit status is 0 if
// the report holds, 1 if not, 2 if it could not be judged.
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace
{

constexpr uint64_t sector_size = 512;
constexpr uint64_t block_sectors = 128;
constexpr uint64_t block_size = block_sectors * sector_size;

using Blocks = std::set<uint64_t>;

class File
{
public:
	explicit File(const std::string &path)
	    : path_(path), fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC))
	{
		if (fd_ < 0)
			throw std::system_error(errno, std::generic_category(), path_);
	}
	File(const File &) = delete;
	File &operator=(const File &) = delete;
	~File()
	{
		close(fd_);
	}

	// Fewer bytes than asked for only at the end of the file.
	size_t read_at(uint64_t offset, void *buffer, size_t size) const
	{
		size_t done = 0;
		while (done < size) {
			const ssize_t n = pread(fd_, static_cast<char *>(buffer) + done,
						size - done, static_cast<off_t>(offset + done));
			if (n < 0)
				throw std::system_error(errno, std::generic_category(), path_);
			if (n == 0)
				break;
			done += static_cast<size_t>(n);
		}
		return done;
	}

	template <typename Record> Record record_at(uint64_t offset) const
	{
		Record record;
		if (read_at(offset, &record, sizeof(record)) != sizeof(record))
			throw std::runtime_error(path_ + ": ends within a record");
		return record;
	}

private:
	std::string path_;
	int fd_;
};

void add_sectors(Blocks &blocks, uint64_t first, uint64_t end)
{
	for (uint64_t block = first / block_sectors; block * block_sectors < end; block++)
		blocks.insert(block);
}

struct Report {
	Blocks changed;
	Blocks covered; // changed or possibly changed: what a backup copies
};

void read_extent(const std::string &line, uint64_t &previous_end, Report &report)
{
	std::istringstream words(line);
	uint64_t start = 0;
	uint64_t length = 0;
	std::string remark;

	if (!(words >> start >> length) || length == 0 || start < previous_end)
		throw std::runtime_error("not an extent after its predecessor: " + line);
	words >> remark;
	previous_end = start + length;
	add_sectors(report.covered, start, previous_end);
	if (remark != "possible")
		add_sectors(report.changed, start, previous_end);
}

Report read_report(const std::string &path)
{
	std::ifstream lines(path);
	if (!lines)
		throw std::runtime_error(path + ": cannot be read");

	Report report;
	uint64_t previous_end = 0;
	for (std::string line; std::getline(lines, line);)
		read_extent(line, previous_end, report);
	return report;
}

Blocks without(const Blocks &from, const Blocks &taken)
{
	Blocks left;
	for (const uint64_t block : from)
		if (!taken.contains(block))
			left.insert(block);
	return left;
}

bool none_in(const Blocks &blocks, std::string_view what)
{
	constexpr int shown_at_most = 20;

	if (blocks.empty())
		return true;
	std::cout << blocks.size() << ' ' << what << ':';
	int shown = 0;
	for (const uint64_t block : blocks) {
		if (shown++ == shown_at_most)
			break;
		std::cout << ' ' << block;
	}
	std::cout << '\n';
	return false;
}

Blocks differing_blocks(const File &before, const File &after)
{
	std::vector<char> old_data(block_size);
	std::vector<char> new_data(block_size);
	Blocks differing;

	for (uint64_t block = 0;; block++) {
		const size_t old_size =
			before.read_at(block * block_size, old_data.data(), block_size);
		const size_t new_size =
			after.read_at(block * block_size, new_data.data(), block_size);
		if (old_size != new_size)
			throw std::runtime_error("the images differ in size");
		if (std::memcmp(old_data.data(), new_data.data(), old_size) != 0)
			differing.insert(block);
		if (old_size < block_size)
			return differing;
	}
}

bool judge_images(const std::string &before, const std::string &after, const std::string &report)
{
	const Report reported = read_report(report);
	const Blocks differing = differing_blocks(File(before), File(after));
	if (differing.empty())
		throw std::runtime_error("the images are equal: nothing to judge by");

	std::cout << differing.size() << " blocks differ, " << reported.covered.size()
		  << " reported\n";
	return none_in(without(differing, reported.covered), "blocks differ and are not reported");
}

// The log's format, as drivers/md/dm-log-writes.c defines it; little-endian, as this machine.
// Positions and lengths count the log's own sectors, whose size the super block names.
struct LogSuper {
	uint64_t magic;
	uint64_t version;
	uint64_t entries;
	uint32_t sector_size;
};

struct LogEntry {
	uint64_t sector;
	uint64_t sectors;
	uint64_t flags;
	uint64_t data_length;
};

constexpr uint64_t log_magic = 0x6a736677736872;
constexpr uint64_t log_version = 1;
constexpr uint64_t log_flag_flush = 1 << 0;
constexpr uint64_t log_flag_discard = 1 << 2;
constexpr uint64_t log_flag_mark = 1 << 3;

struct Writes {
	Blocks written;
	Blocks allowed; // what the rule may report for them
	uint64_t count = 0;
};

// A write's blocks, and what the rule reports for it: it counts one block beyond the write's length
// in whole blocks, so up to two beyond the block of its last sector. A flush without data counts as
// a write at sector 0.
void account(const LogEntry &entry, uint64_t scale, Writes &writes)
{
	if (entry.flags & log_flag_mark)
		return;
	const uint64_t start = entry.sector * scale;
	const uint64_t end = start + entry.sectors * scale;
	add_sectors(writes.written, start, end);
	add_sectors(writes.allowed, start, (end / block_sectors + 2) * block_sectors);
	if (entry.flags & log_flag_flush)
		add_sectors(writes.allowed, 0, 2 * block_sectors);
	writes.count++;
}

Writes read_log(const File &log)
{
	const auto super = log.record_at<LogSuper>(0);
	if (super.magic != log_magic || super.version != log_version ||
	    super.sector_size < sector_size || super.sector_size % sector_size != 0)
		throw std::runtime_error("not a log of dm-log-writes");

	Writes writes;
	uint64_t position = super.sector_size;
	for (uint64_t i = 0; i < super.entries; i++) {
		const auto entry = log.record_at<LogEntry>(position);
		account(entry, super.sector_size / sector_size, writes);
		position += super.sector_size;
		if (!(entry.flags & log_flag_discard))
			position += entry.sectors * super.sector_size;
	}
	return writes;
}

bool judge_log(const std::string &log, const std::string &report)
{
	const Report reported = read_report(report);
	const Writes writes = read_log(File(log));
	if (writes.written.empty())
		throw std::runtime_error("the log has no write: nothing to judge by");

	std::cout << writes.count << " writes to " << writes.written.size() << " blocks, "
		  << reported.covered.size() << " reported\n";
	const bool complete = none_in(without(writes.written, reported.covered),
				      "blocks written and not reported");
	const bool exact = none_in(without(reported.changed, writes.allowed),
				   "blocks reported that no write accounts for");
	return complete && exact;
}

bool run(const std::vector<std::string> &words)
{
	if (words.size() == 4 && words[0] == "images")
		return judge_images(words[1], words[2], words[3]);
	if (words.size() == 3 && words[0] == "equal")
		return none_in(differing_blocks(File(words[1]), File(words[2])), "blocks differ");
	if (words.size() == 3 && words[0] == "log")
		return judge_log(words[1], words[2]);
	throw std::runtime_error("usage: oracle images BEFORE AFTER EXTENTS | equal IMAGE IMAGE | "
				 "log LOG EXTENTS");
}

} // namespace

int main(int argc, char **argv)
try {
	return run({argv + 1, argv + argc}) ? 0 : 1;
} catch (const std::exception &error) {
	std::cerr << "oracle: " << error.what() << '\n';
	return 2;
}
