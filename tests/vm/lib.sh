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
	local tries=$(($1 * 20))
	shift
	while ! "$@"; do
		tries=$((tries - 1))
		[ $tries -gt 0 ] || return 1
		usleep 50000
	done
}

fails() { # COMMAND...: must not succeed
	! "$@"
}
