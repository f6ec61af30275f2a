// SPDX-License-Identifier: GPL-2.0
/*
 * Files that are either whole or not there: written aside, flushed, renamed. And JSON files in
 * which a change of any byte shows. All functions throw Failure.
 */
#ifndef ZORVAT_AGENT_FILES_H
#define ZORVAT_AGENT_FILES_H

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <span>
#include <string_view>
#include <unistd.h>
#include <utility>

#include "failure.h"

namespace zorvat::agent
{

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

/* Of locks on what belongs to the whole machine. */
constexpr const char *machine_lock_directory = "/run";

/* The end of the names of files that are not whole yet. */
constexpr std::string_view temporary_suffix = ".tmp";

/* An open file. Closes when it goes; never passed on to programs that are run. */
class File
{
public:
	File() = default;
	/* flags as of open(2). */
	File(const fs::path &path, int flags, unsigned int mode = 0666);
	File(File &&other) noexcept
	    : path_(std::move(other.path_)), fd_(std::exchange(other.fd_, -1))
	{
	}
	File &operator=(File &&other) noexcept
	{
		std::swap(path_, other.path_);
		std::swap(fd_, other.fd_);
		return *this;
	}
	~File()
	{
		if (fd_ >= 0)
			close(fd_);
	}

	int get() const
	{
		return fd_;
	}
	explicit operator bool() const
	{
		return fd_ >= 0;
	}
	const fs::path &path() const
	{
		return path_;
	}

	/* Whole spans. Reading past the end is a failure. */
	void read(uint64_t offset, std::span<std::byte> to) const;
	void write(uint64_t offset, std::span<const std::byte> from) const;
	void flush() const;
	/* In bytes; of a block device, its capacity. */
	uint64_t size() const;
	/* Waits until it has the lock, LOCK_SH or LOCK_EX of flock(2), until the file closes. */
	void lock(int kind) const;
	/* Waits for nobody: returns whether the exclusive lock is now ours, until the file closes.
	 */
	bool try_lock() const;

private:
	fs::path path_;
	int fd_ = -1;
};

/* A file that gets its name only when it is whole. If that does not happen, it goes. */
class NewFile
{
public:
	enum Place {
		own_directory,   // of a repository: takes the place of what a writer has left
		shared_directory // others have files there, too: touches none of them
	};
	explicit NewFile(const fs::path &path, Place place = own_directory);
	~NewFile();
	NewFile(const NewFile &) = delete;
	NewFile &operator=(const NewFile &) = delete;

	const File &file() const
	{
		return file_;
	}
	enum Existing {
		replace,
		keep // Failure(busy) if somebody else has made a file of that name
	};
	/* Flushes the file, gives it its name, and flushes the directory. */
	void commit(Existing existing = replace);

private:
	fs::path path_;
	File file_;
	bool committed_ = false;
};

/* Removes a file, if it is there; the removal need not be on disk yet. */
void remove_file(const fs::path &path);
void flush_directory(const fs::path &directory);

void write_sealed_json(const fs::path &path, const Json &content);
Json read_sealed_json(const fs::path &path);

template <typename Record> std::span<std::byte> bytes_of(Record &record)
{
	return std::as_writable_bytes(std::span(&record, 1));
}

template <typename Record> std::span<const std::byte> bytes_of(const Record &record)
{
	return std::as_bytes(std::span(&record, 1));
}

} // namespace zorvat::agent

#endif
