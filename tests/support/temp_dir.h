// A scratch directory for tests that write files.
#ifndef EVRC_TESTS_SUPPORT_TEMP_DIR_H
#define EVRC_TESTS_SUPPORT_TEMP_DIR_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace evrc_test {

// A directory of this process's own under the test temp dir, so that
// concurrent runs do not share files; removed at exit. Its name starts with
// `prefix` of the first call (falls back to the test temp dir itself when it
// cannot be made).
inline std::string own_temp_dir(const std::string &prefix) {
    struct OwnDir {
        std::string path;
        bool made = false;
        explicit OwnDir(const std::string &prefix) {
            std::string templ = testing::TempDir() + "/" + prefix + "_XXXXXX";
            made = mkdtemp(&templ[0]) != nullptr;
            path = made ? templ : testing::TempDir();
        }
        ~OwnDir() {
            std::error_code ec;
            if (made) std::filesystem::remove_all(path, ec);
        }
    };
    static const OwnDir dir(prefix);
    return dir.path;
}

}  // namespace evrc_test

#endif  // EVRC_TESTS_SUPPORT_TEMP_DIR_H
