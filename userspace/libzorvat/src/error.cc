// SPDX-License-Identifier: GPL-2.0
/* The library's exception and the texts of kernel error numbers. */
#include <cerrno>
#include <filesystem>
#include <fmt/format.h>
#include <system_error>
#include <zorvat/error.h>

#include "failures.h"
#include "kernel-errors.h"

namespace zorvat
{

Error::Error(Errc code, std::string_view failure, std::string_view advice, int number)
    : std::runtime_error(advice.empty() ? std::string(failure)
					: fmt::format("{}; {}", failure, advice)),
      code_(code), number_(number)
{
}

std::string error_text(int number)
{
	if (number == no_such_kernel_command)
		return fmt::format("no such command (error {})", number);
	return fmt::format("{} (error {})", std::generic_category().message(number), number);
}

Error driver_unreachable(std::string_view door, int number)
{
	std::error_code ignored;
	if (std::filesystem::exists("/sys/zorvat", ignored))
		return Error(Errc::driver_not_ready,
			     fmt::format("cannot reach the driver: {} is not there", door),
			     "the driver is loaded and still starting: try again, and see the "
			     "kernel log if it stays so",
			     number);
	return Error(Errc::driver_not_loaded,
		     fmt::format("cannot reach the driver: {} is not there", door),
		     "load the driver with 'modprobe zorvat'", number);
}

Error command_failure(std::string_view attempt, int number)
{
	switch (number) {
	case EPERM:
	case EACCES:
		return Error(Errc::not_permitted, fmt::format("{}: not permitted", attempt),
			     "run as root, or with CAP_NET_ADMIN (netlink) or CAP_SYS_ADMIN "
			     "(ioctl)",
			     number);
	case EAGAIN:
		return Error(Errc::driver_not_ready,
			     fmt::format("{}: the driver is starting or going away", attempt),
			     "try again", number);
	case ENOMEM:
		return Error(Errc::no_memory,
			     fmt::format("{}: the kernel is out of memory", attempt),
			     "free some memory and try again", number);
	}
	return Error(Errc::system, fmt::format("{}: {}", attempt, error_text(number)),
		     "the kernel log may say more", number);
}

bool is_refusal(int number)
{
	return number == EINVAL || number == ENOTTY || number == EOPNOTSUPP ||
	       number == no_such_kernel_command;
}

Error no_such_command(std::string_view attempt, int number)
{
	return Error(Errc::unsupported, fmt::format("{}: this driver has no such command", attempt),
		     "load a driver of the same version as this program", number);
}

Error unknown_volume(std::string_view attempt, const Volume &volume, int number)
{
	std::string advice =
		volume.whole_disk.empty()
			? "its major number may be missing from the module parameter "
			  "tracked_majors; 'zorvatctl volumes' lists what is known"
			: fmt::format("it is a partition, name its disk {}", volume.whole_disk);
	return Error(Errc::unknown_volume,
		     fmt::format("{}: the driver does not know this volume", attempt), advice,
		     number);
}

} // namespace zorvat
