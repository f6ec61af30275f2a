# SPDX-License-Identifier: GPL-2.0
# What the agent costs on a large volume of which little changes: 10 GiB, nearly all of it never
# written; then 1 % of its blocks, scattered. Printed: the time, what was read, the agent's memory.

cases() {
	echo load
	echo full_and_increment 10
	echo unload
}

use_large_volume() { # GIBIBYTES: $volume, on a sparse file
	modprobe -q dm-snapshot || true
	use_loop $(($1 + 2))G
	mkdir -p /etc/lvm
	cat >/etc/lvm/lvm.conf <<-CONF
	devices { filter = [ "a|^$disk|", "r|.*|" ] use_devicesfile = 0 }
	global { event_activation = 0 use_lvmpolld = 0 }
	activation { udev_sync = 0 udev_rules = 0 monitoring = 0 }
	backup { backup = 0 archive = 0 }
	CONF
	lvm vgcreate -q vg "$disk"
	defer 'lvm vgremove -q -f vg'
	lvm lvcreate -q -y -n data -L "$1g" vg
	volume=/dev/vg/data
	eventually 10 is_known_as_it_is $volume
	defer 'zorvatctl stop $volume'
}

use_repository() { # on the third disk
	make_ext4 /dev/vdc
	mkdir -p /tmp/repository
	mount -t ext4 /dev/vdc /tmp/repository
	defer umount /tmp/repository
}

back_up() { # WHAT
	time -v zorvat backup vg/data --to /tmp/repository/data -q >/tmp/summary 2>/tmp/usage
	# busybox takes the kernel's KiB for pages.
	echo "  $1: $(cat /tmp/summary), peak memory $(awk '/Maximum resident/ { print $NF / 4 }' /tmp/usage) KiB" \
		>/dev/ttyS1
}

full_and_increment() { # GIBIBYTES
	use_large_volume "$1"
	use_repository
	back_up full
	fio --name=work --filename=$volume --rw=randwrite --bs=64k --ioengine=psync --end_fsync=1 \
		--number_ios=$(($1 * 16384 / 100)) --refill_buffers --randrepeat=0 --output=/tmp/fio.log
	back_up "1 % changed"
	zorvat restore /tmp/repository/data --to /tmp/restored -q
	oracle equal /tmp/restored $volume
}
