# SPDX-License-Identifier: GPL-2.0
# The report against a second witness: dm-log-writes below the tracked disk logs each write that
# reaches it. Every block in the log must be reported, and no block but those and the rule's own.

cases() {
	echo load
	for work in buffered two_direct_writers io_uring discards file_system; do
		echo matches_log $work
	done
	echo unload
}

matches_log() { # WORK
	use_logged
	start_tracking "$disk"
	"$1"
	report_changes "$disk"
	stop_tracking "$disk"
	dmsetup remove logged # completes the log
	oracle log /dev/vdc /tmp/extents
}

buffered() {
	run_fio
}

two_direct_writers() {
	run_fio --direct=1 --numjobs=2
}

io_uring() {
	run_fio --direct=1 --ioengine=io_uring --iodepth=16
}

discards() {
	/usr/sbin/blkdiscard -o 65536 -l 1048576 "$disk"
	/usr/sbin/blkdiscard -z -o 4194304 -l 69632 "$disk"
}

file_system() {
	make_ext4 "$disk"
	mount -t ext4 "$disk" /mnt
	cp -a /bin /usr/sbin /mnt
	rm -r /mnt/bin
	umount /mnt
}
