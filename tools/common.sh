# shellcheck shell=bash
# What the scripts of this folder share. Each sources it first; it puts them into strict mode, into the root
# of the repository, and gives them one way to show progress, to keep noise away and to install packages.

set -euo pipefail

script_name=$(basename "$0")
cd "$(dirname "${BASH_SOURCE[0]}")/.."
log_folder=$PWD/build/log
log_file=$log_folder/$script_name.log
mkdir -p "$log_folder"
: > "$log_file"

# Colour is for a person at a terminal, not for a file or a CI log.
if [ -t 1 ] && [ -z "${NO_COLOR:-}" ]; then
    style_step=$'\e[1;34m' style_failure=$'\e[1;31m' style_end=$'\e[0m'
else
    style_step='' style_failure='' style_end=''
fi

# step TEXT: tells in one line what is being done.
step() {
    printf '%s==>%s %s\n' "$style_step" "$style_end" "$1"
}

# fail TEXT...: says in one line each what is wrong, and ends the script.
fail() {
    printf "${style_failure}$script_name:${style_end} %s\n" "$@" >&2
    exit 1
}

# quietly COMMAND...: runs it with its output in the log file, which a failure names and shows the end of.
quietly() {
    printf '\n$ %s\n' "$*" >> "$log_file"
    if ! "$@" < /dev/null >> "$log_file" 2>&1; then
        tail -n 20 "$log_file" >&2
        fail "this failed: $*" "its whole output is in $log_file"
    fi
}

# missing_packages NAME...: prints those that are not installed.
missing_packages() {
    local name
    for name in "$@"; do
        if [ "$(dpkg-query -W -f '${db:Status-Status}' "$name" 2> /dev/null)" != installed ]; then
            printf '%s\n' "$name"
        fi
    done
}

# ensure_packages NAME...: installs what is missing, as root or through sudo; where neither is possible, it
# says what to run and ends the script.
ensure_packages() {
    if ! command -v apt-get > /dev/null || ! command -v dpkg-query > /dev/null; then
        fail "this system has no apt-get; install what these Debian packages hold, then build by hand: $*"
    fi

    local missing
    mapfile -t missing < <(missing_packages "$@")
    [ "${#missing[@]}" -gt 0 ] || return 0

    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        # Without a terminal, sudo can't ask for a password.
        if command -v sudo > /dev/null && { sudo -n true 2> /dev/null || [ -t 0 ]; }; then
            as_root=(sudo)
        else
            fail "these packages are missing and need root to be installed; run as root:" \
                "apt-get update && apt-get install -y --no-install-recommends ${missing[*]}"
        fi
    fi
    step "Installing ${missing[*]}"
    quietly "${as_root[@]}" apt-get -o DPkg::Lock::Timeout=120 update
    quietly "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get \
        -o DPkg::Lock::Timeout=120 install -y --no-install-recommends "${missing[@]}"
}

# build PRESET [TARGET...]: configures the preset and builds the targets, all without any.
build() {
    local preset=$1
    shift
    step "Building ($preset)"
    quietly cmake --preset "$preset"
    quietly cmake --build --preset "$preset" ${1:+--target "$@"}
}

# shellcheck disable=SC2034 # for the scripts that source this
build_packages=(cmake g++ ninja-build qt6-base-dev)
