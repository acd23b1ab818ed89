// What every system log promises.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "conformance/Implementation.h"
#include "platform/SystemLog.h"

namespace korvane {

class SystemLogSubject {
  public:
    virtual ~SystemLogSubject() = default;
    virtual SystemLog& log() = 0;
    // The lines that have arrived, without what the log itself puts before them.
    virtual std::vector<std::string> lines() = 0;
};

class SystemLogConformance : public testing::TestWithParam<Implementation<SystemLogSubject>> {
  protected:
    SystemLogConformance() : subject_(GetParam().make()) {}

    std::unique_ptr<SystemLogSubject> subject_;
};

TEST_P(SystemLogConformance, KeepsLinesAsTheyAreAndInTheirOrder) {
    subject_->log().write(LogLevel::info, "first");
    subject_->log().write(LogLevel::warning, "50% of \"D\xC3\xBCsseldorf\" %s %n");
    subject_->log().write(LogLevel::error, "");
    EXPECT_THAT(subject_->lines(),
                testing::ElementsAre("first", "50% of \"D\xC3\xBCsseldorf\" %s %n", ""));
}

TEST_P(SystemLogConformance, ShowsControlCharactersEscapedOnOneLine) {
    subject_->log().write(LogLevel::info, "a\nb\tc\x1b[31m\x7f");
    EXPECT_THAT(subject_->lines(), testing::ElementsAre("a\\nb\\tc\\x1b[31m\\x7f"));
}

}  // namespace korvane
