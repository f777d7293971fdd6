// Loop count of a randomised test: `fallback`, or fewer when
// EVRC_TEST_ITERATIONS asks for fewer (sanitizers, emulators).
#ifndef EVRC_TESTS_SUPPORT_ITERATIONS_H
#define EVRC_TESTS_SUPPORT_ITERATIONS_H

#include <cstdlib>

namespace evrc_test {

inline int iterations(int fallback) {
    const char *env = std::getenv("EVRC_TEST_ITERATIONS");
    const int n = env ? std::atoi(env) : 0;
    return n > 0 && n < fallback ? n : fallback;
}

}  // namespace evrc_test

#endif  // EVRC_TESTS_SUPPORT_ITERATIONS_H
