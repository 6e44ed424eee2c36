# shellcheck shell=bash
# What the scripts in this folder share. Each sources it first. It switches strict mode on, changes to the
# root of the repository, and defines how progress is shown, how output is kept in a log file and how
# packages are installed.

set -euo pipefail

script_name=$(basename "$0")
unset CDPATH # cd would look for a relative path there first
cd "$(dirname "${BASH_SOURCE[0]}")/.."
mkdir -p build/log
log_file=$PWD/build/log/$script_name.log
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

# ensure_packages NAME...: installs the missing ones, as root or through sudo. If neither is possible, says
# what to run as root and ends the script.
ensure_packages() {
    if ! command -v apt-get > /dev/null || ! command -v dpkg-query > /dev/null; then
        fail "this system has no apt-get; install the contents of these Debian packages, then build by hand: $*"
    fi

    local name missing=()
    for name in "$@"; do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$name" 2> /dev/null)" = installed ] || missing+=("$name")
    done
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

# build PRESET: configures the preset and builds everything.
build() {
    step "Building ($1)"
    quietly cmake --preset "$1"
    quietly cmake --build --preset "$1"
}

# For the scripts that source this:
# shellcheck disable=SC2034
build_packages=(cmake g++ ninja-build qt6-base-dev)
# shellcheck disable=SC2034
test_packages=("${build_packages[@]}" diffutils gdb pkgconf)
