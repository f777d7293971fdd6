// What a call does to the arithmetic layer's shared state: whether it raised
// the overflow flag (cleared before the call) and how many weighted operations
// it counted. The call runs inside a call scope of its own, so that internal
// forms, which do not open one, are counted as the exported ones are; counts
// left pending by earlier unscoped calls are settled first.
#ifndef EVRC_TESTS_SUPPORT_EFFECTS_H
#define EVRC_TESTS_SUPPORT_EFFECTS_H

#include <utility>

#include "codec/basic/fixed_point.h"

namespace evrc_test {

using Effects = std::pair<bool, UWord32>;  // flag raised, operations counted

template <class F>
Effects effects(F &&f) {
    { fx::CallScope settle; }
    evrc_giOverflow = 0;
    const UWord32 before = evrc_op_counter;
    {
        fx::CallScope scope;
        f();
    }
    return {evrc_giOverflow != 0, evrc_op_counter - before};
}

}  // namespace evrc_test

#endif  // EVRC_TESTS_SUPPORT_EFFECTS_H
