// SPDX-License-Identifier: GPL-2.0
/*
 * An NBD server as a source.
 *
 * libnbd stores what it receives with its own instructions, which must not touch the memory of a
 * request. It receives into a memory file instead, and pread(2) on that file brings the data to
 * their place: one copy, and a system call that fails if the place is gone.
 */
#include <algorithm>
#include <bit>
#include <cerrno>
#include <fmt/format.h>
#include <libnbd.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <zorvat/block-source.h>
#include <zorvat/error.h>
#include <zorvat/file-descriptor.h>
#include <zorvat/memory-file.h>

namespace zorvat
{

namespace
{

/* As much as one request of the driver has: it fits into the smallest service area. */
constexpr size_t bounce_bytes = size_t{4} << 20;
/* What a server takes in one request unless it says otherwise. */
constexpr uint64_t usual_max_request = uint64_t{32} << 20;
/* The most that NBD lets a server demand. */
constexpr uint64_t max_alignment = uint64_t{64} << 10;

/* Why libnbd's last call in this thread failed. */
std::string reason()
{
	const char *text = nbd_get_error();
	return text ? text : "unknown error";
}

int number()
{
	const int number = nbd_get_errno();
	return number > 0 ? number : EIO;
}

Error cannot_serve(const std::string &uri, std::string_view why)
{
	return Error(Errc::bad_image, fmt::format("cannot serve '{}': {}", uri, why),
		     "is the server running, and does it have this export?", number());
}

class NbdSource final : public BlockSource
{
public:
	explicit NbdSource(const std::string &uri)
	    : uri_(uri), cancelled_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
	{
		const int64_t size = connect() == 0 ? nbd_get_size(server_.get()) : -1;
		if (size < 0)
			throw cannot_serve(uri, reason());
		size_ = size;
		set_limits();
	}

	uint64_t size() const override
	{
		return size_;
	}

	int read(uint64_t offset, std::span<std::byte> memory) noexcept override
	{
		if (const int error = reconnect())
			return error;
		while (!memory.empty()) {
			const uint64_t begin = offset / alignment_ * alignment_;
			const size_t skip = offset - begin;
			const size_t count = std::min<size_t>(memory.size(), max_request_ - skip);
			if (const int error = receive(begin, skip + count))
				return error;
			if (const int error = bounce_.copy_to(memory.first(count), skip))
				return error;
			memory = memory.subspan(count);
			offset += count;
		}
		return 0;
	}

	void cancel() noexcept override
	{
		eventfd_write(cancelled_.get(), 1);
	}

private:
	struct Close {
		void operator()(nbd_handle *server) const
		{
			nbd_close(server);
		}
	};
	using Server = std::unique_ptr<nbd_handle, Close>;

	/* Returns 0 or a positive error number, of which reason() may know more. */
	int connect() noexcept
	{
		server_.reset(nbd_create());
		if (!server_ || nbd_aio_connect_uri(server_.get(), uri_.c_str()) != 0)
			return number();
		while (nbd_aio_is_connecting(server_.get()) == 1) {
			if (const int error = wait_for_server())
				return error;
		}
		return nbd_aio_is_ready(server_.get()) == 1 ? 0 : ECONNREFUSED;
	}

	/* What the server demands of requests: their alignment, and their largest size. */
	void set_limits()
	{
		const int64_t least = nbd_get_block_size(server_.get(), LIBNBD_SIZE_MINIMUM);
		const int64_t most = nbd_get_block_size(server_.get(), LIBNBD_SIZE_MAXIMUM);
		alignment_ = least > 0 ? std::bit_ceil(static_cast<uint64_t>(least)) : 1;
		if (alignment_ > max_alignment)
			throw cannot_serve(uri_, "it demands too large blocks");
		max_request_ =
			std::min<uint64_t>(most > 0 ? most : usual_max_request, bounce_bytes);
		max_request_ = std::max(max_request_ / alignment_, uint64_t{1}) * alignment_;
	}

	int reconnect() noexcept
	{
		if (server_ && nbd_aio_is_ready(server_.get()) == 1)
			return 0;
		if (const int error = connect())
			return error;
		/* An export of another size is not what was being restored. */
		if (nbd_get_size(server_.get()) == static_cast<int64_t>(size_))
			return 0;
		server_.reset();
		return ESTALE;
	}

	/* Reads what lies from an aligned offset on into the bounce memory. */
	int receive(uint64_t offset, size_t count) noexcept
	{
		const uint64_t end = (offset + count + alignment_ - 1) / alignment_ * alignment_;
		const size_t length = std::min(end, size_) - offset;
		const int64_t cookie = nbd_aio_pread(server_.get(), bounce_.memory().data(), length,
						     offset, NBD_NULL_COMPLETION, 0);
		if (cookie < 0)
			return number();
		for (;;) {
			const int done = nbd_aio_command_completed(server_.get(), cookie);
			if (done != 0)
				return done > 0 ? 0 : number();
			if (const int error = wait_for_server()) {
				/* Nothing may arrive in the bounce memory any more. */
				server_.reset();
				return error;
			}
		}
	}

	int wait_for_server() noexcept
	{
		const unsigned int direction = nbd_aio_get_direction(server_.get());
		pollfd ends[] = {{nbd_aio_get_fd(server_.get()), 0, 0},
				 {cancelled_.get(), POLLIN, 0}};
		if (direction & LIBNBD_AIO_DIRECTION_READ)
			ends[0].events |= POLLIN;
		if (direction & LIBNBD_AIO_DIRECTION_WRITE)
			ends[0].events |= POLLOUT;
		if (poll(ends, std::size(ends), -1) < 0)
			return errno == EINTR ? 0 : errno;
		if (ends[1].revents)
			return ECANCELED;
		int result = 0;
		if (direction & LIBNBD_AIO_DIRECTION_READ && ends[0].revents)
			result = nbd_aio_notify_read(server_.get());
		else if (ends[0].revents)
			result = nbd_aio_notify_write(server_.get());
		return result < 0 ? number() : 0;
	}

	std::string uri_;
	FileDescriptor cancelled_;
	MemoryFile bounce_{bounce_bytes};
	Server server_;
	uint64_t size_;
	uint64_t alignment_;
	uint64_t max_request_;
};

} // namespace

std::unique_ptr<BlockSource> open_nbd(const std::string &uri)
{
	return std::make_unique<NbdSource>(uri);
}

} // namespace zorvat
