#!/usr/bin/env bash
# readme_shows.sh README PROGRAM: fails unless a ```c block of README is PROGRAM, its opening comment aside.
set -euo pipefail
readme=$1 program=$2

shown=$(sed -n '/^```c$/,/^```$/p' "$readme" | sed '1d;$d')
if ! diff <(sed 1d "$program") <(printf '%s\n' "$shown") >&2; then
  echo "$readme does not show $program" >&2
  exit 1
fi
