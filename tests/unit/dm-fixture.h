// SPDX-License-Identifier: GPL-2.0
// What the tests of the device-mapper's interception share: requests and answers as the bytes of a
// buffer, and a tracked logical volume.
#ifndef WT_TEST_DM_FIXTURE_H
#define WT_TEST_DM_FIXTURE_H

#include "fixture.h"

using model::OpenNode;

// Exactly as long as needed, so that the address sanitizer sees who reads on.
using DmBytes = std::vector<char>;

inline ka_dev_t dm(unsigned int minor)
{
	return ka_mkdev(253, minor);
}

inline dm_ioctl *header(DmBytes &bytes)
{
	return reinterpret_cast<dm_ioctl *>(bytes.data());
}

struct DmTarget {
	std::string type, params;

	uint32_t size() const // with the padding that follows
	{
		return (sizeof(dm_target_spec) + params.size() + 1 + 7) & ~size_t{7};
	}
};

struct DmRequest {
	ka_dev_t dev = 0;
	std::string name = {};
	std::vector<DmTarget> targets = {};
	uint32_t flags = 0;

	// In a request `next` counts from the target itself, in an answer from the first.
	DmBytes bytes(bool is_answer = false) const
	{
		DmBytes bytes(sizeof(dm_ioctl));
		for (auto &target : targets) {
			const size_t start = bytes.size();
			dm_target_spec spec = {0, 8, 0, target.size(), {}};
			if (is_answer)
				spec.next += start - sizeof(dm_ioctl);
			target.type.copy(spec.target_type, sizeof(spec.target_type));
			bytes.resize(start + target.size());
			memcpy(&bytes[start], &spec, sizeof(spec));
			target.params.copy(&bytes[start + sizeof(spec)], target.params.size());
		}
		bytes.shrink_to_fit();
		dm_ioctl &head = *header(bytes);
		head.version[0] = 4;
		head.data_size = bytes.size();
		head.data_start = sizeof(dm_ioctl);
		head.target_count = targets.size();
		head.flags = flags;
		const uint64_t minor = ka_minor(dev);
		head.dev = (minor & 0xff) | ka_major(dev) << 8 | (minor & ~0xffull) << 12;
		name.copy(head.name, sizeof(head.name));
		return bytes;
	}
};

// A request in the memory of a process.
class DmUserMemory : public UserMemory
{
public:
	explicit DmUserMemory(const DmBytes &bytes) : UserMemory(bytes.size())
	{
		std::ranges::copy(bytes, data());
	}
};

// 253:0 is the logical volume vg/data, tracked.
class TrackedLogicalVolume : public Tracked
{
protected:
	void TearDown() override
	{
		records();
		Tracked::TearDown();
	}
	model::DiskSpec spec() const override
	{
		return {.name = "dm-0", .major = 253};
	}
	int switches()
	{
		return volume_manager_getswitchcount(volume.get());
	}
	// How many there are, which are meant to stay at unload.
	static int records()
	{
		return model::forget_memory(sizeof(lvm_vol_node));
	}
};

#endif
