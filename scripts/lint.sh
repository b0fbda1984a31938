#!/usr/bin/env bash
# Static checks: formatting of every C++ file, then clang-tidy and cppcheck on
# everything shipped (the daemon, its libraries, hotplug_capture, and
# hotplug_replay with the sandbox it runs as root on files from the field), and shellcheck
# on the scripts and the init script, flake8 on the board's Python driver. Any finding fails.
set -euo pipefail
cd "$(dirname "$0")/.."

dir=build/lint
jobs=$(nproc)

echo "--- shellcheck"
git ls-files '*.sh' .ci/run packaging/sysvinit/device-hotplug-handler tests/board/rcS packaging/openrc/device-hotplug-handler \
    tests/board/board-agent tests/board/boot | xargs shellcheck

echo "--- flake8"
git ls-files '*.py' | xargs -r flake8 --max-line-length=100

echo "--- clang-format"
git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror

cmake -S . -B "$dir" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON -DBUILD_TESTING=OFF -DDHH_BUILD_REPLAY=ON \
    >/dev/null
mapfile -t sources < <(git ls-files 'Osal/*.cpp' 'common/*.cpp' 'handler/*.cpp' 'daemon/*.cpp' \
    'capture/*.cpp' 'replay/*.cpp' 'sandbox/*.cpp')

echo "--- clang-tidy (${#sources[@]} files)"
printf '%s\n' "${sources[@]}" | xargs -P "$jobs" -n 4 clang-tidy -p "$dir" --quiet 2>/dev/null

echo "--- cppcheck"
cppcheck --project="$dir/compile_commands.json" --std=c++17 -j "$jobs" -q \
    --enable=warning,style,performance,portability --inline-suppr \
    --suppress=missingIncludeSystem --error-exitcode=1
echo "lint: no findings"
