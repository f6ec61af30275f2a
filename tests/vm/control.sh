# SPDX-License-Identifier: GPL-2.0
# The control interface: what a backup does over each transport, and requests that no well-behaved
# program would send.

cases() {
	echo load
	echo prints_version
	for transport in netlink ioctl block-ioctl; do
		echo backs_up_incrementally $transport
		echo keeps_identifier_and_save_time $transport
	done
	echo refuses_partitions
	for topic in control block netlink unprivileged; do
		echo answers_bad_input $topic
	done
	echo logs_bad_input
	echo unload
}

ctl() { # SUBCOMMAND...: over $transport
	case $transport in
	netlink) zorvatctl "$@" ;;
	*) zorvatctl --$transport "$@" ;;
	esac
}

prints_version() {
	zorvatctl version | grep -q '^Version:[0-9.]*-[0-9]*-Release Build-Date:".*" Build-Info:".*"$'
	zorvatctl --ioctl version | grep -q '^Version:'
}

write_block() { # NUMBER: the first 4 KiB of a 64 KiB block
	dd if=/dev/urandom of=/dev/vdb bs=4k count=1 seek=$(($1 * 16)) oflag=direct conv=notrunc 2>/dev/null
}

# A write of less than a block reports the block and its successor.
backs_up_incrementally() { # TRANSPORT
	transport=$1
	eventually 10 is_known_as_it_is /dev/vdb
	ctl level /dev/vdb | grep -qx "level 0"
	fails ctl extents /dev/vdb
	ctl start /dev/vdb
	defer zorvatctl stop /dev/vdb
	ctl level /dev/vdb | grep -qx "level 1"
	[ "$(ctl bitmap-size /dev/vdb)" = $(($(sectors_of /dev/vdb) / 8192 * 8 + 8)) ]
	[ -z "$(ctl extents /dev/vdb)" ]

	write_block 16
	[ "$(ctl extents /dev/vdb)" = "2048 256" ]
	ctl switch /dev/vdb
	write_block 100
	[ "$(ctl extents /dev/vdb)" = "2048 256" ]
	ctl switch /dev/vdb
	[ "$(ctl extents /dev/vdb)" = "2048 256
12800 256" ]
	write_block 200
	ctl clear /dev/vdb
	[ "$(ctl extents /dev/vdb)" = "25600 256" ]
	fails ctl clear /dev/vdb
}

keeps_identifier_and_save_time() { # TRANSPORT
	transport=$1
	eventually 10 is_known /dev/vdb
	[ "$(ctl uuid /dev/vdb)" = "$(zorvatctl uuid /dev/vdb)" ]
	[ "$(ctl uuid /dev/vdb)" != "$(ctl uuid /dev/vdc)" ]
	ctl save-time /dev/vdb 1234567890123
	[ "$(ctl save-time /dev/vdb)" = 1234567890123 ]
}

refuses_partitions() {
	use_virtio
	make_partitions
	eventually 10 is_known "${disk}1"
	fails zorvatctl start "${disk}1"
	logged "Tracking of partitions is not supported"
	fails is_tracked "$disk"
}

answers_bad_input() { # TOPIC
	start_tracking /dev/vdb
	control-probe "$1" /dev/vdb
	is_tracked /dev/vdb
}

logs_bad_input() {
	start_tracking /dev/vdb
	control-probe control /dev/vdb
	logged "[zorvat-ERROR]:Unknown device 4095:1048575"
	logged "[zorvat-WARN]:Invalid command 41416 on control device"
	logged "[zorvat-ERROR]:Unable to copy devt from the userland"
	logged "[zorvat-ERROR]:Unable to copy driver verion info to the usermode"
	logged "[zorvat-ERROR]:Unable to allocate memory to copy wt_extents"
}
