#!/usr/bin/env bash
# exported_names.sh nm|x86_64-w64-mingw32-objdump LIBRARY EXPECTED: fails unless LIBRARY exports exactly the names in
# the file EXPECTED, one a line.
set -euo pipefail
reader=$1 library=$2 expected=$3

case $reader in
  nm) actual=$(nm --dynamic --defined-only --format=posix "$library" | cut -d' ' -f1) ;;
  *) actual=$("$reader" -p "$library" | awk '/^\[Ordinal\/Name Pointer\] Table/ { table = 1; next }
                                             table && /^\t\[/ { print $NF; next }
                                             NF == 0 { table = 0 }') ;;
esac

if ! diff <(sort "$expected") <(sort <<< "$actual") > /dev/stderr; then
  echo "exported names differ: < expected, > $library" >&2
  exit 1
fi
echo "$(wc -l < "$expected") names, as expected"
