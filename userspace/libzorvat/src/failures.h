// SPDX-License-Identifier: GPL-2.0
/* Failures that all commands have in common. */
#ifndef ZORVAT_FAILURES_H
#define ZORVAT_FAILURES_H

#include <string_view>
#include <zorvat/error.h>
#include <zorvat/volume.h>

namespace zorvat
{

/*
 * The error for a missing door, as "/dev/zorvat-control": tells a driver that is not loaded from
 * one that is, but has not opened its doors yet.
 */
Error driver_unreachable(std::string_view door, int number);

/*
 * The error for a command that the driver, or the road to it, answered with a number that means the
 * same for every command. attempt: what failed, as "cannot list the restore disks".
 */
Error command_failure(std::string_view attempt, int number);

/*
 * The driver's numbers for everything that it will not do, unknown targets included, and the errors
 * that the roads to it have for commands which reach no driver at all.
 */
bool is_refusal(int number);
/* For any of them but EINVAL. */
Error no_such_command(std::string_view attempt, int number);

/* attempt: what failed, as "cannot stop tracking vda (254:0)". */
Error unknown_volume(std::string_view attempt, const Volume &volume, int number);

} // namespace zorvat

#endif
