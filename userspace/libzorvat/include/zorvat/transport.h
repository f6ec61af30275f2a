// SPDX-License-Identifier: GPL-2.0
/*
 * The three roads to the driver: generic netlink, the control device, and the disk's own block
 * device. All carry the same commands and records; what differs is hidden behind Transport.
 * Commands on restore disks travel over netlink only.
 */
#ifndef ZORVAT_TRANSPORT_H
#define ZORVAT_TRANSPORT_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <variant>
#include <zorvat/volume.h>

namespace zorvat
{

/* One command of the driver, and where its record travels. */
struct Command {
	uint32_t index;             // WT_..._IOCTL_INDEX
	uint16_t request_attribute; // netlink attribute of the record sent, 0 when none is
	size_t request_size;        // bytes of the record that are sent
	uint16_t reply_attribute;   // netlink attribute of the answer, 0: answered by number only
	size_t reply_offset;        // where the answer begins in the record
	/* The answer may be shorter than the room for it in the record. */
	bool reply_varies = false;
};

/* Names one restore disk. It comes from the driver and means nothing but to the driver. */
enum class DiskHandle : uint64_t {
};

/* What a command is about; a null volume when it is about neither. */
using Target = std::variant<const Volume *, DiskHandle>;

class Transport
{
public:
	virtual ~Transport() = default;

	/*
	 * Has the driver execute a command. The record's first request_size bytes are sent, the
	 * answer is stored from reply_offset on; bytes that the driver leaves alone keep their
	 * value. The target may be null only for the version query, and not even then on the
	 * disk's own device, and for commands on all restore disks.
	 *
	 * Returns a value of 0 or more on success, or the driver's negative error number. Throws
	 * Error when the driver could not be asked or its answer is malformed. Any number of
	 * threads may call it at the same time.
	 */
	virtual int execute(const Command &command, const Target &target,
			    std::span<std::byte> record) const = 0;
};

/* Generic netlink. Opening resolves the family: open anew after the driver was reloaded. */
std::unique_ptr<Transport> open_netlink();

/* Ioctls on /dev/zorvat-control. */
std::unique_ptr<Transport> open_control_device();

/* Ioctls on the block device of each command's volume. */
std::unique_ptr<Transport> open_block_devices();

} // namespace zorvat

#endif
