# Shared by the scripts: the configure-and-build step, so that every entry point
# builds the same way and reuses the same build folder.
# shellcheck shell=bash

repo_root() { cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd; }

# configure_and_build DIR [cmake args...]
configure_and_build() {
    local dir="$1"
    shift
    local root
    root="$(repo_root)"
    cmake -S "$root" -B "$root/$dir" -G Ninja "$@" >/dev/null
    cmake --build "$root/$dir" -j "$(nproc)"
}
