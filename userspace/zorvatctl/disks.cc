// SPDX-License-Identifier: GPL-2.0
/* The subcommands on restore disks that others serve. */
#include <algorithm>
#include <fmt/format.h>
#include <zorvat/disk-server.h>
#include <zorvat/restore.h>

#include "render.h"

using zorvat::DiskAttributes;
using zorvat::RestoreDisks;

namespace
{

RestoreDisks open_disks(const Options &options)
{
	return RestoreDisks(open_transport(options));
}

const char *state_of(const DiskAttributes &disk)
{
	if (!can_have_server(disk))
		return "no-server";
	return disk.suspended() ? "suspended" : "running";
}

uint64_t sectors_of(const DiskAttributes &disk)
{
	return disk.blocks * (disk.block_size / sector_bytes);
}

Json identity(const DiskAttributes &disk)
{
	return {{"name", disk.name}, {"device", disk.device.to_string()}};
}

/* Commands that only do something are silent, except to programs. */
std::string done(const Options &options, const DiskAttributes &disk)
{
	return options.json ? dump(identity(disk)) : "";
}

} // namespace

std::string disks(const Options &options)
{
	Json json = Json::array();
	std::string text =
		fmt::format("{:<12} {:>9} {:>14} {:>10} {:<9} {:>5} {}\n", "NAME", "MAJ:MIN",
			    "SECTORS", "BLOCK-SIZE", "STATE", "PORT", "SERVER-PID");
	auto disks = open_disks(options).list();
	/* The kernel gives out majors downwards: the oldest disk first. */
	std::ranges::sort(disks, std::greater{}, &DiskAttributes::device);
	for (const DiskAttributes &disk : disks) {
		Json entry = identity(disk);
		entry.update({{"sectors", sectors_of(disk)},
			      {"block_size", disk.block_size},
			      {"blocks", disk.blocks},
			      {"state", state_of(disk)},
			      {"port", disk.suspended() ? Json() : Json(disk.port)},
			      {"server_pid", disk.server},
			      {"writable", disk.writable}});
		json.push_back(entry);
		text += fmt::format(
			"{:<12} {:>9} {:>14} {:>10} {:<9} {:>5} {}\n", disk.name,
			disk.device.to_string(), sectors_of(disk), disk.block_size, state_of(disk),
			disk.suspended() ? "-" : std::to_string(disk.port), disk.server);
	}
	return options.json ? dump({{"disks", json}}) : text;
}

std::string suspend(const Options &options)
{
	const RestoreDisks disks = open_disks(options);
	const DiskAttributes disk = disks.find(options.disk);
	disks.suspend(disk.handle);
	return done(options, disk);
}

std::string resume(const Options &options)
{
	const RestoreDisks disks = open_disks(options);
	const DiskAttributes disk = disks.find(options.disk);
	disks.resume(disk.handle, options.port ? *options.port : ask_server_port(disk));
	return done(options, disk);
}

std::string destroy(const Options &options)
{
	const RestoreDisks disks = open_disks(options);
	const DiskAttributes disk = disks.find(options.disk);
	disks.destroy(disk.handle);
	return done(options, disk);
}
