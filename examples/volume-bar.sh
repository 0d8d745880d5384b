#!/usr/bin/env bash
# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
# Prints a volume bar at the start and on each change. README.md says how each example works.
# busctl asks the daemon. gdbus monitor listens to it, because busctl monitor needs root.
set -u
name=org.olvane.kavrel # the daemon's name on the bus, and that of its interface
object=/Org/Olvane/KavrelInternal
failed=-1
reads_volume=1 # the bit of the support word
switch=0.5     # seconds in which another program switches the output that the daemon requests

support='' # the support word of the output in use, empty if unknown
volume=0
volume_status=$failed
mute=0
shown=''

# ask GETTER: leaves the answer in $value and $status. Asks a busy daemon again, a few times.
ask() {
    local pause
    for pause in 0.05 0.1 0.2 0.4 0.8 ''; do
        read -r _ value status < <(busctl --system --auto-start=no --timeout=5 \
            call "$name" "$object" "$name" "$1" 2>/dev/null) ||
            { value=0 status=$failed; } # LimitsExceeded, or the daemon has gone
        if [ "$status" != "$failed" ] || [ -z "$pause" ]; then
            return
        fi
        sleep "$pause"
    done
}

in_words() {
    case $1 in
        -1) echo "it failed, or the daemon was busy" ;;
        -2) echo "an argument was invalid" ;;
        -4) echo "the output does not support it" ;;
        *) echo "the TV refuses it" ;;
    esac
}

# Asks the daemon for everything, and shows it.
refresh() {
    support=''
    ask GetSpeakerVolume
    volume=$value volume_status=$status
    if [ "$volume_status" = 0 ]; then
        ask GetSpeakerMute
        mute=$value
        ask GetSpeakerSupportType
        [ "$status" != 0 ] || support=$value
    fi
    show_state
}

show_state() {
    local bar=#################### muted=''
    case $mute in 1 | true) muted=' muted' ;; esac
    if [ "$volume_status" != 0 ]; then
        show "volume unknown: $(in_words "$volume_status") ($volume_status)"
    elif [ -n "$support" ] && ! ((support & reads_volume)); then
        show "this output has no volume"
    elif ((volume < 0)); then
        show "volume unknown: the output has published none"
    else
        bar=$(printf '%-20s' "${bar:0:volume / 5}")
        show "$(printf '[%s] %3d%%%s' "${bar// /.}" "$volume" "$muted")"
    fi
}

show() {
    if [ "$1" != "$shown" ]; then
        shown=$1
        echo "$shown"
    fi
}

# on_change SUPPORT: shows a new volume or mute.
on_change() {
    if [ "$1" = "$support" ]; then
        show_state
    else # another output may be in use: ask for its mute, too
        refresh
    fi
}

exec {signals}< <(exec gdbus monitor --system --dest "$name")
listener=$!
trap 'kill "$listener"' EXIT
# "/Org/Olvane/KavrelInternal: org.olvane.kavrel.SpeakerVolumeChanged (65535, 30)", "The name ... is owned by :1.1"
while read -r -u "$signals" _ member body; do
    read -r first second <<<"${body//[(),]/}"
    case $member in
        "$name.SpeakerVolumeChanged") volume=$second && on_change "$first" ;;
        "$name.SpeakerMuteChanged") mute=$second && on_change "$first" ;;
        "$name.SpeakerChangeRequest") sleep "$switch" && refresh ;;
        name) if [[ $body == *' is owned by '* ]]; then refresh; else show "kavreld is not on the bus"; fi ;;
    esac
done
