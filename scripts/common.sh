# Shared by the scripts: the configure-and-build step, so that every entry point
# builds the same way and reuses the same build folder.
# shellcheck shell=bash

repo_root() { cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd; }

# Paths inside the checkout enter ccache's hashes relative to it, so that another clone of
# the same sources (CI's) reuses what an earlier build compiled.
export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$(repo_root)}"
export CCACHE_NOHASHDIR="${CCACHE_NOHASHDIR:-1}"

# configure_and_build DIR [cmake args...]
configure_and_build() {
    local dir="$1"
    shift
    local root
    root="$(repo_root)"
    cmake -S "$root" -B "$root/$dir" -G Ninja "$@" >/dev/null
    cmake --build "$root/$dir" -j "$(nproc)"
}
