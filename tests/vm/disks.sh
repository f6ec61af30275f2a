# SPDX-License-Identifier: GPL-2.0
# Disks that come, go and change while the driver knows and tracks them, and queues that are
# reconfigured under load.

cases() {
	echo load
	for kind in virtio null_blk scsi_debug; do
		echo survives_scheduler_changes $kind
		echo survives_queue_depth_changes $kind
	done
	echo follows_hot_removal
	echo follows_detached_loop
	echo stops_at_resize
	echo follows_quick_changes
	echo unload
}

set_each_scheduler() {
	local scheduler all
	all=$(tr -d '[]' <"$(sysfs_of "$disk")/queue/scheduler" | tr ' ' ,)
	for scheduler in $(echo "${schedulers:-$all}" | tr , ' '); do
		echo "$scheduler" >"$(sysfs_of "$disk")/queue/scheduler"
		usleep 100000
	done
}

set_queue_depths() {
	local depth
	for depth in 4 64 16 128; do
		echo $depth >"$(sysfs_of "$disk")/queue/nr_requests" || true
		usleep 100000
	done
}

# The disk is written to all the while; nothing may hang, and every write must be reported.
under_load() { # CHANGE...
	cat "$disk" >/tmp/before
	defer rm /tmp/before
	keep_writing
	for round in $(seq "${rounds:-5}"); do
		"$@"
		is_writing
	done
	stop_writing
	report_changes "$disk"
	oracle images /tmp/before "$disk" /tmp/extents
}

survives_scheduler_changes() { # KIND
	use_disk "$1"
	modprobe -q bfq || true
	modprobe -q kyber-iosched || true
	start_tracking "$disk"
	defer "echo $(sed 's/.*\[\(.*\)\].*/\1/' "$(sysfs_of "$disk")/queue/scheduler") >$(sysfs_of "$disk")/queue/scheduler"
	under_load set_each_scheduler
}

survives_queue_depth_changes() { # KIND
	use_disk "$1"
	start_tracking "$disk"
	under_load set_queue_depths
}

follows_hot_removal() {
	use_scsi_debug
	eventually 10 is_known_as_it_is "$disk"
	zorvatctl start "$disk"
	local device
	device=$(device_of "$disk")
	keep_writing
	sleep 1
	remove_scsi_disk
	stop_writing
	eventually 5 fails test -e "/sys/zorvat/$device"

	find_scsi_disk_again
	start_tracking "$disk"
	run_fio
	report_changes "$disk"
	[ -s /tmp/extents ]
}

# Detaching the file leaves a disk of no size: a change, which ends tracking.
follows_detached_loop() {
	use_loop
	eventually 10 is_known_as_it_is "$disk"
	zorvatctl start "$disk"
	run_fio --number_ios=10
	change_size losetup -d "$disk"
	eventually 5 fails is_tracked "$disk"
	change_size losetup "$disk" /tmp/loop-image
	start_tracking "$disk"
	zorvatctl stop "$disk"
}

stops_at_resize() {
	use_loop
	eventually 10 is_known_as_it_is "$disk"
	zorvatctl start "$disk"
	truncate -s 48M /tmp/loop-image
	change_size losetup -c "$disk"
	eventually 5 fails is_tracked "$disk"
	start_tracking "$disk"
	dd if=/dev/urandom of="$disk" bs=64k seek=700 count=1 oflag=direct 2>/dev/null
	report_changes "$disk"
	[ "$(cut -d' ' -f1 /tmp/extents)" = $((700 * 128)) ]
}

# An "add" waits a second, so a removal within it comes first.
follows_quick_changes() {
	for round in $(seq "${rounds:-5}"); do
		(
			trap run_deferred EXIT
			use_null_blk
			dd if=/dev/zero of="$disk" bs=1M count=1 2>/dev/null
		)
	done
	use_null_blk
	start_tracking "$disk"
}
