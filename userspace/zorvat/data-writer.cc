// SPDX-License-Identifier: GPL-2.0
#include "data-writer.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <zstd.h>

namespace zorvat::agent
{

namespace
{

constexpr size_t entries_kept = 4096;

std::span<const std::byte> block_at(std::span<const std::byte> plain, size_t offset)
{
	return plain.subspan(offset, std::min<size_t>(block_bytes, plain.size() - offset));
}

File nameless_file(const fs::path &path)
{
	File file(path, O_RDWR | O_CREAT | O_TRUNC);
	remove_file(path);
	return file;
}

} // namespace

bool is_zero(std::span<const std::byte> bytes)
{
	return bytes.front() == std::byte{0} &&
	       std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0;
}

DataWriter::DataWriter(const fs::path &directory, const std::string &name, uint64_t volume_size,
		       int compression)
    : name_(name), compression_(compression), file_(directory / name),
      index_(nameless_file(directory / (name + ".index" + std::string(temporary_suffix)))),
      compressor_(ZSTD_createCCtx(), ZSTD_freeCCtx),
      compressed_(ZSTD_compressBound(max_frame_bytes))
{
	if (!compressor_)
		throw std::bad_alloc();
	DataHeader header{.magic = header_magic,
			  .format = data_format,
			  .block_size = block_bytes,
			  .volume_size = volume_size,
			  .hash = 0};
	header.hash = hash64(bytes_of(header).first(offsetof(DataHeader, hash)));
	file_.file().write(0, bytes_of(header));
	position_ = sizeof(header);
}

DataWriter::~DataWriter() = default;

void DataWriter::add(uint64_t start, std::span<const std::byte> plain)
{
	for (size_t from = 0, to = 0; from < plain.size(); from = to) {
		const bool zero = is_zero(block_at(plain, from));
		do
			to += block_at(plain, to).size();
		while (to < plain.size() && is_zero(block_at(plain, to)) == zero);
		if (zero)
			add_hole(start + from, to - from);
		else
			add_frame(start + from, plain.subspan(from, to - from));
	}
}

void DataWriter::add_hole(uint64_t start, uint64_t length)
{
	if (hole_ && hole_->end() == start) {
		hole_->length += length;
		return;
	}
	end_hole();
	hole_.emplace();
	hole_->start = start;
	hole_->length = length;
}

void DataWriter::add_stored(const IndexEntry &entry, std::span<const std::byte> stored)
{
	append_frame(entry, stored);
}

void DataWriter::add_frame(uint64_t start, std::span<const std::byte> plain)
{
	const size_t stored =
		ZSTD_compressCCtx(compressor_.get(), compressed_.data(), compressed_.size(),
				  plain.data(), plain.size(), compression_);
	if (ZSTD_isError(stored))
		throw Failure(FailureCode::failed,
			      std::string("cannot compress: ") + ZSTD_getErrorName(stored));
	const auto frame = std::span(compressed_).first(stored);
	IndexEntry entry;
	entry.start = start;
	entry.length = plain.size();
	entry.stored = stored;
	entry.plain_hash = hash128(plain);
	entry.stored_hash = hash64(frame);
	append_frame(entry, frame);
}

void DataWriter::append_frame(IndexEntry entry, std::span<const std::byte> stored)
{
	end_hole();
	entry.offset = position_;
	file_.file().write(position_, stored);
	position_ += stored.size();
	append_to_index(entry);
}

void DataWriter::append_to_index(const IndexEntry &entry)
{
	recent_.push_back(entry);
	entries_++;
	if (recent_.size() == entries_kept)
		spill_index();
}

void DataWriter::end_hole()
{
	if (hole_)
		append_to_index(*std::exchange(hole_, std::nullopt));
}

void DataWriter::spill_index()
{
	const auto bytes = std::as_bytes(std::span(recent_));
	index_hash_.add(bytes);
	index_.write(spilled_, bytes);
	spilled_ += bytes.size();
	recent_.clear();
}

void DataWriter::copy_index_into_file()
{
	for (uint64_t done = 0; done < spilled_;) {
		const auto piece =
			std::span(compressed_)
				.first(std::min<uint64_t>(compressed_.size(), spilled_ - done));
		index_.read(done, piece);
		file_.file().write(position_ + done, piece);
		done += piece.size();
	}
	position_ += spilled_;
}

DataSummary DataWriter::finish()
{
	end_hole();
	spill_index();
	const uint64_t index_offset = position_;
	copy_index_into_file();
	DataFooter footer{.magic = footer_magic,
			  .index_offset = index_offset,
			  .entries = entries_,
			  .index_hash = index_hash_.value(),
			  .file_length = position_ + sizeof(DataFooter),
			  .hash = {}};
	footer.hash = hash128(bytes_of(footer).first(offsetof(DataFooter, hash)));
	file_.file().write(position_, bytes_of(footer));
	file_.commit();
	return {name_, footer.file_length, footer.entries, footer.index_hash};
}

} // namespace zorvat::agent
