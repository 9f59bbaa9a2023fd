#!/bin/sh
# Runs a command beside a private PulseAudio daemon of its own: two null sinks ("speakers",
# the default, and "headphones"), and a microphone "mic" remapped from a third null sink
# ("room"), into which tests play what the room says. Nothing of the user's sound setup
# is touched.
set -eu
home="$(mktemp -d)"
export HOME="$home" XDG_RUNTIME_DIR="$home/run" XDG_CONFIG_HOME="$home/config"
mkdir -p "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
unset PULSE_SERVER
pulseaudio -n --daemonize=no --exit-idle-time=-1 --use-pid-file=no --disable-shm=yes \
    --load="module-native-protocol-unix" \
    --load="module-null-sink sink_name=speakers sink_properties=device.description=Speakers" \
    --load="module-null-sink sink_name=headphones sink_properties=device.description=Headphones" \
    --load="module-null-sink sink_name=room sink_properties=device.description=Room" \
    --load="module-remap-source master=room.monitor source_name=mic source_properties=device.description=Microphone" \
    >"$home/pulseaudio.log" 2>&1 &
daemon=$!
trap 'kill "$daemon" 2>/dev/null; wait "$daemon" 2>/dev/null; rm -rf "$home"' EXIT
for _ in $(seq 1 50); do
    pactl info >/dev/null 2>&1 && break
    sleep 0.1
done
pactl set-default-sink speakers
pactl set-default-source mic
"$@"
