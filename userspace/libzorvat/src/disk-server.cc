// SPDX-License-Identifier: GPL-2.0
/* A restore disk's server: what it owns, its thread, and the order in which both end. */
#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <condition_variable>
#include <fcntl.h>
#include <fmt/format.h>
#include <mutex>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>
#include <zorvat/disk-server.h>
#include <zorvat/system-read.h>

#include "command-thread.h"
#include "data-link.h"
#include "listeners.h"
#include "service-area.h"

namespace zorvat
{

namespace
{

/* How often to look whether a disk that nothing is connected to still exists. */
constexpr int look_every_ms = 250;

size_t checked_block_size(size_t bytes)
{
	if (!is_usable_block_size(bytes))
		throw std::invalid_argument("the block size is not usable");
	return bytes;
}

uint64_t blocks_of(const BlockSource &source, size_t block_size)
{
	if (source.size() == 0)
		throw Error(Errc::bad_image, "cannot serve an empty image");
	return (source.size() - 1) / block_size + 1;
}

/* A disk that is destroyed when its owner goes, unless somebody else did so. */
class OwnedDisk
{
public:
	OwnedDisk(const RestoreDisks &disks, CommandThread &commands, const DiskRequest &request)
	    : disks_(disks), commands_(commands)
	{
		commands_.run([&] { attributes_ = allocate(request); });
	}
	~OwnedDisk()
	{
		try {
			destroy();
		} catch (
			...) { // NOLINT(bugprone-empty-catch): destroy() is there for those who ask
		}
	}
	OwnedDisk(const OwnedDisk &) = delete;
	OwnedDisk &operator=(const OwnedDisk &) = delete;

	const DiskAttributes &attributes() const
	{
		return attributes_;
	}

	/* Somebody else has destroyed it. */
	void release()
	{
		destroyed_ = true;
	}

	void destroy()
	{
		if (std::exchange(destroyed_, true))
			return;
		commands_.run([this] { disks_.destroy_if_there(attributes_); });
	}

private:
	DiskAttributes allocate(const DiskRequest &request) const
	{
		const DiskHandle disk = disks_.allocate(request);
		try {
			return disks_.attributes(disk);
		} catch (...) {
			disks_.destroy(disk);
			throw;
		}
	}

