# SPDX-License-Identifier: GPL-2.0
# What tracking costs: random 4 KiB writes to a null_blk disk in memory, plain (known to the driver
# but not tracked), tracked, and through dm-era, which tracks writes by another way. The three take
# turns, so that what disturbs the machine disturbs all; the medians are printed as ratios.

cases() {
	echo load
	echo compare_at_depth 1
	echo compare_at_depth 32
	echo unload
}

write_iops() { # DISK DEPTH
	fio --name=bench --filename="$1" --thread --rw=randwrite --bs=4k --direct=1 \
		--ioengine=io_uring --iodepth="$2" --time_based --runtime="${seconds:-3}" \
		--output-format=terse | cut -d';' -f49
}

use_era() { # over $disk
	modprobe -q dm-era
	dmsetup targets | grep -q era || skip "no dm-era"
	dd if=/dev/zero of=/dev/vdc bs=4k count=1 conv=fsync 2>/dev/null
	dmsetup create era --table "0 $(sectors_of "$disk") era /dev/vdc $disk 128"
	defer dmsetup remove era
}

compare_at_depth() { # DEPTH
	use_null_blk 256
	use_era
	rm -f /tmp/plain /tmp/tracked /tmp/era
	eventually 10 is_known_as_it_is "$disk"
	for round in $(seq "${rounds:-5}"); do
		write_iops "$disk" "$1" >>/tmp/plain
		write_iops /dev/mapper/era "$1" >>/tmp/era
		zorvatctl start "$disk"
		write_iops "$disk" "$1" >>/tmp/tracked
		zorvatctl stop "$disk"
	done
	{
		echo "  4 KiB random writes, queue depth $1, median of ${rounds:-5}, IOPS relative to plain:"
		echo "    plain $(median /tmp/plain) IOPS   tracked $(ratio tracked plain)   dm-era $(ratio era plain)"
	} >/dev/ttyS1
}
