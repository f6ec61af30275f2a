// SPDX-License-Identifier: GPL-2.0
#include "repository.h"

#include <algorithm>
#include <charconv>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <random>
#include <set>
#include <sys/file.h>

namespace zorvat::agent
{

namespace
{

constexpr int repository_format = 1;
constexpr const char *identity_name = "repository.json";
constexpr std::string_view manifest_suffix = ".json";
constexpr std::string_view reserve_name = "reserve.tmp";
constexpr size_t reserved_bytes = 64 << 10;

std::string random_digits(size_t count)
{
	std::random_device device;
	std::string digits;
	while (digits.size() < count)
		digits += fmt::format("{:08x}", device());
	return digits.substr(0, count);
}

Json to_json(const DriverRecord &driver)
{
	return {{"identity", driver.identity},
		{"switch_count", driver.switch_count},
		{"save_time", driver.save_time},
		{"save_time_before", driver.save_time_before}};
}

DriverRecord driver_from(const Json &json)
{
	return {json.at("identity"), json.at("switch_count"), json.at("save_time"),
		json.at("save_time_before")};
}

Json or_null(const std::string &text)
{
	return text.empty() ? Json() : Json(text);
}

std::string text_or_null(const Json &json)
{
	return json.is_null() ? "" : json.get<std::string>();
}

Json to_json(const Manifest &manifest)
{
	return {{"number", manifest.number},
		{"id", manifest.id},
		{"parent", or_null(manifest.parent)},
		{"kind", manifest.is_full() ? "full" : "incremental"},
		{"time", manifest.time},
		{"volume_name", manifest.volume_name},
		{"volume_uuid", manifest.volume_uuid},
		{"size", manifest.size},
		{"block_size", block_bytes},
		{"reason", manifest.reason},
		{"data",
		 {{"file", manifest.data.file},
		  {"length", manifest.data.length},
		  {"entries", manifest.data.entries},
		  {"index_xxh3_128", to_hex(manifest.data.index_hash)}}},
		{"changed_bytes", manifest.changed_bytes},
		{"driver", to_json(manifest.driver)}};
}

Hash128 hash_from(const std::string &hex)
{
	Hash128 hash = {};
	if (hex.size() != 2 * hash.size())
		throw std::invalid_argument("a checksum has another length");
	for (size_t i = 0; i < hash.size(); i++) {
		const char *digits = hex.data() + 2 * i;
		if (std::from_chars(digits, digits + 2, hash[i], 16).ptr != digits + 2)
			throw std::invalid_argument("a checksum has other characters");
	}
	return hash;
}

uint64_t number_of(const std::string &id)
{
	uint64_t number = 0;
	std::from_chars(id.data(), id.data() + id.size(), number);
	return number;
}

/* As a conversion, it would take -1 for the largest one. */
uint64_t count_from(const Json &json)
{
	if (!json.is_number_unsigned())
		throw std::invalid_argument("a number is none, or negative");
	return json.get<uint64_t>();
}

/* A checksum only tells that somebody wrote it so. */
void check_sense(const Manifest &manifest)
{
	constexpr int64_t last_second = 253402300799; // of the year 9999
	const std::string &file = manifest.data.file;
	if (manifest.number == 0 || number_of(manifest.id) != manifest.number)
		throw std::invalid_argument("its name has another number");
	if (manifest.parent.find('/') != std::string::npos)
		throw std::invalid_argument("its parent is in another place");
	if (manifest.size == 0 || manifest.size > max_volume_bytes)
		throw std::invalid_argument("no volume has its size");
	if (manifest.time < 0 || manifest.time > last_second)
		throw std::invalid_argument("its time is none");
	if (!file.ends_with(".data") || file.find_first_of(std::string_view("/\0", 2)) != file.npos)
		throw std::invalid_argument("its data file has no name of one");
}

Manifest manifest_from(const Json &json)
{
	Manifest manifest;
	manifest.number = count_from(json.at("number"));
	json.at("id").get_to(manifest.id);
	manifest.parent = text_or_null(json.at("parent"));
	json.at("time").get_to(manifest.time);
	json.at("volume_name").get_to(manifest.volume_name);
	json.at("volume_uuid").get_to(manifest.volume_uuid);
	manifest.size = count_from(json.at("size"));
	json.at("reason").get_to(manifest.reason);
	const Json &data = json.at("data");
	data.at("file").get_to(manifest.data.file);
	manifest.data.length = count_from(data.at("length"));
	manifest.data.entries = count_from(data.at("entries"));
	manifest.data.index_hash = hash_from(data.at("index_xxh3_128"));
	manifest.changed_bytes = count_from(json.at("changed_bytes"));
	manifest.driver = driver_from(json.at("driver"));
	if (json.at("block_size") != block_bytes)
		throw std::invalid_argument("its blocks have another size");
	check_sense(manifest);
	return manifest;
}

/*
 * Decimal numbers, each followed by a space: how many blocks to skip, how many are in the run, and
 * so on. A text, since a JSON array of so many numbers takes many times its memory.
 */
std::string text_of(const std::vector<BlockRun> &runs)
{
	std::string text;
	uint64_t end = 0;
	for (const BlockRun &run : runs) {
		fmt::format_to(std::back_inserter(text), "{} {} ", run.first - end, run.count);
		end = run.first + run.count;
	}
	return text;
}

/* Takes the number and its space from the text. */
uint32_t take_number(std::string_view &text)
{
	uint32_t number = 0;
	const char *end = text.data() + text.size();
	const auto [rest, error] = std::from_chars(text.data(), end, number);
	if (error != std::errc() || rest == end || *rest != ' ')
		throw std::invalid_argument("its changes are not numbers");
	text = {rest + 1, end};
	return number;
}

std::vector<BlockRun> runs_from(std::string_view text)
{
	std::vector<BlockRun> runs;
	uint64_t end = 0;
	while (!text.empty()) {
		const uint64_t first = end + take_number(text);
		const uint64_t count = take_number(text);
		end = first + count;
		if (std::max({first, count, end}) > max_volume_bytes / block_bytes)
			throw std::invalid_argument("its changes are outside of any volume");
		runs.push_back({first, count});
	}
	return runs;
}

/* What is in the file, through a function that may throw what JSON libraries throw. */
template <typename From> auto read_record(const fs::path &path, From from)
{
	const Json json = read_sealed_json(path);
	try {
		return from(json);
	} catch (const std::exception &error) {
		throw damaged(path.native(), error.what());
	}
}

std::vector<fs::path> files_in(const fs::path &directory)
{
	std::vector<fs::path> files;
	std::error_code error;
	for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
	     entry.increment(error))
		files.push_back(entry->path());
	if (error)
		throw system_failure("cannot list " + directory.native(), error.value());
	return files;
}

bool is_temporary(const fs::path &path)
{
	return path.native().ends_with(temporary_suffix);
}

/* And those above it, on disk. */
void make_directory(const fs::path &path)
{
	std::error_code error;
	if (path.empty() || fs::is_directory(path, error))
		return;
	make_directory(path.parent_path());
	if (fs::create_directory(path, error))
		flush_directory(path.parent_path());
	if (error)
		throw system_failure("cannot make " + path.native(), error.value());
}

File lock_directory(const fs::path &directory)
{
	File lock(directory / "lock", O_RDWR | O_CREAT);
	if (!lock.try_lock())
		throw Failure(FailureCode::busy, "another program writes to " + directory.native());
	return lock;
}

/* In order of their numbers. */
std::vector<Manifest> points_in(const fs::path &directory, std::vector<std::string> &problems)
{
	std::vector<Manifest> points;
	for (const fs::path &path : files_in(directory)) {
		const std::string name = path.filename();
		if (!name.ends_with(manifest_suffix) || name.starts_with('.'))
			continue; // a temporary one, or somebody's
		try {
			Manifest point = read_record(path, manifest_from);
			if (point.id + std::string(manifest_suffix) != path.filename())
				throw damaged(path.native(), "it has another point's name");
			points.push_back(std::move(point));
		} catch (const Failure &failure) {
			problems.emplace_back(failure.what());
		}
	}
	std::ranges::sort(points, {}, &Manifest::number);
	return points;
}

} // namespace

