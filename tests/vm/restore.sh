# SPDX-License-Identifier: GPL-2.0
# Restore disks: images served by zorvatctl, read as disks, with servers and administrators that
# behave badly. rounds=N on the kernel's command line makes it as long as one likes.

cases() {
	echo load
	for size in 512 1024 4096; do
		echo reads_back $size
	done
	for size in 8192 65536 1536; do
		echo refuses_block_size $size
	done
	for type in ext4 xfs partitions; do
		echo mounts $type
	done
	echo reads_back_an_nbd_export
	echo two_disks_two_readers
	echo lists_70_disks
	echo suspends_under_load
	echo server_killed_under_load
	echo destroyed_while_mounted
	echo unload_is_refused_while_there_are_disks
	for behaviour in silent slow garbage "cut 0" "cut 13" "cut 47" fail ahead; do
		echo answers $behaviour
	done
	for behaviour in unmap unmap-middle map-over protect forbid move discard touch fork; do
		echo plays_with_its_area $behaviour
	done
	echo shows_pages_for_one_request_only
	echo goes_silent_while_the_disk_is_added
	echo creates_and_destroys "${rounds:-10}"
	echo unload
}

# --- Cases

reads_back() { # BLOCK_SIZE
	make_image 16
	serve /tmp/image --block-size "$1"
	[ "$(blockdev --getss $served)" = "$1" ]
	[ "$(blockdev --getsize64 $served)" = 16777216 ]
	[ "$(blockdev --getro $served)" = 1 ]
	oracle equal /tmp/image $served
	read-probe /tmp/image $served "$1"
	fails dd if=/dev/zero of=$served bs=4k count=1 conv=fsync
}

reads_back_an_nbd_export() {
	make_image 4
	use_nbdkit
	serve "nbd+unix:///?socket=/tmp/nbd"
	oracle equal /tmp/image $served
}

refuses_block_size() { # BLOCK_SIZE
	make_image 4
	fails zorvatctl serve /tmp/image --block-size "$1" >/tmp/refused 2>&1
	cat /tmp/refused
	zorvatctl disks --json | grep -F '[]'
}

mounts() { # TYPE
	make_file_system "$1"
	serve /tmp/image
	local options=ro,noload
	[ "$1" = ext4 ] || options=ro,norecovery
	[ "$1" = partitions ] && options=ro,noload && eventually 5 test -b ${served}2 && served=${served}2
	mount -t "$type" -o $options $served /mnt
	defer umount /mnt
	(cd /mnt && find . -type f -exec md5sum {} + | sort) >/tmp/seen
	cmp /tmp/seen /tmp/content
}

two_disks_two_readers() {
	make_image 8
	serve /tmp/image
	local first=$served
	serve /tmp/image --block-size 4096
	for disk in $first $first $served $served; do
		oracle equal /tmp/image $disk &
		pids="${pids-} $!"
	done
	for pid in $pids; do
		wait $pid
	done
}

lists_70_disks() {
	make_image 1
	for n in $(seq 70); do
		serve /tmp/image
	done
	[ "$(zorvatctl disks | grep -c zorvat-)" = 70 ]
	[ "$(ls /sys/zorvat/restore-volumes | grep -c zorvat-)" = 70 ]
}

