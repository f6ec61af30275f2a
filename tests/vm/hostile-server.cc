// SPDX-License-Identifier: GPL-2.0
// A server of a restore disk that goes bad:
//
//   hostile-server IMAGE BEHAVIOUR [NUMBER [at-once]]
//
// Prints the disk's node once it serves the image. From SIGUSR1 on, or at once, it does at every
// request what BEHAVIOUR says; SIGUSR2 makes it serve well again.
#include <atomic>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <iostream>
#include <map>
#include <netinet/in.h>
#include <random>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <wt.h>
#include <zorvat/restore.h>

namespace
{

constexpr size_t page = 4096;
constexpr size_t area_bytes = size_t{8} << 20;
constexpr size_t block_size = 512;

volatile std::sig_atomic_t is_hostile;
sigjmp_buf trapped;

template <typename T> T checked(T result, const char *what)
{
	if (result == T(-1))
		throw std::system_error(errno, std::generic_category(), what);
	return result;
}

// Whether a page's first word can be read and is not 0.
bool has_content(const char *address)
{
	if (sigsetjmp(trapped, 1) != 0)
		return false;
	return *reinterpret_cast<const volatile uint64_t *>(address) != 0;
}

class Server
{
public:
	Server(const char *image, const std::string &behaviour, int number)
	    : image_(checked(open(image, O_RDONLY | O_CLOEXEC), image)),
	      behave_(behaviours().at(behaviour)), number_(number)
	{
		struct stat status;
		checked(fstat(image_, &status), image);
		blocks_ = static_cast<size_t>(status.st_size) / block_size;
		area_ = map_area();
		listener_ = checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
		const int room = 1;
		setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &room, sizeof(room));
		checked(listen(listener_, 1), "listen");
	}

	void run()
	{
		const zorvat::RestoreDisks disks(zorvat::open_netlink());
		const zorvat::DiskHandle disk = disks.allocate(
			{block_size, blocks_, {reinterpret_cast<std::byte *>(area_), area_bytes}});
		std::thread([&] {
			try {
				disks.resume(disk, port());
				std::cout << "/dev/" << disks.attributes(disk).name << std::endl;
			} catch (const std::exception &error) {
				std::cout << error.what() << std::endl;
			}
		}).detach();
		for (;;) {
			connection_ = checked(accept(listener_, nullptr, nullptr), "accept");
			while (take_request())
				is_hostile ? (this->*behave_)() : serve();
			close(connection_);
		}
	}

private:
	using Behaviour = void (Server::*)();

	static const std::map<std::string, Behaviour> &behaviours()
	{
		static const std::map<std::string, Behaviour> all = {
			{"well", &Server::serve},
			{"silent", &Server::never_answer},
			{"slow", &Server::answer_late},
			{"garbage", &Server::answer_garbage},
			{"cut", &Server::answer_in_part},
			{"fail", &Server::answer_an_error},
			{"ahead", &Server::answer_ahead},
			{"unmap", &Server::unmap},
			{"unmap-middle", &Server::unmap_middle},
			{"map-over", &Server::map_over},
			{"protect", &Server::protect},
			{"forbid", &Server::forbid},
			{"move", &Server::move},
			{"discard", &Server::discard},
			{"touch", &Server::touch},
			{"fork", &Server::fork_children},
			{"look", &Server::look},
		};
		return all;
	}

	static char *map_area()
	{
		void *area = mmap(nullptr, area_bytes, PROT_READ | PROT_WRITE,
				  MAP_SHARED | MAP_ANONYMOUS, -1, 0);
		if (area == MAP_FAILED)
			throw std::system_error(errno, std::generic_category(), "mmap");
		return static_cast<char *>(area);
	}

