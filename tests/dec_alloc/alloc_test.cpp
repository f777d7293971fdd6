// The decoder never allocates: every rate, erasures and malformed packets are
// decoded with the heap untouched. Allocations are counted only while a flag
// is raised, so the test framework's own allocations do not count.
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <random>

#include <gtest/gtest.h>

#include "evrc/evrc_dec.h"
#include "tools/random_packets.h"

namespace {
std::atomic<bool> counting{false};
std::atomic<long> allocations{0};
void *volatile sink = nullptr;  // keeps the probe allocations from being elided

void note_allocation() {
    if (counting.load(std::memory_order_relaxed)) allocations.fetch_add(1, std::memory_order_relaxed);
}
}  // namespace

extern "C" {
void *__real_malloc(std::size_t);
void *__real_calloc(std::size_t, std::size_t);
void *__real_realloc(void *, std::size_t);
void *__real_aligned_alloc(std::size_t, std::size_t);
int __real_posix_memalign(void **, std::size_t, std::size_t);

void *__wrap_malloc(std::size_t n) { return note_allocation(), __real_malloc(n); }
void *__wrap_calloc(std::size_t n, std::size_t size) { return note_allocation(), __real_calloc(n, size); }
void *__wrap_realloc(void *p, std::size_t n) { return note_allocation(), __real_realloc(p, n); }
void *__wrap_aligned_alloc(std::size_t a, std::size_t n) { return note_allocation(), __real_aligned_alloc(a, n); }
int __wrap_posix_memalign(void **p, std::size_t a, std::size_t n) {
    return note_allocation(), __real_posix_memalign(p, a, n);
}
}

// The replacements below are built on malloc and free; GCC cannot tell that
// the pairing is consistent once they are inlined.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void *operator new(std::size_t n) {
    note_allocation();
    if (void *p = __real_malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
void *operator new[](std::size_t n) { return operator new(n); }
void operator delete(void *p) noexcept { std::free(p); }
void operator delete[](void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }
void operator delete[](void *p, std::size_t) noexcept { std::free(p); }

namespace {

TEST(DecoderAllocation, CountersSeeAllocations) {
    counting = true;
    sink = std::malloc(16);
    void *p = sink;
    sink = new int(3);
    int *q = static_cast<int *>(sink);
    counting = false;
    std::free(p);
    delete q;
    EXPECT_EQ(allocations.exchange(0), 2);
}

TEST(DecoderAllocation, DecodingAllocatesNothing) {
    std::mt19937 rng(1);
    const int frames = 400;
    std::vector<EvrcPacket> packets;
    // Every rate, both erasure rate words, noise under a full-rate word, quarter rate.
    const Word16 kRates[8] = {EVRC_RATE_FULL,   EVRC_RATE_FULL, EVRC_RATE_HALF, EVRC_RATE_EIGHTH,
                              EVRC_RATE_EIGHTH, 0x0013,         EVRC_RATE_FULL, EVRC_RATE_QUARTER};
    for (int i = 0; i < frames; ++i) {
        const int kind = i % 8;
        EvrcPacket p = kind < 5 ? evrc_random::random_packet(rng, kRates[kind]) : EvrcPacket{kRates[kind], {}};
        if (i % 16 == 5) p.rate = EVRC_RATE_BLANK;
        for (auto &w : p.data) w = kind == 6 ? static_cast<Word16>(evrc_random::uniform_int(rng, -32768, 32767)) : w;
        packets.push_back(p);
    }
    std::vector<unsigned char> record(sizeof(EvrcDecoderState), 0);
    auto *st = reinterpret_cast<EvrcDecoderState *>(record.data());
    Word16 out[EVRC_FRAME_SIZE];

    allocations = 0;
    counting = true;
    evrc_init_dec(st);
    for (int i = 0; i < frames; ++i) evrc_decode(st, &packets[i], out, i % 3 == 0);
    counting = false;
    EXPECT_EQ(allocations.load(), 0);
}

}  // namespace
