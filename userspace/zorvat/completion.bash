# SPDX-License-Identifier: GPL-2.0
# Bash completion for zorvat: subcommands, options, volumes, repositories and their points.

_zorvat_volumes()
{
	lvm lvs --noheadings -o vg_name,lv_name --separator / 2>/dev/null | tr -d ' '
}

# Of the repository before the @, with it.
_zorvat_points()
{
	local repository=${1%@*} file
	for file in "$repository"/points/*.json; do
		[[ -e $file ]] && file=${file##*/} && echo "$repository@${file%.json}"
	done
}

_zorvat()
{
	local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
	local subcommand= operand= word
	local subcommands="backup restore mount umount serve list show verify forget"
	local options="--help --version --json --quiet"

	for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
		if [[ $word != -* ]]; then
			[[ $subcommand ]] && operand=$word || subcommand=$word
		fi
	done
	case $subcommand in
	backup) options+=" --to --full --snapshot-size --compression" ;;
	restore) options+=" --to --force --no-verify" ;;
	mount) options+=" --type --options" ;;
	forget) options+=" --keep-last --keep-daily --keep-weekly --keep-monthly --dry-run" ;;
	esac

	if [[ $current == -* ]]; then
		COMPREPLY=($(compgen -W "$options" -- "$current"))
	elif [[ ! $subcommand ]]; then
		COMPREPLY=($(compgen -W "$subcommands" -- "$current"))
	elif [[ $subcommand == backup && $previous != --to && ! $operand && $current != /* ]]; then
		COMPREPLY=($(compgen -W "$(_zorvat_volumes)" -- "$current"))
	elif [[ $current == *@* ]]; then
		COMPREPLY=($(compgen -W "$(_zorvat_points "$current")" -- "$current"))
	else
		COMPREPLY=($(compgen -f -- "$current"))
	fi
}

complete -o filenames -F _zorvat zorvat
