# SPDX-License-Identifier: GPL-2.0
# The demonstration: a full backup of a disk, work on the disk, an incremental backup from the
# reported extents, and the proof that it is complete.

cases() {
	echo load
	echo incremental_backup_is_complete
	echo unload
}

disk=/dev/vda
copy=/dev/vdc

tell() { # for the reader, past the case's own log
	echo "  $*" >/dev/ttyS1
}

mebibytes() { # SECTORS
	awk -v sectors="$1" 'BEGIN { printf "%.1f MiB", sectors / 2048 }'
}

sectors_written() { # DISK
	awk '{ print $7 }' "$(sysfs_of "$1")/stat"
}

work_on_the_disk() {
	tell "  mkfs.ext4, mount"
	mkfs.ext4 -q -E nodiscard $disk
	mount -t ext4 $disk /mnt
	tell "  copy a tree: /usr"
	cp -a /usr /mnt
	tell "  random writes into a file (fio)"
	fio --name=work --directory=/mnt --size=16m --rw=randwrite --bs=4k --io_size=4m --thread \
		--end_fsync=1 --output=/tmp/fio.log
	rm -r /mnt/usr/sbin
	tell "  unmount"
	umount /mnt
}

# Whole 64 KiB blocks; the last one of the disk may be shorter.
copy_extents() { # reads "START LENGTH ..." lines
	while read -r start length remark; do
		dd if=$disk of=$copy bs=64k skip=$((start / 128)) seek=$((start / 128)) \
			count=$((length / 128)) conv=notrunc 2>/dev/null
	done
	sync
}

incremental_backup_is_complete() {
	eventually 10 is_known_as_it_is $disk
	tell "full copy of $disk ($(mebibytes "$(sectors_of $disk)")) to $copy"
	dd if=/dev/urandom of=$disk bs=1M count=64 conv=fsync 2>/dev/null
	cat $disk >$copy
	cmp $disk $copy

	tell "start tracking"
	zorvatctl start $disk
	defer zorvatctl stop $disk
	local before
	before=$(sectors_written $disk)

	tell "work on the disk:"
	work_on_the_disk
	fails cmp -s $disk $copy
	local written
	written=$(($(sectors_written $disk) - before))

	tell "read the changed extents over netlink"
	report_changes $disk
	local reported
	reported=$(awk '{ sum += $2 } END { print sum }' /tmp/extents)

	tell "copy only those"
	before=$(sectors_written $copy)
	copy_extents </tmp/extents
	local copied
	copied=$(($(sectors_written $copy) - before))

	tell "written $(mebibytes $written), reported $(mebibytes "$reported") in $(wc -l </tmp/extents) extents, copied $(mebibytes $copied)"
	cmp $disk $copy
	tell "disk and copy compared byte by byte: equal"
}
