# SPDX-License-Identifier: GPL-2.0
# Every write is reported: on each kind of disk, for each way to write, two full images are compared
# and each block that differs must be in the report.

cases() {
	echo load
	echo counts_large_bios
	for kind in virtio null_blk brd scsi_debug scsi_debug_4k loop; do
		for work in buffered two_direct_writers io_uring partitions discards; do
			echo reports $work $kind
		done
	done
	for sectors in 65536 65535 4186111; do
		echo reports_the_end $sectors
	done
	echo takes_2_mib_per_tib
	echo unload
}

# 16 segments at a block's start, and the block that the rule adds. What a kernel's layer counts is
# said on the command line, so that the other way of counting fails.
counts_large_bios() {
	use_virtio
	start_tracking "$disk"
	dd if=/dev/urandom of="$disk" bs=64k seek=16 count=1 oflag=direct 2>/dev/null
	if counts_segments; then
		[ "$(zorvatctl extents "$disk")" = "2048 256" ]
	else
		[ "$(zorvatctl extents "$disk")" = "2048 384" ]
	fi
}

reports() { # WORK KIND
	use_disk "$2"
	if type "prepare_$1" >/dev/null; then
		"prepare_$1"
	fi
	start_tracking "$disk"
	cat "$disk" >/tmp/before
	defer rm /tmp/before
	"$1"
	report_changes "$disk"
	oracle images /tmp/before "$disk" /tmp/extents
}

buffered() {
	run_fio
}

two_direct_writers() {
	run_fio --direct=1 --numjobs=2
}

prepare_io_uring() {
	fio --name=try --filename=/tmp/try --size=4k --rw=write --thread --ioengine=io_uring \
		--output=/dev/null || skip "no io_uring"
}

io_uring() {
	run_fio --direct=1 --ioengine=io_uring --iodepth=16
}

prepare_partitions() {
	make_partitions
}

# A write to a partition is accounted on the whole disk, at its sector there.
partitions() {
	local whole=$disk
	for number in 1 2; do
		disk=$partition$number
		run_fio
		run_fio --direct=1
	done
	disk=$whole
}

prepare_discards() {
	[ "$(cat "$(sysfs_of "$disk")/queue/discard_max_bytes")" -gt 0 ] ||
		skip "no discards"
	dd if=/dev/urandom of="$disk" bs=1M count=16 conv=fsync 2>/dev/null
}

discards() {
	/usr/sbin/blkdiscard -o 4096 -l 4096 "$disk"
	/usr/sbin/blkdiscard -o 1048576 -l 3145728 "$disk"
	/usr/sbin/blkdiscard -z -o 8388608 -l 69632 "$disk"
	/usr/sbin/blkdiscard -z -o 10485760 -l 2097152 "$disk"
}

covers() { # SECTOR: is it in the report?
	awk -v sector="$1" '$1 <= sector && sector < $1 + $2 { found = 1 } END { exit !found }' /tmp/extents
}

# The rule's extra block lies beyond the disk: in a spare bit, in none (a disk one sector short of
# whole words, where the driver cannot tell how far the changes reach back), or beyond the last page
# of the bitmap (511 words and a header).
reports_the_end() { # SECTORS
	use_loop $(($1 * 512))
	start_tracking "$disk"
	dd if=/dev/urandom of="$disk" bs=512 seek=$(($1 - 1)) count=1 conv=fsync 2>/dev/null
	report_changes "$disk"
	covers $(($1 - 1))
	is_tracked "$disk"
}

takes_2_mib_per_tib() {
	use_null_blk $((1024 * 1024))
	start_tracking "$disk"
	[ "$(zorvatctl bitmap-size "$disk")" = $((2 * 1024 * 1024 + 8)) ]
	dd if=/dev/urandom of="$disk" bs=4k seek=$((200 * 1024 * 1024)) count=1 oflag=direct 2>/dev/null
	[ "$(zorvatctl extents "$disk")" = "1677721600 256" ]
}
