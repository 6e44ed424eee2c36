#!/bin/sh
# Installs everything into a folder of its own, builds an application of another project against that by CMake and by
# pkg-config, and lets each crash. Usage: crash.sh BUILD_FOLDER GENERATOR COMPILER
set -eu

[ -w "$1" ] || { echo "skipped: cmake --install writes into the build folder, which is read-only"; exit 77; }
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
prefix=$folder/prefix
cmake --install "$1" --prefix "$prefix" > "$folder/install.log"
cd "$folder"

cat > mail.cpp << 'END'
#include <vastel-mail/crashreporting.h>
#include <cstdio>
#include <cstdlib>
int main()
{
    crashreporting::Settings settings;
    settings.appName = "consumer";
    if (!crashreporting::install(settings))
        std::perror("crashes will not be reported");
    std::abort();
}
END
cat > CMakeLists.txt << 'END'
cmake_minimum_required(VERSION 3.25)
project(mail LANGUAGES CXX)
find_package(VastelMailCrashReporting 1.0 CONFIG REQUIRED)
add_executable(by-cmake mail.cpp)
target_link_libraries(by-cmake PRIVATE VastelMail::CrashReporting)
END
cmake -G "$2" -B . -D CMAKE_CXX_COMPILER="$3" -D CMAKE_PREFIX_PATH="$prefix" > cmake.log
cmake --build . >> cmake.log

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name '*.pc')")
export PKG_CONFIG_PATH
# shellcheck disable=SC2046 # several words
"$3" -std=c++17 -o by-pkg-config mail.cpp $(pkg-config --cflags --libs vastel-mail-crash-reporting)

# Where the crash handler looks for its debugger.
printf '#!/bin/sh\necho backtrace\n' > gdb
chmod +x gdb
for application in by-cmake by-pkg-config; do
    status=0
    PATH=$folder:$PATH "./$application" 2> log || status=$?
    [ "$status" -eq 134 ] || { cat log; echo "$application ended with $status, not by SIGABRT"; exit 1; }
    dump=$(sed -n 's/.*Dump file path set to: "\(.*\)"$/\1/p' log)
    grep -q '^consumer has closed unexpectedly (Signal "SIGABRT")$' "$dump"
    grep -q '^backtrace$' "$dump"
    rm "$dump"
done
