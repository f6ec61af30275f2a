# SPDX-License-Identifier: GPL-2.0
# Completion for zorvat, loaded by bash-completion: subcommands, options, volumes, repositories and
# their points.

# PREFIX
_zorvat_volumes()
{
	local volumes=$(lvm lvs --noheadings -o vg_name,lv_name --separator / 2>/dev/null)
	COMPREPLY=($(compgen -W "$volumes" -- "$1"))
}

# REPOSITORY@PREFIX as it was typed. The @ may be where bash begins a new word, which it replaces.
_zorvat_points()
{
	local typed=${1%@*} repository file points=()
	repository=${typed/#\~\//$HOME/}
	for file in "$repository"/points/*.json; do
		[[ -e $file ]] && file=${file##*/} && points+=("${file%.json}")
	done
	[[ $COMP_WORDBREAKS == *@* ]] && typed= || typed+=@
	COMPREPLY=($(compgen -P "$typed" -W "${points[*]}" -- "${1##*@}"))
}

# SUBCOMMAND NUMBER: what its operand of that number, from 0, can be.
_zorvat_operand()
{
	case $1:$2 in
	backup:0)
		if [[ $cur == /* ]]; then
			_filedir
		else
			_zorvat_volumes "$cur"
		fi
		;;
	mount:1 | umount:0) _filedir -d ;;
	list:0 | verify:0) _filedir -d ;;
	restore:0 | mount:0 | serve:0 | show:0 | forget:0)
		if [[ $cur == *@* ]]; then
			_zorvat_points "$cur"
		else
			_filedir -d
		fi
		;;
	esac
}

_zorvat()
{
	local cur prev words cword split
	_init_completion -s -n @ || return
	local subcommand= operands=0 i
	for ((i = 1; i < cword; i++)); do
		case ${words[i]} in
		--*=*) ;;
		--to | --snapshot-size | --compression | --type | --options | -o | --keep-*) i=$((i + 1)) ;;
		-*) ;;
		*)
			if [[ $subcommand ]]; then
				operands=$((operands + 1))
			else
				subcommand=${words[i]}
			fi
			;;
		esac
	done

	case $prev in
	--to)
		_filedir
		return
		;;
	--type)
		COMPREPLY=($(compgen -W "ext4 xfs" -- "$cur"))
		return
		;;
	--snapshot-size | --compression | --options | -o | --keep-*) return ;;
	esac
	$split && return

	local options="--help --json --quiet"
	case $subcommand in
	'') options+=" --version" ;;
	backup) options+=" --to --full --existing --snapshot-size --compression" ;;
	restore) options+=" --to --force --no-verify" ;;
	mount) options+=" --type --options" ;;
	forget) options+=" --keep-last --keep-daily --keep-weekly --keep-monthly --dry-run" ;;
	esac
	if [[ $cur == -* ]]; then
		COMPREPLY=($(compgen -W "$options" -- "$cur"))
	elif [[ $subcommand ]]; then
		_zorvat_operand "$subcommand" $operands
	else
		COMPREPLY=($(compgen -W "backup restore mount umount serve list show verify forget" \
			-- "$cur"))
	fi
}

complete -F _zorvat zorvat
