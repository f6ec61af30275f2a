# SPDX-License-Identifier: GPL-2.0
# The switch at an LVM snapshot, with real lvm2 and a file system that is written all the time: what
# is reported, copied from the snapshot onto a copy of the snapshot before, gives that snapshot.
# rounds=N and seconds=N on the kernel's command line make it as long as one likes.

cases() {
	echo load
	echo increments_are_complete "${rounds:-5}"
	echo two_snapshots_without_clear
	echo switches_once_per_snapshot
	echo deactivated_and_activated
	echo warns_of_the_interface_version
	echo other_snapshots_never_switch
	echo a_resize_ends_tracking
	echo devices_called_real
	echo several_at_once "${seconds:-10}"
	echo malformed_requests
	echo unload
	echo unload_with_the_control_device_open
	echo load_and_unload_while_dmsetup_runs
	echo same_as_without_the_driver
}

# --- Cases

increments_are_complete() { # ROUNDS
	back_up_a_busy_volume
	for round in $(seq "$1"); do
		sleep 1
		take_snapshot
		zorvatctl extents $volume >/tmp/extents
		[ -s /tmp/extents ]
		oracle images $copy "$snapshot" /tmp/extents
		copy_extents "$snapshot" $copy </tmp/extents
		oracle equal "$snapshot" $copy
		# What is written after the snapshot is not in its increment.
		zorvatctl extents $volume | cmp - /tmp/extents
		drop_snapshot
		zorvatctl clear $volume
	done
}

back_up_a_busy_volume() { # to $copy
	use_volume 32
	use_copy
	start_tracking $volume
	keep_working
	take_snapshot
	cat "$snapshot" >$copy
	drop_snapshot
	zorvatctl clear $volume
}

two_snapshots_without_clear() {
	back_up_a_busy_volume
	for round in 1 2; do
		sleep 1
		take_snapshot
		drop_snapshot
	done
	sleep 1
	take_snapshot
	zorvatctl extents $volume | copy_extents "$snapshot" $copy
	oracle equal "$snapshot" $copy
	drop_snapshot
}

switches_once_per_snapshot() {
	use_volume 32
	start_tracking $volume
	take_snapshot
	[ "$(switches)" = 1 ]
	dmsetup suspend vg-ZKR_snapshot1
	dmsetup resume vg-ZKR_snapshot1
	lvm vgchange -q -ay vg
	[ "$(switches)" = 1 ]
	drop_snapshot
	[ "$(switches)" = 1 ]
	take_snapshot
	[ "$(switches)" = 2 ]
	drop_snapshot
	is_tracked $volume
}

# A volume that comes back is another device to the driver, and not tracked.
deactivated_and_activated() {
	use_volume_group
	volume=/dev/vg/data
	lvm lvcreate -q -y -n data -L 16m vg
	start_tracking $volume
	lvm vgchange -q -an vg
	lvm vgchange -q -ay vg
	eventually 10 is_known_as_it_is $volume
	fails is_tracked $volume
	start_tracking $volume
	take_snapshot
	[ "$(switches)" = 1 ]
	# Now the hidden device is resumed before the driver knows the volume over it.
	lvm vgchange -q -an vg
	fails lvm vgchange -q -ay vg
	logged "Unable to fetch the volume info for Unknown block write to device"
	lvm vgchange -q -an vg || true # it leaves the hidden device behind
	dmsetup remove_all --force
}

# Interface versions after those of the target kernel are told of, and work.
warns_of_the_interface_version() {
	dmsetup version | grep -E "Driver version: +4[.]([3-9].|[1-9]..)[.]" ||
		skip "an interface of 4.29 or before"
	logged "uses un-supported DM-Interface version:4."
}

other_snapshots_never_switch() {
	use_volume 32
	start_tracking $volume
	for name in other_snap my_ZKR_snapshot1 zkr_snapshot1; do
		lvm lvcreate -q -s -n $name -L 8m vg/data
		lvm lvremove -q -f vg/$name
	done
	[ "$(switches)" = 0 ]
}

a_resize_ends_tracking() {
	use_volume 32
	start_tracking $volume
	lvm lvresize -q -L +8m vg/data
	eventually 10 fails is_tracked $volume
	eventually 10 is_known_as_it_is $volume
	zorvatctl start $volume
	is_tracked $volume
}

# A hidden origin is known by its name alone: the suspend and the resume of another device called
# so are answered with an error, although they have happened.
devices_called_real() {
	for name in surreal real; do
		dmsetup create $name --notable
		dmsetup load $name --table "0 2048 linear /dev/vdb 0"
		fails dmsetup resume $name
		dmsetup info $name | grep -E "State: +ACTIVE"
		fails dmsetup suspend $name
		dmsetup info $name | grep -E "State: +SUSPENDED"
		dmsetup remove $name
	done
}

