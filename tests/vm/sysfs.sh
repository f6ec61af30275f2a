# SPDX-License-Identifier: GPL-2.0
# The driver's files in sysfs, on real disks: what they show, take and refuse, and files that are
# being read while tracking starts and stops, the disk goes, the driver is unloaded.

cases() {
	echo load
	echo has_files_with_modes
	echo shows_the_volume
	echo tracks_by_file
	echo keeps_the_backup_time
	echo refuses_nonsense
	echo shows_the_version
	echo sets_verbosities
	echo finds_volumes_again
	echo lists_extents
	echo lists_more_extents_than_a_page
	echo exports_the_bitmap
	echo reads_a_bitmap_beyond_a_page
	echo survives_readers_of_a_tracked_disk
	echo survives_readers_of_a_disk_that_goes
	echo unload
	echo unloads_under_readers
}

use_files_of() { # DISK: sets $files, its directory
	eventually 10 is_known_as_it_is "$1"
	files=/sys/zorvat/$(device_of "$1")
}

refuses() { # ERROR FILE TEXT: writing must fail with the error
	local status=0
	(echo "$3" >"$2") 2>/tmp/error || status=1
	[ $status = 1 ]
	grep -q "$1" /tmp/error
}

unreadable() { # ERROR FILE
	fails cat "$2" 2>/tmp/error
	grep -q "$1" /tmp/error
}

modes_in() { # DIRECTORY: its files with their modes
	(cd "$1" && find . -maxdepth 1 -type f | sort | xargs stat -c '%a %n' | tr '\n' ' ')
}

has_files_with_modes() {
	use_files_of /dev/vdb
	local volume="444 ./cbt-switch-count 444 ./changed-extents 200 ./clear-bitmap
		644 ./last-backup-time 644 ./tracking-enabled 444 ./volume-extents
		444 ./volume-name 444 ./volume-uuid"
	[ "$(modes_in $files)" = "$(echo $volume) " ]
	[ "$(modes_in /sys/zorvat)" = "644 ./log-verbosity 200 ./refresh-volume-set 444 ./version " ]
	start_tracking /dev/vdb
	[ "$(modes_in $files)" = "44 ./cbt-bitmap $(echo $volume) " ]
	unreadable denied $files/clear-bitmap
	unreadable denied /sys/zorvat/refresh-volume-set
	refuses denied $files/volume-name x
	refuses denied /sys/zorvat/version x
}

shows_the_volume() {
	use_files_of /dev/vdb
	[ "$(cat $files/volume-name)" = vdb ]
	[ "$(cat $files/volume-extents)" = "0 $(sectors_of /dev/vdb)" ]
	[ "$(cat $files/volume-uuid)" = "$(zorvatctl uuid /dev/vdb)" ]
	[ "$(cat $files/volume-uuid | wc -c)" = 37 ]
	[ "$(cat $files/tracking-enabled)" = 0 ]

	disk=/dev/vdb
	make_partitions
	use_files_of "${partition}1"
	[ "$(cat $files/volume-extents)" = "2111 20001" ]
	refuses Invalid $files/tracking-enabled 1
}

tracks_by_file() {
	use_files_of /dev/vdb
	unreadable Invalid $files/cbt-switch-count
	unreadable Invalid $files/changed-extents
	echo 1 >$files/tracking-enabled
	defer "echo 0 >$files/tracking-enabled"
	is_tracked /dev/vdb
	[ "$(cat $files/tracking-enabled)" = 1 ]
	[ "$(cat $files/cbt-switch-count)" = 0 ]
	zorvatctl switch /dev/vdb
	echo 1 >$files/tracking-enabled # as it is: nothing changes
	[ "$(cat $files/cbt-switch-count)" = 1 ]
	[ "$(zorvatctl switch-count /dev/vdb)" = 1 ]
	echo 1 >$files/clear-bitmap
	refuses Invalid $files/clear-bitmap 1
	echo 0 >$files/tracking-enabled
	fails is_tracked /dev/vdb
	[ ! -e $files/cbt-bitmap ]
	fails zorvatctl switch-count /dev/vdb
}

keeps_the_backup_time() {
	use_files_of /dev/vdb
	echo 18446744073709551615 >$files/last-backup-time
	[ "$(cat $files/last-backup-time)" = 18446744073709551615 ]
	[ "$(zorvatctl save-time /dev/vdb)" = 18446744073709551615 ]
}

refuses_nonsense() {
	use_files_of /dev/vdb
	for text in 2 -1 x; do
		refuses Invalid $files/tracking-enabled $text
	done
	refuses Invalid $files/clear-bitmap 0
	refuses Invalid $files/clear-bitmap yes
	refuses Invalid $files/last-backup-time never
}

shows_the_version() {
	[ "$(cat /sys/zorvat/version)" = "$(zorvatctl version)" ]
}

sets_verbosities() {
	defer 'echo 3 >/sys/zorvat/log-verbosity'
	echo 8 >/sys/zorvat/log-verbosity
	[ "$(zorvatctl verbosity)" = 8 ]
	zorvatctl verbosity set 3
	[ "$(cat /sys/zorvat/log-verbosity)" = 3 ]
	refuses Invalid /sys/zorvat/log-verbosity 9
	logged "[zorvat-WARN]:Invalid Verbosity Level 9"

	echo "volume-manager 5
dm-processor 1" >/sys/zorvat/log-verbosity
	cat /sys/zorvat/log-verbosity >/tmp/verbosity
	[ "$(head -n1 /tmp/verbosity)" = "testcode 3" ]
	[ "$(tail -n1 /tmp/verbosity)" = "wt-logging 3" ]
	[ "$(grep -vc ' 3$' /tmp/verbosity)" = 2 ]
	zorvatctl verbosity set volume-manager=0 dm-processor=3
	[ "$(zorvatctl verbosity | grep -v ' 3$')" = "volume-manager 0" ]

	refuses 'Cannot allocate\|Out of memory' /sys/zorvat/log-verbosity \
		"volume-manager 4 $(printf '%40s' x)"
	logged "[zorvat-WARN]:SYSFS: Input-Line Too Big"
	fails zorvatctl verbosity set volume-manager=2 nobody=2
	logged "[zorvat-WARN]:Invalid Verbosity Level 2 or log-group nobody"
	zorvatctl verbosity | grep -qx "volume-manager 2"
}

