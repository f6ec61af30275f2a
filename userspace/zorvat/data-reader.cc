// SPDX-License-Identifier: GPL-2.0
#include "data-reader.h"

#include <algorithm>
#include <fcntl.h>
#include <fmt/format.h>
#include <new>
#include <zstd.h>

namespace zorvat::agent
{

namespace
{

constexpr uint64_t entries_at_once = 4096;
constexpr uint64_t window_entries = 32; // few: each file of a chain has a window

} // namespace

FrameDecoder::FrameDecoder()
    : decompressor_(ZSTD_createDCtx(), ZSTD_freeDCtx), stored_(ZSTD_compressBound(max_frame_bytes))
{
	if (!decompressor_)
		throw std::bad_alloc();
}

size_t FrameDecoder::decompress(std::span<const std::byte> stored, std::span<std::byte> plain)
{
	const size_t length = ZSTD_decompressDCtx(decompressor_.get(), plain.data(), plain.size(),
						  stored.data(), stored.size());
	return ZSTD_isError(length) ? SIZE_MAX : length;
}

/* A manifest names it: without it the point is damaged. */
static File open_data(const fs::path &path, const std::string &point)
try {
	return File(path, O_RDONLY | O_NONBLOCK); // of a pipe, the size tells
} catch (const Failure &failure) {
	if (failure.code() == FailureCode::not_found)
		throw Failure(
			FailureCode::damaged,
			fmt::format("{} of restore point {} is missing", path.native(), point),
			ENOENT);
	throw;
}

DataReader::DataReader(const fs::path &directory, const DataSummary &summary, uint64_t volume_size,
		       const std::string &point, std::shared_ptr<FrameDecoder> decoder)
    : summary_(summary), volume_size_(volume_size), point_(point),
      file_(open_data(directory / summary.file, point)), decoder_(std::move(decoder))
{
	if (file_.size() != summary_.length)
		throw damage(fmt::format("it has {} bytes instead of {}", file_.size(),
					 summary_.length));
	if (summary_.length < sizeof(DataHeader) + sizeof(DataFooter))
		throw damage("it is too short");
	check_header();
	check_footer();
}

void DataReader::check_header() const
{
	DataHeader header;
	file_.read(0, bytes_of(header));
	if (header.hash != hash64(bytes_of(header).first(offsetof(DataHeader, hash))) ||
	    header.magic != header_magic)
		throw damage("its header's checksum does not fit");
	if (header.format != data_format)
		throw Failure(FailureCode::failed,
			      fmt::format("{} has format {}; this program reads format {}",
					  file_.path().native(), header.format, data_format));
	if (header.block_size != block_bytes || header.volume_size != volume_size_)
		throw damage("it is of another volume");
}

void DataReader::check_footer()
{
	DataFooter footer;
	file_.read(summary_.length - sizeof(footer), bytes_of(footer));
	if (footer.hash != hash128(bytes_of(footer).first(offsetof(DataFooter, hash))) ||
	    footer.magic != footer_magic)
		throw damage("its footer's checksum does not fit");
	if (footer.file_length != summary_.length || footer.entries != summary_.entries ||
	    footer.index_hash != summary_.index_hash)
		throw damage("it is not the file that the restore point was made with");
	index_offset_ = footer.index_offset;
	if (index_offset_ < sizeof(DataHeader) ||
	    footer.entries > summary_.length / sizeof(IndexEntry) ||
	    index_offset_ + footer.entries * sizeof(IndexEntry) + sizeof(footer) != summary_.length)
		throw damage("its footer makes no sense");
}

void DataReader::for_each_entry(
	const std::function<void(uint64_t, const IndexEntry &)> &visit) const
{
	RunningHash128 hash;
	std::vector<IndexEntry> entries;
	uint64_t covered = 0, offset = sizeof(DataHeader);
	for (uint64_t number = 0; number < summary_.entries; number += entries.size()) {
		entries.resize(std::min(entries_at_once, summary_.entries - number));
		const auto bytes = std::as_writable_bytes(std::span(entries));
		read_entries(number, bytes);
		hash.add(bytes);
		for (size_t i = 0; i < entries.size(); i++) {
			check_entry(entries[i], covered, offset);
			covered = entries[i].end();
			offset += entries[i].stored;
			visit(number + i, entries[i]);
		}
	}
	if (hash.value() != summary_.index_hash || offset != index_offset_)
		throw damage("its index's checksum does not fit");
}

/* Whatever makes sense may be shown to a visitor before the checksum is known. */
void DataReader::check_entry(const IndexEntry &entry, uint64_t covered, uint64_t offset) const
{
	const bool ends_well = entry.length % block_bytes == 0 || entry.end() == volume_size_;
	const bool lies_well = entry.start >= covered && entry.start % block_bytes == 0 &&
			       entry.length > 0 && entry.length <= volume_size_ &&
			       entry.start <= volume_size_ - entry.length;
	const bool frame_fits =
		entry.is_hole() || (entry.length <= max_frame_bytes && entry.offset == offset &&
				    entry.stored <= decoder_->buffer().size());
	if (!ends_well || !lies_well || !frame_fits)
		throw damage("its index's checksum does not fit");
}

IndexEntry DataReader::entry(uint64_t number) const
{
	IndexEntry entry;
	read_entries(number, bytes_of(entry));
	if (!is_unharmed(entry))
		throw damage("its index has changed");
	return entry;
}

IndexEntry DataReader::entry_at(uint64_t position)
{
	if (!is_in_window(position)) {
		/* Most go on from where they were. */
		move_window(window_first_ + window_.size());
		if (!is_in_window(position))
			move_window(find_near(position));
	}
	const auto after = std::ranges::upper_bound(window_, position, {}, &IndexEntry::start);
	if (after == window_.begin())
		throw damage("its index has changed");
	const IndexEntry &entry = *std::prev(after);
	if (position - entry.start >= entry.length || !is_unharmed(entry))
		throw damage("its index has changed");
	return entry;
}

bool DataReader::is_in_window(uint64_t position) const
{
	return !window_.empty() && window_.front().start <= position &&
	       position < window_.back().end();
}

void DataReader::move_window(uint64_t first)
{
	std::vector<IndexEntry> entries(std::min(window_entries, summary_.entries - first));
	read_entries(first, std::as_writable_bytes(std::span(entries)));
	window_ = std::move(entries);
	window_first_ = first;
}

/* The first of window_entries among which the one for the position is. */
uint64_t DataReader::find_near(uint64_t position) const
{
	uint64_t first = 0, end = summary_.entries;
	while (end - first > window_entries) {
		const uint64_t middle = first + (end - first) / 2;
		uint64_t start = 0;
		static_assert(offsetof(IndexEntry, start) == 0);
		read_entries(middle, bytes_of(start));
		(start <= position ? first : end) = middle;
	}
	return first;
}

/* Or the beginning of one entry. */
void DataReader::read_entries(uint64_t first, std::span<std::byte> to) const
{
	file_.read(index_offset_ + first * sizeof(IndexEntry), to);
}

/* What was checked once is read again: by numbers out of bounds nothing is to be read or written.
 */
bool DataReader::is_unharmed(const IndexEntry &entry) const
{
	return entry.length <= volume_size_ && (entry.is_hole() || entry.length <= max_frame_bytes);
}

std::span<const std::byte> DataReader::read_stored(const IndexEntry &entry)
{
	if (entry.is_hole() || entry.stored > decoder_->buffer().size())
		throw damage("its index has changed");
	const auto stored = decoder_->buffer().first(entry.stored);
	file_.read(entry.offset, stored);
	if (hash64(stored) != entry.stored_hash)
		throw damage(fmt::format("the data stored for bytes {} to {} of the volume do not "
					 "fit their checksum",
					 entry.start, entry.end()));
	return stored;
}

void DataReader::read_frame(const IndexEntry &entry, std::span<std::byte> plain)
{
	const auto stored = read_stored(entry);
	const size_t length = decoder_->decompress(stored, plain.first(entry.length));
	if (length != entry.length || hash128(plain.first(length)) != entry.plain_hash)
		throw damage(fmt::format("bytes {} to {} of the volume do not fit their checksum",
					 entry.start, entry.end()));
}

Failure DataReader::damage(const std::string &what) const
{
	return damaged(fmt::format("{} of restore point {}", file_.path().native(), point_), what);
}

} // namespace zorvat::agent
