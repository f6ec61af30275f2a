// SPDX-License-Identifier: GPL-2.0
/*
 * Kernel objects and sysfs. The reference count is in the object's storage, where a reader's path
 * needs nothing else; the directory tree is kept here.
 */
#include "kernel-abstractions/kobject.h"

#include <map>
#include <mutex>
#include <sstream>

#include "internal.h"

namespace model
{
namespace
{

constexpr uint32_t alive = 0x6b6f626a;

struct Kobject {
	std::atomic<int32_t> references{1};
	uint32_t magic = alive;
	ka_kobj_type *type;
};

struct Directory {
	std::string name;
	ka_kobject *parent = nullptr;
	bool visible = false;
	std::map<std::string, ka_bin_attribute *> files;
};

struct Sysfs {
	std::mutex lock;
	std::map<ka_kobject *, Directory> objects;
	std::vector<std::string> expected_leaks;
};

Sysfs &state()
{
	static Sysfs instance;
	return instance;
}

ka_kobject *child(ka_kobject *parent, const std::string &name)
{
	for (auto &[kobj, directory] : state().objects)
		if (directory.visible && directory.parent == parent && directory.name == name)
			return kobj;
	return nullptr;
}

struct Found {
	bool directory = false;
	ka_kobject *kobj = nullptr; /* null: /sys itself */
	ka_bin_attribute *file = nullptr;
};

/* Walks a path that begins with /sys. The caller has the lock. */
Found find(const std::string &path)
{
	std::istringstream parts(path);
	std::string part;
	std::getline(parts, part, '/');
	std::getline(parts, part, '/');
	Found found{.directory = part == "sys"};
	while (found.directory && std::getline(parts, part, '/')) {
		if (ka_kobject *next = child(found.kobj, part)) {
			found.kobj = next;
			continue;
		}
		if (!found.kobj)
			return {};
		auto &files = state().objects[found.kobj].files;
		auto file = files.find(part);
		found = {.kobj = found.kobj, .file = file == files.end() ? nullptr : file->second};
	}
	return found;
}

/* Takes the directory out of the tree; the parent to give back. The caller has the lock. */
ka_kobject *hide(ka_kobject *kobj)
{
	auto &directory = state().objects[kobj];
	if (!directory.visible)
		return nullptr;
	directory.visible = false;
	directory.files.clear();
	return std::exchange(directory.parent, nullptr);
}

void release(ka_kobject *kobj)
{
	if (current().atomic_depth > 0)
		violation("ka_kobject_put: the last reference goes in atomic context");
	ka_kobject *parent = nullptr;
	{
		std::lock_guard guard(state().lock);
		parent = hide(kobj);
		state().objects.erase(kobj);
	}
	auto &k = in<Kobject>(kobj);
	k.magic = 0;
	k.type->release(kobj);
	if (parent)
		ka_kobject_put(parent);
}

} // namespace

bool sysfs_exists(const std::string &path)
{
	std::lock_guard guard(state().lock);
	Found found = find(path);
	return found.directory || found.file;
}

std::vector<std::string> sysfs_list(const std::string &path)
{
	std::lock_guard guard(state().lock);
	std::vector<std::string> names;
	Found found = find(path);
	if (!found.directory)
		return names;
	for (auto &[kobj, directory] : state().objects)
		if (directory.visible && directory.parent == found.kobj)
			names.push_back(directory.name);
	if (found.kobj)
		for (auto &[name, file] : state().objects[found.kobj].files)
			names.push_back(name);
	std::ranges::sort(names);
	return names;
}

long sysfs_read(const std::string &path, std::span<char> buffer, long long offset)
{
	Found found;
	{
		std::lock_guard guard(state().lock);
		found = find(path);
		if (!found.file || !ka_kobject_get(found.kobj))
			return -KA_ENOENT;
	}
	CallIntoDriver call("a sysfs read");
	long result = found.file->read(nullptr, found.kobj, found.file, buffer.data(), offset,
				       std::min<size_t>(buffer.size(), 4096));
	ka_kobject_put(found.kobj);
	return result;
}

void expect_leaked_object(const std::string &name)
{
	std::lock_guard guard(state().lock);
	state().expected_leaks.push_back(name);
}

void reset_kobjects()
{
	state().objects.clear();
	state().expected_leaks.clear();
}

void report_kobjects(Report &report)
{
	std::lock_guard guard(state().lock);
	for (auto &[kobj, directory] : state().objects) {
		auto &expected = state().expected_leaks;
		auto announced = std::ranges::find(expected, directory.name);
		if (announced != expected.end() && !directory.visible) {
			forgive_memory_around(kobj);
			expected.erase(announced);
			continue;
		}
		report.push_back(printed("kobject %s%s, %d references", directory.name.c_str(),
					 directory.visible ? " in sysfs" : "",
					 in<Kobject>(kobj).references.load()));
	}
	for (auto &name : state().expected_leaks)
		report.push_back("expected to leak, but gone: " + name);
}

} // namespace model

