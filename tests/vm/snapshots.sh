# SPDX-License-Identifier: GPL-2.0
# The switch at an LVM snapshot, with real lvm2 and a file system that is written all the time: what
# is reported, copied from the snapshot onto the copy of the snapshot before, gives that snapshot.

cases() {
	echo load
	echo switches_once_at_each_snapshot
	echo unload
}

switches_once_at_each_snapshot() {
	use_volume
	start_tracking $volume
	lvm lvcreate -q -s -n ZKR_snapshot1 -L 16m vg/data
	dmesg | tail -30
	dmsetup table
	zorvatctl level $volume
	lvm lvremove -f vg/ZKR_snapshot1
	dmesg | tail -30
	false
}

# --- Volumes

use_volume_group() { # vg on the first disk
	modprobe -q dm-snapshot || true
	dmsetup targets | grep -q snapshot-origin || skip "no dm-snapshot"
	mkdir -p /etc/lvm
	cat >/etc/lvm/lvm.conf <<-CONF
	devices { filter = [ "a|^/dev/vd|", "r|.*|" ] use_devicesfile = 0 }
	global { event_activation = 0 use_lvmpolld = 0 }
	activation { udev_sync = 0 udev_rules = 0 monitoring = 0 }
	backup { backup = 0 archive = 0 }
	CONF
	dd if=/dev/zero of=/dev/vda bs=1M count=1 2>/dev/null
	lvm vgcreate -q vg /dev/vda
	defer 'lvm vgremove -q -f vg'
}

use_volume() { # /dev/vg/data, with a file system mounted on /mnt
	use_volume_group
	lvm lvcreate -q -y -n data -L 64m vg
	volume=/dev/vg/data
	mkfs.ext4 -q -O ^metadata_csum,^64bit,^orphan_file $volume
	mount -t ext4 $volume /mnt
	defer umount /mnt
}
