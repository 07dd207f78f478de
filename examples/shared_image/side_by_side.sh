#!/usr/bin/env bash
# side_by_side.sh PAINTER VIEWER README: runs both at the same time and fails unless the viewer draws what the painter
# paints, README shows it, and nothing is left on the disk.
set -euo pipefail
painter=$1 viewer=$2 readme=$3

home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
export XDG_DATA_HOME=$home/data

fail() {
  echo "$1" >&2
  exit 1
}

# The painter's formula for green and the viewer's shades, worked out apart from both.
expected() {
  awk 'BEGIN {
    for (line = 0; line < 16; ++line) {
      text = ""
      for (column = 0; column < 64; ++column) {
        sum = 0
        for (y = 20 * line; y < 20 * line + 20; ++y)
          for (x = 10 * column; x < 10 * column + 10; ++x) {
            phase = (x + 2 * y) % 400
            sum += 1 + (phase < 200 ? phase : 400 - phase)
          }
        text = text substr(".,:-=+*#%@", 1 + int(sum / 200 * 10 / 256), 1)
      }
      print text
    }
    print "640 x 320 pixels, all painted"
  }'
}

# The viewer waits for the image.
"$viewer" side-by-side >"$home/seen" 2>"$home/viewer.err" &
viewing=$!
"$painter" side-by-side >"$home/said" 2>"$home/painter.err" || fail "the painter failed: $(cat "$home/painter.err")"
wait "$viewing" || fail "the viewer failed: $(cat "$home/viewer.err")"

expected | diff - "$home/seen" >&2 || fail "the viewer drew something else"
grep -qx 'painted all of it' "$home/said" || fail "the painter said: $(cat "$home/said")"
[[ ! -s $home/viewer.err ]] || fail "the viewer complained: $(cat "$home/viewer.err")"

# Backing files lie here or, where the program's folder is on another disk, there.
left=$(find "$home/data" "$(dirname "$painter")/KvTileImageFileMappingCaches"/painter_* \
  \( -name '*.korvaneFileMapping' -o -path '*/interprocessId/*' \) -type f 2>/dev/null || true)
[[ -z $left ]] || fail "left on the disk: $left"

while IFS= read -r line; do
  grep -qxF -- "$line" "$readme" || fail "$readme does not show: $line"
done < <(expected)
