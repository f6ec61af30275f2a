# SPDX-License-Identifier: GPL-2.0
# The agent on real LVM, with a file system that is written all the time: every restore point,
# restored and served, is the snapshot that it was made from; also when backups are killed, or find
# no room. rounds=N on the kernel's command line makes it as long as one likes.

cases() {
	echo load
	echo every_point_is_its_snapshot "${rounds:-1}"
	echo killed_at_random "${rounds:-1}"
	echo no_room_in_the_repository
	echo an_overflowing_snapshot_is_named
	echo a_flipped_byte_is_found
	echo tells_why_it_is_full
	for type in ext4 xfs; do
		echo mounts_an_older_point $type
	done
	echo serves_a_disk
	echo unmounts_what_nobody_serves
	echo refuses_targets_in_use
	echo forgets_without_losing_a_block
	echo unload
	echo mount_tells_that_there_is_no_driver
}

repository_disk=/tmp/repository-disk
repository=$repository_disk/data

# --- Cases

every_point_is_its_snapshot() { # ROUNDS
	use_busy_volume
	for point in $(seq "$1"); do
		back_up_and_keep_truth
		restore_equals "$repository" /tmp/truth
		[ "$point" = 1 ] || zorvat list "$repository" --json | grep -q incremental
		sum_of /tmp/truth >/tmp/sum$point
	done
	zorvat verify "$repository" -q
	# However many came after it, and on both roads.
	for point in $(seq "$1"); do
		zorvat restore "$repository@$point" --to /tmp/restored -q
		sum_of /tmp/restored | cmp - /tmp/sum$point
		rm /tmp/restored
		zorvat serve "$repository@$point" >/tmp/served &
		server=$!
		eventually 20 grep -q ^/dev/ /tmp/served
		sum_of "$(grep -m1 ^/dev/ /tmp/served)" | cmp - /tmp/sum$point
		stop_serving $server
	done
}

killed_at_random() { # ROUNDS
	use_busy_volume
	zorvat backup vg/data --to "$repository" -q
	for round in $(seq "$1"); do
		# At any moment of a backup, as long as one takes here.
		local before=$(milliseconds)
		zorvat backup vg/data --to "$repository" -q
		local duration=$(($(milliseconds) - before))
		for kill in $(seq $((1 + $(random) % 3))); do
			zorvat backup vg/data --to "$repository" -q >/tmp/killed 2>&1 &
			agent=$!
			usleep $(($(random) % (duration + 1) * 1000))
			kill -9 $agent || true
			wait $agent || true
		done
		zorvat verify "$repository" -q
		back_up_and_keep_truth
		restore_equals "$repository" /tmp/truth
		nothing_is_left
	done
}

no_room_in_the_repository() {
	use_busy_volume
	zorvat backup vg/data --to "$repository" -q
	fill_repository_disk
	dd if=/dev/urandom of=/mnt/more bs=1M count=4 conv=fsync
	local status=0
	zorvat backup vg/data --to "$repository" -q || status=$?
	[ $status = 8 ]
	zorvat verify "$repository" -q
	rm $repository_disk/filler $repository_disk/most
	back_up_and_keep_truth
	zorvat list "$repository" | tail -n1 | grep incremental
	restore_equals "$repository" /tmp/truth
	nothing_is_left
}

an_overflowing_snapshot_is_named() {
	use_busy_volume
	zorvat backup vg/data --to "$repository" -q
	stale=
	zorvat backup vg/data --to "$repository" -q --full --snapshot-size 4m 2>/tmp/told &
	agent=$!
	until snapshot_is_noted || ! kill -0 $agent; do :; done
	kill -STOP $agent
	dd if=/dev/urandom of=/mnt/more bs=1M count=8 conv=fsync
	kill -CONT $agent
	local status=0
	wait $agent || status=$?
	[ $status = 8 ]
	grep "the snapshot overflowed" /tmp/told
	back_up_and_keep_truth
	restore_equals "$repository" /tmp/truth
	nothing_is_left
}

a_flipped_byte_is_found() {
	use_busy_volume
	zorvat backup vg/data --to "$repository" -q
	zorvat backup vg/data --to "$repository" -q
	for file in $(find "$repository" -name '*.data') $(find "$repository" -name '*.json'); do
		cp "$file" /tmp/intact
		flip_byte "$file" $(($(random) % $(stat -c %s "$file")))
		fails zorvat verify "$repository" -q 2>/tmp/told
		grep "$(basename "$file")" /tmp/told
		cp /tmp/intact "$file"
	done
	zorvat verify "$repository" -q
}

