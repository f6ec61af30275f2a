# SPDX-License-Identifier: GPL-2.0
# What the suites of the VM share: how a case speaks to the runner, the driver, disks to test on,
# and work to do on them.

# --- Cases

skip_status=77
deferred=

skip() { # REASON: this kernel or machine cannot do what the case needs
	echo "$*" >/tmp/skip-reason
	exit $skip_status
}

defer() { # COMMAND...: runs when the case ends, the latest first; its failure fails the case
	deferred="$*
$deferred"
}

run_deferred() {
	local status=$?
	set +ex
	while read -r command; do
		[ -z "$command" ] || eval "$command" || status=1
	done <<-COMMANDS
	$deferred
	COMMANDS
	exit $status
}

announce_log() { # REGEX: kernel messages that this case brings about on purpose
	echo "$*" >>/tmp/announced
}

eventually() { # SECONDS COMMAND...: waits until the command succeeds
	set +x
	local tries=$(($1 * 20))
	shift
	until "$@" >/dev/null 2>&1; do
		tries=$((tries - 1))
		[ $tries -gt 0 ] || { set -x; return 1; }
		usleep 50000
	done
	set -x
}

fails() { # COMMAND...: must not succeed
	! "$@"
}

logged() { # TEXT: the kernel's log has this since the case began
	dmesg | grep -F "$*"
}

# --- The driver

load() { # [PARAMETER=VALUE...]: returns when start-up is complete
	insmod /zorvat.ko "$@"
	eventually 10 test -c /dev/zorvat-control
}

unload() {
	rmmod zorvat
	[ ! -e /sys/zorvat ]
	[ ! -e /dev/zorvat-control ]
}

device_of() { # DISK: its MAJOR:MINOR
	printf '%d:%d' $(stat -L -c '0x%t 0x%T' "$1")
}

sysfs_of() { # DISK or partition
	echo "/sys/dev/block/$(device_of "$1")"
}

sectors_of() { # DISK or partition
	cat "$(sysfs_of "$1")/size"
}

is_known() { # DISK
	[ -d "/sys/zorvat/$(device_of "$1")" ]
}

# A disk is known about a second after it appears, and its size some events later.
is_known_as_it_is() { # DISK
	is_known "$1" && zorvatctl level "$1" | grep -qx "sectors $(sectors_of "$1")"
}

is_tracked() { # DISK
	zorvatctl level "$1" | grep -qx "level 1"
}

start_tracking() { # DISK: until the case ends
	eventually 10 is_known_as_it_is "$1"
	zorvatctl start "$1"
	is_tracked "$1"
	defer "stop_tracking $1"
}

stop_tracking() { # DISK, which the case may have removed
	[ ! -b "$1" ] || zorvatctl stop "$1"
}

# --- Disks. Each sets $disk and lasts until the case ends.

use_disk() { # KIND
	"use_$1"
}

use_virtio() {
	disk=/dev/vdb
}

use_null_blk() { # [MEBIBYTES]
	modprobe -q null_blk nr_devices=0 || skip "no null_blk"
	defer rmmod null_blk
	grep -q ' /sys/kernel/config ' /proc/mounts || mount -t configfs configfs /sys/kernel/config
	local nullb=/sys/kernel/config/nullb/nullb0
	mkdir $nullb
	defer rmdir $nullb
	echo "${1:-32}" >$nullb/size
	echo 1 >$nullb/memory_backed
	echo 1 >$nullb/discard
	echo 1 >$nullb/power
	disk=/dev/nullb0
}

use_brd() {
	modprobe -q brd rd_nr=1 rd_size=32768 && defer rmmod brd
	[ -b /dev/ram0 ] || skip "no brd"
	disk=/dev/ram0
}

