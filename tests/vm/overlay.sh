# SPDX-License-Identifier: GPL-2.0
# Somebody else puts a table of operations over the driver's and below it, and stays while the driver
# goes.

cases() {
	echo is_called_through_the_overlay
	echo goes_over_an_overlay
	echo waits_for_an_overlay before_start
	echo waits_for_an_overlay after_start
}

load_and_know_disk() {
	[ -f /overlay.ko ] || skip "tests/vm/overlay was not built"
	disk=/dev/vdb
	load
	eventually 10 is_known_as_it_is "$disk"
}

overlay() {
	insmod /overlay.ko disk="$disk"
	defer '[ ! -e /sys/module/overlay ] || rmmod overlay'
}

reports_writes() {
	run_fio --number_ios=10
	report_changes "$disk"
	[ -s /tmp/extents ]
}

# The driver's table was left with its function, which the overlay calls: another one on top would
# call the overlay in turn.
is_called_through_the_overlay() {
	load_and_know_disk
	zorvatctl start "$disk"
	zorvatctl stop "$disk"
	overlay
	zorvatctl start "$disk"
	reports_writes
	fails zorvatctl stop "$disk"
	rmmod overlay
	zorvatctl stop "$disk"
	unload
	run_fio --number_ios=10
}

goes_over_an_overlay() {
	load_and_know_disk
	overlay
	for round in 1 2; do
		zorvatctl start "$disk"
		reports_writes
		zorvatctl stop "$disk"
	done
	rmmod overlay
	zorvatctl start "$disk"
	reports_writes
	unload
	run_fio --number_ios=10
}

waits_for_an_overlay() { # before_start|after_start
	load_and_know_disk
	[ "$1" = after_start ] || overlay
	zorvatctl start "$disk"
	[ "$1" = before_start ] || overlay
	rmmod zorvat &
	eventually 10 logged "zorvat: vdb: somebody else's operations point to the driver"
	run_fio --number_ios=10
	blockdev --getbsz "$disk"
	[ -e /sys/module/zorvat ]
	rmmod overlay
	wait
	[ ! -e /sys/module/zorvat ]
	run_fio --number_ios=10
}
