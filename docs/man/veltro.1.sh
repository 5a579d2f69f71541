#!/bin/bash
# veltro.1.sh PROGRAM: the manual page of veltro, as scdoc takes it. The program knows its own words
# best: what --help says of each subcommand is in the page as it is.
set -euo pipefail
program=$1

# shellcheck disable=SC2016  # the quotes are scdoc's
literal() { printf '```\n%s\n```\n' "$1"; }

general=$("$program" --help)
cat <<'END'
veltro(1)

# NAME

veltro - looks into running agents

# SYNOPSIS

*veltro* _SUBCOMMAND_ [_OPTION_...]

# DESCRIPTION

Shows what agents that are built on libkivveltro are doing. It reads files that the agents share and
leaves the agents alone: no signal, no port, no restart.

END
literal "$general"

# The names behind "Subcommands:", which stand at two blanks.
subcommands=$(sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\+\) .*/\1/p' <<<"$general")
[[ -n $subcommands ]]
for subcommand in $subcommands; do
  printf '\n# VELTRO %s\n\n' "${subcommand^^}"
  literal "$("$program" "$subcommand" --help)"
done

cat <<'END'

# ENVIRONMENT

VELTRO_INTROSPECT
	Of an agent: "1" lets it be seen, a value that begins with "/" in that directory. Of *veltro*:
	the directory to look in.

VELTRO_WATCHDOG
	Of an agent: "1" reports tasks that run for ten quanta and more to standard error, a larger number
	those that run for so many milliseconds.

# FILES

/tmp/veltro-_UID_/
	Agents that let themselves be seen.

/var/shmem/shmem/counters/
	Counter files and their logs.

/usr/share/KivVeltro/gdb/veltro.py
	The same questions for *gdb*(1), of a process or a core.

# SEE ALSO

*veltro-agent-files*(5), *veltro-counter-file*(5), *veltro-attribute-log*(5)
END
