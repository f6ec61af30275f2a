// SPDX-License-Identifier: GPL-2.0
#include "tracker.h"

#include <fmt/format.h>
#include <zorvat/sysfs.h>

namespace zorvat::agent
{

namespace
{

constexpr uint64_t sector_bytes = 512;

class DriverTracker final : public ChangeTracker
{
public:
	explicit DriverTracker(const std::string &path)
	    : driver_(open_netlink()), volume_(resolve_volume(path))
	{
	}

	TrackerState state() override
	{
		const BackupLevel level = driver_.backup_level(volume_);
		return {.tracked = level.tracked,
			.size = level.sectors * sector_bytes,
			.identity = fmt::format("{:02x}", fmt::join(driver_.uuid(volume_), "")),
			.switch_count = level.tracked ? switch_count(volume_) : 0,
			.save_time = driver_.save_time(volume_)};
	}

	void start() override
	{
		driver_.start_tracking(volume_);
	}

	std::vector<Extent> changes() override
	{
		return driver_.changed_extents(volume_).extents;
	}

	void clear() override
	{
		driver_.clear_bitmap(volume_);
	}

	void set_save_time(uint64_t time) override
	{
		driver_.set_save_time(volume_, time);
	}

private:
	Driver driver_;
	Volume volume_;
};

} // namespace

std::unique_ptr<ChangeTracker> open_tracker(const std::string &path)
{
	return std::make_unique<DriverTracker>(path);
}

} // namespace zorvat::agent
