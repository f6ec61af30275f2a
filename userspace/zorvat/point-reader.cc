// SPDX-License-Identifier: GPL-2.0
#include "point-reader.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <syslog.h>

#include "../output.h"

namespace zorvat::agent
{

namespace
{

class PointSource final : public BlockSource
{
public:
	explicit PointSource(PointReader reader) : reader_(std::move(reader))
	{
	}

	uint64_t size() const override
	{
		return reader_.size();
	}

	int read(uint64_t offset, std::span<std::byte> memory) noexcept override
	try {
		while (!memory.empty()) {
			const auto run = reader_.find(offset);
			const size_t length = std::min(run.length, memory.size());
			if (const int number =
				    reader_.cache().copy_to(memory.first(length), run.cache_offset))
				return number;
			memory = memory.subspan(length);
			offset += length;
		}
		return 0;
	} catch (const std::exception &error) {
		if (!told_) {
			tell_line(error.what());
			syslog(LOG_DAEMON | LOG_ERR, "%s", error.what());
		}
		told_ = true;
		return EIO;
	}

private:
	PointReader reader_;
	bool told_ = false;
};

} // namespace

uint64_t FrameCache::find_or_read(ExtentMap::Source source, DataReader &file,
				  const IndexEntry &entry)
{
	const uint64_t name = uint64_t{source} << 32 | entry.start / block_bytes;
	uses_++;
	auto *slot = std::ranges::find(slots_, name, &Slot::name);
	if (slot == std::end(slots_)) {
		slot = std::ranges::min_element(slots_, {}, &Slot::last_use);
		slot->name = UINT64_MAX; // in case reading fails
		file.read_frame(entry, frames_.memory().subspan((slot - slots_) * max_frame_bytes,
								max_frame_bytes));
		slot->name = name;
	}
	slot->last_use = uses_;
	return (slot - slots_) * max_frame_bytes;
}

PointReader::PointReader(const Repository &repository, const std::string &point)
{
	open_chain(repository, point);
	build_map();
}

void PointReader::open_chain(const Repository &repository, const std::string &point)
{
	const File hold = repository.hold_points();
	chain_ = repository.chain_of(repository.find(point));
	map_.emplace(blocks_of(size()), chain_.size());
	const auto decoder = std::make_shared<FrameDecoder>();
	for (const Manifest &manifest : chain_)
		sources_.push_back(std::make_unique<DataReader>(repository.data_directory(),
								manifest.data, manifest.size,
								manifest.id, decoder));
}

void PointReader::build_map()
{
	for (size_t i = 0; i < sources_.size(); i++)
		map_->add_older(*sources_[i], i, ExtentMap::zeros);
	if (!map_->is_whole())
		throw Failure(
			FailureCode::damaged,
			fmt::format("restore point {} has not all of its blocks", point().id));
	map_->for_each_run([&](const ExtentMap::Run &run) {
		if (run.source != ExtentMap::zeros)
			data_bytes_ += end_of(run.end) - run.first * block_bytes;
	});
}

uint64_t PointReader::end_of(uint64_t end_block) const
{
	return std::min(end_block * block_bytes, size());
}

PointReader::Run PointReader::find(uint64_t offset)
{
	const uint64_t block = offset / block_bytes;
	const ExtentMap::Source source = map_->source_of(block);
	const auto length_within = [&](uint64_t end) {
		return end_of(map_->end_of_run(block, blocks_of(end))) - offset;
	};
	if (source == ExtentMap::zeros)
		return {cache_->zeros(),
			std::min(length_within(offset + max_frame_bytes), max_frame_bytes), true};
	DataReader &file = *sources_[source];
	const IndexEntry entry = file.entry_at(offset);
	const uint64_t slot = cache_->find_or_read(source, file, entry);
	return {slot + (offset - entry.start), length_within(entry.end()), false};
}

uint64_t PointReader::zeros_at(uint64_t offset) const
{
	const uint64_t block = offset / block_bytes;
	if (map_->source_of(block) != ExtentMap::zeros)
		return 0;
	return end_of(map_->end_of_run(block)) - offset;
}

void PointReader::read(uint64_t offset, std::span<std::byte> to)
{
	while (!to.empty()) {
		const Run run = find(offset);
		const size_t length = std::min(run.length, to.size());
		std::memcpy(to.data(), cache_->at(run.cache_offset, length).data(), length);
		to = to.subspan(length);
		offset += length;
	}
}

std::unique_ptr<BlockSource> make_source(PointReader reader)
{
	return std::make_unique<PointSource>(std::move(reader));
}

} // namespace zorvat::agent
