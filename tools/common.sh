# shellcheck shell=bash
# What the scripts in this folder share. Each sources it first. It switches strict mode on, changes to the
# root of the repository, and defines how progress is shown, how output is kept in a log file and how
# packages are installed.

set -euo pipefail

script_name=$(basename "$0")
cd "$(dirname "${BASH_SOURCE[0]}")/.."
log_folder=$PWD/build/log
log_file=$log_folder/$script_name.log
mkdir -p "$log_folder"
: > "$log_file"

# Colours on a terminal only: they make files and CI logs unreadable.
if [ -t 1 ] && [ -z "${NO_COLOR:-}" ]; then
    style_step=$'\e[1;34m' style_failure=$'\e[1;31m' style_end=$'\e[0m'
else
    style_step='' style_failure='' style_end=''
fi

# step TEXT: shows in one line what is done next.
step() {
    printf '%s==>%s %s\n' "$style_step" "$style_end" "$1"
}

# fail TEXT...: shows what is wrong, a line for each TEXT, and ends the script.
fail() {
    printf "${style_failure}$script_name:${style_end} %s\n" "$@" >&2
    exit 1
}

# quietly COMMAND...: runs it with its output in the log file. If it fails, shows the end of that file.
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

# ensure_packages NAME...: installs the missing ones, as root or through sudo. If neither is possible, says
# what to run as root and ends the script.
ensure_packages() {
    if ! command -v apt-get > /dev/null || ! command -v dpkg-query > /dev/null; then
        fail "this system has no apt-get; install the contents of these Debian packages, then build by hand: $*"
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
            fail "some packages are missing; run this as root:" \
                "apt-get update && apt-get install -y --no-install-recommends ${missing[*]}"
        fi
    fi
    step "Installing ${missing[*]}"
    quietly "${as_root[@]}" apt-get -o DPkg::Lock::Timeout=120 update
    quietly "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get \
        -o DPkg::Lock::Timeout=120 install -y --no-install-recommends "${missing[@]}"
}

# build PRESET [TARGET...]: configures the preset and builds the targets, or everything if none is given.
build() {
    local preset=$1
    shift
    step "Building ($preset)"
    quietly cmake --preset "$preset"
    quietly cmake --build --preset "$preset" ${1:+--target "$@"}
}

# shellcheck disable=SC2034 # for the scripts that source this
build_packages=(cmake g++ ninja-build qt6-base-dev)
