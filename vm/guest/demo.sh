# SPDX-License-Identifier: GPL-2.0
# The demonstration: a mounted logical volume is backed up in full and three times by what changed;
# then it is restored to another volume and compared, and a file is read as it was before.

cases() {
	echo load
	echo backups_of_a_volume_in_use
	echo unload
}

tell() { # for the reader, past the case's own log
	echo "  $*" >/dev/ttyS1
}

# Tells the command, what it prints, and how long it takes.
demonstrate() { # COMMAND...
	tell "\$ $*"
	local start=$(cut -d' ' -f1 /proc/uptime)
	"$@" 2>/tmp/messages >/tmp/shown || { cat /tmp/messages; return 1; }
	sed 's/^/    /' /tmp/shown >/dev/ttyS1
	tell "  ($(seconds_since "$start"))"
}

backups_of_a_volume_in_use() {
	use_volume 96
	eventually 10 is_known_as_it_is $volume
	defer 'zorvatctl stop $volume'
	make_ext4 /dev/vdc
	mkdir -p /backup /old
	mount -t ext4 /dev/vdc /backup
	defer umount /backup

	tell "/dev/vg/data, ext4, mounted; first all of it"
	echo "our prices of Monday" >/mnt/prices.txt
	cp -a /usr /mnt
	sync
	demonstrate zorvat backup vg/data --to /backup/data -q

	tell "a file changes, others come; what changed is copied"
	echo "our prices of Tuesday" >/mnt/prices.txt
	cp -a /bin/busybox /mnt/tool
	sync
	demonstrate zorvat backup vg/data --to /backup/data -q

	tell "random writes into a file (fio), a folder goes"
	fio --name=work --directory=/mnt --size=8m --rw=randwrite --bs=4k --io_size=2m --thread \
		--end_fsync=1 --output=/tmp/fio.log
	rm -r /mnt/usr/sbin
	demonstrate zorvat backup vg/data --to /backup/data -q

	tell "and while a program writes without end"
	keep_writing_files
	demonstrate zorvat backup vg/data --to /backup/data -q
	demonstrate zorvat list /backup/data

	tell "the last point on another volume; the two compared byte by byte"
	lvm lvcreate -q -y -n copy -L 96m vg
	demonstrate zorvat restore /backup/data --to /dev/vg/copy -q
	serve_by zorvat serve /backup/data
	oracle equal $served /dev/vg/copy
	e2fsck -fy /dev/vg/copy >/dev/null || [ $? = 1 ]
	tell "  equal, and its file system is sound"

	tell "the first point, mounted"
	demonstrate zorvat mount /backup/data@1 /old
	demonstrate cat /old/prices.txt
	demonstrate zorvat umount /old
	tell "the volume itself"
	demonstrate cat /mnt/prices.txt
}

keep_writing_files() { # until the case ends
	(set +x; while :; do
		cp /bin/busybox /mnt/one
		sync
	done) &
	defer "kill $!; wait $! || true"
}
