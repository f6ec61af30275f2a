// SPDX-License-Identifier: GPL-2.0
/* Boot, injected failures, the list of what is left over, the module's image, small things. */
#include "model.h"

#include <atomic>
#include <dlfcn.h>
#include <link.h>

#include <cstdarg>
#include <cstring>
#include <mutex>
#include <random>

#include "internal.h"
#include "kernel-abstractions/log.h"
#include "kernel-abstractions/module.h"

namespace model
{

std::atomic<int> armed;

namespace
{

struct Interposition {
	std::string call;
	int nth, times;
	long error;
	std::function<void()> action; /* none: a failure */
};

struct Machine {
	std::mutex lock;
	std::vector<Interposition> interpositions;
	std::vector<std::string> violations;
	std::vector<std::string> log;
	int layer_users = 0;
	std::atomic<int> module_references = 0;
};

Machine &machine()
{
	static Machine instance;
	return instance;
}

void interpose(Interposition what)
{
	std::lock_guard guard(machine().lock);
	machine().interpositions.push_back(std::move(what));
	armed++;
}

/*
 * The writable data of the shared library that holds an address, as it was when first seen. Plain
 * volatile words: the sanitizers' red zones between the variables are copied along.
 */
class Image
{
public:
	explicit Image(const void *address)
	{
		Dl_info info;
		if (!dladdr(address, &info))
			throw Bug("boot: the address is in no module");
		base_ = static_cast<char *>(info.dli_fbase);
		dl_iterate_phdr(
			[](dl_phdr_info *object, size_t, void *self) {
				static_cast<Image *>(self)->find_data(*object);
				return 0;
			},
			this);
		content_.resize((end_ - begin_) / sizeof(uint64_t));
		copy(data(), content_.data());
	}

	void restore() const
	{
		copy(content_.data(), data());
	}

	bool contains(const void *address) const
	{
		Dl_info info;
		return dladdr(address, &info) && info.dli_fbase == base_;
	}

private:
	volatile uint64_t *data() const
	{
		return reinterpret_cast<volatile uint64_t *>(base_ + begin_);
	}

	void find_data(const dl_phdr_info &object)
	{
		if (object.dlpi_addr != reinterpret_cast<uintptr_t>(base_))
			return;
		size_t read_only_until = 0;
		for (int i = 0; i < object.dlpi_phnum; i++) {
			const auto &part = object.dlpi_phdr[i];
			size_t end = part.p_vaddr + part.p_memsz;
			if (part.p_type == PT_LOAD && (part.p_flags & PF_W)) {
				begin_ = part.p_vaddr;
				end_ = end & ~size_t{7};
			} else if (part.p_type == PT_GNU_RELRO) {
				read_only_until = end & ~size_t{4095};
			}
		}
		begin_ = (std::max(begin_, read_only_until) + 7) & ~size_t{7};
	}

	__attribute__((no_sanitize("address", "thread", "undefined"))) void
	copy(const volatile uint64_t *from, volatile uint64_t *to) const
	{
		for (size_t i = 0; i < content_.size(); i++)
			to[i] = from[i];
	}

