# SPDX-License-Identifier: GPL-2.0
# Restore disks: images served by zorvatctl, read as disks.

cases() {
	echo load
	for size in 512 1024 4096; do
		echo reads_back $size
	done
	echo unload
}

reads_back() { # BLOCK_SIZE
	dd if=/dev/urandom of=/tmp/image bs=1M count=32 2>/dev/null
	defer rm /tmp/image
	serve /tmp/image --block-size "$1"
	[ "$(blockdev --getss $served)" = "$1" ]
	[ "$(blockdev --getsize64 $served)" = 33554432 ]
	oracle equal /tmp/image $served
	dd if=$served of=/dev/null bs=1M iflag=direct
	fails dd if=/dev/zero of=$served bs=4k count=1
	dmesg | tail -50
}

# --- Serving, until the case ends: $served is the disk

serve() { # IMAGE [OPTION...]
	zorvatctl serve "$@" >/tmp/served 2>&1 &
	server=$!
	defer stop_serving
	eventually 10 grep -q ^/dev/ /tmp/served
	served=$(grep -m1 -o "^/dev/[^ ]*" /tmp/served)
	[ -b $served ]
}

stop_serving() {
	kill $server
	wait $server
}
