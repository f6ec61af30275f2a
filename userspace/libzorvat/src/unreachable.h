// SPDX-License-Identifier: GPL-2.0
/* Failures that every road to the driver can end in: it is not there, or its volume is not. */
#ifndef ZORVAT_UNREACHABLE_H
#define ZORVAT_UNREACHABLE_H

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

/* attempt: what failed, as "cannot stop tracking vda (254:0)". */
Error unknown_volume(std::string_view attempt, const Volume &volume, int number);

} // namespace zorvat

#endif
