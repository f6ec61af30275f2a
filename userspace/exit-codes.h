// SPDX-License-Identifier: GPL-2.0
/* The exit codes that the programs have in common; each goes on from 6. Documented in their pages.
 */
#ifndef ZORVAT_EXIT_CODES_H
#define ZORVAT_EXIT_CODES_H

#include <zorvat/error.h>

namespace zorvat
{

enum ExitCode : int {
	exit_ok = 0,
	exit_failed = 1,
	exit_usage = 2,
	exit_no_driver = 3,
	exit_not_found = 4,
	exit_not_permitted = 5,
};

inline ExitCode common_exit_code(Errc code)
{
	switch (code) {
	case Errc::driver_not_loaded:
	case Errc::driver_not_ready:
		return exit_no_driver;
	case Errc::bad_volume_name:
	case Errc::unknown_volume:
	case Errc::unknown_disk:
		return exit_not_found;
	case Errc::not_permitted:
		return exit_not_permitted;
	default:
		return exit_failed;
	}
}

} // namespace zorvat

#endif
