# SPDX-License-Identifier: GPL-2.0
# The demonstration: a full backup of a logical volume, work on the mounted volume, an incremental
# backup from a snapshot, the proof that it is complete, and a file out of the backup.

cases() {
	echo load
	echo incremental_backup_is_complete_and_can_be_mounted
	echo unload
}

tell() { # for the reader, past the case's own log
	echo "  $*" >/dev/ttyS1
}

mebibytes() { # SECTORS
	awk -v sectors="$1" 'BEGIN { printf "%.1f MiB", sectors / 2048 }'
}

work_on_the_volume() {
	tell "  copy a tree: /usr"
	cp -a /usr /mnt
	tell "  random writes into a file (fio)"
	fio --name=work --directory=/mnt --size=16m --rw=randwrite --bs=4k --io_size=4m --thread \
		--end_fsync=1 --output=/tmp/fio.log
	rm -r /mnt/usr/sbin
	echo "written after the full backup" >/mnt/note
}

keep_writing_files() { # until the case ends
	(set +x; while :; do
		cp /bin/busybox /mnt/one
		sync
	done) &
	defer "kill $!; wait"
}

incremental_backup_is_complete_and_can_be_mounted() {
	use_volume 128
	use_copy
	start_tracking $volume
	tell "$volume: $(mebibytes "$(sectors_of $volume)"), ext4, mounted, tracked"

	tell "full backup: snapshot, copy to $copy"
	take_snapshot
	cat "$snapshot" >$copy
	drop_snapshot
	zorvatctl clear $volume

	tell "work on the mounted volume:"
	work_on_the_volume
	keep_writing_files
	tell "  and a writer that goes on from here"

	tell "incremental backup: snapshot, at which the driver switches its bitmap"
	take_snapshot
	zorvatctl extents $volume >/tmp/extents
	local changed
	changed=$(awk '{ sum += $2 } END { print sum }' /tmp/extents)
	fails oracle equal "$snapshot" $copy
	tell "copy the $(wc -l </tmp/extents) changed extents from the snapshot: $(mebibytes "$changed")"
	copy_extents "$snapshot" $copy </tmp/extents

	oracle equal "$snapshot" $copy
	tell "snapshot and copy compared byte by byte: equal"
	drop_snapshot
	zorvatctl clear $volume

	rm /mnt/note
	serve $copy
	mkdir -p /restored
	mount -t ext4 -o ro,noload $served /restored
	defer umount /restored
	tell "serve the backup as a disk: $served, mounted"
	tell "a file that the volume does not have any more: $(cat /restored/note)"
}
