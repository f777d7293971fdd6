// Cost of the arithmetic operators, in their exported (out-of-line) and
// inline forms, and of a 160-sample 64-bit multiply-accumulate loop.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <random>

#include "codec/basic/fixed_point.h"

namespace {

constexpr std::size_t kOperands = 1024;  // power of two, for cheap wrap-around

struct Operands {
    std::array<Word16, kOperands> s16;
    std::array<Word32, kOperands> s32;
    Operands() {
        std::mt19937 rng(5);
        for (std::size_t i = 0; i < kOperands; ++i) {
            s16[i] = static_cast<Word16>(rng());
            s32[i] = static_cast<Word32>(rng());
        }
    }
};

const Operands &operands() {
    static const Operands ops;
    return ops;
}

// Runs `op` on operands that change on every call, so nothing is hoisted.
template <class Op>
void run(benchmark::State &state, Op op) {
    const Operands &o = operands();
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(op(o, i));
        i = (i + 1) & (kOperands - 1);
    }
    state.SetItemsProcessed(state.iterations());
}

#define BENCH_BOTH(name, expr_exported, expr_inline)                                \
    void BM_evrc_##name(benchmark::State &state) {                                  \
        run(state, [](const Operands &o, std::size_t i) { return expr_exported; }); \
    }                                                                               \
    void BM_fx_##name(benchmark::State &state) {                                    \
        run(state, [](const Operands &o, std::size_t i) { return expr_inline; });   \
    }                                                                               \
    BENCHMARK(BM_evrc_##name);                                                      \
    BENCHMARK(BM_fx_##name)

#define NEXT(i) (((i) + 1) & (kOperands - 1))

BENCH_BOTH(add, evrc_add(o.s16[i], o.s16[NEXT(i)]), fx::add(o.s16[i], o.s16[NEXT(i)]));
BENCH_BOTH(L_mac, evrc_L_mac(o.s32[i], o.s16[i], o.s16[NEXT(i)]), fx::L_mac(o.s32[i], o.s16[i], o.s16[NEXT(i)]));
BENCH_BOTH(L_mult_32_16, evrc_L_mult_32_16(o.s32[i], o.s16[i]), fx::L_mult_32_16(o.s32[i], o.s16[i]));
BENCH_BOTH(norm_l, evrc_norm_l(o.s32[i]), fx::norm_l(o.s32[i]));
BENCH_BOTH(divide_dp, evrc_divide_dp(o.s32[i], o.s32[NEXT(i)], 1), fx::divide_dp(o.s32[i], o.s32[NEXT(i)], 1));
BENCH_BOTH(square_root, evrc_square_root(o.s32[i]), fx::square_root(o.s32[i]));

// A correlation over one frame: 160 products accumulated at 64 bits, one
// saturation at the end.
void BM_dot160_L_mac64(benchmark::State &state) {
    const Operands &o = operands();
    std::size_t offset = 0;
    for (auto _ : state) {
        Word64 acc = 0;
        for (std::size_t n = 0; n < 160; ++n) acc = fx::L_mac64(acc, o.s16[offset + n], o.s16[offset + n + 160]);
        benchmark::DoNotOptimize(fx::L_sat32_64(acc));
        offset = (offset + 1) & 511;
    }
    state.SetItemsProcessed(state.iterations() * 160);
}
BENCHMARK(BM_dot160_L_mac64);

void BM_dot160_int_mac_16_16(benchmark::State &state) {
    const Operands &o = operands();
    std::size_t offset = 0;
    for (auto _ : state) {
        Word64 acc = 0;
        for (std::size_t n = 0; n < 160; ++n) acc = fx::int_mac_16_16(acc, o.s16[offset + n], o.s16[offset + n + 160]);
        benchmark::DoNotOptimize(fx::L_sat32_64(fx::L_shl64(acc, 1)));
        offset = (offset + 1) & 511;
    }
    state.SetItemsProcessed(state.iterations() * 160);
}
BENCHMARK(BM_dot160_int_mac_16_16);

}  // namespace

BENCHMARK_MAIN();
