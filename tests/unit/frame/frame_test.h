// Shared set-up of the frame tests: logs open for the test, and their texts.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fake/fake_platform.h"
#include "frame/frame.h"

namespace frametest {

using Texts = std::vector<std::string>;

struct LogTest : ::testing::Test {
    void SetUp() override { loginit(); }
    void TearDown() override { logterm(); }
};

// Texts of the catalogued records of one log.
inline Texts records(const char *log)
{
    Texts out;
    for (const auto &r : fake::logs_of(log))
        if (r.level == LOG_LEVEL_CATALOG)
            out.push_back(r.text);
    return out;
}

} // namespace frametest
