#!/usr/bin/env bash
# The test command: installs what is missing, then builds and runs every test
# in five stages, stopping at the first failure:
#
#   native  warnings as errors, all tests
#   asan    AddressSanitizer + UndefinedBehaviorSanitizer, all tests
#   tsan    ThreadSanitizer, the component and multi-thread codec tests
#           (ctest labels "omx" and "threads")
#   arm     32-bit ARM cross build, all tests under qemu-arm
#   fuzz    scripts/fuzz.sh, when present
#
# Build trees go to build/<stage>. Environment:
#   EVRC_JOBS        parallel build and test jobs (default 2)
#   EVRC_STAGES      stages to run, space separated (default: all five)
#   EVRC_SKIP_SETUP  set to 1 to skip scripts/setup.sh
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=$ROOT/build
JOBS=${EVRC_JOBS:-2}
STAGES=${EVRC_STAGES:-native asan tsan arm fuzz}
# Iteration count of the randomised tests on the slow (emulated or
# instrumented) stages.
SLOW_ITERATIONS=100000

cd "$ROOT"
mkdir -p "$BUILD"

# Arguments every configuration gets: a compiler cache when there is one
# (it keeps rebuilds on the same machine short).
CMAKE_COMMON=()
if command -v ccache >/dev/null; then
    CMAKE_COMMON+=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi

total_passed=0
CTEST_PREFIX=()
total_failed=0
summary=()

fail() {
    echo
    echo "test.sh: FAILED in stage '$1': $2"
    # A failure outside ctest (build, configure, fuzzing) counts as one.
    local failed=$((total_failed > 0 ? total_failed : 1))
    echo "test.sh: ${total_passed} passed, ${failed} failed (stopped at stage $1)"
    exit 1
}

# Runs ctest in build dir $2 for stage $1 with the remaining arguments,
# adding its counts to the totals.
run_ctest() {
    local stage=$1 dir=$2
    shift 2
    local log=$dir/ctest.log
    local rc=0
    (cd "$dir" && ${CTEST_PREFIX[@]+"${CTEST_PREFIX[@]}"} ctest --output-on-failure -j "$JOBS" --timeout 1500 "$@") \
        2>&1 | tee "$log" || rc=$?
    local line passed failed all
    line=$(grep -Eo '[0-9]+ tests failed out of [0-9]+' "$log" | tail -1 || true)
    if [[ -n "$line" ]]; then
        failed=$(awk '{print $1}' <<<"$line")
        all=$(awk '{print $NF}' <<<"$line")
        passed=$((all - failed))
        total_passed=$((total_passed + passed))
        total_failed=$((total_failed + failed))
    fi
    if [[ $rc -ne 0 ]]; then
        fail "$stage" "ctest reported failures (log: $log)"
    fi
}

configure_and_build() {
    local stage=$1 dir=$2
    shift 2
    cmake -S "$ROOT" -B "$dir" ${CMAKE_COMMON[@]+"${CMAKE_COMMON[@]}"} "$@" >"$dir.configure.log" 2>&1 ||
        { cat "$dir.configure.log"; fail "$stage" "cmake configure failed"; }
    nice cmake --build "$dir" -j "$JOBS" ||
        fail "$stage" "build failed"
}

stage_native() {
    configure_and_build native "$BUILD/native" -DEVRC_WERROR=ON
    run_ctest native "$BUILD/native" --no-tests=error
}

stage_asan() {
    configure_and_build asan "$BUILD/asan" -DEVRC_WERROR=ON -DEVRC_SANITIZE=address,undefined \
        -DEVRC_BUILD_BENCH=OFF
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    EVRC_TEST_ITERATIONS=$SLOW_ITERATIONS \
        run_ctest asan "$BUILD/asan" --no-tests=error
}

stage_tsan() {
    local dir=$BUILD/tsan
    cmake -S "$ROOT" -B "$dir" ${CMAKE_COMMON[@]+"${CMAKE_COMMON[@]}"} -DEVRC_WERROR=ON -DEVRC_SANITIZE=thread -DEVRC_BUILD_BENCH=OFF \
        -DEVRC_BUILD_TOOLS=OFF >"$dir.configure.log" 2>&1 ||
        { cat "$dir.configure.log"; fail tsan "cmake configure failed"; }
    # Build only the programs of the threaded tests: the executables that
    # tests labelled "omx" or "threads" run and that are targets of this build.
    local targets
    targets=$(python3 - "$dir" <<'PY'
import os, re, subprocess, sys
build = sys.argv[1]
commands, labelled = {}, set()
for root, _, files in os.walk(build):
    if "CTestTestfile.cmake" not in files:
        continue
    with open(os.path.join(root, "CTestTestfile.cmake")) as f:
        text = f.read()
    for name, exe in re.findall(r'^add_test\((\S+) "([^"]+)"', text, re.M):
        commands[name] = os.path.basename(exe)
    for name, labels in re.findall(r'^set_tests_properties\((\S+) PROPERTIES .*?LABELS "([^"]*)"', text, re.M):
        if {"omx", "threads"} & set(labels.split(";")):
            labelled.add(name)
help_text = subprocess.run(["cmake", "--build", build, "--target", "help"],
                           capture_output=True, text=True).stdout
known = set(re.findall(r"^\.\.\. (\S+)", help_text, re.M))
print(" ".join(sorted({commands[t] for t in labelled if commands.get(t) in known})))
PY
)
    if [[ -z "$targets" ]]; then
        echo "tsan: no component tests (label omx) yet; nothing to run"
        return 0
    fi
    # shellcheck disable=SC2086
    nice cmake --build "$dir" -j "$JOBS" --target $targets || fail tsan "build failed"
    # Without address-space randomisation ThreadSanitizer's fixed memory
    # layout fits on kernels with large mmap randomisation too.
    CTEST_PREFIX=(setarch "$(uname -m)" -R)
    "${CTEST_PREFIX[@]}" true 2>/dev/null || CTEST_PREFIX=()
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    EVRC_TEST_ITERATIONS=$SLOW_ITERATIONS \
        run_ctest tsan "$dir" -L "omx|threads" --no-tests=error
    CTEST_PREFIX=()
}

stage_arm() {
    configure_and_build arm "$BUILD/arm" -DEVRC_WERROR=ON \
        -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/arm-linux-gnueabihf.cmake"
    EVRC_TEST_ITERATIONS=$SLOW_ITERATIONS \
        run_ctest arm "$BUILD/arm" --no-tests=error
}

stage_fuzz() {
    if [[ ! -f "$ROOT/scripts/fuzz.sh" ]]; then
        echo "fuzz: scripts/fuzz.sh not present; nothing to run"
        return 0
    fi
    bash "$ROOT/scripts/fuzz.sh" || fail fuzz "scripts/fuzz.sh failed"
}

start_all=$SECONDS
if [[ "${EVRC_SKIP_SETUP:-0}" != 1 ]]; then
    t=$SECONDS
    bash "$ROOT/scripts/setup.sh" || fail setup "package installation failed"
    summary+=("setup $((SECONDS - t))s")
fi

for stage in $STAGES; do
    case $stage in
        native | asan | tsan | arm | fuzz) ;;
        *) fail "$stage" "unknown stage (known: native asan tsan arm fuzz)" ;;
    esac
    echo
    echo "=== stage $stage ==="
    t=$SECONDS
    "stage_$stage"
    summary+=("$stage $((SECONDS - t))s")
done

echo
echo "test.sh: stage times: ${summary[*]}; total $((SECONDS - start_all))s"
echo "test.sh: all stages passed"
echo "total: ${total_passed} passed, ${total_failed} failed"
