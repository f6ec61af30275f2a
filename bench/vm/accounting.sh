# SPDX-License-Identifier: GPL-2.0
# How much of what changed the driver reports: of the 64 KiB blocks that differ between two full
# images, the share in the report. It is all of them where a bio counts as a whole.

cases() {
	echo load
	echo measure file_system
	echo measure direct_writes 4k 256
	echo measure direct_writes 64k 128
	echo measure direct_writes 1m 16
	echo unload
}

measure() { # WORK [ARGUMENT...]
	use_virtio
	make_ext4 "$disk"
	start_tracking "$disk"
	cat "$disk" >/tmp/before
	defer rm /tmp/before
	"$@"
	report_changes "$disk"
	oracle images /tmp/before "$disk" /tmp/extents >/tmp/verdict || [ $? = 1 ]
	awk -v work="$*" '
		NR == 1 { differ = $1; reported = $4 }
		/are not reported/ { missed = $1 }
		END {
			printf "  %s: %d blocks differ, %d of them reported (%.1f %%), %d reported in all\n", \
				work, differ, differ - missed, 100 * (differ - missed) / differ, reported
		}' /tmp/verdict >/dev/ttyS1
}

file_system() {
	mount -t ext4 "$disk" /mnt
	cp -a /bin /usr/sbin /mnt
	fio --name=work --directory=/mnt --size=8m --rw=randwrite --bs=4k --io_size=2m --thread \
		--end_fsync=1 --output=/tmp/fio.log
	rm -r /mnt/bin
	umount /mnt
}

direct_writes() { # SIZE COUNT
	run_fio --direct=1 --bssplit="$1/100" --number_ios="$2"
}
