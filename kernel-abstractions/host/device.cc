// SPDX-License-Identifier: GPL-2.0
/* Devices, the set of all devices, and the events raised in it. */
#include "kernel-abstractions/device.h"

#include <list>
#include <mutex>

#include "internal.h"

struct kset {
	std::atomic<const ka_kset_uevent_ops *> ops;
	std::mutex list_lock;
	std::list<device *> members;
	std::atomic<int> references{1};
};

struct kobj_uevent_env {
	std::vector<std::string> variables;
};

namespace model
{
namespace
{

struct UeventOps {
	int (*filter)(kset *set, kobject *kobj);
	const char *(*name)(kset *set, kobject *kobj);
	ka_uevent_fn *uevent;
};

struct Devices {
	kset set;
	ka_kset_uevent_ops native;
	std::mutex lock;
	std::list<device> all;
	std::atomic<int> filter_calls{0}, name_calls{0}, uevent_calls{0};
	std::atomic<int> result{0};
	ka_class block{"block"};
	ka_class other{"other"};
};

Devices &state()
{
	static Devices instance;
	return instance;
}

int native_filter(kset *, kobject *)
{
	state().filter_calls++;
	return 1;
}

const char *native_name(kset *, kobject *kobj)
{
	state().name_calls++;
	return kobj->device->device_class ? kobj->device->device_class->name : nullptr;
}

int native_uevent(kset *, kobject *, kobj_uevent_env *env)
{
	state().uevent_calls++;
	env->variables.emplace_back("NATIVE=1");
	return state().result;
}

int raise(device *device, std::vector<std::string> variables)
{
	auto *owner = device;
	while (owner && !owner->set)
		owner = owner->parent;
	if (!owner)
		return -KA_EINVAL;
	kset *set = owner->set;
	auto *table = set->ops.load(std::memory_order_acquire);
	kobj_uevent_env env{std::move(variables)};
	if (table) {
		auto &ops = in<UeventOps>(table);
		if (ops.filter && !ops.filter(set, &device->kobj))
			return 0;
		if (ops.name)
			ops.name(set, &device->kobj);
	}
	CallIntoDriver call("a uevent");
	return ka_uevent_ops_call(table, set, &device->kobj, &env);
}

/* Holds the set's spinlock. */
class ListLock
{
public:
	explicit ListLock(kset &set) : guard_(set.list_lock)
	{
		current().atomic_depth++;
	}
	~ListLock()
	{
		current().atomic_depth--;
	}
	ListLock(const ListLock &) = delete;
	ListLock &operator=(const ListLock &) = delete;

private:
	std::lock_guard<std::mutex> guard_;
};

} // namespace

ka_class *block_class()
{
	return &state().block;
}

device *new_device(const std::string &name, ka_dev_t devt, ka_class *device_class, device *parent,
		   bool has_set)
{
	std::lock_guard guard(state().lock);
	auto &device = state().all.emplace_back();
	device.name = name;
	device.devt = devt;
	device.device_class = device_class;
	device.parent = parent;
	device.set = has_set ? &state().set : nullptr;
	return &device;
}

void device_add(device *device)
{
	if (device->set) {
		ListLock lock(*device->set);
		device->set->members.push_back(device);
	}
	device->added = true;
	raise_uevent(device, "add");
}

void device_del(device *device)
{
	raise_uevent(device, "remove");
	device->added = false;
	if (device->set) {
		ListLock lock(*device->set);
		device->set->members.remove(device);
	}
	ka_put_device(device);
}

int raise_uevent(device *device, const std::string &action)
{
	return raise(device, {"ACTION=" + action, "DEVPATH=/devices/" + device->name,
			      printed("MAJOR=%u", ka_major(device->devt)),
			      printed("MINOR=%u", ka_minor(device->devt))});
}

int raise_other(const std::vector<std::string> &variables)
{
	auto *other = new_device("other", ka_mkdev(1, 1), &state().other, nullptr, true);
	other->added = true;
	return raise(other, variables);
}

kset *devices()
{
	return &state().set;
}

const ka_kset_uevent_ops *native_uevent_ops()
{
	return &state().native;
}

UeventCalls uevent_calls()
{
	return {state().filter_calls, state().name_calls, state().uevent_calls};
}

void set_native_uevent_result(int result)
{
	state().result = result;
}

void set_uevent_ops(const ka_kset_uevent_ops *ops)
{
	state().set.ops = ops;
}

void reset_devices()
{
	auto &d = state();
	d.set.members.clear();
	d.set.references = 1;
	d.all.clear();
	d.filter_calls = d.name_calls = d.uevent_calls = d.result = 0;
	new (d.native.storage) UeventOps{native_filter, native_name, native_uevent};
	d.set.ops = &d.native;
}

void report_devices(Report &report)
{
	auto &d = state();
	std::lock_guard guard(d.lock);
	for (auto &device : d.all)
		if (int extra = device.references - (device.added ? 1 : 0))
			report.push_back(
				printed("device %s: %d references", device.name.c_str(), extra));
	if (d.set.references != 1)
		report.push_back("the set of all devices is referenced");
	if (in_module(d.set.ops))
		report.push_back("the set of all devices points at the module");
}

} // namespace model