# Known volumes are announced again, which changes nothing about them.
finds_volumes_again() {
	start_tracking /dev/vdb
	zorvatctl refresh
	eventually 10 logged "[zorvat-INFO]:[UDEV] Reiterating list of supported devices complete"
	echo >/sys/zorvat/refresh-volume-set
	sleep 2
	is_tracked /dev/vdb
}

write_blocks() { # COUNT: 4 KiB each, in each third block of $disk
	run_fio --rw=write:188k --bssplit=4k/100 --number_ios="$1" --direct=1
}

# What the driver tells in the form of "changed-extents".
extents_by_netlink() {
	zorvatctl extents "$disk" | awk '{ print $1 ":" $2 }'
}

lists_extents() {
	disk=/dev/vdb
	start_tracking $disk
	use_files_of $disk
	[ "$(cat $files/changed-extents | wc -c)" = 0 ]
	write_blocks 25
	cat $files/changed-extents >/tmp/listed
	extents_by_netlink >/tmp/expected
	cmp /tmp/listed /tmp/expected
	[ "$(wc -l </tmp/listed)" = 25 ]
}

lists_more_extents_than_a_page() {
	disk=/dev/vdc
	start_tracking $disk
	use_files_of $disk
	write_blocks 500
	extents_by_netlink >/tmp/expected
	[ "$(wc -l </tmp/expected)" = 500 ]
	cat $files/changed-extents >/tmp/listed
	[ "$(wc -c </tmp/listed)" = 4095 ]
	[ "$(tail -c4 /tmp/listed)" = " ..." ]
	head -c4091 /tmp/listed >/tmp/head
	head -c4091 /tmp/expected | cmp /tmp/head -
	fails logged "bad count"
}

hexadecimal() { # FILE COUNT: of its first bytes
	head -c"$2" "$1" | od -An -v -tx1 | tr -d ' \n'
}

exports_the_bitmap() {
	disk=/dev/vdb
	use_files_of $disk
	fails zorvatctl bitmap $disk -o /tmp/bitmap
	start_tracking $disk
	write_blocks 3 # blocks 0 1 3 4 6 7
	zorvatctl bitmap $disk -o /tmp/bitmap
	[ "$(wc -c </tmp/bitmap)" = "$(zorvatctl bitmap-size $disk)" ]
	[ "$(hexadecimal /tmp/bitmap 3)" = 24ffff ]
	cat $files/cbt-bitmap | cmp /tmp/bitmap -
	zorvatctl --json bitmap $disk | grep -q '"bitmap": "24ffff'
	zorvatctl switch $disk
	write_blocks 8
	zorvatctl bitmap $disk | cmp /tmp/bitmap - # the frozen one
}

# Its first page is delivered again and again, up to the bitmap's length.
reads_a_bitmap_beyond_a_page() {
	use_loop $((2048 * 1024 * 1024))
	start_tracking "$disk"
	use_files_of "$disk"
	write_blocks 3
	cat $files/cbt-bitmap >/tmp/bitmap
	[ "$(wc -c </tmp/bitmap)" = 4104 ]
	[ "$(hexadecimal /tmp/bitmap 8)" = 24ffffffffffffff ]
	tail -c8 /tmp/bitmap >/tmp/tail
	[ "$(hexadecimal /tmp/tail 8)" = 24ffffffffffffff ]
	fails zorvatctl bitmap "$disk" -o /tmp/none 2>/tmp/error
	grep -q 'zorvatctl extents' /tmp/error
	[ ! -e /tmp/none ]
}

# --- Readers

keep_reading() { # DIRECTORY: all its files, in the background until stop_reading
	: >/tmp/reading
	for reader in 1 2; do
		(
			set +ex
			while [ -e /tmp/reading ]; do
				cat "$1"/* >/dev/null 2>&1
			done
		) &
	done
	defer stop_reading
}

stop_reading() {
	rm -f /tmp/reading
	wait
}

survives_readers_of_a_tracked_disk() {
	use_files_of /dev/vdb
	keep_reading $files
	for round in $(seq $((${rounds:-5} * 4))); do
		echo 1 >$files/tracking-enabled
		zorvatctl switch /dev/vdb
		echo 0 >$files/tracking-enabled
	done
	stop_reading
}

create_mapped() {
	dmsetup create mapped --table "0 20000 linear /dev/vdc 0"
	disk=/dev/mapper/mapped
	use_files_of $disk
}

survives_readers_of_a_disk_that_goes() {
	dmsetup targets | grep -q linear || skip "no dm"
	defer '[ ! -b /dev/mapper/mapped ] || dmsetup remove mapped'
	for round in $(seq "${rounds:-5}"); do
		create_mapped
		keep_reading $files
		echo 1 >$files/tracking-enabled
		usleep 200000
		dmsetup remove mapped
		eventually 10 fails test -e $files
		stop_reading
	done
}

unloads_under_readers() {
	for round in $(seq "${rounds:-2}"); do
		load
		use_files_of /dev/vdb
		zorvatctl start /dev/vdb
		keep_reading $files
		keep_reading /sys/zorvat
		usleep 200000
		unload
		stop_reading
	done
}
