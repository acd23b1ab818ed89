// What every control connection promises.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "conformance/Implementation.h"
#include "platform/ControlConnection.h"

namespace korvane {

enum class ControlAnswer { yes, no, refused, nobody };

class ControlConnectionSubject {
  public:
    virtual ~ControlConnectionSubject() = default;
    virtual ControlConnection& connection() = 0;
    // As another process calls: by root or the daemon's own user. The loop runs meanwhile.
    virtual ControlAnswer send(const std::string& word) = 0;
    // As a process of somebody else calls; `yes` when that cannot be tried here.
    virtual ControlAnswer sendAsOther(const std::string& word) = 0;
    // Another process has the name from here on; false: not possible here.
    virtual bool takeName() { return false; }
};

class ControlConnectionConformance
    : public testing::TestWithParam<Implementation<ControlConnectionSubject>> {
  protected:
    // Answers NO to "no", YES to everything else, and keeps what it was asked.
    struct Target final : ControlTarget {
        bool messageXmitRcvr(const std::string& word) override {
            words.push_back(word);
            return word != "no";
        }
        std::vector<std::string> words;
    };

    ControlConnectionConformance() : subject_(GetParam().make()) {}

    std::unique_ptr<ControlConnectionSubject> subject_;
    Target target_;
};

TEST_P(ControlConnectionConformance, DeliversWordsAndTheirAnswers) {
    const auto registered = subject_->connection().registerName(target_);
    ASSERT_TRUE(registered);
    EXPECT_EQ(subject_->send("a word"), ControlAnswer::yes);
    EXPECT_EQ(subject_->send("no"), ControlAnswer::no);
    EXPECT_EQ(subject_->send(""), ControlAnswer::yes);
    EXPECT_THAT(target_.words, testing::ElementsAre("a word", "no", ""));
}

TEST_P(ControlConnectionConformance, RefusesOtherUsersBeforeAnythingIsDone) {
    const auto registered = subject_->connection().registerName(target_);
    ASSERT_TRUE(registered);
    const ControlAnswer answer = subject_->sendAsOther("a word");
    if (answer == ControlAnswer::yes && target_.words.empty()) {
        GTEST_SKIP() << "nobody else can call here";
    }
    EXPECT_EQ(answer, ControlAnswer::refused);
    EXPECT_TRUE(target_.words.empty());
}

TEST_P(ControlConnectionConformance, GivesTheNameBackWithTheRegistration) {
    auto registered = subject_->connection().registerName(target_);
    ASSERT_TRUE(registered);
    registered.reset();
    EXPECT_EQ(subject_->send("a word"), ControlAnswer::nobody);
    EXPECT_TRUE(target_.words.empty());
    registered = subject_->connection().registerName(target_);
    ASSERT_TRUE(registered);
    EXPECT_EQ(subject_->send("a word"), ControlAnswer::yes);
}

TEST_P(ControlConnectionConformance, RegistersNothingWhenTheNameIsTaken) {
    if (!subject_->takeName()) GTEST_SKIP() << "nobody else can have the name here";
    EXPECT_FALSE(subject_->connection().registerName(target_));
}

}  // namespace korvane
