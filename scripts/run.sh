#!/usr/bin/env bash
# The main job: installs what is missing, makes a Release build and does the
# product's work on real speech: a recorded prompt (Debian's
# asterisk-core-sounds-en-wav) is encoded with `evrc encode`, decoded with
# `evrc decode`, through the OpenMAX IL component (`evrc decode --omx`, which
# must give the identical file) and with FFmpeg when installed; it prints the
# bit rate, the packets per rate and the encode and decode speed in times
# real time. Then every benchmark program (bench_*) runs, with results on the
# terminal and, as JSON (with each run's header and log), in
# build/release/bench-results/. The speech files
# stay in build/release/demo/ for listening.
#
# Environment: EVRC_JOBS (default 2), EVRC_SKIP_SETUP=1 to skip package setup,
# EVRC_BENCH_ARGS extra arguments for every benchmark program, EVRC_SPEECH
# another speech file to encode (any format libsndfile reads), EVRC_BUILD_DIR
# another build directory.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${EVRC_BUILD_DIR:-$ROOT/build/release}
JOBS=${EVRC_JOBS:-2}

# A path as shown to the user: relative to the source tree when inside it.
show() { echo "${1#"$ROOT"/}"; }

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
echo "run.sh: building into $(show "$BUILD") (log: $(show "$BUILD.build.log"))"
nice cmake --build "$BUILD" -j "$JOBS" >"$BUILD.build.log" 2>&1 || { tail -n 40 "$BUILD.build.log"; fail "build failed"; }

# --- Speech: encode, decode three ways ------------------------------------
evrc=$BUILD/tools/evrc
demo=$BUILD/demo
mkdir -p "$demo"
speech=${EVRC_SPEECH:-}
if [[ -z $speech ]]; then
    speech=$(find -L /usr/share/asterisk/sounds -name demo-congrats.wav 2>/dev/null | sort | head -n 1)
fi
[[ -n $speech && -f $speech ]] || fail "no speech prompt found (install asterisk-core-sounds-en-wav or set EVRC_SPEECH)"

now() { date +%s%N; }
# times_real_time SECONDS_OF_SPEECH START_NS END_NS
times_real_time() { awk -v d="$1" -v t=$(($3 - $2)) 'BEGIN { t /= 1e9; printf "%.2f s, %.0fx real time", t, d / t }'; }

echo
echo "=== speech: $speech ==="
start=$(now)
"$evrc" encode "$speech" "$demo/speech.qcp" 2>"$demo/encode.log" || { cat "$demo/encode.log"; fail "evrc encode"; }
end=$(now)
seconds=$("$evrc" info "$demo/speech.qcp" | awk '$1 == "duration:" { print $2 }')
echo "encode  evrc encode        -> demo/speech.qcp      $(times_real_time "$seconds" "$start" "$end")"
summary=$(cat "$demo/encode.log")
echo "        ${summary//$demo\//demo/}"
start=$(now)
"$evrc" decode "$demo/speech.qcp" "$demo/speech.wav" || fail "evrc decode"
end=$(now)
echo "decode  evrc decode        -> demo/speech.wav      $(times_real_time "$seconds" "$start" "$end")"
start=$(now)
"$evrc" decode --omx "$demo/speech.qcp" "$demo/speech_omx.wav" 2>"$demo/omx.log" ||
    { cat "$demo/omx.log"; fail "evrc decode --omx"; }
end=$(now)
cmp -s "$demo/speech.wav" "$demo/speech_omx.wav" || fail "codec and component decodes differ"
echo "decode  evrc decode --omx  -> demo/speech_omx.wav  $(times_real_time "$seconds" "$start" "$end"), identical to speech.wav"
if command -v ffmpeg >/dev/null; then
    ffmpeg -nostdin -v error -y -i "$demo/speech.qcp" "$demo/speech_ffmpeg.wav" || fail "FFmpeg cannot decode speech.qcp"
    echo "decode  ffmpeg             -> demo/speech_ffmpeg.wav"
fi

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
    # The runner's header (machine, caches, load) and the component's log
    # lines go to $results/$name.log; the table stays on the terminal.
    # shellcheck disable=SC2086
    "$b" --benchmark_out="$results/$name.json" --benchmark_out_format=json ${EVRC_BENCH_ARGS:-} \
        2>"$results/$name.log" || fail "$name failed (see $(show "$results/$name.log"))"
done

echo
echo "run.sh: done (speech in $(show "$demo"); ${#benches[@]} benchmark programs, results in $(show "$results"))"