	char *base_ = nullptr;
	size_t begin_ = 0, end_ = 0; /* of what is writable, from there */
	std::vector<uint64_t> content_;
};

std::unique_ptr<Image> module_image;

} // namespace

Bug::Bug(std::string text) : text_(std::move(text))
{
}

const char *Bug::what() const noexcept
{
	return text_.c_str();
}

void boot(const void *module)
{
	reset_sockets(); /* so that whoever waits for a peer can end */
	reset_work();
	reset_threads();
	close_sockets();
	reset_netlink();
	reset_chardev();
	reset_devices();
	reset_block();
	reset_kfifos();
	reset_mm();
	reset_kobjects();
	reset_memory();
	reset_sync();
	machine().interpositions.clear();
	machine().violations.clear();
	machine().log.clear();
	machine().layer_users = 0;
	machine().module_references = 0;
	armed = 0;
	if (module_image)
		reload();
	else if (module)
		module_image = std::make_unique<Image>(module);
}

void reload()
{
	module_image->restore();
}

std::vector<std::string> leaks()
{
	Report report;
	report_work(report);
	report_threads(report);
	report_sockets(report);
	report_kfifos(report);
	report_mm(report);
	report_netlink(report);
	report_chardev(report);
	report_devices(report);
	report_block(report);
	report_kobjects(report);
	report_memory(report);
	if (!current().held.empty() || current().atomic_depth > 0)
		report.push_back("locks held or atomic context");
	std::lock_guard guard(machine().lock);
	report.insert(report.end(), machine().violations.begin(), machine().violations.end());
	if (machine().module_references != 0)
		report.push_back(
			printed("module: %d references", machine().module_references.load()));
	if (machine().layer_users != 0)
		report.push_back("ka_init without ka_exit");
	for (auto &unused : machine().interpositions)
		report.push_back("never called: " + unused.call);
	return report;
}

bool in_module(const void *address)
{
	return address && module_image && module_image->contains(address);
}

void violation(const std::string &text)
{
	std::lock_guard guard(machine().lock);
	machine().violations.push_back(text);
}

void fail(const std::string &call, int nth, long error, int times)
{
	interpose({call, nth, times, error, nullptr});
}

void before(const std::string &call, std::function<void()> action, int nth)
{
	interpose({call, nth, 1, 0, std::move(action)});
}

long injected_slow(const char *call, long usual)
{
	std::vector<std::function<void()>> actions;
	long result = 0;
	{
		std::lock_guard guard(machine().lock);
		auto due = [&](Interposition &i) {
			if (i.call != call || --i.nth > 0)
				return false;
			if (i.action)
				actions.push_back(i.action);
			else
				result = i.error ? i.error : usual;
			return --i.times <= 0;
		};
		armed -= static_cast<int>(std::erase_if(machine().interpositions, due));
	}
	for (auto &action : actions)
		action();
	return result;
}

std::string printed(const char *format, ...)
{
	char text[1024];
	va_list arguments;
	va_start(arguments, format);
	vsnprintf(text, sizeof(text), format, arguments);
	va_end(arguments);
	return text;
}

std::string dev_name(ka_dev_t dev)
{
	return printed("%u:%u", ka_major(dev), ka_minor(dev));
}

std::vector<std::string> log()
{
	std::lock_guard guard(machine().lock);
	return machine().log;
}

int logged(const std::string &text)
{
	int count = 0;
	for (auto &line : log())
		count += line.find(text) != std::string::npos;
	return count;
}

void clear_log()
{
	std::lock_guard guard(machine().lock);
	machine().log.clear();
}

Unprivileged::Unprivileged() : before_(current().admin)
{
	current().admin = false;
}

Unprivileged::~Unprivileged()
{
	current().admin = before_;
}

} // namespace model

using namespace model;

void ka_printk(int level, const char *format, ...)
{
	char text[1024];
	va_list arguments;
	va_start(arguments, format);
	vsnprintf(text, sizeof(text), format, arguments);
	va_end(arguments);
	std::lock_guard guard(machine().lock);
	machine().log.push_back(printed("<%d>%s", level, text));
}

int ka_snprintf(char *buffer, size_t size, const char *format, ...)
{
	va_list arguments;
	va_start(arguments, format);
	int length = vsnprintf(buffer, size, format, arguments);
	va_end(arguments);
	return length;
}

void ka_bug(const char *file, int line)
{
	throw Bug(printed("BUG at %s:%d", file, line));
}

int ka_init(void)
{
	if (long error = injected("ka_init", -KA_ENOENT))
		return static_cast<int>(error);
	machine().layer_users++;
	return 0;
}

void ka_exit(void)
{
	machine().layer_users--;
}

int ka_module_get(void)
{
	if (injected("ka_module_get", -KA_ENXIO))
		return 0;
	machine().module_references++;
	return 1;
}

void ka_module_hold(void)
{
	machine().module_references++;
}

void ka_module_put(void)
{
	machine().module_references--;
}

void ka_generate_random_uuid(unsigned char uuid[16])
{
	static std::mutex lock;
	static std::mt19937_64 random;
	std::lock_guard guard(lock);
	uint64_t words[2] = {random(), random()};
	memcpy(uuid, words, sizeof(words));
	uuid[6] = (uuid[6] & 0x0f) | 0x40;
	uuid[8] = (uuid[8] & 0x3f) | 0x80;
}
