# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""fades.py WITHOUT.csv FADE.csv PICTURE.svg: put two recordings of an unmute into the picture, as its two curves.

The recordings are those of `kavrel-sound hear`. The loudest window of each is 100 %, and the unmute is at 0 s.
"""
import csv
import re
import sys
from pathlib import Path

BEFORE, AFTER = 0.25, 2.25  # seconds shown around the unmute
SECOND, HEIGHT = 132, 76  # pixels of a second, and of 100 %
LEFT, BOTTOM = (96, 566), 430  # pixels: where the two curves begin


def curve_of(path):
    """Returns [(seconds since the unmute, part of full sound)]."""
    rows = list(csv.DictReader(Path(path).read_text(encoding="utf-8").splitlines()))
    mutes = [row["mute"] for row in rows]
    unmute = float(rows[next(place for place in range(1, len(rows)) if mutes[place - 1:place + 1] == ["1", "0"])]["seconds"])
    windows = [(float(row["seconds"]) - unmute, float(row["heard"])) for row in rows if row["heard"]]
    loudest = max(heard for _, heard in windows)
    return [(seconds, heard / loudest) for seconds, heard in windows if -BEFORE <= seconds <= AFTER]


def points_of(curve, left):
    return " ".join(f"{left + (seconds + BEFORE) * SECOND:.1f},{BOTTOM - part * HEIGHT:.1f}" for seconds, part in curve)


def main(recordings, picture):
    text = picture.read_text(encoding="utf-8")
    lines = [points_of(curve_of(path), left) for path, left in zip(recordings, LEFT)]
    areas = [f"{line.split(',')[0]},{BOTTOM} {line} {line.split()[-1].split(',')[0]},{BOTTOM}" for line in lines]
    for kind, curves in (("polygon", areas), ("polyline", lines)):
        left = iter(curves)
        text, count = re.subn(rf'(<{kind} points=")[^"]*', lambda found: found[1] + next(left), text)
        assert count == 2, kind
    picture.write_text(text, encoding="utf-8")


main(sys.argv[1:3], Path(sys.argv[3]))