several_at_once() { # SECONDS
	use_volume_group
	for n in 1 2 3 4; do
		lvm lvcreate -q -y -n data$n -L 16m vg
		eventually 10 is_known_as_it_is /dev/vg/data$n
		start_tracking /dev/vg/data$n
	done
	end=$(($(date +%s) + $1))
	for n in 1 2 3 4; do
		snapshots_until $end $n &
		pids="${pids-} $!"
	done
	for pid in $pids; do
		wait $pid
	done
	for n in 1 2 3 4; do
		[ "$(switches /dev/vg/data$n)" = "$(cat /tmp/taken$n)" ]
	done
}

snapshots_until() { # TIME NUMBER
	local taken=0
	while [ "$(date +%s)" -lt "$1" ]; do
		lvm lvcreate -q -s -n ZKR_snapshot$2 -L 8m vg/data$2
		taken=$((taken + 1))
		lvm lvremove -q -f vg/ZKR_snapshot$2
	done
	[ $taken -gt 0 ]
	echo $taken >/tmp/taken$2
}

# What the kernel is asked, it answers as ever; the rest never gets to it.
malformed_requests() {
	dmsetup create probe --table "0 2048 linear /dev/vdb 0"
	defer dmsetup remove probe
	dm-probe own probe >/tmp/own
	[ "$(grep -c ': EFAULT$' /tmp/own)" = 5 ]
	dm-probe kernel probe >/tmp/with
	unload
	dm-probe kernel probe >/tmp/without
	load
	diff /tmp/without /tmp/with
}

# A file that is open across the unload has lost its way to the device-mapper, and nothing worse.
unload_with_the_control_device_open() {
	load
	exec 7<>/dev/mapper/control
	unload
	exec 7>&-
	dmsetup ls
	load
	unload
}

load_and_unload_while_dmsetup_runs() {
	(set +ex; while :; do dmsetup ls; dmsetup table; dmsetup targets; done) >/dev/null 2>&1 &
	defer kill $!
	for round in 1 2 3; do
		load
		sleep 1
		# A command that is in the middle of a request keeps the module for that moment.
		eventually 10 rmmod zorvat
	done
}

# Commands that concern no tracked volume say and do the same.
same_as_without_the_driver() {
	device_mapper_work >/tmp/without 2>&1
	load
	device_mapper_work >/tmp/with 2>&1
	unload
	diff /tmp/without /tmp/with
}

# A snapshot's origin has to be known by then, which takes a second.
device_mapper_work() {
	set +ex
	while read -r command; do
		echo "\$ $command"
		eval "$command" </dev/null 2>&1
		echo "status $?"
	done <<-COMMANDS
	dmsetup version
	dmsetup create plain --table '0 2048 linear /dev/vdb 0'
	dmsetup table plain
	dmsetup status plain
	dmsetup info -c --noheadings -o name,attr,open plain
	dmsetup suspend plain
	dmsetup resume plain
	dmsetup reload plain --table '0 1 nonsense'
	dmsetup load plain --table '0 4096 linear /dev/vdb 0'
	dmsetup resume plain
	dmsetup table plain
	dmsetup clear plain
	dmsetup rename plain other
	dmsetup message other 0 hello
	dmsetup remove missing
	dmsetup remove other
	use_volume_group
	lvm lvcreate -y -n one -L 8m vg
	sleep 2
	lvm lvcreate -s -n snap -L 8m vg/one
	lvm lvs --noheadings -o name,size,origin vg
	lvm lvresize -L 12m vg/one
	lvm lvremove -f vg/snap
	lvm lvresize -L 12m vg/one
	lvm vgchange -an vg
	lvm vgchange -ay vg
	lvm lvrename vg one two
	lvm lvremove -f vg/two
	lvm lvremove -f vg/two
	lvm vgremove -f vg
	COMMANDS
	deferred=
}

# --- Work

switches() { # [VOLUME]
	cat "/sys/zorvat/$(device_of "${1:-$volume}")/cbt-switch-count"
}

keep_working() { # on the file system, until the case ends
	fio --name=work --directory=/mnt --size=8m --rw=randwrite --bssplit=4k/80:64k/20 --fsync=64 \
		--thread --ioengine=psync --time_based --runtime=1h --thinktime=2ms --randrepeat=0 \
		--refill_buffers --output=/tmp/fio.log &
	(set +x
	while :; do
		cp -r /suites /mnt/tree
		sync
		rm -r /mnt/tree
	done) &
	defer "kill $!; killall -q fio; wait"
	eventually 10 test -d /mnt/tree
}
