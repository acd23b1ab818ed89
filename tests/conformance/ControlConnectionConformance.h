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
    // Have the daemon create, or delete, the items at two paths; false: no answer came.
    virtual bool createItems(const std::string& first, const std::string& second) = 0;
    virtual bool deleteItems(const std::string& first, const std::string& second) = 0;
    // Every item failure that somebody who listens has heard of by the answer to the last list.
    virtual std::vector<ItemFailure> heardFailures() = 0;
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
        void messageDoCreateItems(const std::vector<std::string>& paths) override {
            created = paths;
        }
        void messageDoDeleteItems(const std::vector<std::string>& paths) override {
            deleted = paths;
            for (const std::string& path : paths) {
                if (registered) registered->itemFailed({.path = path, .reason = "because"});
            }
        }
        std::vector<std::string> words;
        std::vector<std::string> created;
        std::vector<std::string> deleted;
        RegisteredConnection* registered = nullptr;
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

TEST_P(ControlConnectionConformance, DeliversListsOfPathsInTheirOrder) {
    const auto registered = subject_->connection().registerName(target_);
    ASSERT_TRUE(registered);
    EXPECT_TRUE(subject_->createItems("/first", "/second one"));
    EXPECT_THAT(target_.created, testing::ElementsAre("/first", "/second one"));
    EXPECT_TRUE(subject_->deleteItems("relative", ""));
    EXPECT_THAT(target_.deleted, testing::ElementsAre("relative", ""));
    EXPECT_THAT(target_.created, testing::ElementsAre("/first", "/second one"));
}

TEST_P(ControlConnectionConformance, TellsWhichItemsFailedBeforeItAnswers) {
    EXPECT_THAT(subject_->heardFailures(), testing::IsEmpty());
    const auto registered = subject_->connection().registerName(target_);
    ASSERT_TRUE(registered);
    target_.registered = registered.get();
    EXPECT_TRUE(subject_->deleteItems("/first", "second one"));
    EXPECT_THAT(subject_->heardFailures(),
                testing::ElementsAre(ItemFailure{"/first", "because"},
                                     ItemFailure{"second one", "because"}));
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