using namespace model;

device *ka_kobject_device(kobject *kobj)
{
	return kobj->device;
}

device *ka_get_device(device *device)
{
	if (!device)
		return nullptr;
	if (device->references.fetch_add(1) <= 0)
		throw Bug("ka_get_device: the device is gone");
	return device;
}

void ka_put_device(device *device)
{
	if (device && device->references.fetch_sub(1) <= 0)
		violation("ka_put_device: the device is gone");
}

ka_dev_t ka_device_devt(device *device)
{
	return device->devt;
}

const char *ka_device_name(device *device)
{
	return device->name.c_str();
}

ka_class *ka_device_class(device *device)
{
	return device->device_class;
}

kset *ka_device_kset(device *device)
{
	return device->set;
}

device *ka_device_parent(device *device)
{
	return device->parent;
}

kset *ka_kset_get(kset *kset)
{
	if (kset)
		kset->references++;
	return kset;
}

void ka_kset_put(kset *kset)
{
	if (kset && --kset->references < 1)
		violation("ka_kset_put: not referenced");
}

void ka_kset_for_each(kset *kset, void (*function)(kobject *kobj))
{
	ListLock lock(*kset);
	for (device *device : kset->members)
		function(&device->kobj);
}

const ka_kset_uevent_ops *ka_kset_get_uevent_ops(kset *kset)
{
	return kset->ops.load(std::memory_order_acquire);
}

const ka_kset_uevent_ops *ka_kset_cmpxchg_uevent_ops(kset *kset, const ka_kset_uevent_ops *from,
						     const ka_kset_uevent_ops *to)
{
	injected("ka_kset_cmpxchg_uevent_ops", 0);
	kset->ops.compare_exchange_strong(from, to, std::memory_order_acq_rel);
	return from;
}

void ka_uevent_ops_copy_with_uevent(ka_kset_uevent_ops *to, const ka_kset_uevent_ops *from,
				    ka_uevent_fn *uevent)
{
	auto *ops = new (to->storage) UeventOps(from ? in<UeventOps>(from) : UeventOps{});
	ops->uevent = uevent;
}

int ka_uevent_ops_call(const ka_kset_uevent_ops *ops, kset *kset, kobject *kobj,
		       kobj_uevent_env *env)
{
	return ops && in<UeventOps>(ops).uevent ? in<UeventOps>(ops).uevent(kset, kobj, env) : 0;
}

int ka_uevent_variables(const kobj_uevent_env *env)
{
	return static_cast<int>(env->variables.size());
}

const char *ka_uevent_variable(const kobj_uevent_env *env, int index)
{
	return env->variables.at(index).c_str();
}
