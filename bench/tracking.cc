// SPDX-License-Identifier: GPL-2.0
// The write hook against the same writes to an untracked disk, and the scan of a bitmap for
// extents. Writing costs nothing on the model's disks, so what is left is the hook.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <random>

#include "kernel-abstractions/host/model.h"
#include "kernel-abstractions/module.h"
#include "writetracker/volume-manager.h"
#include "writetracker/volume-tracker.h"
#include "writetracker/writetracker.h"

namespace
{

constexpr ka_sector_t terabyte = ka_sector_t{1} << 31; // in sectors

// A booted kernel with the driver loaded, a tracked disk and one that is not.
class Machine
{
public:
	Machine()
	{
		model::boot(&wt_context);
		if (init_module() != 0)
			throw model::Bug("the driver does not load");
		tracked = model::add_disk({.name = "sda", .sectors = terabyte});
		plain = model::add_disk({.name = "sdb", .minor = 16, .sectors = terabyte});
		model::advance(1000);
		VolumeRef volume(lookup_volume_info(tracked.dev()));
		if (!volume || volume_manager_start_tracking(volume.get(), nullptr) != 0)
			throw model::Bug("the disk cannot be tracked");
	}
	~Machine()
	{
		cleanup_module();
	}
	Machine(const Machine &) = delete;
	Machine &operator=(const Machine &) = delete;

	model::Disk tracked{nullptr}, plain{nullptr};
};

Machine *machine;

// Each thread writes through its own half of the disk, from its start to its end and over again.
void write(benchmark::State &state, const model::Disk &disk)
{
	const auto bytes = static_cast<uint64_t>(state.range(0));
	const ka_sector_t length = terabyte / 2 - 8192;
	const ka_sector_t start = state.thread_index() * (terabyte / 2);
	ka_sector_t offset = 0;
	while (state.KeepRunning()) {
		if (disk.write(start + offset, bytes).result != 0)
			state.SkipWithError("the write failed");
		offset += bytes / 512;
		if (offset + bytes / 512 > length)
			offset = 0;
	}
	state.SetItemsProcessed(state.iterations());
}

void write_plain(benchmark::State &state)
{
	write(state, machine->plain);
}

void write_tracked(benchmark::State &state)
{
	write(state, machine->tracked);
}

void write_sizes(benchmark::internal::Benchmark *benchmark)
{
	benchmark->ArgName("bytes")->Arg(4096)->Arg(1 << 20)->Threads(1)->Threads(2)->UseRealTime();
}

BENCHMARK(write_plain)->Apply(write_sizes);
BENCHMARK(write_tracked)->Apply(write_sizes);

// --- Extents -----------------------------------------------------------------------------------

constexpr uint64_t words = terabyte / WT_WORD_SECTORS + 1;
constexpr uint64_t volume_blocks = terabyte / WT_BLOCK_SECTORS;

// The bitmap of a volume of 1 TiB, with nothing written.
struct TerabyteBitmap {
	TerabyteBitmap() : memory(words + 1, ~uint64_t{0})
	{
		memory[0] = words * sizeof(uint64_t);
	}
	void write(uint64_t block)
	{
		memory[1 + block / 64] &= ~(uint64_t{1} << (63 - block % 64));
	}
	const hbitmap *get() const
	{
		return reinterpret_cast<const hbitmap *>(memory.data());
	}

	std::vector<uint64_t> memory; // behind the size, as the driver has it
};

void scan(benchmark::State &state, const TerabyteBitmap &bitmap)
{
	constexpr size_t capacity = 1 << 18;
	auto memory = std::make_unique<uint64_t[]>(1 + 2 * capacity);
	auto *extents = reinterpret_cast<wt_extents *>(memory.get());
	extents->wtes_size = capacity;
	int count = 0;
	while (state.KeepRunning()) {
		count = volume_info_get_extents(bitmap.get(), 0, extents);
		benchmark::DoNotOptimize(count);
		benchmark::ClobberMemory();
	}
	state.counters["extents"] = count;
	state.counters["bitmap_bytes"] = static_cast<double>(bitmap.get()->size);
}

void scan_empty(benchmark::State &state)
{
	scan(state, TerabyteBitmap());
}

void scan_one_percent(benchmark::State &state)
{
	TerabyteBitmap bitmap;
	std::mt19937_64 random(1);
	for (uint64_t i = 0; i < volume_blocks / 100; i++)
		bitmap.write(random() % volume_blocks);
	scan(state, bitmap);
}

void scan_full(benchmark::State &state)
{
	TerabyteBitmap bitmap;
	for (uint64_t block = 0; block < volume_blocks; block++)
		bitmap.write(block);
	scan(state, bitmap);
}

BENCHMARK(scan_empty)->Unit(benchmark::kMicrosecond);
BENCHMARK(scan_one_percent)->Unit(benchmark::kMicrosecond);
BENCHMARK(scan_full)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char **argv)
{
	benchmark::Initialize(&argc, argv);
	if (benchmark::ReportUnrecognizedArguments(argc, argv))
		return 1;
	try {
		Machine booted;
		machine = &booted;
		benchmark::RunSpecifiedBenchmarks();
	} catch (const model::Bug &bug) {
		fprintf(stderr, "bench-tracking: %s\n", bug.what());
		return 1;
	}
	benchmark::Shutdown();
	return 0;
}
