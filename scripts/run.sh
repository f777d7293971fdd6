#!/usr/bin/env bash
# The main job: installs what is missing, makes a Release build and runs it.
# For now that means every benchmark program (bench_*); their results go to
# the terminal and, as JSON, to build/release/bench-results/.
#
# Environment: EVRC_JOBS (default 2), EVRC_SKIP_SETUP=1 to skip package setup,
# EVRC_BENCH_ARGS extra arguments for every benchmark program.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=$ROOT/build/release
JOBS=${EVRC_JOBS:-2}

fail() {
    echo "run.sh: FAILED: $1"
    exit 1
}

if [[ "${EVRC_SKIP_SETUP:-0}" != 1 ]]; then
    bash "$ROOT/scripts/setup.sh" || fail "package installation failed"
fi

mkdir -p "$BUILD"
launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S "$ROOT" -B "$BUILD" ${launcher[@]+"${launcher[@]}"} -DCMAKE_BUILD_TYPE=Release -DEVRC_BUILD_TESTS=OFF \
    -DEVRC_BUILD_BENCH=ON -DEVRC_BUILD_TOOLS=ON >"$BUILD.configure.log" 2>&1 ||
    { cat "$BUILD.configure.log"; fail "cmake configure failed"; }
nice cmake --build "$BUILD" -j "$JOBS" || fail "build failed"

# --- Benchmarks ---------------------------------------------------------
results=$BUILD/bench-results
mkdir -p "$results"
mapfile -t benches < <(find "$BUILD/bench" -maxdepth 1 -type f -name 'bench_*' -perm -u+x 2>/dev/null | sort)
if [[ ${#benches[@]} -eq 0 ]]; then
    echo "run.sh: no benchmark programs built yet"
fi
for b in "${benches[@]}"; do
    name=$(basename "$b")
    echo
    echo "=== $name ==="
    # shellcheck disable=SC2086
    "$b" --benchmark_out="$results/$name.json" --benchmark_out_format=json ${EVRC_BENCH_ARGS:-} ||
        fail "$name failed"
done

# --- Speech decode demo -------------------------------------------------
# Placeholder: decoding a speech file with the command-line tool will be
# added here once the tool and a sample packet stream are available.

echo
echo "run.sh: done (${#benches[@]} benchmark programs; results in $results)"
