# SPDX-License-Identifier: GPL-2.0
# The test bed itself: what the other suites take for granted.

cases() {
	echo disks_are_there
	echo notices_kernel_complaints
}

disks_are_there() {
	for name in vda vdb vdc; do
		[ -b /dev/$name ]
	done
	[ -c /dev/mapper/control ]
}

# The runner's own check, on a message that looks like a kernel warning.
notices_kernel_complaints() {
	dmesg -c >/dev/null
	echo "WARNING: only a test" >/dev/kmsg
	fails kernel_is_content
	announce_log "only a test"
	echo "WARNING: only a test" >/dev/kmsg
	kernel_is_content
}
