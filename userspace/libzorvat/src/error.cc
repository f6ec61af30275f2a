// SPDX-License-Identifier: GPL-2.0
/* The library's exception and the texts of kernel error numbers. */
#include <filesystem>
#include <fmt/format.h>
#include <system_error>
#include <zorvat/error.h>

#include "kernel-errors.h"
#include "unreachable.h"

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