use_scsi_debug() { # [PARAMETER=VALUE...]
	modprobe -q sd_mod || true
	modprobe -q scsi_debug dev_size_mb=32 delay=0 lbpu=1 lbpws=1 "$@" || skip "no scsi_debug"
	defer eventually 10 rmmod scsi_debug # a disk found just before is still being looked at
	scsi_disk=/sys/bus/pseudo/drivers/scsi_debug/adapter0/host*/target*/*:0
	eventually 10 eval 'ls -d $scsi_disk/block/sd*'
	disk=/dev/$(basename $scsi_disk/block/sd*)
}

# Until it is found again, as another disk perhaps.
remove_scsi_disk() {
	echo 1 >"$(sysfs_of "$disk")/device/delete"
}

find_scsi_disk_again() {
	eventually 5 fails ls -d $scsi_disk
	local host=$(ls -d /sys/bus/pseudo/drivers/scsi_debug/adapter0/host*)
	echo '- - -' >"$host/scsi_host/$(basename "$host")/scan"
	eventually 5 eval 'ls -d $scsi_disk/block/sd*'
	disk=/dev/$(basename $scsi_disk/block/sd*)
	eventually 5 test -b "$disk"
}

use_scsi_debug_4k() {
	use_scsi_debug sector_size=4096
}

use_loop() { # [BYTES]
	modprobe -q loop || true
	truncate -s "${1:-32M}" /tmp/loop-image
	defer rm /tmp/loop-image
	disk=$(losetup -f) || skip "no loop"
	change_size losetup -P "$disk" /tmp/loop-image
	defer losetup -d "$disk"
}

# 2.6.32 changes a loop's size without an event. There somebody has to raise it by hand.
change_size() { # COMMAND...: changes the size of $disk
	local events
	events=$(cat /sys/kernel/uevent_seqnum)
	"$@"
	[ "$(cat /sys/kernel/uevent_seqnum)" != "$events" ] ||
		echo change >"$(sysfs_of "$disk")/uevent"
}

# dm-log-writes over the second disk, with its log on the third.
use_logged() {
	modprobe -q dm-log-writes || true
	dmsetup targets | grep -q log-writes || skip "no dm-log-writes"
	dmsetup create logged --table "0 $(sectors_of /dev/vdb) log-writes /dev/vdb /dev/vdc"
	disk=/dev/mapper/logged
	defer '[ ! -b /dev/mapper/logged ] || dmsetup remove logged'
}

# Two partitions, the first not at a multiple of the tracked blocks.
make_partitions() { # on $disk
	[ "$(cat "$(sysfs_of "$disk")/ext_range")" -gt 1 ] || skip "no partitions on $disk"
	local sector=$(blockdev --getss "$disk")
	local scale=$((sector / 512))
	printf '%s\n' o n p 1 $((2111 / scale)) $((20000 / scale)) n p 2 $((20008 / scale)) \
		$((60000 / scale)) w | fdisk -u -b "$sector" "$disk" >/dev/null
	case $disk in
	*[0-9]) partition=${disk}p ;;
	*) partition=$disk ;;
	esac
	eventually 5 test -b "${partition}2"
	defer remove_partitions
}

remove_partitions() {
	dd if=/dev/zero of="$disk" bs=4k count=1 conv=fsync 2>/dev/null
	blockdev --rereadpt "$disk"
}

make_ext4() { # DISK: a file system that 2.6.32 knows as well
	mkfs.ext4 -q -E nodiscard -O ^metadata_csum,^64bit,^orphan_file "$1"
}

# --- Logical volumes, until the case ends

use_volume_group() { # vg on the first disk
	modprobe -q dm-snapshot || true
	dmsetup targets | grep -q snapshot-origin || skip "no dm-snapshot"
	mkdir -p /etc/lvm
	cat >/etc/lvm/lvm.conf <<-CONF
	devices { filter = [ "a|^/dev/vda|", "r|.*|" ] use_devicesfile = 0 }
	global { event_activation = 0 use_lvmpolld = 0 }
	activation { udev_sync = 0 udev_rules = 0 monitoring = 0 }
	backup { backup = 0 archive = 0 }
	CONF
	dd if=/dev/zero of=/dev/vda bs=1M count=1 2>/dev/null
	lvm vgcreate -q vg /dev/vda
	defer 'lvm vgremove -q -f vg'
}

use_volume() { # MEBIBYTES [TYPE]: $volume, with a file system mounted on /mnt, ext4 or xfs
	local type=${2:-ext4}
	[ $type != xfs ] || modprobe -q xfs || skip "no xfs"
	use_volume_group
	lvm lvcreate -q -y -n data -L "$1m" vg
	volume=/dev/vg/data
	if [ $type = ext4 ]; then
		make_ext4 $volume
	else
		# It makes small ones for tests only.
		TEST_DIR=/mnt TEST_DEV=$volume QA_CHECK_FS=1 mkfs.xfs -q $volume
	fi
	mount -t $type $volume /mnt
	defer umount /mnt
}

use_copy() { # $copy: a device of the volume's size
	dmsetup create copy --table "0 $(sectors_of $volume) linear /dev/vdc 0"
	defer dmsetup remove copy
	copy=/dev/mapper/copy
}

take_snapshot() { # $snapshot
	snapshot=/dev/vg/ZKR_snapshot1
	lvm lvcreate -q -s -n ZKR_snapshot1 -l 100%FREE vg/data
}

drop_snapshot() {
	lvm lvremove -q -f vg/ZKR_snapshot1
}

# --- Work

counts_segments() { # does this kernel's layer count a bio's current segment only, by its rule?
	[ "${bio_counts:-whole}" = segment ]
}

# The sizes of writes to $disk. A write of several segments need not be reported in full where only
# the current one counts; such a bio comes of direct writes that are longer than a page.
write_sizes() { # [OPTION...] of fio
	local small=512/25:3k/15:4k/20
	[ "$(blockdev --getss "$disk")" = 512 ] || small=4k/60
	case $* in
	*--direct=1*) ! counts_segments || { echo $small:4k/40; return; } ;;
	esac
	echo $small:64k/15:68k/10:132k/11:4m/4
}

# Random writes of all sizes to $disk, as far as the options do not say otherwise.
fio_on_disk() { # [OPTION...]
	fio --name=work --filename="$disk" --thread --rw=randwrite --norandommap --ioengine=psync \
		--bssplit="$(write_sizes "$@")" --number_ios=60 --refill_buffers --randrepeat=0 \
		--invalidate=0 --end_fsync=1 --output=/tmp/fio.log "$@"
}

run_fio() { # [OPTION...]
	fio_on_disk "$@" || { cat /tmp/fio.log; return 1; }
}

keep_writing() { # [OPTION...]: in the background until stop_writing
	fio_on_disk --direct=1 --numjobs=2 --time_based --runtime=1h --number_ios=1000000000 \
		--end_fsync=0 "$@" &
	defer stop_writing
}

is_writing() {
	pidof fio >/dev/null
}

stop_writing() {
	killall -q fio
	wait
}

# Flushing the buffers of a memory disk erases it on 2.6.32, as fio does if not told otherwise.
report_changes() { # DISK: leaves the report in /tmp/extents
	sync
	[ "$1" = /dev/ram0 ] || blockdev --flushbufs "$1"
	zorvatctl extents "$1" >/tmp/extents
}

# Whole 64 KiB blocks; the last one of the disk may be shorter.
copy_extents() { # FROM TO: reads "START LENGTH ..." lines
	while read -r start length remark; do
		dd if="$1" of="$2" bs=64k skip=$((start / 128)) seek=$((start / 128)) \
			count=$(((length + 127) / 128)) conv=notrunc 2>/dev/null
	done
}

# --- Restore disks, until the case ends

serve() { # IMAGE [OPTION...]
	serve_by zorvatctl serve "$@"
}

serve_by() { # COMMAND...: $served is the disk, $server its server
	: >/tmp/served
	"$@" >/tmp/served 2>&1 &
	server=$!
	defer "stop_serving $server"
	eventually 20 grep -q ^/dev/ /tmp/served
	served=$(grep -m1 ^/dev/ /tmp/served)
	[ -b $served ]
}

stop_serving() { # PROCESS, unless the case says that $ended_server is over
	[ "$1" != "${ended_server-}" ] || return 0
	kill $1 2>/dev/null
	wait $1
	case $? in
	0 | 143) ;; # ended in order, by itself or by the signal
	137) ;; # killed by the case
	*) return 1 ;;
	esac
}

use_nbdkit() { # with /tmp/image at the socket /tmp/nbd
	rm -f /tmp/nbd
	nbdkit --foreground --readonly --unix /tmp/nbd file /tmp/image &
	defer "kill $!; wait $! || true"
	eventually 10 test -S /tmp/nbd || skip "nbdkit does not run here"
}

# --- Measurements, one number per line of a file

median() { # FILE
	sort -n "$1" | awk '{ value[NR] = $1 } END { print value[int((NR + 1) / 2)] }'
}

ratio() { # FILE FILE, in /tmp: of their medians
	awk -v value="$(median "/tmp/$1")" -v other="$(median "/tmp/$2")" \
		'BEGIN { printf "%.3f", value / other }'
}