	uint16_t port() const
	{
		sockaddr_in address{};
		socklen_t length = sizeof(address);
		checked(getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &length),
			"getsockname");
		return ntohs(address.sin_port);
	}

	bool take_request()
	{
		return recv(connection_, &message_, sizeof(message_), MSG_WAITALL) ==
			       static_cast<ssize_t>(sizeof(message_)) &&
		       message_.code == WT_NETLINK_CMD_READ;
	}
	size_t requested() const
	{
		return static_cast<size_t>(message_.num_sectors) * block_size;
	}
	// As a system call: a page that is not there is an error, not a signal.
	bool fill() const
	{
		const auto offset = static_cast<off_t>(message_.offset_sector * block_size);
		return pread(image_, message_.io_buffer, requested(), offset) ==
		       static_cast<ssize_t>(requested());
	}
	void reply(bool good, size_t bytes = sizeof(message_))
	{
		message_.code = good ? WT_NETLINK_REP_OK : WT_NETLINK_REP_ERR;
		message_.num_sectors = good ? 0 : -EIO;
		send(connection_, &message_, bytes, MSG_NOSIGNAL);
	}

	void serve()
	{
		reply(fill());
	}
	void never_answer()
	{
		while (is_hostile)
			pause();
		serve();
	}
	void answer_late()
	{
		usleep(100000);
		serve();
	}
	void answer_garbage()
	{
		static std::minstd_rand random(1);
		for (auto *byte = reinterpret_cast<unsigned char *>(&message_);
		     byte < reinterpret_cast<unsigned char *>(&message_ + 1); byte++)
			*byte = static_cast<unsigned char>(random());
		send(connection_, &message_, sizeof(message_), MSG_NOSIGNAL);
	}
	void answer_in_part() // and leave
	{
		reply(fill(), static_cast<size_t>(number_));
		shutdown(connection_, SHUT_RDWR);
	}
	void answer_an_error()
	{
		reply(false);
	}
	void answer_ahead() // and read no more, until the driver cannot send either
	{
		while (is_hostile) {
			reply(true);
			usleep(100);
		}
	}
	void unmap()
	{
		munmap(area_, area_bytes);
		serve();
	}
	void unmap_middle()
	{
		munmap(area_ + area_bytes / 2, page);
		serve();
	}
	void map_over()
	{
		mmap(area_, area_bytes, PROT_READ | PROT_WRITE,
		     MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
		serve();
	}
	void protect() // back and forth, which splits the mapping and joins it
	{
		for (size_t offset = 0; offset < area_bytes; offset += area_bytes / 16) {
			mprotect(area_ + offset, page, PROT_READ);
			mprotect(area_ + offset, page, PROT_READ | PROT_WRITE);
		}
		serve();
	}
	void forbid()
	{
		mprotect(area_, area_bytes, PROT_NONE);
		serve();
	}
	void move()
	{
		mremap(area_, area_bytes, area_bytes / 2, MREMAP_MAYMOVE);
		void *elsewhere = map_area();
		mremap(area_, area_bytes / 2, area_bytes / 2, MREMAP_MAYMOVE | MREMAP_FIXED,
		       elsewhere);
		serve();
	}
	void discard()
	{
		madvise(area_, area_bytes, MADV_DOFORK);
		madvise(area_, area_bytes, MADV_DONTNEED);
		madvise(area_, area_bytes, MADV_REMOVE);
		serve();
	}
	void touch() // all of it, with a request's pages in it
	{
		pages_with_content();
		serve();
	}
	void fork_children()
	{
		serve();
		const pid_t child = fork();
		if (child == 0) {
			unsigned char resident;
			_exit(mincore(area_, page, &resident) == 0); // it has no such memory
		}
		int status = 0;
		waitpid(child, &status, 0);
		if (status != 0)
			std::cout << "a child has the area" << std::endl;
	}
	// What is seen of a request's pages: while it is served, and when that is over.
	void look()
	{
		const bool good = fill();
		const size_t during = pages_with_content();
		reply(good);
		usleep(200000);
		std::cout << "seen during " << during << " after " << pages_with_content()
			  << std::endl;
	}

	size_t pages_with_content() const
	{
		size_t count = 0;
		for (size_t offset = 0; offset < area_bytes; offset += page)
			count += has_content(area_ + offset);
		return count;
	}

	int image_;
	Behaviour behave_;
	int number_;
	size_t blocks_ = 0;
	char *area_ = nullptr;
	int listener_ = -1;
	int connection_ = -1;
	wt_netlinkmsg_hdr message_{};
};

} // namespace

int main(int argc, char **argv)
{
	if (argc < 3) {
		std::cerr << "usage: hostile-server IMAGE BEHAVIOUR [NUMBER [at-once]]\n";
		return 2;
	}
	is_hostile = argc > 4;
	std::signal(SIGUSR1, [](int) { is_hostile = 1; });
	std::signal(SIGUSR2, [](int) { is_hostile = 0; });
	for (int fault : {SIGSEGV, SIGBUS})
		std::signal(fault, [](int) { siglongjmp(trapped, 1); });
	try {
		Server(argv[1], argv[2], argc > 3 ? std::atoi(argv[3]) : 0).run();
	} catch (const std::exception &error) {
		std::cerr << "hostile-server: " << error.what() << '\n';
	}
	return 1;
}