tells_why_it_is_full() {
	use_busy_volume
	zorvat backup vg/data --to "$repository" -q --json | grep '"reason": "it is the first one"'
	zorvatctl switch $volume
	zorvatctl clear $volume
	zorvat backup vg/data --to "$repository" -q --json | grep '"reason": "the bitmap was switched'
	zorvat backup vg/data --to "$repository" -q --json | grep '"reason": ""'
	zorvat backup vg/data --to $repository_disk/other -q
	zorvat backup vg/data --to "$repository" -q --json | grep '"reason": "another backup'
	zorvatctl stop $volume
	zorvat backup vg/data --to "$repository" -q --json | grep '"reason": "the volume was not tracked"'
	back_up_and_keep_truth
	restore_equals "$repository" /tmp/truth
}

mounts_an_older_point() { # TYPE
	use_busy_volume "$1"
	echo "as it was" >/mnt/note
	sync
	zorvat backup vg/data --to "$repository" -q
	echo "as it is" >/mnt/note
	sync
	zorvat backup vg/data --to "$repository" -q
	local old='/tmp/as it\was' status=0
	mkdir -p "$old" /tmp/new
	zorvat mount "$repository@1" "$old"
	# Who waits for the end of a pipe that the caller has open need not wait for the server.
	zorvat mount "$repository" /tmp/new 9>&1 | timeout 30 cat
	grep "as it was" "$old/note"
	grep "as it is" /tmp/new/note
	(cd "$old" && zorvat umount .) || status=$?
	[ $status = 6 ]
	zorvat umount "$old"
	zorvat umount /tmp/new
	nothing_serves
	# Its server stays for whoever has it, and no longer, however it is unmounted.
	zorvat mount "$repository" /tmp/new
	mkdir -p /tmp/bound
	mount --bind /tmp/new /tmp/bound
	zorvat umount /tmp/new
	exec 8</tmp/bound/note
	umount -l /tmp/bound
	sleep 1
	pidof zorvat
	exec 8<&-
	eventually 10 fails pidof zorvat
	nothing_serves
	zorvat mount "$repository" /tmp/new
	umount /tmp/new
	eventually 10 fails pidof zorvat
	nothing_serves
	for failing in 'umount /tmp/new' "mount $repository@9 /tmp/new"; do
		status=0
		zorvat $failing || status=$?
		[ $status = 4 ]
	done
}

serves_a_disk() {
	use_busy_volume
	back_up_and_keep_truth
	serve_by zorvat serve "$repository"
	oracle equal /tmp/truth "$served"
	# The server dies; whoever backs up next removes its disk, and no other one.
	die_and_reuse_number $server
	ended_server=$server
	zorvatctl disks | grep no-server
	mkdir -p /tmp/new
	zorvat mount "$repository" /tmp/new -q
	fails ls "$served"
	zorvat backup vg/data --to "$repository" -q
	ls /tmp/new
	zorvat umount /tmp/new
	nothing_serves
}

unmounts_what_nobody_serves() {
	use_busy_volume
	zorvat backup vg/data --to "$repository" -q
	mkdir -p /tmp/new
	zorvat mount "$repository" /tmp/new
	die_and_reuse_number "$(pidof zorvat)"
	zorvat umount /tmp/new
	nothing_serves
	kill -0 $other
	# And so it is when the disk was removed before.
	zorvat mount "$repository" /tmp/new
	kill -9 "$(pidof zorvat)"
	eventually 10 eval 'zorvatctl disks | grep no-server'
	zorvat backup vg/data --to "$repository" -q
	zorvat umount /tmp/new
	fails grep /tmp/new /proc/mounts
}

refuses_targets_in_use() {
	use_busy_volume
	zorvat backup vg/data --to "$repository" -q
	local status=0
	zorvat restore "$repository" --to $volume -q || status=$?
	[ $status = 6 ]
	status=0
	zorvat restore "$repository" --to /dev/vdc -q || status=$?
	[ $status = 6 ]
	use_virtio
	make_partitions
	start_tracking $disk
	status=0
	zorvat restore "$repository" --to ${partition}1 -q || status=$?
	[ $status = 6 ]
	lvm lvcreate -q -y -n spare -L 8m vg
	status=0
	zorvat restore "$repository" --to /dev/vg/spare -q || status=$?
	[ $status = 2 ]
}

forgets_without_losing_a_block() {
	use_busy_volume
	for round in 1 2 3 4 5; do
		back_up_and_keep_truth
		mv /tmp/truth /tmp/truth$round
	done
	zorvat forget "$repository@2" -q
	zorvat forget "$repository@3" -q
	zorvat verify "$repository" -q
	for round in 1 4 5; do
		restore_equals "$repository@$round" /tmp/truth$round
	done
	zorvat forget "$repository" --keep-last 1 -q
	[ "$(zorvat list "$repository" | wc -l)" = 2 ]
	restore_equals "$repository" /tmp/truth5
	rm /tmp/truth*
}