suspends_under_load() {
	make_image 16
	serve /tmp/image
	keep_reading
	local name=${served#/dev/}
	zorvatctl suspend $name
	[ ! -b $served ]
	[ "$(cat /sys/zorvat/restore-volumes/$name/datalink-portid)" = 0 ]
	zorvatctl resume $name
	eventually 5 test -b $served
	oracle equal /tmp/image $served
}

server_killed_under_load() {
	make_image 16
	serve /tmp/image
	keep_reading
	kill -9 $server
	eventually 10 fails is_reading
	fails dd if=$served of=/dev/null bs=64k count=1 iflag=direct
	zorvatctl disks | grep zorvat-
	zorvatctl destroy "${served#/dev/}"
	zorvatctl disks --json | grep -F '[]'
	[ ! -b $served ]
}

destroyed_while_mounted() {
	make_file_system ext4
	serve /tmp/image
	mount -t ext4 -o ro,noload $served /mnt
	announce_log 'EXT4-fs|I/O error|Buffer I/O'
	zorvatctl destroy "${served#/dev/}"
	echo 3 >/proc/sys/vm/drop_caches
	fails cat /mnt/file1
	umount /mnt
	zorvatctl disks --json | grep -F '[]'
}

unload_is_refused_while_there_are_disks() {
	make_image 4
	serve /tmp/image
	fails rmmod zorvat
	oracle equal /tmp/image $served
}

# Whatever a server does, it can be killed, its disk ends, and the next one is well.
answers() { # BEHAVIOUR of hostile-server
	server_goes_bad "$@"
	kill -9 $server
	eventually 10 fails is_reading
	end_bad_server
}

plays_with_its_area() { # BEHAVIOUR of hostile-server
	server_goes_bad "$@"
	zorvatctl destroy "${served#/dev/}" # which the server lives to see
	eventually 10 fails is_reading
	kill -USR2 $server
	kill -0 $server
	[ ! -e /tmp/wrong ]
	fails grep -v ^/dev/ /tmp/served
	served=
	end_bad_server
}

shows_pages_for_one_request_only() {
	make_image 8
	serve_badly look
	kill -USR1 $server
	dd if=$served of=/dev/null bs=64k count=1 iflag=direct
	eventually 5 grep -x 'seen during 16 after 0' /tmp/served
	kill -9 $server
	end_bad_server
}

goes_silent_while_the_disk_is_added() {
	make_image 8
	: >/tmp/served
	hostile-server /tmp/image silent 0 at-once >/tmp/served 2>&1 &
	server=$!
	defer "kill -9 $server 2>/dev/null; wait $server || true"
	# Whoever adds the disk waits for its partitions, and commands wait for him.
	local disks=/sys/zorvat/restore-volumes
	eventually 5 eval "ls $disks | grep zorvat-"
	served=/dev/$(ls $disks | grep zorvat-)
	sleep 2
	kill -9 $server
	end_bad_server
}

# Its disk can be destroyed, and another server's reads back.
end_bad_server() { # of $served, if that is left
	[ -z "$served" ] || zorvatctl destroy "${served#/dev/}"
	kill -9 $server 2>/dev/null || true
	zorvatctl disks --json | grep -F '[]'
	serve /tmp/image
	oracle equal /tmp/image $served
}

creates_and_destroys() { # ROUNDS
	make_image 4
	for round in $(seq "$1"); do
		[ $round != 3 ] || local before=$(unreclaimable)
		: >/tmp/served
		zorvatctl serve /tmp/image >/tmp/served 2>&1 &
		server=$!
		eventually 10 grep -q ^/dev/ /tmp/served
		dd if=$(head -n1 /tmp/served) of=/dev/null bs=1M 2>/dev/null
		kill $server
		wait $server || [ $? = 143 ]
	done
	eventually 20 no_more_than $((before + 1024))
	[ ! -d /sys/zorvat/restore-volumes ] || eventually 5 fails test -d /sys/zorvat/restore-volumes
}

unreclaimable() { # in KiB
	awk '/^SUnreclaim/ { print $2 }' /proc/meminfo
}

no_more_than() { # KIBIBYTES
	[ "$(unreclaimable)" -le "$1" ]
}

# --- Images

make_image() { # MEBIBYTES
	dd if=/dev/urandom of=/tmp/image bs=1M count="$1" 2>/dev/null
	defer rm /tmp/image
}

# /tmp/image with a file system of that type, and the sums of what is in it in /tmp/content.
make_file_system() { # ext4|xfs|partitions
	type=$1
	local offset=0 size=64
	[ "$type" != xfs ] || modprobe -q xfs || skip "no xfs"
	[ "$type" != xfs ] || size=320
	truncate -s ${size}M /tmp/image
	defer rm /tmp/image
	if [ "$type" = partitions ]; then
		type=ext4
		printf '%s\n' o n p 1 64 20000 n p 2 20480 100000 w | fdisk -u /tmp/image >/dev/null || true
		offset=$((20480 * 512))
	fi
	modprobe -q loop || true
	local device=$(losetup -f)
	losetup -o $offset $device /tmp/image
	defer "losetup -d $device 2>/dev/null || true"
	if [ $type = ext4 ]; then
		mkfs.ext4 -q -O ^metadata_csum,^64bit,^orphan_file $device $([ $offset = 0 ] || echo 32m)
	else
		mkfs.xfs -q $device
	fi
	mount -t $type $device /mnt
	cp /bin/busybox /mnt/file1
	cp -r /suites /mnt/suites
	dd if=/dev/urandom of=/mnt/file2 bs=1M count=5 2>/dev/null
	(cd /mnt && find . -type f -exec md5sum {} + | sort) >/tmp/content
	umount /mnt
	losetup -d $device
}

# --- Servers that go bad, until the case ends

serve_badly() { # BEHAVIOUR [NUMBER]: $served is the disk of a server that will behave so, $server
	: >/tmp/served
	hostile-server /tmp/image "$@" >/tmp/served 2>&1 &
	server=$!
	defer "kill -9 $server 2>/dev/null; wait $server || true"
	eventually 20 grep -q ^/dev/ /tmp/served
	served=$(grep -m1 ^/dev/ /tmp/served)
	oracle equal /tmp/image $served
}

server_goes_bad() { # BEHAVIOUR [NUMBER]: while its disk is read
	make_image 8
	serve_badly "$@"
	keep_reading
	keep_reading
	kill -USR1 $server
	sleep 1
}

# Reads the disk until a read fails. What was read and is not the image's is told by /tmp/wrong.
keep_reading() {
	rm -f /tmp/wrong
	local copy
	copy=$(mktemp /tmp/read.XXXXXX)
	(set +ex; while dd if=$served of=$copy bs=256k iflag=direct 2>/dev/null; do
		# The end comes early when the disk is taken away.
		cmp -s -n "$(stat -c %s $copy)" $copy /tmp/image || touch /tmp/wrong
	done
	rm $copy) &
	readers="${readers-} $!"
	defer "kill $! 2>/dev/null; wait $! || true"
	usleep 300000
}

is_reading() {
	local reader
	for reader in $readers; do
		! kill -0 $reader 2>/dev/null || return 0
	done
	return 1
}
