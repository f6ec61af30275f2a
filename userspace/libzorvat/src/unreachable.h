// SPDX-License-Identifier: GPL-2.0
/* Why a door of the driver is not there. */
#ifndef ZORVAT_UNREACHABLE_H
#define ZORVAT_UNREACHABLE_H

#include <string_view>
#include <zorvat/error.h>

namespace zorvat
{

/*
 * The error for a missing door, as "/dev/zorvat-control": tells a driver that is not loaded from
 * one that is, but has not opened its doors yet.
 */
Error driver_unreachable(std::string_view door, int number);

} // namespace zorvat

#endif
