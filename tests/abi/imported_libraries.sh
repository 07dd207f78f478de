#!/usr/bin/env bash
# imported_libraries.sh KVTILEIMAGE_DLL EMBERLOGGER_DLL: fails if a DLL needs anything but Windows' own DLLs and
# EmberLogger.dll.
set -euo pipefail

imports() { x86_64-w64-mingw32-objdump -p "$1" | sed -n 's/^[[:space:]]*DLL Name: //p' | sort; }
is_system() {
  case $1 in
    ADVAPI32.dll | KERNEL32.dll | msvcrt.dll | ntdll.dll | SHELL32.dll | USER32.dll) return 0 ;;
    *) return 1 ;;
  esac
}

status=0
for dll in "$@"; do
  found=$(imports "$dll")
  [ -n "$found" ] || { echo "$dll: no imports found, is it a DLL?" >&2; exit 1; }
  while read -r name; do
    if [ "$name" = EmberLogger.dll ] && [ "$(basename "$dll")" = KvTileImage.dll ]; then
      continue
    fi
    is_system "$name" || { echo "$dll needs $name" >&2; status=1; }
  done <<< "$found"
done
imports "$1" | grep -qx EmberLogger.dll || { echo "$1 does not log through EmberLogger.dll" >&2; status=1; }
exit $status
