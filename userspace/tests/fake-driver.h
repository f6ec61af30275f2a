// SPDX-License-Identifier: GPL-2.0
/*
 * A driver with one volume behind a transport, as the commands see it: it marks writes and lists
 * extents by the driver's rules, block by block, and refuses what it is told to refuse.
 */
#ifndef FAKE_DRIVER_H
#define FAKE_DRIVER_H

#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <vector>
#include <zorvat/driver.h>

#include "wt.h"

/* What the tests look at while the driver under test owns the transport. */
struct FakeVolume {
	explicit FakeVolume(uint64_t length)
	    : sectors(length), written((length / 8192 + 1) * 64, false)
	{
	}

	void write(uint64_t sector, uint64_t count)
	{
		uint64_t last = sector / 128 + count / 128 + 1;
		for (uint64_t block = sector / 128; block <= last && block < written.size();
		     block++)
			written[block] = true;
	}

	bool known = true;
	int level = 1;
	uint64_t sectors;
	std::vector<bool> written; // per bit of the bitmap
	uint64_t save_time = 0;
	std::map<uint32_t, int> errors; // by command index, positive
	std::vector<uint32_t> requests; // the commands that arrived
	std::function<void()> before_extents;
	bool granularity_answered = true;
};

class FakeDriver final : public zorvat::Transport
{
public:
	explicit FakeDriver(FakeVolume &volume) : volume_(volume)
	{
	}

	int execute(const zorvat::Command &command, const zorvat::Target &,
		    std::span<std::byte> record) const override
	{
		volume_.requests.push_back(command.index);
		if (!volume_.known)
			return -EINVAL;
		if (auto error = volume_.errors.find(command.index); error != volume_.errors.end())
			return -error->second;
		return answer(command.index, record);
	}

private:
	int answer(uint32_t index, std::span<std::byte> record) const
	{
		switch (index) {
		case WT_GET_BACKUP_LEVEL_IOCTL_INDEX:
			as<backUp>(record) = {volume_.level, volume_.sectors};
			return 0;
		case WT_BMCONFIG_IOCTL_INDEX:
			if (volume_.granularity_answered)
				as<bmReg>(record).BlocksPerBit = 128;
			return 0;
		case WT_START_IOCTL_INDEX:
			if (as<backUp>(record).level == volume_.level)
				return -EINVAL;
			volume_.level = as<backUp>(record).level;
			as<backUp>(record).PartitionLength = volume_.sectors * 512;
			return 0;
		case WT_BMSIZE_IOCTL_INDEX:
			as<BITMAP>(record).nBMSize = volume_.written.size() / 8;
			return 0;
		case WT_DATA_IOCTL_INDEX:
			if (as<WI_DATA>(record).bRequest == 0)
				volume_.save_time = as<WI_DATA>(record).savetime;
			else
				as<WI_DATA>(record).savetime = volume_.save_time;
			return 0;
		case WT_GET_EXTENTS_IOCTL_INDEX:
			if (volume_.before_extents)
				volume_.before_extents();
			return list_extents(record);
		case WT_GET_VOLUME_UUID_IOCTL_INDEX:
			for (size_t i = 0; i < record.size(); i++)
				record[i] = static_cast<std::byte>(i);
			return 0;
		}
		return 0;
	}

	/* A run is listed once an unwritten block ends it, so one at the bitmap's end never is. */
	int list_extents(std::span<std::byte> record) const
	{
		auto &request = as<wt_extents_request>(record);
		size_t count = 0;
		uint64_t run = 0;
		bool open = false;
		for (uint64_t block = request.wer_start_from / 128;
		     block < volume_.written.size() && count < request.wer_extents.wtes_size;
		     block++) {
			if (volume_.written[block] && !open)
				run = std::max(block * 128, request.wer_start_from);
			if (!volume_.written[block] && open)
				put(record, count++, {run, block * 128 - run});
			open = volume_.written[block];
		}
		return static_cast<int>(count);
	}

	static void put(std::span<std::byte> record, size_t index, wt_extent extent)
	{
		std::memcpy(record.subspan(16 + 16 * index, 16).data(), &extent, sizeof(extent));
	}

	template <typename Record> static Record &as(std::span<std::byte> record)
	{
		return *reinterpret_cast<Record *>(record.first(sizeof(Record)).data());
	}

	FakeVolume &volume_;
};

inline zorvat::Volume test_volume()
{
	zorvat::Volume volume;
	volume.device = {254, 16};
	volume.name = "vdb";
	return volume;
}

#endif
