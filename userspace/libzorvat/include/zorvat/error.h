// SPDX-License-Identifier: GPL-2.0
/*
 * What libzorvat throws: one exception type that says what failed, why, and what to do about it,
 * with a code that programs can act on.
 */
#ifndef ZORVAT_ERROR_H
#define ZORVAT_ERROR_H

#include <stdexcept>
#include <string>
#include <string_view>

namespace zorvat
{

enum class Errc {
	driver_not_loaded, // nothing of the driver is there
	driver_not_ready,  // the driver is loaded, but starting or going away
	not_permitted,     // the caller lacks the capability that the transport demands
	bad_volume_name,   // the name leads to no block device
	unknown_volume,    // the block device exists, the driver does not know it
	not_tracked,       // the command needs a tracked volume
	already_tracked,   // tracking was asked for twice
	unknown_disk,      // the driver has no such restore disk
	disk_suspended,    // the command needs a restore disk that runs
	disk_running,      // the command needs a restore disk that is suspended
	bad_image,         // what a restore disk is to be made of cannot be used
	refused,           // the driver knows the volume and refused for a reason of its own
	unsupported,       // this driver, or this transport, does not serve the command
	changed_meanwhile, // the answer is of no use: the volume changed while it was collected
	bad_answer,        // the driver answered with something that is not an answer
	no_memory,         // the kernel had no memory for the answer
	system,            // any other error of the operating system
};

class Error : public std::runtime_error
{
public:
	/* failure: what failed and why; advice: what to do, may be empty; number: errno or 0. */
	Error(Errc code, std::string_view failure, std::string_view advice = {}, int number = 0);

	Errc code() const noexcept
	{
		return code_;
	}
	/* The positive error number of the kernel, 0 when the failure has none. */
	int error_number() const noexcept
	{
		return number_;
	}

private:
	Errc code_;
	int number_;
};

/* The text of an error number of the kernel, also of those that libc does not know. */
std::string error_text(int number);

} // namespace zorvat

#endif
