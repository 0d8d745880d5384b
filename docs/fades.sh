#!/usr/bin/env bash
# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
# ./run sound --headless docs/fades.sh: records how an unmute sounds without kavrel and with it, and draws both: as curves
# in docs/kavrel.svg, and the second one with its gains in docs/fade.svg.
set -euo pipefail
docs=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
folder=$(mktemp -d)
tone=
trap 'rm -rf "$folder"; [ -z "$tone" ] || kill "$tone"' EXIT

# record NAME UNMUTE...: records a second of silence, the unmute, and 2.6 s after it.
record() {
    local hear
    kavrelctl mute on
    sleep 0.5
    kavrel-sound hear --seconds 3.6 "$folder/$1.csv" &
    hear=$!
    sleep 1
    "${@:2}"
    wait "$hear"
}

kavrel-sound tone 1000 >/dev/null &
tone=$!
sleep 2
record without pactl set-sink-mute tv 0
record fade kavrelctl mute off
python3 "$docs/fades.py" "$folder/without.csv" "$folder/fade.csv" "$docs/kavrel.svg"
kavrel-tv plot "$folder/fade.csv" "$docs/fade.svg"
