// SPDX-License-Identifier: GPL-2.0
/* Error numbers that the kernel keeps to itself, but that travel in netlink acknowledgements. */
#ifndef ZORVAT_KERNEL_ERRORS_H
#define ZORVAT_KERNEL_ERRORS_H

namespace zorvat
{

constexpr int no_such_kernel_command = 515; // ENOIOCTLCMD

} // namespace zorvat

#endif