PointName PointName::parse(const std::string &text)
{
	const size_t at = text.rfind('@');
	std::error_code ignored;
	if (at == std::string::npos || text.find('/', at) != std::string::npos ||
	    fs::is_directory(text, ignored))
		return {text, ""};
	if (at + 1 == text.size())
		throw Failure(FailureCode::usage, "no point is named after the '@' of " + text);
	return {text.substr(0, at), text.substr(at + 1)};
}

Repository::Repository(const fs::path &directory) : directory_(directory)
{
	const fs::path identity = identity_path();
	std::error_code error;
	if (!fs::exists(identity, error)) {
		if (error)
			throw system_failure("cannot look at " + identity.native(), error.value());
		throw Failure(FailureCode::not_found,
			      directory.native() + " is no repository: it has no repository.json");
	}
	try {
		read_identity();
	} catch (const Failure &failure) {
		if (failure.code() != FailureCode::damaged && failure.error_number() != EIO)
			throw;
		damage_ = failure.what();
	}
	for (const fs::path &part : {points_directory(), data_directory()})
		if (!fs::is_directory(part, error))
			throw damaged(directory.native(),
				      "it has no directory " + part.filename().native());
}

void Repository::read_identity()
{
	const Json json = read_sealed_json(identity_path());
	try {
		if (json.at("format") != repository_format)
			throw Failure(FailureCode::failed,
				      fmt::format("{} has format {}; this program reads format {}",
						  directory_.native(), json.at("format").dump(),
						  repository_format));
		json.at("volume_name").get_to(volume_name_);
		json.at("volume_uuid").get_to(volume_uuid_);
	} catch (const Json::exception &error) {
		throw damaged(identity_path().native(), error.what());
	}
}

