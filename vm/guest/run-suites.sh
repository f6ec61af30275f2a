# SPDX-License-Identifier: GPL-2.0
# Runs suites: sh run-suites.sh SUITE...
# A suite is a file of shell functions whose cases() names those to run, one "function argument..."
# per line. Each case runs in its own shell under set -e. It passes if that shell ends with 0 and
# the kernel had nothing to complain about meanwhile. skip, defer and announce_log of lib.sh speak
# to this runner.
cd /suites || exit
. ./lib.sh

complaints='WARNING:|BUG:|Oops|general protection|blocked for more than|lockup|detected stall'
complaints="$complaints|refcount|[Ll]eak|Call Trace|scheduling while atomic|Bad page"
passed=0 failed=0 skipped=0

# Moves the kernel's messages since the last call to /tmp/kernel.log; fails if one is a complaint.
kernel_is_content() {
	dmesg -c >/tmp/kernel.log
	! grep -E "$complaints" /tmp/kernel.log | grep -vEf /tmp/announced >/dev/null
}

seconds_since() {
	cut -d' ' -f1 /proc/uptime | awk -v start="$1" '{ printf "%.1f s", $1 - start }'
}

run_case() { # SUITE FUNCTION [ARGUMENT...]
	local suite=$1 start status
	shift
	echo "vm: $suite: $*" >/dev/kmsg
	: >/tmp/announced
	start=$(cut -d' ' -f1 /proc/uptime)
	(
		trap run_deferred EXIT
		set -eux
		"$@"
	) >/tmp/case.log 2>&1 </dev/null
	status=$?

	if ! kernel_is_content || { [ $status != 0 ] && [ $status != $skip_status ]; }; then
		failed=$((failed + 1))
		echo "FAILED $suite: $* ($(seconds_since "$start"))"
		tail -n40 /tmp/case.log | sed 's/^/    /'
		echo "    --- kernel log"
		tail -n40 /tmp/kernel.log | sed 's/^/    /'
	elif [ $status = $skip_status ]; then
		skipped=$((skipped + 1))
		echo "skipped $suite: $*: $(cat /tmp/skip-reason)"
	else
		passed=$((passed + 1))
		echo "ok $suite: $* ($(seconds_since "$start"))"
	fi
}

dmesg -c >/dev/null
for suite; do
	. "./$suite.sh"
	cases >/tmp/cases
	while read -r words; do
		run_case "$suite" $words
	done </tmp/cases
done
sleep 1
if ! kernel_is_content; then
	failed=$((failed + 1))
	echo "FAILED after the last case"
	sed 's/^/    /' /tmp/kernel.log
fi
closing="$passed passed, $failed failed"
[ $skipped = 0 ] || closing="$closing, $skipped skipped"
echo "$closing"
