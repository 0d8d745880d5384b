# shellcheck shell=bash
# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
# shellcheck disable=SC2034,SC2154 # run sets $scene and $headless, and uses $part
# ./run sources this file: it starts kavrel-sound, and a headless sound server for it.

player= # pid of kavrel-sound
sound_outputs=(tv hdmi optical wifi bt usb auracast)

# use_sound FOLDER: has the programs that start from now on use the headless server in this folder. The cookie of the user
# stays as it is.
use_sound() {
    export PULSE_SERVER=unix:$1/native PULSE_COOKIE=$1/cookie
    unset PULSE_SINK PULSE_SOURCE
}

# Starts a PulseAudio with a null sink for each output. It has folders of its own, uses no sound card, and serves only whom
# the scene's folder lets in.
start_sound_server() {
    local folder=$scene/sound output
    [ -n "${KAVREL_BUILD-}" ] || need pulseaudio
    mkdir -p "$folder/home" "$folder/run"
    chmod 700 "$folder/run"
    for output in "${sound_outputs[@]}"; do
        echo "load-module module-null-sink sink_name=$output rate=48000 format=float32le norewinds=1" \
            "sink_properties=device.description=$output"
    done >"$folder/script"
    echo "load-module module-native-protocol-unix socket=$folder/native auth-anonymous=1" >>"$folder/script"
    start env -u PULSE_SERVER HOME="$folder/home" XDG_RUNTIME_DIR="$folder/run" XDG_CONFIG_HOME="$folder/home" \
        XDG_STATE_HOME="$folder/home" PULSE_RUNTIME_PATH="$folder/run" PULSE_STATE_PATH="$folder/home" \
        pulseaudio -n -F "$folder/script" --daemonize=no --use-pid-file=no --exit-idle-time=-1 --disallow-exit \
        --realtime=no --high-priority=no --log-target=stderr </dev/null >"$folder/log" 2>&1 &
    part[$!]="the sound server"
    use_sound "$folder"
}

# Starts kavrel-sound, on a server of the scene if the machine has none. Its first line says that it plays; the lines that
# follow are not needed.
start_sound() {
    local options=() lines output
    if [ -z "$headless" ] && ! kavrel-sound outputs >/dev/null 2>&1; then
        say "this machine has no sound server; a headless one plays to nobody"
        headless=yes
    fi
    if [ -n "$headless" ]; then
        start_sound_server
        options=(--default)
        for output in "${sound_outputs[@]}"; do
            options+=(--output "$output=$output")
        done
    fi
    mkfifo "$scene/sound-lines"
    start kavrel-sound "${options[@]}" >"$scene/sound-lines" 2>"$scene/sound.log" </dev/null &
    player=$!
    part[$!]=kavrel-sound
    exec {lines}<"$scene/sound-lines"
    read -rt 30 <&"$lines" || die "kavrel-sound does not play: $(cat "$scene/sound.log" "$scene/sound/log" 2>/dev/null)"
    cat <&"$lines" >/dev/null &
    exec {lines}<&-
}

# Ends kavrel-sound in the regular way, in which it leaves nothing on the sound server of the machine.
end_sound() {
    if [ -n "$player" ] && kill -TERM "$player"; then
        timeout 5 tail --pid="$player" -s 0.05 -f /dev/null || true
    fi
}
