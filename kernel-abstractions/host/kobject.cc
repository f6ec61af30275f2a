// SPDX-License-Identifier: GPL-2.0
/*
 * Kernel objects and sysfs. The reference count is in the object's storage, where a reader's path
 * needs nothing else; the directory tree is kept here.
 */
#include "kernel-abstractions/kobject.h"

#include <condition_variable>
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

/* One of both. */
struct File {
	ka_attribute *text = nullptr;
	ka_bin_attribute *binary = nullptr;
};

struct Directory {
	std::string name;
	ka_kobject *parent = nullptr;
	bool visible = false;
	int users = 0; /* calls of show and store in progress */
	std::map<std::string, File> files = {};
};

struct Sysfs {
	std::mutex lock;
	std::condition_variable user_left;
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
	File file = {};

	explicit operator bool() const
	{
		return directory || file.text || file.binary;
	}
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
		found = {.kobj = found.kobj, .file = file == files.end() ? File{} : file->second};
	}
	return found;
}

/* The objects whose text files this thread is using. */
thread_local std::vector<const ka_kobject *> in_use;

/* Takes the directory out of the tree and waits for its users; the parent to give back. */
ka_kobject *hide(ka_kobject *kobj, std::unique_lock<std::mutex> &lock)
{
	auto object = state().objects.find(kobj);
	if (object == state().objects.end() || !object->second.visible)
		return nullptr;
	auto &directory = object->second;
	if (std::ranges::find(in_use, kobj) != in_use.end()) {
		violation("a directory is removed by a user of its files, who waits for itself");
		return nullptr;
	}
	directory.visible = false;
	state().user_left.wait(lock, [&] { return directory.users == 0; });
	directory.files.clear();
	return std::exchange(directory.parent, nullptr);
}

void release(ka_kobject *kobj)
{
	if (current().atomic_depth > 0)
		violation("ka_kobject_put: the last reference goes in atomic context");
	ka_kobject *parent = nullptr;
	{
		std::unique_lock lock(state().lock);
		parent = hide(kobj, lock);
		state().objects.erase(kobj);
	}
	auto &k = in<Kobject>(kobj);
	k.magic = 0;
	k.type->release(kobj);
	if (parent)
		ka_kobject_put(parent);
}

void add_default_files(ka_kobject *kobj, Directory &directory)
{
	ka_attribute *const *attributes = in<Kobject>(kobj).type->default_attrs;
	for (; attributes && *attributes; attributes++)
		directory.files[(*attributes)->name].text = *attributes;
}

} // namespace

bool sysfs_exists(const std::string &path)
{
	std::lock_guard guard(state().lock);
	return static_cast<bool>(find(path));
}

int sysfs_mode(const std::string &path)
{
	std::lock_guard guard(state().lock);
	Found found = find(path);
	if (found.file.text)
		return found.file.text->mode;
	return found.file.binary ? found.file.binary->mode : -KA_ENOENT;
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

namespace
{

/* One use of a text file: its directory stays while it lives. */
class TextFile
{
public:
	TextFile(const std::string &path, int permission)
	{
		std::lock_guard guard(state().lock);
		found_ = find(path);
		if (!found_.file.text)
			error_ = -KA_ENOENT;
		else if (!(found_.file.text->mode & permission))
			error_ = -KA_EACCES;
		if (error_)
			return;
		state().objects[found_.kobj].users++;
		in_use.push_back(found_.kobj);
	}
	~TextFile()
	{
		if (error_)
			return;
		std::lock_guard guard(state().lock);
		in_use.pop_back();
		state().objects[found_.kobj].users--;
		state().user_left.notify_all();
	}
	TextFile(const TextFile &) = delete;
	TextFile &operator=(const TextFile &) = delete;

	long error() const
	{
		return error_;
	}
	long show(char *page) const
	{
		CallIntoDriver call("a sysfs show");
		return ops().show(found_.kobj, found_.file.text, page);
	}
	long store(const char *page, size_t length) const
	{
		CallIntoDriver call("a sysfs store");
		return ops().store(found_.kobj, found_.file.text, page, length);
	}

private:
	const ka_sysfs_ops &ops() const
	{
		return *in<Kobject>(found_.kobj).type->sysfs_ops;
	}

	Found found_;
	long error_ = 0;
};

} // namespace

SysfsText sysfs_show(const std::string &path)
{
	TextFile file(path, 0444);
	if (file.error())
		return {file.error(), ""};
	std::vector<char> page(KA_SYSFS_PAGE);
	const long result = file.show(page.data());
	return {result, std::string(page.data(), std::clamp(result, 0l, KA_SYSFS_PAGE - 1l))};
}

long sysfs_store(const std::string &path, const std::string &text)
{
	TextFile file(path, 0222);
	if (file.error())
		return file.error();
	std::vector<char> page(text.begin(), text.end());
	page.push_back('\0');
	return file.store(page.data(), text.size());
}

long sysfs_read(const std::string &path, std::span<char> buffer, long long offset)
{
	Found found;
	{
		std::lock_guard guard(state().lock);
		found = find(path);
		if (!found.file.binary || !ka_kobject_get(found.kobj))
			return -KA_ENOENT;
	}
	CallIntoDriver call("a sysfs read");
	ka_bin_attribute *file = found.file.binary;
	long result = file->read(nullptr, found.kobj, file, buffer.data(), offset,
				 std::min<size_t>(buffer.size(), KA_SYSFS_PAGE));
	ka_kobject_put(found.kobj);
	return result;
}

void expect_leaked_object(const std::string &name)
{
	std::lock_guard guard(state().lock);
	state().expected_leaks.push_back(name);
}

void forget_objects_in(const void *memory, size_t size)
{
	auto begin = static_cast<const char *>(memory);
	std::lock_guard guard(state().lock);
	std::erase_if(state().objects, [&](auto &object) {
		auto at = reinterpret_cast<const char *>(object.first);
		if (at < begin || at >= begin + size)
			return false;
		if (!object.second.name.empty())
			violation("memory of an object is released before the object");
		return true;
	});
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
	/* One whose memory was cleared was abandoned, and begins anew. */
	auto known = state().objects.find(kobj);
	if (known != state().objects.end() &&
	    (known->second.visible || in<Kobject>(kobj).magic == alive))
		throw Bug("ka_kobject_init: the object is in use");
	state().objects[kobj] = {};
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
			directory = {.name = name, .parent = parent, .visible = true};
			add_default_files(kobj, directory);
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
		std::unique_lock lock(state().lock);
		parent = hide(kobj, lock);
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

unsigned int ka_kobject_references(const ka_kobject *kobj)
{
	return in<Kobject>(kobj).references.load(std::memory_order_relaxed);
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
	return directory.files.try_emplace(attribute->name, File{.binary = attribute}).second
		       ? 0
		       : -KA_EEXIST;
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
