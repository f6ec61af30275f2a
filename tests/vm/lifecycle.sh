# SPDX-License-Identifier: GPL-2.0
# Loading and unloading the driver: parameters, order, idle disks and busy ones.

cases() {
	echo refuses_verbosity_9
	echo shows_parameters
	echo knows_all_disks_and_partitions
	echo knows_only_tracked_majors
	echo unloads_during_start_up
	echo unloads_while_tracking
	echo unloads_around_last_closes
	echo loads_and_unloads_under_io
}

refuses_verbosity_9() {
	fails insmod /zorvat.ko verbosity=9
	logged "[zorvat]Invalid Log Verbosity 9"
	[ ! -e /sys/zorvat ]
	load verbosity=8
	unload
}

shows_parameters() {
	load tracked_majors=8,253 verbosity=1 dm_control_path=/dev/mapper/control
	defer unload
	cd /sys/module/zorvat/parameters
	[ "$(cat tracked_majors)" = 8,253 ]
	[ "$(cat verbosity)" = 1 ]
	[ "$(cat dm_control_path)" = /dev/mapper/control ]
}

all_disks_are_known() {
	for dev in /sys/class/block/*/dev; do
		[ -d "/sys/zorvat/$(cat "$dev")" ] || return 1
	done
}

knows_all_disks_and_partitions() {
	load
	defer unload
	eventually 10 all_disks_are_known
}

knows_only_tracked_majors() {
	local major
	major=$(device_of /dev/vda | cut -d: -f1)
	use_loop
	load tracked_majors="$major"
	defer unload
	eventually 10 is_known /dev/vda
	eventually 10 is_known /dev/vdc
	[ "$(ls /sys/zorvat | grep : | grep -vc "^$major:")" = 0 ]
}

# Start-up is a work item: unloading waits for it, and for the idle time after it.
unloads_during_start_up() {
	local start
	insmod /zorvat.ko
	start=$(date +%s)
	unload
	[ $(($(date +%s) - start)) -ge 1 ]
}

unloads_while_tracking() {
	load
	eventually 10 is_known_as_it_is /dev/vdb
	zorvatctl start /dev/vdb
	disk=/dev/vdb
	run_fio --number_ios=10
	unload
	run_fio --number_ios=10 --direct=1
}

all_known() { # NAME...
	for name; do
		is_known_as_it_is "/dev/$name" || return 1
	done
}

# Removed disks live on while somebody has them open, with the driver's table: their last closes come
# before, while and after the driver unloads.
unloads_around_last_closes() {
	use_scsi_debug max_luns=6
	local luns=/sys/bus/pseudo/drivers/scsi_debug/adapter0/host*/target*/*:* names name delay
	for round in $(seq "${rounds:-2}"); do
		eventually 10 eval "[ \$(ls -d $luns/block/sd* | wc -l) = 6 ]"
		names=$(ls -d $luns/block/sd* | xargs -n1 basename)
		load
		eventually 10 all_known $names
		delay=1800000
		for name in $names; do
			zorvatctl start "/dev/$name"
			dd if=/dev/urandom of="/dev/$name" bs=64k count=4 conv=fsync 2>/dev/null
			(exec 3<"/dev/$name" && usleep $delay) &
			delay=$((delay + 250000))
		done
		usleep 200000
		for name in $names; do
			echo 1 >"/sys/block/$name/device/delete"
		done
		unload
		wait
		find_scsi_disk_again
	done
}

# Bytes from vmalloc, but for the stacks of processes that come and go.
vmalloc_in_use() {
	grep -vE 'stack|dup_task_struct|kernel_clone|unpurged' /proc/vmallocinfo | awk '{ sum += $2 } END { print sum }'
}

slab_in_use() {
	awk '$1 == "SUnreclaim:" { print $2 }' /proc/meminfo
}

# The kernel frees some of both late; what leaked stays.
is_back_at() { # VMALLOC SLAB
	[ "$(vmalloc_in_use)" -le "$1" ] && [ "$(slab_in_use)" -le "$2" ]
}

one_round() {
	load
	eventually 10 is_known_as_it_is /dev/vdb
	zorvatctl start /dev/vdb
	zorvatctl switch /dev/vdb
	unload
}

# Memory is compared after the first round has set up what the kernel keeps. Unloading opens the
# device-mapper's control device, and of each such open the driver keeps a page, by its rule.
loads_and_unloads_under_io() {
	local round vmalloc slab
	disk=/dev/vdb
	keep_writing
	one_round
	vmalloc=$(vmalloc_in_use)
	slab=$(slab_in_use)
	for round in $(seq "${rounds:-3}"); do
		one_round
		is_writing
	done
	eventually 10 is_back_at $((vmalloc + ${rounds:-3} * 8192)) $((slab + 512))
}
