#!/usr/bin/env bash
# Builds the libFuzzer targets of tests/fuzz with clang (address and
# undefined-behaviour sanitizers) and runs each for a bounded time.
#
#   scripts/fuzz.sh [SECONDS_PER_TARGET]     (default 30, or $FUZZ_TIME)
#
# Output goes to build/fuzz (or $FUZZ_OUT): objects, the targets, the seed
# and working corpora, and crash-* files for any input that fails. The exit
# status is non-zero if a target crashed or could not be built.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
OUT=${FUZZ_OUT:-$ROOT/build/fuzz}
TIME=${1:-${FUZZ_TIME:-30}}
CXX=${FUZZ_CXX:-clang++}
JOBS=${FUZZ_JOBS:-2}

if ! command -v "$CXX" >/dev/null; then
    echo "fuzz.sh: $CXX not found (install Debian's clang)" >&2
    exit 1
fi

SAN="-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer"
CXXFLAGS="-std=c++17 -O1 -g $SAN -I$ROOT/include -I$ROOT"
mkdir -p "$OUT/obj" "$OUT/seeds/decode" "$OUT/seeds/qcp" "$OUT/seeds/encode" "$OUT/corpus/decode" "$OUT/corpus/qcp" \
         "$OUT/corpus/encode"

# Newest header: a change in any of them rebuilds every object.
newest_header=$(find "$ROOT/include" "$ROOT/codec" "$ROOT/tests/support" "$ROOT/tools" -name '*.h' -o -name '*.hpp' |
                xargs ls -t | head -n 1)

compile() {  # source object
    if [[ ! -f $2 || $1 -nt $2 || $newest_header -nt $2 ]]; then
        $CXX $CXXFLAGS -fsanitize=fuzzer-no-link -c "$1" -o "$2"
    fi
}
export -f compile
export CXX CXXFLAGS newest_header

echo "fuzz.sh: building the library sources"
srcs=("$ROOT"/codec/*/*.cpp)
objs=()
for src in "${srcs[@]}"; do  # objects of the current sources only, never stale ones
    rel=${src#"$ROOT"/codec/}
    objs+=("$OUT/obj/${rel//\//_}.o")
done
for i in "${!srcs[@]}"; do
    echo "${srcs[$i]} ${objs[$i]}"
done | xargs -P "$JOBS" -n 2 bash -c 'compile "$0" "$1"'

for target in fuzz_decode fuzz_qcp fuzz_encode; do
    $CXX $CXXFLAGS -fsanitize=fuzzer "$ROOT/tests/fuzz/$target.cpp" "${objs[@]}" -o "$OUT/$target"
done
$CXX $CXXFLAGS -fsanitize=fuzzer-no-link "$ROOT/tests/fuzz/make_seeds.cpp" "${objs[@]}" -o "$OUT/make_seeds"
"$OUT/make_seeds" "$OUT/seeds/decode" "$OUT/seeds/qcp" "$OUT/seeds/encode"

status=0
for pair in fuzz_decode:decode fuzz_qcp:qcp fuzz_encode:encode; do
    target=${pair%%:*}
    name=${pair##*:}
    echo "fuzz.sh: running $target for ${TIME}s"
    # Decode inputs are capped at 20 packets so that each run stays short.
    max_len=4096
    [[ $name == decode ]] && max_len=$((2 + 24 * 20))
    # Encode inputs: the header and at most 24 frames of control byte and PCM.
    [[ $name == encode ]] && max_len=$((6 + 321 * 24))
    if ! "$OUT/$target" -max_total_time="$TIME" -max_len=$max_len -rss_limit_mb=2048 -timeout=20 -print_final_stats=1 \
            -artifact_prefix="$OUT/crash-$name-" "$OUT/corpus/$name" "$OUT/seeds/$name" \
            >"$OUT/$target.log" 2>&1; then
        echo "fuzz.sh: $target FAILED; see $OUT/$target.log and $OUT/crash-$name-*" >&2
        tail -n 30 "$OUT/$target.log" >&2
        status=1
    else
        grep -E '^stat::number_of_executed_units|^Done' "$OUT/$target.log" || true
    fi
done
exit $status
