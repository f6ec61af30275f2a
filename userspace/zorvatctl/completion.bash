# SPDX-License-Identifier: GPL-2.0
# Bash completion for zorvatctl: subcommands, options, and the volumes and disks of the driver.

# Kernel names of the driver's volumes; those of all disks when it shows none.
_zorvatctl_volumes()
{
	local dir name found=
	for dir in /sys/zorvat/[0-9]*:[0-9]*; do
		name=$(readlink "/sys/dev/block/${dir##*/}") || continue
		echo "${name##*/}"
		found=1
	done
	[[ $found ]] || ls /sys/block 2>/dev/null
}

# Kernel names of the restore disks.
_zorvatctl_disks()
{
	local dir
	for dir in /sys/zorvat/restore-volumes/*/; do
		[[ -d $dir ]] && basename "$dir"
	done
}

_zorvatctl()
{
	local current=${COMP_WORDS[COMP_CWORD]} subcommand= volume= word
	local subcommands="version volumes start stop level extents bitmap-size granularity clear
		switch uuid save-time switch-count bitmap verbosity refresh serve disks suspend
		resume destroy"
	local options="--help --version --json --ioctl --block-ioctl"

	for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
		if [[ $word != -* ]]; then
			[[ $subcommand ]] && volume=$word || subcommand=$word
		fi
	done
	[[ $subcommand == extents ]] && options+=" --sum --batch"
	[[ $subcommand == bitmap ]] && options+=" --output"
	[[ $subcommand == serve ]] && options+=" --block-size --stats"
	[[ $subcommand == resume ]] && options+=" --port"

	if [[ $subcommand == bitmap && ${COMP_WORDS[COMP_CWORD-1]} == -@(o|-output) ]]; then
		COMPREPLY=($(compgen -f -- "$current"))
		return
	fi
	if [[ $subcommand == verbosity && $current != -* ]]; then
		[[ $volume ]] || COMPREPLY=($(compgen -W set -- "$current"))
		return
	fi
	if [[ $subcommand == serve && ${COMP_WORDS[COMP_CWORD-1]} == --block-size ]]; then
		COMPREPLY=($(compgen -W "512 1024 2048 4096" -- "$current"))
		return
	fi
	if [[ $current == -* ]]; then
		COMPREPLY=($(compgen -W "$options" -- "$current"))
	elif [[ ! $subcommand ]]; then
		COMPREPLY=($(compgen -W "$subcommands" -- "$current"))
	elif [[ $current == /* || $subcommand == serve ]]; then
		COMPREPLY=($(compgen -f -- "$current"))
	elif [[ $subcommand == @(suspend|resume|destroy) ]]; then
		[[ $volume ]] || COMPREPLY=($(compgen -W "$(_zorvatctl_disks)" -- "$current"))
	elif [[ $subcommand != @(volumes|refresh|disks) && ! $volume ]]; then
		COMPREPLY=($(compgen -W "$(_zorvatctl_volumes)" -- "$current"))
	fi
}

complete -o filenames -F _zorvatctl zorvatctl
