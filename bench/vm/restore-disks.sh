# SPDX-License-Identifier: GPL-2.0
# What a restore disk costs, against nbd with nbdkit behind it: direct reads of the same image, which
# is in memory, both over TCP on the loopback. The two take turns; medians are printed, and the ratio
# of the restore disk to nbd.

cases() {
	echo load
	echo compare sequential read 1m 1
	echo compare random randread 4k 1
	echo compare random randread 4k 16
	echo unload
}

use_nbd() { # $nbd, serving /tmp/image
	modprobe -q nbd || skip "no nbd"
	nbdkit --foreground --readonly --ipaddr 127.0.0.1 file /tmp/image &
	defer "kill $!; wait $! || true"
	nbd=/dev/nbd0
	eventually 10 nbd-client 127.0.0.1 $nbd -b 4096
	defer nbd-client -d $nbd
}

# All processors' time for it, whoever spent it: in ticks.
busy_ticks() {
	awk '/^cpu / { print $2 + $3 + $4 + $7 + $8 }' /proc/stat
}

# Appends to /tmp/NAME.rate the KiB per second, to /tmp/NAME.cost the processor seconds per GiB.
measure() { # NAME DISK PATTERN BLOCK_SIZE DEPTH
	local before
	before=$(busy_ticks)
	fio --name=bench --filename="$2" --readonly --thread --rw="$3" --bs="$4" --direct=1 \
		--ioengine=io_uring --iodepth="$5" --time_based --runtime="${seconds:-3}" \
		--output-format=terse >/tmp/fio.terse
	cut -d';' -f7 /tmp/fio.terse >>"/tmp/$1.rate"
	awk -F';' -v ticks=$(($(busy_ticks) - before)) \
		'{ printf "%.3f\n", ticks / 100 / ($6 / 1048576) }' /tmp/fio.terse >>"/tmp/$1.cost"
}

compare() { # NAME PATTERN BLOCK_SIZE DEPTH
	dd if=/dev/urandom of=/tmp/image bs=1M count=256 2>/dev/null
	defer rm /tmp/image
	serve /tmp/image --block-size 4096
	use_nbd
	rm -f /tmp/*.rate /tmp/*.cost
	for round in $(seq "${rounds:-5}"); do
		measure nbd $nbd "$2" "$3" "$4"
		measure restore $served "$2" "$3" "$4"
	done
	{
		echo "  $1 reads of $3, queue depth $4, median of ${rounds:-5}, restore disk and nbd:"
		echo "    MiB/s $(mebibytes_per_second restore), $(mebibytes_per_second nbd): ratio $(ratio restore.rate nbd.rate)"
		echo "    CPU seconds per GiB $(median /tmp/restore.cost), $(median /tmp/nbd.cost): ratio $(ratio restore.cost nbd.cost)"
	} >/dev/ttyS1
}

mebibytes_per_second() { # NAME
	awk -v rate="$(median "/tmp/$1.rate")" 'BEGIN { printf "%.1f", rate / 1024 }'
}
