# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""fuzz-coverage.py DIRECTORY TARGET: prints how much of its code a fuzz target has reached; fails below 80 %.

The code of a target is the functions below; the unit is clang's region, which is about a branch.
"""
import json
import re
import subprocess
import sys

ENOUGH = 80  # percent
CODE = {  # {target: [(end of the file's name, pattern of the functions' names)]}
    "mode": [("src/VolumeControlImpl.cpp", "ParseMode|MSViewModeChangedCallback|_IsMSViewModeOn"),
             ("src/KVUtils.cpp", "ParseJsonVal|VconfGetStr")],
    "settings": [("platform/host/directory.cpp", "IsKey|RefuseKey|ParseInteger|IsZoneName|GetZones|host::Read"),
                 ("platform/host/value_file.cpp", "ReadBytes|ReadText|ReadFile"),
                 ("platform/host/items.cpp", ""), ("platform/host/lwipc.cpp", ""),
                 ("platform/host/vconf.cpp", "vconf_(get|set)"), ("platform/host/seam.cpp", "FindKey")],
    "notifications": [("platform/host/reports.cpp", "")],
    "scenario": [("tools/kavrel-tv/Scenario.cpp", "")],
    "graph": [("src/VolumeControlImpl.cpp", ""), ("src/ExternalSpeaker.cpp", ""), ("src/TVSpeaker.cpp", ""),
              ("src/KVDbusEventHandler.cpp", ""), ("src/KVAudioGainHandler.cpp", ""), ("src/Routes.cpp", ""),
              ("src/KVServer.cpp", "CallHandler|on[A-Z][a-z]+Changed")],
}
CODE_REGION = 0


def functions_of(directory, target):
    profile = f"{directory}/{target}.profdata"
    subprocess.run(["llvm-profdata", "merge", "-o", profile, f"{directory}/{target}.profraw"], check=True)
    data = json.loads(subprocess.run(["llvm-cov", "export", f"-instr-profile={profile}",
                                      f"{directory}/tests/fuzz/fuzz-{target}"], check=True, stdout=subprocess.PIPE).stdout)
    functions = data["data"][0]["functions"]
    names = subprocess.run(["c++filt"], input="\n".join(function["name"].split(":")[-1] for function in functions),
                           check=True, stdout=subprocess.PIPE, text=True).stdout.splitlines()
    return zip(names, functions)


def main(directory, target):
    regions = {}  # {place: reached}
    for name, function in functions_of(directory, target):
        file = function["filenames"][0]
        if not any(file.endswith(end) and re.search(pattern, name) for end, pattern in CODE[target]):
            continue
        for *place, count, of_file, _, kind in function["regions"]:
            if of_file == 0 and kind == CODE_REGION:
                regions[file, *place] = regions.get((file, *place), False) or count > 0
    share = 100 * sum(regions.values()) / len(regions)
    print(f"{target}: reached {share:.0f} % of the {len(regions)} regions of its code")
    if "-v" in sys.argv:
        for place in sorted(place for place, reached in regions.items() if not reached):
            print("  not reached:", *place)
    return share < ENOUGH


sys.exit(main(*sys.argv[1:3]))
