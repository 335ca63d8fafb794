# shellcheck shell=bash
# Sourced by every script here: --help prints the comment at the top of the script and ends it.

show_help() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; }

if [[ ${1-} == -h || ${1-} == --help ]]; then
  show_help
  exit 0
fi
