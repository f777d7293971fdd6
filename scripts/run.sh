#!/usr/bin/env bash
# The main job: installs what is missing, makes a Release build and runs it.
# That means every benchmark program (bench_*), whose results go to the
# terminal and, as JSON, to build/release/bench-results/, then a speech decode
# demo with the `evrc` tool into build/release/demo/.
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
# A synthetic 10-second conversation (there is no encoder yet) written as a
# QCP file, decoded to WAV by the codec API and through the OpenMAX
# component; the two WAV files must be identical. FFmpeg's decoder, when
# installed, decodes the same file for comparison.
demo=$BUILD/demo
mkdir -p "$demo"
echo
echo "=== speech decode demo ==="
"$BUILD/tools/evrc_demo_stream" "$demo/conversation.qcp" 10 || fail "demo stream"
"$BUILD/tools/evrc" decode "$demo/conversation.qcp" "$demo/conversation.wav" || fail "evrc decode"
"$BUILD/tools/evrc" decode --omx "$demo/conversation.qcp" "$demo/conversation_omx.wav" 2>/dev/null ||
    fail "evrc decode --omx"
cmp -s "$demo/conversation.wav" "$demo/conversation_omx.wav" ||
    fail "codec and component decodes differ"
echo "decoded $demo/conversation.wav (codec API) and conversation_omx.wav (component): identical"
if command -v ffmpeg >/dev/null; then
    ffmpeg -v quiet -y -i "$demo/conversation.qcp" "$demo/conversation_ffmpeg.wav" &&
        echo "FFmpeg's decode of the same file: $demo/conversation_ffmpeg.wav"
fi

echo
echo "run.sh: done (${#benches[@]} benchmark programs; results in $results)"
