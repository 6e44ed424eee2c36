#!/bin/sh
# Installs everything into a folder of its own, builds an application of another project against that, by
# CMake and by pkg-config, and lets it crash. Usage: crash.sh BUILD_FOLDER GENERATOR COMPILER
set -eu
[ -w "$1" ] || { echo "skipped: cmake --install writes into the build folder"; exit 77; }
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cmake --install "$1" --prefix "$folder/prefix" > "$folder/install.log"
cd "$folder"

cat > mail.cpp << 'END'
#include <vastel-mail/crashreporting.h>
#include <cstdlib>
int main(int, char *argv[])
{
    crashreporting::Settings settings;
    settings.appName = "consumer";
    return crashreporting::install(settings) ? std::raise(std::atoi(argv[1])) : EXIT_FAILURE;
}
END
cat > CMakeLists.txt << 'END'
cmake_minimum_required(VERSION 3.25)
project(mail LANGUAGES CXX)
find_package(VastelMailCrashReporting 1.0 CONFIG REQUIRED)
add_executable(by-cmake mail.cpp)
target_link_libraries(by-cmake PRIVATE VastelMail::CrashReporting)
END
cmake -G "$2" -B . -D CMAKE_CXX_COMPILER="$3" -D CMAKE_PREFIX_PATH="$folder/prefix" > cmake.log
cmake --build . >> cmake.log
# shellcheck disable=SC2046 # several words
"$3" -std=c++17 -o by-pkg-config mail.cpp $(pkg-config --cflags --libs "$(find prefix -name '*.pc')")

printf '#!/bin/sh\necho backtrace\n' > gdb && chmod +x gdb
# crash APPLICATION NUMBER: it ends by the signal and is reported, but not restarted so early.
crash() {
    status=0
    PATH=$folder:$PATH "./$1" "$2" 2> log || status=$?
    [ "$status" -eq "$((128 + $2))" ] || { cat log; echo "$1 has ended with $status"; exit 1; }
    grep -q 'Application restart disabled' log
    dump=$(sed -n 's/.*Dump file path set to: "\(.*\)"$/\1/p' log)
    grep -q "^consumer has closed unexpectedly (Signal \"SIG$(kill -l "$2")\")$" "$dump"
    grep -q '^backtrace$' "$dump" && rm "$dump"
}
for signal in 4 5 6 7 8 11 31; do crash by-cmake "$signal"; done
crash by-pkg-config 6