# With the repository that the case before has left on the third disk.
mount_tells_that_there_is_no_driver() {
	mount -t ext4 /dev/vdc $repository_disk
	defer umount $repository_disk
	local status=0
	zorvat mount "$repository" /tmp/new || status=$?
	[ $status = 3 ]
}

# --- The volume and the repository, until the case ends

# $volume, mounted on /mnt and written all the time; $repository, on the third disk.
use_busy_volume() { # [TYPE]: of its file system, ext4 if not given
	use_volume 32 "${1:-ext4}"
	eventually 10 is_known_as_it_is $volume
	defer 'zorvatctl stop $volume'
	mkdir -p $repository_disk
	make_ext4 /dev/vdc
	mount -t ext4 /dev/vdc $repository_disk
	defer umount $repository_disk
	keep_files_changing
}

keep_files_changing() {
	fio --name=work --directory=/mnt --size=8m --rw=randwrite --bssplit=4k/80:64k/20 --fsync=64 \
		--thread --ioengine=psync --time_based --runtime=1h --thinktime=5ms --randrepeat=0 \
		--refill_buffers --output=/tmp/fio.log &
	defer "killall -q fio; wait"
	eventually 10 test -f /mnt/work.0.0
}

# A backup, and in /tmp/truth what its snapshot holds: the agent is stopped when it has noted what
# changed, and is about to copy it.
back_up_and_keep_truth() {
	rm -f /tmp/truth
	set +x
	read_attempt
	stale=$noted
	zorvat backup vg/data --to "$repository" -q &
	agent=$!
	until snapshot_is_noted || ! kill -0 $agent; do :; done
	kill -STOP $agent
	set -x
	dd if="/dev/vg/$noted" of=/tmp/truth bs=1M 2>/dev/null
	kill -CONT $agent
	wait $agent
	[ "$(stat -c %s /tmp/truth)" = "$(blockdev --getsize64 $volume)" ]
}

# These run no program: they have to be quicker than the agent.
snapshot_is_noted() {
	read_attempt
	[ "$noted" != "$stale" ] && [ $changes = known ] && [ -b "/dev/vg/$noted" ]
}

read_attempt() { # $noted: its snapshot; $changes: whether they are known
	noted='' changes=unknown
	{ read -r line && read -r line; } 2>/dev/null <"$repository/attempt.json" || return 0
	noted=${line#*'"snapshot":"'}
	noted=${noted%%'"'*}
	case $line in
	*'"switch_count":null'*) ;;
	*) changes=known ;;
	esac
}

restore_equals() { # REPOSITORY[@POINT] FILE
	rm -f /tmp/restored
	zorvat restore "$1" --to /tmp/restored -q
	oracle equal /tmp/restored "$2"
	rm /tmp/restored
}

sum_of() { # FILE
	md5sum "$1" | cut -d' ' -f1
}

fill_repository_disk() {
	local free=$(($(stat -f -c '%f * %S' $repository_disk)))
	fallocate -l $((free - (64 << 20))) $repository_disk/most
	dd if=/dev/zero of=$repository_disk/filler bs=64k 2>/dev/null || true
}

flip_byte() { # FILE OFFSET
	local byte=$(dd if="$1" bs=1 skip="$2" count=1 2>/dev/null | od -An -tu1)
	printf "\\$(printf %03o $((byte ^ 1)))" | dd of="$1" bs=1 seek="$2" conv=notrunc 2>/dev/null
}

nothing_is_left() {
	fails ls /dev/vg/ZKR_snapshot*
	nothing_serves
	[ ! -e "$repository/attempt.json" ]
	fails ls "$repository"/*.tmp
	fails ls "$repository"/*/*.tmp
}

nothing_serves() {
	zorvatctl disks --json | grep -F '[]'
	eventually 5 fails pidof zorvat
}

# Kills the process; another one, $other, has its number until the case ends.
die_and_reuse_number() { # PROCESS
	[ -e /proc/sys/kernel/ns_last_pid ] || skip "process numbers cannot be chosen"
	kill -9 $1
	wait $1 || true
	eventually 10 fails kill -0 $1
	other=
	until [ "$other" = $1 ]; do
		echo $(($1 - 1)) >/proc/sys/kernel/ns_last_pid
		sleep 1000 &
		other=$!
		defer "kill $other; wait $other || true"
	done
}

milliseconds() {
	awk '{ print int($1 * 1000) }' /proc/uptime
}

random() {
	od -An -N4 -tu4 /dev/urandom
}
