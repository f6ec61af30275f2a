// SPDX-License-Identifier: GPL-2.0
#include "files.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fstream>
#include <linux/fs.h>
#include <random>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <zorvat/system-read.h>

#include "checksum.h"

namespace zorvat::agent
{

namespace
{

constexpr std::string_view seal_begin = "{\"xxh3_128\":\"";
constexpr std::string_view seal_middle = "\",\n\"content\":";
constexpr std::string_view seal_end = "}\n";
constexpr size_t hash_digits = 2 * sizeof(Hash128);

std::span<const std::byte> bytes_of_text(std::string_view text)
{
	return std::as_bytes(std::span(text));
}

/* What precedes the content; it may be long, and is not copied. */
std::string seal_of(std::string_view content)
{
	return fmt::format("{}{}{}", seal_begin, to_hex(hash128(bytes_of_text(content))),
			   seal_middle);
}

File open_aside(const fs::path &path, NewFile::Place place)
{
	if (place == NewFile::own_directory) {
		const fs::path aside = path.native() + std::string(temporary_suffix);
		remove_file(aside); // an interrupted run's, or a link that somebody has laid
		return File(aside, O_RDWR | O_CREAT | O_EXCL);
	}
	std::random_device device;
	return File(fmt::format("{}.{:08x}{:08x}{}", path.native(), device(), device(),
				temporary_suffix),
		    O_RDWR | O_CREAT | O_EXCL);
}

int rename_over(const fs::path &from, const fs::path &to)
{
	return rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

/* EEXIST: there is one. Not all kernels and file systems can do it in one step. */
int rename_beside(const fs::path &from, const fs::path &to)
{
	if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
		return 0;
	if (errno != ENOSYS && errno != EINVAL)
		return errno;
	if (link(from.c_str(), to.c_str()) == 0)
		return unlink(from.c_str()) == 0 ? 0 : errno;
	std::error_code ignored;
	return errno == EEXIST || fs::exists(to, ignored) ? EEXIST : rename_over(from, to);
}

/* All text of a repository is UTF-8. */
std::string text_of(const Json &content)
{
	try {
		return content.dump();
	} catch (const Json::exception &) {
		throw Failure(FailureCode::usage,
			      "a name that is to be recorded is no UTF-8: " +
				      content.dump(-1, ' ', true, Json::error_handler_t::replace));
	}
}

/* Records have some hundred bytes, but for an attempt's with the changes of a large volume. */
constexpr uint64_t max_record_bytes = uint64_t{256} << 20;

std::string read_text(const fs::path &path)
{
	const File file(path, O_RDONLY | O_NONBLOCK); // of a pipe, the size tells
	const uint64_t size = file.size();
	if (size > max_record_bytes)
		throw damaged(path.native(), "it is too long");
	std::string text(size, '\0');
	file.read(0, std::as_writable_bytes(std::span(text)));
	return text;
}

} // namespace

File::File(const fs::path &path, int flags, unsigned int mode)
    : path_(path), fd_(open(path.c_str(), flags | O_CLOEXEC, mode))
{
	if (fd_ < 0)
		throw system_failure("cannot open " + path.native(), errno);
}

void File::read(uint64_t offset, std::span<std::byte> to) const
{
	if (const int number = read_all(fd_, offset, to))
		throw system_failure(fmt::format("cannot read {} at {}", path_.native(), offset),
				     number);
}

void File::write(uint64_t offset, std::span<const std::byte> from) const
{
	while (!from.empty()) {
		const ssize_t count =
			pwrite(fd_, from.data(), from.size(), static_cast<off_t>(offset));
		if (count < 0 && errno == EINTR)
			continue;
		if (count < 0)
			throw system_failure("cannot write " + path_.native(), errno);
		from = from.subspan(count);
		offset += count;
	}
}

void File::flush() const
{
	if (fsync(fd_) != 0)
		throw system_failure("cannot flush " + path_.native(), errno);
}

uint64_t File::size() const
{
	struct stat status;
	uint64_t bytes = 0;
	if (fstat(fd_, &status) != 0)
		throw system_failure("cannot look at " + path_.native(), errno);
	if (S_ISREG(status.st_mode))
		return status.st_size;
	if (!S_ISBLK(status.st_mode))
		throw Failure(FailureCode::usage,
			      path_.native() + " is neither a file nor a block device");
	if (ioctl(fd_, BLKGETSIZE64, &bytes) != 0)
		throw system_failure("cannot read the size of " + path_.native(), errno);
	return bytes;
}

void File::lock(int kind) const
{
	while (flock(fd_, kind) != 0)
		if (errno != EINTR)
			throw system_failure("cannot lock " + path_.native(), errno);
}

bool File::try_lock() const
{
	if (flock(fd_, LOCK_EX | LOCK_NB) == 0)
		return true;
	if (errno != EWOULDBLOCK)
		throw system_failure("cannot lock " + path_.native(), errno);
	return false;
}

NewFile::NewFile(const fs::path &path, Place place) : path_(path), file_(open_aside(path, place))
{
}

NewFile::~NewFile()
{
	if (!committed_)
		unlink(file_.path().c_str());
}

void NewFile::commit(Existing existing)
{
	file_.flush();
	const int number = existing == keep ? rename_beside(file_.path(), path_)
					    : rename_over(file_.path(), path_);
	if (number == EEXIST)
		throw Failure(FailureCode::busy,
			      path_.native() + " was made by somebody else meanwhile", number);
	if (number != 0)
		throw system_failure("cannot rename " + file_.path().native(), number);
	committed_ = true;
	flush_directory(path_.parent_path());
}

void remove_file(const fs::path &path)
{
	if (unlink(path.c_str()) != 0 && errno != ENOENT)
		throw system_failure("cannot remove " + path.native(), errno);
}

void flush_directory(const fs::path &directory)
{
	File(directory.empty() ? fs::path(".") : directory, O_RDONLY | O_DIRECTORY).flush();
}

void write_sealed_json(const fs::path &path, const Json &content)
{
	NewFile file(path);
	const std::string text = text_of(content);
	const std::string seal = seal_of(text);
	file.file().write(0, bytes_of_text(seal));
	file.file().write(seal.size(), bytes_of_text(text));
	file.file().write(seal.size() + text.size(), bytes_of_text(seal_end));
	file.commit();
}

Json read_sealed_json(const fs::path &path)
{
	const std::string text = read_text(path);
	const size_t begin = seal_begin.size() + hash_digits + seal_middle.size();
	if (text.size() < begin + seal_end.size())
		throw damaged(path.native(), "it is too short");
	const std::string_view content =
		std::string_view(text).substr(begin, text.size() - begin - seal_end.size());
	if (!text.starts_with(seal_of(content)) || !text.ends_with(seal_end))
		throw damaged(path.native(), "its checksum does not fit");
	try {
		return Json::parse(content);
	} catch (const Json::exception &error) {
		throw damaged(path.native(), error.what());
	}
}

} // namespace zorvat::agent
