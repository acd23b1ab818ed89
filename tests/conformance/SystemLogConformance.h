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
    subject_->log().write(LogMessage::mailStreamFull);
    subject_->log().write(LogMessage::createError, {"50% of D\xC3\xBCsseldorf %s %n"});
    subject_->log().write(LogMessage::cannotRun, {""});
    EXPECT_THAT(
        subject_->lines(),
        testing::ElementsAre("The stream has been filled to capacity!",
                             "\"50% of D\xC3\xBCsseldorf %s %n\" create error", "cannot run: "));
}

TEST_P(SystemLogConformance, ShowsControlCharactersEscapedOnOneLine) {
    subject_->log().write(LogMessage::cannotRun, {"a\nb\tc\x1b[31m\x7f"});
    EXPECT_THAT(subject_->lines(), testing::ElementsAre("cannot run: a\\nb\\tc\\x1b[31m\\x7f"));
}

}  // namespace korvane
