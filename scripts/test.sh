#!/usr/bin/env bash
# Builds everything and runs every check CI runs, stage by stage, printing each
# stage's duration. Usage: test.sh [STAGE...] runs the named stages only (the
# set-up always): lint, native, packaging, m32, armhf, board, sys32, asan,
# tsan, fuzz; the README says what each checks. DHH_FUZZ_SECONDS sets each
# fuzzer's time (default 10).
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc)
durations=()
all=(lint native packaging m32 armhf board sys32 asan tsan fuzz)

stage() {
    local name=$1; shift
    local started=$SECONDS
    echo "=== $name"
    "$@"
    durations+=("$(printf '%-10s %4ds' "$name" $((SECONDS - started)))")
    echo "=== $name: done in $((SECONDS - started))s"
}

configure() {
    local dir=$1; shift
    cmake -S . -B "$dir" -DDHH_WERROR=ON "$@" >/dev/null
    cmake --build "$dir" -j "$jobs"
}

# suite DIR CTEST-ARGS -- CMAKE-ARGS: configure, build, run the tests.
suite() {
    local dir=$1; shift
    local ctest_args=()
    while [ $# -gt 0 ] && [ "$1" != -- ]; do ctest_args+=("$1"); shift; done
    shift
    configure "$dir" "$@"
    ctest --test-dir "$dir" --output-on-failure -j "$jobs" "${ctest_args[@]}"
}

# The emulated ARM board under each init: the images from Debian's packages and
# what we install, the scenarios driven through QMP, a capture replayed with the
# native replay.
board() {
    configure build/native
    bash scripts/board-image.sh build/board
    python3 tests/board/board_test.py build/board/images build/board/work \
        build/native/replay/hotplug_replay
}

# The packaging checks, then once more from a bare clone, which has no
# Buildroot linter beside it: that check is skipped and said so, the rest run.
packaging() {
    configure build/native
    bash scripts/check-packaging.sh build/native
    local clone output
    clone=$(mktemp -d /tmp/dhh-bare-XXXXXX)
    git clone -q . "$clone/device_hotplug_handler"
    output=$(env -u DHH_BUILDROOT_CHECK_PACKAGE CI= \
             bash "$clone/device_hotplug_handler/scripts/check-packaging.sh" build/native 2>&1) ||
        { echo "$output"; rm -rf "$clone"; return 1; }
    rm -rf "$clone"
    grep -q "^SKIPPED: Buildroot's linter" <<<"$output" ||
        { echo "$output"; echo "FAIL: a bare clone does not say the linter was skipped"; return 1; }
    echo "bare clone: every packaging check passed, the linter skipped with a note"
}

run() {
    case $1 in
        lint) stage lint bash scripts/lint.sh ;;
        native) stage native suite build/native -- ;;
        packaging) stage packaging packaging ;;
        m32) stage m32 suite build/m32 -- -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-m32.cmake ;;
        armhf) stage armhf suite build/armhf -- -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake ;;
        board) stage board board ;;
        sys32) stage sys32 bash scripts/system-tests-32bit.sh m32 armhf ;;
        # valgrind and the sanitizers' runtimes do not mix: the storm test runs natively only.
        # Unoptimised, the instrumented builds take half the time to compile.
        asan) stage asan suite build/asan -LE valgrind -- -DDHH_SANITIZE=address,undefined \
                  -DDHH_BUILD_BENCHMARKS=OFF -DCMAKE_BUILD_TYPE=Debug ;;
        tsan) stage tsan suite build/tsan -LE valgrind -- -DDHH_SANITIZE=thread \
                  -DDHH_BUILD_BENCHMARKS=OFF -DCMAKE_BUILD_TYPE=Debug ;;
        fuzz) stage fuzz bash scripts/fuzz.sh "${DHH_FUZZ_SECONDS:-10}" ;;
    esac
}

for name in "$@"; do
    [[ " ${all[*]} " == *" $name "* ]] ||
        { echo "test.sh: no stage \"$name\"; the stages: ${all[*]}" >&2; exit 2; }
done
[ $# -gt 0 ] || set -- "${all[@]}"
stage setup bash scripts/setup.sh
for name in "${all[@]}"; do
    if [[ " $* " == *" $name "* ]]; then
        run "$name"
    fi
done

echo
echo "Stages passed:"
printf '  %s\n' "${durations[@]}"
