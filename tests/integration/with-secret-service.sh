#!/bin/sh
# Runs a command inside a private D-Bus session with an unlocked GNOME Keyring of its own,
# so that tests reach a real Secret Service without touching the user's keys.
set -eu
home="$(mktemp -d)"
trap 'rm -rf "$home"' EXIT
export HOME="$home" XDG_DATA_HOME="$home/.local/share" XDG_RUNTIME_DIR="$home/run"
mkdir -p "$XDG_DATA_HOME" "$XDG_RUNTIME_DIR"
chmod 700 "$XDG_RUNTIME_DIR"
dbus-run-session -- sh -c '
    eval "$(printf "%s" "ossevra-test" | gnome-keyring-daemon --unlock --components=secrets)"
    export GNOME_KEYRING_CONTROL
    "$@"' sh "$@"
