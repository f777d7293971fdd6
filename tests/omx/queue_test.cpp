// The message queue against a simple model.
#include <gtest/gtest.h>

#include <deque>
#include <random>

#include "omx_client.h"

namespace omx_test {
namespace {

TEST(OmxQueue, BehavesLikeABoundedFifo)
{
    std::mt19937 rng(31);
    auto q = std::make_unique<omx_evrc_adec::omx_cmd_queue>();
    std::deque<omx_evrc_adec::omx_cmd_queue::entry> model;
    for (int i = 0; i < 20000; ++i) {
        // Runs of inserts and pops, so the queue fills up and empties often.
        const bool insert = (i / 150) % 2 == 0 ? rng() % 4 != 0 : rng() % 4 == 0;
        if (insert) {
            const uintptr_t p1 = static_cast<uintptr_t>(rng()) * 0x10001u + (i % 2 ? UINTPTR_MAX - 5 : 0);
            const uintptr_t p2 = reinterpret_cast<uintptr_t>(&model) + static_cast<uintptr_t>(i);
            const unsigned char id = static_cast<unsigned char>(rng() % 9);
            const bool ok = q->insert_entry(p1, p2, id);
            ASSERT_EQ(ok, model.size() < 100);
            if (ok)
                model.push_back({p1, p2, id});
        } else {
            uintptr_t p1 = 1, p2 = 2;
            unsigned char id = 3;
            const bool ok = q->pop_entry(&p1, &p2, &id);
            ASSERT_EQ(ok, !model.empty());
            if (ok) {
                EXPECT_EQ(p1, model.front().param1);
                EXPECT_EQ(p2, model.front().param2);
                EXPECT_EQ(id, model.front().id);
                model.pop_front();
            }
        }
        ASSERT_EQ(q->size(), model.size());
        ASSERT_LT(q->m_read, 100u);
        ASSERT_LT(q->m_write, 100u);
    }
    EXPECT_TRUE(log_contains("ERROR!!! Command Queue Full"));
    EXPECT_TRUE(log_contains("ERROR Delete!!! Command Queue Empty"));
}

}  // namespace
}  // namespace omx_test
