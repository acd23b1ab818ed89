#include <gmock/gmock.h>

#include "base/NotificationCenter.h"

namespace korvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Observers and senders are told apart by address alone.
class NotificationCenterTest : public testing::Test {
  protected:
    NotificationCenter::Callback noting(const std::string& who) {
        return [this, who](const Notification& notification) {
            heard_.push_back(who + " " + std::string{notification.name});
        };
    }

    NotificationCenter center_;
    std::vector<std::string> heard_;
    int first_ = 0;
    int second_ = 0;
    int sender_ = 0;
    int otherSender_ = 0;
};

TEST_F(NotificationCenterTest, CallsWhoAskedForTheNameFromThatSender) {
    center_.addObserver(&first_, "begun", &sender_, noting("first"));
    center_.addObserver(&second_, "begun", &sender_, noting("second"));
    center_.post("begun", &sender_);
    EXPECT_THAT(heard_, ElementsAre("first begun", "second begun"));
    center_.post("begun", &otherSender_);
    center_.post("ended", &sender_);
    EXPECT_THAT(heard_, testing::SizeIs(2));
}

TEST_F(NotificationCenterTest, HandsTheUserInformationOver) {
    std::string text;
    center_.addObserver(&first_, "begun", &sender_, [&](const Notification& notification) {
        text = stringValue(notification.userInfo.find("text"));
    });
    center_.post("begun", &sender_, Dictionary{{"text", "hello"}});
    EXPECT_EQ(text, "hello");
}

TEST_F(NotificationCenterTest, CallsOnceWhoRegisteredTwice) {
    center_.addObserver(&first_, "begun", &sender_, noting("first"));
    center_.addObserver(&first_, "begun", &sender_, noting("first"));
    center_.post("begun", &sender_);
    EXPECT_THAT(heard_, ElementsAre("first begun"));
}

TEST_F(NotificationCenterTest, RemovesEverythingOfAnObserver) {
    center_.addObserver(&first_, "begun", &sender_, noting("first"));
    center_.addObserver(&first_, "ended", &otherSender_, noting("first"));
    center_.addObserver(&second_, "begun", &sender_, noting("second"));
    center_.removeObserver(&first_);
    center_.post("begun", &sender_);
    center_.post("ended", &otherSender_);
    EXPECT_THAT(heard_, ElementsAre("second begun"));
}

TEST_F(NotificationCenterTest, DoesNotCallWhoWasRemovedInTheCourseOfThePost) {
    center_.addObserver(&first_, "begun", &sender_,
                        [this](const Notification&) { center_.removeObserver(&second_); });
    center_.addObserver(&second_, "begun", &sender_, noting("second"));
    center_.post("begun", &sender_);
    EXPECT_THAT(heard_, IsEmpty());
}

TEST_F(NotificationCenterTest, AnObserverMayRemoveItself) {
    center_.addObserver(&first_, "begun", &sender_, [this](const Notification& notification) {
        center_.removeObserver(&first_);
        heard_.emplace_back(notification.name);
    });
    center_.post("begun", &sender_);
    center_.post("begun", &sender_);
    EXPECT_THAT(heard_, ElementsAre("begun"));
}

TEST_F(NotificationCenterTest, MovesARegistrationToAnotherSender) {
    center_.addObserver(&first_, "begun", &sender_, noting("first"));
    center_.addObserver(&second_, "begun", &sender_, noting("second"));
    center_.moveSender(&first_, &sender_, &otherSender_);
    center_.post("begun", &sender_);
    center_.post("begun", &otherSender_);
    EXPECT_THAT(heard_, ElementsAre("second begun", "first begun"));
}

}  // namespace
}  // namespace korvane
