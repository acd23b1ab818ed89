// What every desktop's dialogs promise of those that take one another's place.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "conformance/Implementation.h"
#include "platform/AlertDialogs.h"

namespace korvane {

class AlertDialogsSubject {
  public:
    virtual ~AlertDialogsSubject() = default;
    virtual AlertDialogs& dialogs() = 0;
    // Whether the desktop answers nobody; what it is told meanwhile it does when it goes on.
    virtual void setHanging(bool isHanging) = 0;
    // The messages on the screen now, and all that were ever there.
    virtual std::vector<std::string> onScreen() = 0;
    virtual std::vector<std::string> everShown() = 0;
    // The most programs that ever waited for the desktop side by side.
    virtual std::size_t mostWaiting() = 0;
    virtual void runUntil(const std::function<bool()>& isDone) = 0;
};

class AlertDialogsConformance : public testing::TestWithParam<Implementation<AlertDialogsSubject>> {
  protected:
    AlertDialogsConformance() : subject_(GetParam().make()) {}

    std::unique_ptr<AlertDialog> show(const std::string& message,
                                      std::unique_ptr<AlertDialog> replaced = nullptr) {
        return subject_->dialogs().show({.header = "Korvane Pro",
                                         .message = message,
                                         .defaultButton = "OK",
                                         .level = AlertLevel::caution,
                                         .timeOut = {}},
                                        std::move(replaced));
    }
    void runUntilScreenShows(const std::vector<std::string>& messages) {
        subject_->runUntil([&] { return subject_->onScreen() == messages; });
    }

    std::unique_ptr<AlertDialogsSubject> subject_;
};

TEST_P(AlertDialogsConformance, OneInThePlaceOfAnotherTakesItOffTheScreen) {
    std::unique_ptr<AlertDialog> dialog = show("first");
    runUntilScreenShows({"first"});
    dialog = show("second", std::move(dialog));
    ASSERT_NE(dialog, nullptr);
    runUntilScreenShows({"second"});
    dialog->cancel();
    runUntilScreenShows({});
    dialog = show("third", std::move(dialog));
    runUntilScreenShows({"third"});
    EXPECT_THAT(subject_->everShown(), testing::ElementsAre("first", "second", "third"));
}

TEST_P(AlertDialogsConformance, DialogsOfTwoPlacesStandSideBySide) {
    const std::unique_ptr<AlertDialog> one = show("one");
    runUntilScreenShows({"one"});
    const std::unique_ptr<AlertDialog> other = show("other");
    runUntilScreenShows({"one", "other"});
}

TEST_P(AlertDialogsConformance, OfThoseOrderedWhileTheDesktopHangsOnlyTheLastAppears) {
    std::unique_ptr<AlertDialog> dialog = show("first");
    runUntilScreenShows({"first"});
    subject_->setHanging(true);
    for (int number = 0; number < 150; ++number) {
        dialog = show(std::to_string(number), std::move(dialog));
        ASSERT_NE(dialog, nullptr);
    }
    EXPECT_THAT(subject_->onScreen(), testing::ElementsAre("first"));
    subject_->setHanging(false);
    runUntilScreenShows({"149"});
    EXPECT_THAT(subject_->everShown(), testing::ElementsAre("first", "149"));
    EXPECT_LE(subject_->mostWaiting(), 1U);
}

TEST_P(AlertDialogsConformance, OneThatIsCancelledBeforeTheDesktopHasItNeverAppears) {
    subject_->setHanging(true);
    std::unique_ptr<AlertDialog> dialog = show("never");
    dialog->cancel();
    subject_->setHanging(false);
    dialog = show("last", std::move(dialog));
    runUntilScreenShows({"last"});
    EXPECT_THAT(subject_->everShown(), testing::ElementsAre("last"));
}

}  // namespace korvane