using namespace model;

void ka_kobject_init(ka_kobject *kobj, ka_kobj_type *type)
{
	std::lock_guard guard(state().lock);
	if (!state().objects.try_emplace(kobj).second)
		throw Bug("ka_kobject_init: the object is in use");
	new (kobj->storage) Kobject{.type = type};
}

int ka_kobject_add(ka_kobject *kobj, ka_kobject *parent, const char *name)
{
	might_sleep("ka_kobject_add");
	if (long error = injected("ka_kobject_add", -KA_ENOMEM))
		return static_cast<int>(error);
	make_room();
	if (parent && !ka_kobject_get(parent))
		return -KA_EINVAL;
	{
		std::lock_guard guard(state().lock);
		auto &directory = state().objects[kobj];
		if (directory.visible)
			throw Bug("ka_kobject_add: the object is in sysfs");
		if (!child(parent, name)) {
			directory = {name, parent, true, {}};
			return 0;
		}
	}
	if (parent)
		ka_kobject_put(parent);
	return -KA_EEXIST;
}

void ka_kobject_del(ka_kobject *kobj)
{
	might_sleep("ka_kobject_del");
	injected("ka_kobject_del", 0);
	ka_kobject *parent = nullptr;
	{
		std::lock_guard guard(state().lock);
		parent = hide(kobj);
	}
	if (parent)
		ka_kobject_put(parent);
}

ka_kobject *ka_kobject_get(ka_kobject *kobj)
{
	if (injected("ka_kobject_get", -KA_EAGAIN))
		return nullptr;
	auto &k = in<Kobject>(kobj);
	if (k.magic != alive)
		return nullptr;
	int32_t references = k.references.load(std::memory_order_relaxed);
	while (references > 0)
		if (k.references.compare_exchange_weak(references, references + 1,
						       std::memory_order_relaxed))
			return kobj;
	return nullptr;
}

void ka_kobject_put(ka_kobject *kobj)
{
	if (!kobj)
		return;
	auto &k = in<Kobject>(kobj);
	if (k.magic != alive)
		return violation("ka_kobject_put: no such object");
	if (k.references.fetch_sub(1, std::memory_order_acq_rel) == 1)
		release(kobj);
}

int ka_sysfs_create_bin_file(ka_kobject *kobj, ka_bin_attribute *attribute)
{
	might_sleep("ka_sysfs_create_bin_file");
	if (long error = injected("ka_sysfs_create_bin_file", -KA_ENOMEM))
		return static_cast<int>(error);
	std::lock_guard guard(state().lock);
	auto &directory = state().objects[kobj];
	if (!directory.visible) {
		violation("ka_sysfs_create_bin_file: no directory");
		return -KA_EINVAL;
	}
	return directory.files.emplace(attribute->name, attribute).second ? 0 : -KA_EEXIST;
}

void ka_sysfs_remove_bin_file(ka_kobject *kobj, ka_bin_attribute *attribute)
{
	might_sleep("ka_sysfs_remove_bin_file");
	std::lock_guard guard(state().lock);
	auto &directory = state().objects[kobj];
	if (!directory.visible)
		return violation("ka_sysfs_remove_bin_file: no directory");
	directory.files.erase(attribute->name);
}
