// SPDX-License-Identifier: GPL-2.0
/* Snapshots by the LVM tools, which report in JSON. */
#include <algorithm>
#include <charconv>
#include <chrono>
#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <thread>

#include "failure.h"
#include "process.h"
#include "snapshots.h"

namespace zorvat::agent
{

namespace
{

using Json = nlohmann::json;

/* Tells an agent's snapshots from those that somebody else called ZKR_snapshot... */
constexpr const char *own_tag = "zorvat_agent";

/* How much of the volume may change while it is copied, unless the user says. */
constexpr uint64_t default_share = 5; // a fifth
constexpr uint64_t least_snapshot = uint64_t{16} << 20;

Json report(const std::string &fields, const std::string &what)
{
	const std::string text = run_program({"lvm", "lvs", "--reportformat", "json", "--units",
					      "b", "--nosuffix", "-o", fields, "--", what});
	try {
		return Json::parse(text).at("report").at(0).at("lv");
	} catch (const Json::exception &error) {
		throw Failure(FailureCode::failed,
			      fmt::format("'lvm lvs' printed no report: {}", error.what()));
	}
}

uint64_t number_in(const Json &json)
{
	const auto text = json.get<std::string>();
	const char *end = text.data() + text.size();
	uint64_t number = 0;
	const auto [stop, error] = std::from_chars(text.data(), end, number);
	if (error != std::errc() || stop != end)
		throw Failure(FailureCode::failed,
			      "'lvm lvs' printed '" + text + "' for a number of bytes");
	return number;
}

/* Whole MiB: LVM rounds up to extents, and refuses when there are not enough. */
std::string default_size(const LogicalVolume &volume)
{
	const uint64_t wanted = std::max(volume.size / default_share, least_snapshot);
	const uint64_t mib = std::min(wanted, volume.free_in_group) >> 20;
	if (mib == 0)
		throw Failure(
			FailureCode::no_space,
			fmt::format("the volume group {} has no free extents, which a snapshot "
				    "needs: remove a volume or add a disk with 'vgextend'",
				    volume.group));
	return fmt::format("{}m", mib);
}

/* Whether a process has the word in its command line: names of snapshots are unique. */
bool is_named_by_a_process(const std::string &word)
{
	std::error_code error;
	for (std::filesystem::directory_iterator entry("/proc", error), end; !error && entry != end;
	     entry.increment(error)) {
		std::ifstream file(entry->path() / "cmdline", std::ios::binary);
		const std::string line(std::istreambuf_iterator<char>(file), {});
		if (line.find(word) != std::string::npos)
			return true;
	}
	return false;
}

class Lvm final : public SnapshotManager
{
public:
	LogicalVolume find(const std::string &name) override
	{
		/* Of a group alone, LVM would name the volume if there happens to be but one. */
		if (name.find('/') == std::string::npos)
			throw Failure(FailureCode::usage,
				      "'" + name +
					      "' is no logical volume: name it as group/volume");
		Json volumes;
		try {
			volumes = report("vg_name,lv_name,lv_uuid,lv_size,vg_free,lv_path,lv_attr",
					 name);
		} catch (const Failure &failure) {
			if (failure.error_number() != 0)
				throw;
			throw Failure(FailureCode::not_found,
				      fmt::format("there is no logical volume {}: {}", name,
						  failure.what()));
		}
		if (volumes.size() != 1)
			throw Failure(FailureCode::usage,
				      name + " is not one logical volume: name it as group/volume");
		const Json &volume = volumes[0];
		check_attributes(name, volume.at("lv_attr"));
		return {.group = volume.at("vg_name"),
			.name = volume.at("lv_name"),
			.uuid = volume.at("lv_uuid"),
			.size = number_in(volume.at("lv_size")),
			.free_in_group = number_in(volume.at("vg_free")),
			.path = volume.at("lv_path").get<std::string>()};
	}

	/* LVM holds the group's lock while it makes one: what is incomplete was left so. */
	std::vector<OwnSnapshot> own_snapshots(const LogicalVolume &volume) override
	{
		std::vector<OwnSnapshot> snapshots;
		for (const Json &other : report("lv_name,origin,lv_tags", volume.group)) {
			const auto name = other.at("lv_name").get<std::string>();
			const auto origin = other.at("origin").get<std::string>();
			const auto tags = other.at("lv_tags").get<std::string>();
			if ((origin == volume.name || origin.empty()) &&
			    name.starts_with(snapshot_prefix) &&
			    tags.find(own_tag) != std::string::npos)
				snapshots.push_back({name, !origin.empty()});
		}
		return snapshots;
	}

	std::filesystem::path create(const LogicalVolume &volume, const std::string &name,
				     const std::string &size) override
	{
		run_program({"lvm", "lvcreate", "--quiet", "--yes", "--snapshot", "--name", name,
			     "--addtag", own_tag, "--permission", "r", "--size",
			     size.empty() ? default_size(volume) : size, volume.full_name()});
		return volume.path.parent_path() / name;
	}

	void remove(const LogicalVolume &volume, const std::string &name) override
	{
		run_program({"lvm", "lvremove", "--quiet", "--force", volume.group + "/" + name});
	}

	bool has_overflowed(const LogicalVolume &volume, const std::string &name) override
	{
		const Json snapshots = report("lv_attr", volume.group + "/" + name);
		const auto attributes = snapshots.at(0).at("lv_attr").get<std::string>();
		return attributes.size() > state_attribute &&
		       std::string_view("IS").find(attributes[state_attribute]) !=
			       std::string_view::npos;
	}

	/* A tool that waits for something for so long is not waited for. */
	void settle(const std::string &name) override
	{
		constexpr auto patience = std::chrono::seconds(60);
		const auto end = std::chrono::steady_clock::now() + patience;
		while (is_named_by_a_process(name) && std::chrono::steady_clock::now() < end)
			std::this_thread::sleep_for(std::chrono::milliseconds(50));
	}

private:
	/* Of the letters of lv_attr, the first is the volume's type, the fifth its state. */
	static constexpr size_t state_attribute = 4;

	static void check_attributes(const std::string &name, const std::string &attributes)
	{
		if (attributes.size() <= state_attribute || attributes[state_attribute] != 'a')
			throw Failure(FailureCode::usage,
				      name + " is not active: activate it with 'lvchange -ay'");
		if (std::string_view("VtTsSd").find(attributes[0]) != std::string_view::npos)
			throw Failure(FailureCode::usage,
				      name + " is a thin volume or a snapshot: the driver does not "
					     "see snapshots of those");
	}
};

} // namespace

std::unique_ptr<SnapshotManager> open_lvm()
{
	return std::make_unique<Lvm>();
}

} // namespace zorvat::agent