Repository Repository::open_or_create(const fs::path &directory, const std::string &volume_name,
				      const std::string &volume_uuid)
{
	const fs::path identity = directory / identity_name;
	if (fs::exists(identity))
		return Repository(directory);
	make_directory(directory);
	/* What an interrupted creation has left may stay, and points without repository.json. */
	const std::set<fs::path> own = {"points", "data", "lock", "attempt.json", "lost+found"};
	for (const fs::path &file : files_in(directory))
		if (!own.contains(file.filename()) && !is_temporary(file))
			throw Failure(FailureCode::usage,
				      directory.native() + " is neither empty nor a repository");
	make_directory(directory / "points");
	make_directory(directory / "data");
	const File lock = lock_directory(directory);
	std::vector<std::string> unreadable;
	for (const Manifest &point : points_in(directory / "points", unreadable))
		if (point.volume_uuid != volume_uuid)
			throw Failure(FailureCode::usage,
				      fmt::format("{} has backups of another volume, {}",
						  directory.native(), point.volume_name));
	if (!fs::exists(identity))
		write_sealed_json(identity, {{"format", repository_format},
					     {"id", random_digits(32)},
					     {"volume_name", volume_name},
					     {"volume_uuid", volume_uuid}});
	return Repository(directory);
}

/* Whoever lists a directory may miss names that are renamed over meanwhile. */
File Repository::lock_points(int kind) const
{
	File file(identity_path(), kind == LOCK_EX ? O_RDWR : O_RDONLY);
	file.lock(kind);
	return file;
}

File Repository::hold_points() const
{
	return lock_points(LOCK_SH);
}

std::vector<Manifest> Repository::points(std::vector<std::string> &problems) const
{
	const File hold = hold_points();
	return points_in(points_directory(), problems);
}

std::vector<Manifest> Repository::points() const
{
	std::vector<std::string> problems;
	auto points = this->points(problems);
	if (!problems.empty())
		throw Failure(FailureCode::damaged, problems.front());
	return points;
}

Manifest Repository::find(const std::string &point) const
{
	std::vector<std::string> problems;
	const auto points = this->points(problems);
	const auto found = std::ranges::find_if(points, [&](const Manifest &manifest) {
		return manifest.id == point || std::to_string(manifest.number) == point;
	});
	if (found != points.end())
		return *found;
	if (!problems.empty())
		throw Failure(FailureCode::damaged, problems.front());
	if (point.empty() && !points.empty())
		return points.back();
	throw Failure(FailureCode::not_found,
		      points.empty() ? fmt::format("{} has no restore points", directory_.native())
				     : fmt::format("{} has no restore point {}",
						   directory_.native(), point));
}

