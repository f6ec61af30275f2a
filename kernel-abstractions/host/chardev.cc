// SPDX-License-Identifier: GPL-2.0
/* Misc devices, the device-mapper's control device among them, and the open files on their nodes.
 */
#include "kernel-abstractions/chardev.h"

#include <list>
#include <mutex>
#include <stdexcept>

#include "internal.h"

struct cdev {
	std::atomic<const ka_file_operations *> ops;
};

struct inode {
	ka_dev_t rdev;
	struct cdev *cdev;
};

struct file {
	struct inode *inode;
	const ka_file_operations *ops;
};

namespace model
{
namespace
{

constexpr unsigned int misc_major = 10;
constexpr int first_dynamic_minor = 60;
constexpr int dm_minor = 236;

struct FileOps {
	ka_file_entries entries;
	ka_ioctl_fn *compat_ioctl;
};

ka_file_operations table(const FileOps &ops)
{
	ka_file_operations made;
	new (made.storage) FileOps(ops);
	return made;
}

struct Node {
	std::string path;
	const ka_file_operations *ops;
	struct inode inode;
};

struct Chardev {
	std::mutex lock;
	struct cdev misc;
	std::list<ka_file_operations> tables; /* of drivers that are gone, too */
	std::map<int, Node> nodes;            /* by minor */
	std::map<int, ka_miscdevice *> registered;
	std::list<file> open;
	std::function<long(unsigned int, unsigned long)> dm_answer;
	DmCalls dm_calls;
};

Chardev &state()
{
	static Chardev instance;
	return instance;
}

/* What the misc class does: the file gets the device's own table, whose open is called then. */
int misc_open(inode *node, file *filp)
{
	ka_file_fn *open;
	{
		std::lock_guard guard(state().lock);
		auto found = state().nodes.find(static_cast<int>(ka_minor(node->rdev)));
		if (found == state().nodes.end())
			return -KA_ENXIO;
		filp->ops = found->second.ops;
		open = in<FileOps>(filp->ops).entries.open;
	}
	return open ? open(node, filp) : 0;
}

const ka_file_operations misc_table = table({{misc_open, nullptr, nullptr}, nullptr});

int dm_open(inode *, file *)
{
	if (long error = injected("dm_open", -KA_EBUSY))
		return static_cast<int>(error);
	std::lock_guard guard(state().lock);
	state().dm_calls.opens++;
	return 0;
}

long dm_ioctl(file *, unsigned int cmd, unsigned long arg)
{
	std::function<long(unsigned int, unsigned long)> answer;
	{
		std::lock_guard guard(state().lock);
		state().dm_calls.ioctls++;
		answer = state().dm_answer;
	}
	return answer ? answer(cmd, arg) : 0;
}

long other_dm_ioctl(file *, unsigned int, unsigned long)
{
	return 0;
}

int dm_release(inode *, file *)
{
	std::lock_guard guard(state().lock);
	state().dm_calls.releases++;
	return 0;
}

void add_node(int minor, const std::string &path, const FileOps &ops)
{
	const auto *own = &state().tables.emplace_back(table(ops));
	state().nodes[minor] = {path, own, {ka_mkdev(misc_major, minor), &state().misc}};
}

Node *find(const std::string &path)
{
	for (auto &[minor, node] : state().nodes)
		if (path == node.path)
			return &node;
	return nullptr;
}

/* An open file, or an error pointer. */
file *open_path(const std::string &path)
{
	ka_file_fn *open;
	file *filp;
	{
		std::lock_guard guard(state().lock);
		Node *node = find(path);
		if (!node)
			return static_cast<file *>(ka_err_ptr(-KA_ENOENT));
		const ka_file_operations *ops = state().misc.ops;
		open = in<FileOps>(ops).entries.open;
		filp = &state().open.emplace_back(file{&node->inode, ops});
	}
	int error = open(filp->inode, filp);
	if (error == 0)
		return filp;
	std::lock_guard guard(state().lock);
	state().open.remove_if([&](auto &other) { return &other == filp; });
	return static_cast<file *>(ka_err_ptr(error));
}

void close(file *filp)
{
	if (ka_file_fn *release = in<FileOps>(filp->ops).entries.release)
		release(filp->inode, filp);
	std::lock_guard guard(state().lock);
	state().open.remove_if([&](auto &other) { return &other == filp; });
}

} // namespace

bool node_exists(const std::string &path)
{
	std::lock_guard guard(state().lock);
	return find(path);
}

OpenNode::OpenNode(const std::string &path)
{
	if (!node_exists(path))
		throw std::runtime_error(path + ": no such node");
	CallIntoDriver call("a node's open");
	file_ = open_path(path);
}

OpenNode::~OpenNode()
{
	if (ka_is_err(file_))
		return;
	CallIntoDriver call("a node's release");
	close(file_);
}

int OpenNode::error() const
{
	return ka_is_err(file_) ? static_cast<int>(ka_ptr_err(file_)) : 0;
}

bool OpenNode::is_hooked() const
{
	return in_module(file_->ops);
}

long OpenNode::ioctl(unsigned int cmd, unsigned long arg) const
{
	CallIntoDriver call("a node's ioctl");
	ka_ioctl_fn *ioctl = in<FileOps>(file_->ops).entries.unlocked_ioctl;
	return ioctl ? ioctl(file_, cmd, arg) : -KA_ENOIOCTLCMD;
}

long OpenNode::compat_ioctl(unsigned int cmd, unsigned long arg) const
{
	CallIntoDriver call("a node's ioctl");
	return in<FileOps>(file_->ops).compat_ioctl(file_, cmd, arg);
}

void set_dm_answer(std::function<long(unsigned int, unsigned long)> answer)
{
	std::lock_guard guard(state().lock);
	state().dm_answer = std::move(answer);
}

void replace_dm_driver()
{
	std::lock_guard guard(state().lock);
	add_node(dm_minor, "/dev/mapper/control", {{dm_open, other_dm_ioctl, dm_release}, nullptr});
}

DmCalls dm_calls()
{
	std::lock_guard guard(state().lock);
	return state().dm_calls;
}

const ka_file_operations *misc_operations()
{
	return state().misc.ops;
}

void set_misc_operations(const ka_file_operations *ops)
{
	state().misc.ops = ops ? ops : &misc_table;
}

int forget_open_files()
{
	std::lock_guard guard(state().lock);
	int count = static_cast<int>(state().open.size());
	state().open.clear();
	return count;
}

void reset_chardev()
{
	auto &s = state();
	s.misc.ops = &misc_table;
	s.nodes.clear();
	s.registered.clear();
	s.open.clear();
	s.tables.clear();
	s.dm_answer = nullptr;
	s.dm_calls = {};
	add_node(dm_minor, "/dev/mapper/control", {{dm_open, dm_ioctl, dm_release}, nullptr});
}

void report_chardev(Report &report)
{
	std::lock_guard guard(state().lock);
	for (auto &[minor, misc] : state().registered)
		report.push_back(std::string("misc device ") + misc->name);
	if (!state().open.empty())
		report.push_back("open nodes");
	if (in_module(state().misc.ops))
		report.push_back("the misc devices' operations are the driver's");
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
		while (state().nodes.contains(misc->minor))
			misc->minor--;
	}
	if (state().nodes.contains(misc->minor))
		return -KA_EBUSY;
	state().registered[misc->minor] = misc;
	add_node(misc->minor, std::string("/dev/") + misc->nodename,
		 {{nullptr, misc->unlocked_ioctl, nullptr}, misc->compat_ioctl});
	return 0;
}

