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
	return File(path, O_RDONLY);
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
		file_.read(index_offset_ + number * sizeof(IndexEntry), bytes);
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
	file_.read(index_offset_ + number * sizeof(entry), bytes_of(entry));
	if (entry.length > volume_size_ || (!entry.is_hole() && entry.length > max_frame_bytes))
		throw damage("its index has changed");
	return entry;
}

std::span<const std::byte> DataReader::read_stored(const IndexEntry &entry)
{
	if (entry.stored > decoder_->buffer().size())
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