	const RestoreDisks &disks_;
	CommandThread &commands_;
	DiskAttributes attributes_;
	bool destroyed_ = false;
};

} // namespace

bool is_usable_block_size(size_t bytes)
{
	return std::has_single_bit(bytes) && bytes >= 512 &&
	       bytes <= static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

/*
 * Members are in the order in which they come to be. The command thread must not see what is opened
 * after it. The area outlives the disk, which shows pages in it.
 */
class DiskServer::Implementation
{
public:
	Implementation(std::shared_ptr<const Transport> transport,
		       std::unique_ptr<BlockSource> source, const DiskServerOptions &options)
	    : block_size_(checked_block_size(options.block_size)), source_(std::move(source)),
	      disks_(std::move(transport), options.paths), area_(options.area_bytes),
	      disk_(disks_, commands_,
		    {.block_size = block_size_,
		     .blocks = blocks_of(*source_, block_size_),
		     .service_area = area_.memory()}),
	      served_{disk_.attributes().handle, block_size_, blocks_of(*source_, block_size_),
		      area_.memory()},
	      paths_(options.paths),
	      directory_(paths_.sys / "zorvat" / "restore-volumes" / disk_.attributes().name),
	      has_directory_(is_there()), teller_(disk_.attributes().name, listener_.port()),
	      zeros_(open("/dev/zero", O_RDONLY | O_CLOEXEC)),
	      quit_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
	{
		if (!zeros_ || !quit_)
			throw Error(
				Errc::system,
				fmt::format("cannot serve a restore disk: {}", error_text(errno)),
				{}, errno);
		thread_ = std::thread([this] { serve(); });
	}

	/* The disk goes first: the driver may wait for answers until it is gone. */
	~Implementation()
	{
		try {
			stop();
		} catch (...) { // NOLINT(bugprone-empty-catch): stop() is there for those who ask
		}
	}

	void resume()
	{
		commands_.run([this] { disks_.resume(served_.handle, listener_.port()); });
	}

	void suspend()
	{
		commands_.run([this] { disks_.suspend(served_.handle); });
	}

	void wait()
	{
		std::unique_lock lock(lock_);
		changed_.wait(lock, [this] { return ended_; });
	}

	void request_stop() noexcept
	{
		source_->cancel();
		end_waiting();
	}

	void stop()
	{
		std::lock_guard one(stopping_);
		if (!thread_.joinable())
			return;
		request_stop();
		std::exception_ptr failure;
		try {
			/* Once it is gone, there is nobody to ask: so may be what knew of it. */
			if (!is_gone())
				disk_.destroy();
			disk_.release();
		} catch (...) {
			failure = std::current_exception();
		}
		eventfd_write(quit_.get(), 1);
		thread_.join();
		if (failure)
			std::rethrow_exception(failure);
	}

	const DiskAttributes &disk() const
	{
		return disk_.attributes();
	}
	std::filesystem::path node() const
	{
		return paths_.dev / disk().name;
	}
	bool wait_for_node(std::chrono::milliseconds patience)
	{
		const auto end = std::chrono::steady_clock::now() + patience;
		std::error_code ignored;
		std::unique_lock lock(lock_);
		while (!ended_ && !std::filesystem::exists(node(), ignored)) {
			if (std::chrono::steady_clock::now() >= end)
				return false;
			changed_.wait_for(lock, std::chrono::milliseconds(10));
		}
		return true;
	}
	uint16_t port() const
	{
		return listener_.port();
	}
	DiskServerStatistics statistics() const
	{
		return {requests_, errors_, bytes_, last_error_};
	}

private:
	bool is_there() const
	{
		std::error_code ignored;
		return std::filesystem::exists(directory_, ignored);
	}
	/* False, too, where sysfs does not show disks. */
	bool is_gone() const
	{
		return has_directory_ && !is_there();
	}

	void end_waiting() noexcept
	{
		std::lock_guard lock(lock_);
		ended_ = true;
		changed_.notify_all();
	}

	/*
	 * Until told to quit. It must not ask the driver for anything: a command that waits for
	 * this thread would let it wait.
	 */
	void serve() noexcept
	{
		for (;;) {
			pollfd ready[] = {{quit_.get(), POLLIN, 0},
					  {listener_.descriptor(), POLLIN, 0},
					  {teller_.descriptor(), POLLIN, 0},
					  {link_ ? link_->descriptor() : -1, POLLIN, 0}};
			poll(ready, std::size(ready), link_ ? -1 : look_every_ms);
			if (ready[0].revents)
				return;
			if (ready[3].revents && !serve_link())
				link_.reset();
			if (ready[1].revents)
				accept();
			if (ready[2].revents)
				teller_.answer();
			if (!link_ && is_gone())
				end_waiting();
		}
	}

	/* The driver connects anew only after it closed the link before: the latest one counts. */
	void accept() noexcept
	{
		FileDescriptor connection = listener_.accept();
		if (connection)
			link_.emplace(std::move(connection));
	}

	/* False when the link is at its end. */
	bool serve_link() noexcept
	{
		wt_netlinkmsg_hdr message;
		const auto event = link_->receive(message);
		if (event != DataLink::message)
			return event == DataLink::nothing;
		if (message.code == WT_NETLINK_CMD_CLOSE)
			return false;

		ReadRequest request;
		int error = parse_request(message, served_, request);
		if (!error)
			error = fill(request);
		count(request, error);
		return link_->send(make_reply(message, error));
	}

	/* What the source has, then zeros to the end of the last block. */
	int fill(const ReadRequest &request) noexcept
	{
		const uint64_t left = source_->size() - std::min(source_->size(), request.offset);
		const size_t length = std::min<uint64_t>(left, request.memory.size());
		if (const int error = source_->read(request.offset, request.memory.first(length)))
			return error;
		return read_all(zeros_.get(), 0, request.memory.subspan(length));
	}

	void count(const ReadRequest &request, int error) noexcept
	{
		requests_++;
		if (error) {
			errors_++;
			last_error_ = error;
		} else {
			bytes_ += request.memory.size();
		}
	}

	size_t block_size_;
	std::unique_ptr<BlockSource> source_;
	RestoreDisks disks_;
	CommandThread commands_;
	ServiceArea area_;
	DriverListener listener_;
	OwnedDisk disk_;
	ServedDisk served_;
	SystemPaths paths_;
	std::filesystem::path directory_; // of the disk in sysfs
	bool has_directory_;
	PortTeller teller_;
	FileDescriptor zeros_;
	FileDescriptor quit_;

	std::atomic<uint64_t> requests_{0};
	std::atomic<uint64_t> errors_{0};
	std::atomic<uint64_t> bytes_{0};
	std::atomic<int> last_error_{0};

	std::mutex stopping_;
	std::mutex lock_;
	std::condition_variable changed_;
	bool ended_ = false;

	std::optional<DataLink> link_; // the thread's
	std::thread thread_;
};

DiskServer::DiskServer(std::shared_ptr<const Transport> transport,
		       std::unique_ptr<BlockSource> source, const DiskServerOptions &options)
    : implementation_(
	      std::make_unique<Implementation>(std::move(transport), std::move(source), options))
{
}

DiskServer::~DiskServer() = default;

void DiskServer::resume()
{
	implementation_->resume();
}

void DiskServer::suspend()
{
	implementation_->suspend();
}

void DiskServer::wait()
{
	implementation_->wait();
}

void DiskServer::request_stop() noexcept
{
	implementation_->request_stop();
}

void DiskServer::stop()
{
	implementation_->stop();
}

const DiskAttributes &DiskServer::disk() const noexcept
{
	return implementation_->disk();
}

std::filesystem::path DiskServer::node() const
{
	return implementation_->node();
}

bool DiskServer::wait_for_node(std::chrono::milliseconds patience) const
{
	return implementation_->wait_for_node(patience);
}

uint16_t DiskServer::port() const noexcept
{
	return implementation_->port();
}

DiskServerStatistics DiskServer::statistics() const noexcept
{
	return implementation_->statistics();
}

} // namespace zorvat