std::vector<Manifest> Repository::chain_of(const Manifest &point) const
{
	std::vector<Manifest> chain = {point};
	while (!chain.back().is_full()) {
		const fs::path parent = manifest_path(chain.back().parent);
		std::error_code ignored;
		if (!fs::exists(parent, ignored))
			throw Failure(FailureCode::damaged,
				      fmt::format("{} is missing; restore point {} builds on it",
						  parent.native(), chain.back().id));
		Manifest manifest = read_record(parent, manifest_from);
		if (manifest.number >= chain.back().number || manifest.size != point.size)
			throw damaged(parent.native(), "no point can build on it");
		chain.push_back(std::move(manifest));
	}
	return chain;
}

File Repository::lock_for_writing() const
{
	if (!damage_.empty())
		throw Failure(FailureCode::damaged, damage_);
	File lock = lock_directory(directory_);
	remove_leftovers();
	return lock;
}

uint64_t Repository::next_number() const
{
	uint64_t last = 0;
	for (const fs::path &path : files_in(points_directory()))
		last = std::max(last, number_of(path.filename()));
	return last + 1;
}

std::string Repository::new_data_name(uint64_t number)
{
	return fmt::format("{}-{}.data", number, random_digits(8));
}

void Repository::commit(const Manifest &manifest) const
{
	const File lock = lock_points(LOCK_EX);
	write_sealed_json(manifest_path(manifest.id), to_json(manifest));
}

void Repository::remove_manifest(const std::string &id) const
{
	const File lock = lock_points(LOCK_EX);
	remove_file(manifest_path(id));
	flush_directory(points_directory());
}

std::vector<fs::path> Repository::leftovers() const
{
	std::vector<std::string> problems;
	std::set<std::string> named;
	for (const Manifest &manifest : points(problems))
		named.insert(manifest.data.file);
	std::vector<fs::path> leftovers;
	for (const fs::path &path : files_in(data_directory())) {
		/* A manifest that cannot be read may name any of them. */
		const bool unnamed = problems.empty() && !named.contains(path.filename());
		if (unnamed || is_temporary(path))
			leftovers.push_back(path);
	}
	for (const fs::path &directory : {points_directory(), directory_})
		for (const fs::path &path : files_in(directory))
			if (is_temporary(path))
				leftovers.push_back(path);
	std::error_code ignored;
	std::erase_if(leftovers, [&](const fs::path &path) { // as lost+found
		return fs::is_directory(path, ignored);
	});
	return leftovers;
}

void Repository::remove_leftovers() const
{
	for (const fs::path &path : leftovers())
		remove_file(path);
}

std::optional<Attempt> Repository::attempt() const
{
	if (!fs::exists(attempt_path()))
		return std::nullopt;
	return read_record(attempt_path(), [](const Json &json) {
		Attempt attempt{
			.snapshot = json.at("snapshot"),
			.point = text_or_null(json.at("point")),
			.before = driver_from(json.at("driver")),
			.switch_count = std::nullopt,
			.changes = runs_from(json.at("changes").get_ref<const std::string &>())};
		const Json &switch_count = json.at("switch_count");
		if (!switch_count.is_null())
			attempt.switch_count = switch_count.get<uint64_t>();
		return attempt;
	});
}

void Repository::write_attempt(const Attempt &attempt) const
{
	write_sealed_json(
		attempt_path(),
		{{"snapshot", attempt.snapshot},
		 {"point", or_null(attempt.point)},
		 {"driver", to_json(attempt.before)},
		 {"switch_count", attempt.switch_count ? Json(*attempt.switch_count) : Json()},
		 {"changes", text_of(attempt.changes)}});
}

void Repository::remove_attempt() const
{
	remove_file(attempt_path());
	flush_directory(directory_);
}

void Repository::reserve_room() const
{
	const std::vector<std::byte> room(reserved_bytes + fs::file_size(attempt_path()),
					  std::byte{1});
	const File file(directory_ / reserve_name, O_RDWR | O_CREAT | O_TRUNC);
	file.write(0, room);
	file.flush();
}

void Repository::release_room() const
{
	remove_file(directory_ / reserve_name);
	flush_directory(directory_);
}

fs::path Repository::identity_path() const
{
	return directory_ / identity_name;
}

fs::path Repository::manifest_path(const std::string &id) const
{
	return points_directory() / (id + std::string(manifest_suffix));
}

} // namespace zorvat::agent
