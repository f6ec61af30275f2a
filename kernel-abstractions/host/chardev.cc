// SPDX-License-Identifier: GPL-2.0
/* Misc devices and the open files on their nodes. */
#include "kernel-abstractions/chardev.h"

#include <list>
#include <mutex>
#include <stdexcept>

#include "internal.h"

struct file {
	ka_ioctl_fn *unlocked_ioctl, *compat_ioctl;
};

namespace model
{
namespace
{

constexpr int first_dynamic_minor = 60;

struct Chardev {
	std::mutex lock;
	std::map<int, ka_miscdevice *> registered;
	std::list<file> open;
};

Chardev &state()
{
	static Chardev instance;
	return instance;
}

ka_miscdevice *find(const std::string &path)
{
	for (auto &[minor, misc] : state().registered)
		if (path == std::string("/dev/") + misc->nodename)
			return misc;
	return nullptr;
}

} // namespace

bool node_exists(const std::string &path)
{
	std::lock_guard guard(state().lock);
	return find(path);
}

OpenNode::OpenNode(const std::string &path)
{
	std::lock_guard guard(state().lock);
	ka_miscdevice *misc = find(path);
	if (!misc)
		throw std::runtime_error(path + ": no such node");
	file_ = &state().open.emplace_back(file{misc->unlocked_ioctl, misc->compat_ioctl});
}

OpenNode::~OpenNode()
{
	std::lock_guard guard(state().lock);
	state().open.remove_if([&](auto &other) { return &other == file_; });
}

long OpenNode::ioctl(unsigned int cmd, unsigned long arg) const
{
	CallIntoDriver call("a node's ioctl");
	return file_->unlocked_ioctl(file_, cmd, arg);
}

long OpenNode::compat_ioctl(unsigned int cmd, unsigned long arg) const
{
	CallIntoDriver call("a node's ioctl");
	return file_->compat_ioctl(file_, cmd, arg);
}

void reset_chardev()
{
	state().registered.clear();
	state().open.clear();
}

void report_chardev(Report &report)
{
	std::lock_guard guard(state().lock);
	for (auto &[minor, misc] : state().registered)
		report.push_back(std::string("misc device ") + misc->name);
	if (!state().open.empty())
		report.push_back("open nodes");
}

} // namespace model

using namespace model;

int ka_misc_register(ka_miscdevice *misc)
{
	might_sleep("ka_misc_register");
	if (long error = injected("ka_misc_register", -KA_EBUSY)) {
		misc->minor = first_dynamic_minor;
		return static_cast<int>(error);
	}
	std::lock_guard guard(state().lock);
	if (misc->minor == KA_MISC_DYNAMIC_MINOR) {
		misc->minor = first_dynamic_minor;
		while (state().registered.contains(misc->minor))
			misc->minor--;
	}
	return state().registered.emplace(misc->minor, misc).second ? 0 : -KA_EBUSY;
}

void ka_misc_deregister(ka_miscdevice *misc)
{
	std::lock_guard guard(state().lock);
	auto found = state().registered.find(misc->minor);
	if (found == state().registered.end() || found->second != misc)
		return violation("ka_misc_deregister: not registered");
	state().registered.erase(found);
}
