#!/bin/sh
# shellcheck disable=SC2016,SC2046 # what is quoted is for gdb; pkg-config prints several words
# Installs everything into a folder of its own, builds an application of another project against that, by
# CMake and by pkg-config, and lets it crash. Usage: crash.sh BUILD_FOLDER GENERATOR COMPILER
set -eu
[ -w "$1" ] || { echo "skipped: cmake --install writes into the build folder"; exit 77; }
folder=$(mktemp -d)
[ -e /tmp/vastel-mail ] && made='' || made=/tmp/vastel-mail
trap 'rm -rf "$folder"; [ -z "$made" ] || rmdir "$made"' EXIT
cd "$folder" && cmake --install "$1" --prefix "$folder/prefix" > install.log
cat > mail.cpp << 'END'
#include <vastel-mail/crashreporting.h>
#include <cerrno>
#include <cstdlib>
#include <string>
crashreporting::Settings settings;
const char *const installed = settings.handlerPath;
int refusal(const char *appName, const char *handlerPath)
{
    settings.appName = appName, settings.handlerPath = handlerPath;
    return crashreporting::install(settings) ? 0 : errno;
}
int overflow(int n) { volatile char frame[4096] = ""; return overflow(n + frame[0]) + frame[0]; }
int main(int, char *argv[])
{
    const int number = std::atoi(argv[1]);
    const char *const path = settings.handlerPath;
    if (refusal(nullptr, installed) != EINVAL || refusal("-x", installed) != EINVAL
        || refusal("x", nullptr) != EINVAL || refusal("x", "/") != EACCES
        || refusal("x", "mail.cpp") != EACCES || refusal("consumer", installed) != 0
        || refusal(std::string(5000, 'x').c_str(), installed) != ENAMETOOLONG)
        return EXIT_FAILURE;
    delete new crashreporting::AlternateSignalStack; // the stack of install() is back
    return number == SIGSEGV ? overflow(0) : std::raise(number);
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
"$3" -std=c++17 -o by-pkg-config mail.cpp $(pkg-config --cflags --libs "$(find prefix -name '*.pc')")
# crash APPLICATION NUMBER: it is ended by the signal and reported, but not restarted so early, though signals
# were blocked. cat(1) ends with the crash handler, which goes on when the application is killed.
crash() {
    { PATH=$folder:$PATH env --block-signal "./$1" "$2" 2>&1 || echo "ended with $?"; } | cat > log
    grep -q "ended with $((128 + ${3:-$2}))" log || { cat log; exit 1; }
    grep -q 'Application restart disabled' log
    dump=$(sed -n 's/.*Dump file path set to: "\(.*\)"$/\1/p' log)
    grep -q "^consumer has closed unexpectedly (Signal \"SIG$(kill -l "$2")\")$" "$dump"
    grep -q '^backtrace$' "$dump" && rm "$dump"
}
printf '#!/bin/sh\necho backtrace; kill -%s $7' 0 > gdb && chmod +x gdb
for signal in 4 5 6 7 8 11 31; do crash by-cmake "$signal"; done
sed -i 's/-0/-KILL/' gdb
crash by-pkg-config 6 9