void ka_misc_deregister(ka_miscdevice *misc)
{
	std::lock_guard guard(state().lock);
	auto found = state().registered.find(misc->minor);
	if (found == state().registered.end() || found->second != misc)
		return violation("ka_misc_deregister: not registered");
	state().nodes.erase(found->first);
	state().registered.erase(found);
}

file *ka_filp_open(const char *path)
{
	might_sleep("ka_filp_open");
	if (long error = injected("ka_filp_open", -KA_ENOENT))
		return static_cast<file *>(ka_err_ptr(error));
	return open_path(path);
}

void ka_filp_close(file *filp)
{
	might_sleep("ka_filp_close");
	close(filp);
}

inode *ka_file_inode(file *filp)
{
	return filp->inode;
}

ka_dev_t ka_inode_rdev(inode *node)
{
	return node->rdev;
}

cdev *ka_inode_cdev(inode *node)
{
	return node->cdev;
}

ka_file_entries ka_file_ops_entries(const ka_file_operations *ops)
{
	return in<FileOps>(ops).entries;
}

void ka_file_ops_copy(ka_file_operations *to, const ka_file_operations *from,
		      const ka_file_entries *replaced)
{
	*to = *from;
	ka_file_entries &entries = in<FileOps>(to).entries;
	if (replaced->open)
		entries.open = replaced->open;
	if (replaced->unlocked_ioctl)
		entries.unlocked_ioctl = replaced->unlocked_ioctl;
	if (replaced->release)
		entries.release = replaced->release;
}

const ka_file_operations *ka_cdev_ops(cdev *device)
{
	return device->ops;
}

void ka_cdev_set_ops(cdev *device, const ka_file_operations *ops)
{
	device->ops = ops;
}

const ka_file_operations *ka_file_ops(file *filp)
{
	return filp->ops;
}

void ka_file_set_ops(file *filp, const ka_file_operations *ops)
{
	filp->ops = ops;
}
