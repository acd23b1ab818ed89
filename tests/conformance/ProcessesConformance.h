// What every list of processes promises.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "conformance/Implementation.h"
#include "platform/Processes.h"

namespace korvane {

class ProcessesSubject {
  public:
    virtual ~ProcessesSubject() = default;
    virtual Processes& processes() = 0;
    // A process of this name runs until quit(); names of up to 15 bytes work on every machine.
    virtual void start(const std::string& name) = 0;
    virtual void quit(const std::string& name) = 0;

    // An application of this identifier runs and then ends; false: not possible here.
    virtual bool runApplication(const std::string&) { return false; }
    // Nothing of what happened before is still to be told of.
    virtual bool isQuiet() { return true; }
    // The loop runs until `isDone`, or until nothing more is to be expected of it.
    virtual void runUntil(const std::function<bool()>&) {}

    // Programs that can be launched: one that makes a file at the path it is given and ends, and
    // one that runs until it is told to end.
    virtual std::string fileMaker() = 0;
    virtual std::string sleeper() = 0;
    // A path for a file that is not there, and whether it is there now.
    virtual std::string newPath() = 0;
    virtual bool exists(const std::string& path) = 0;
};

class ProcessesConformance : public testing::TestWithParam<Implementation<ProcessesSubject>> {
  protected:
    ProcessesConformance() : subject_(GetParam().make()) {}

    std::vector<std::string> names() {
        std::vector<std::string> names;
        subject_->processes().forEachName([&](std::string_view name) {
            names.emplace_back(name);
            return true;
        });
        return names;
    }

    // Counts the ends of the task that is told of.
    void countEnds(const std::unique_ptr<Task>& task, int& ends) {
        subject_->processes().setTaskDidTerminate([&](const Task& ended) {
            if (&ended == task.get()) ++ends;
        });
    }

    std::unique_ptr<ProcessesSubject> subject_;
};

TEST_P(ProcessesConformance, ShowAProcessWhileItRuns) {
    EXPECT_THAT(names(), testing::Not(testing::Contains("Korvane Pro 9")));
    subject_->start("Korvane Pro 9");
    EXPECT_THAT(names(), testing::Contains("Korvane Pro 9"));
    subject_->quit("Korvane Pro 9");
    EXPECT_THAT(names(), testing::Not(testing::Contains("Korvane Pro 9")));
}

TEST_P(ProcessesConformance, ShowNoProcessWithoutAName) {
    EXPECT_THAT(names(), testing::Not(testing::Contains("")));
}

TEST_P(ProcessesConformance, StopWhenTheVisitorHasSeenEnough) {
    subject_->start("first");
    subject_->start("second");
    int visits = 0;
    subject_->processes().forEachName([&](std::string_view) {
        ++visits;
        return false;
    });
    EXPECT_EQ(visits, 1);
    subject_->quit("first");
    subject_->quit("second");
}

TEST_P(ProcessesConformance, TellOfAnApplicationThatEnded) {
    std::vector<std::string> ended;
    subject_->processes().setDidTerminateApplication(
        [&](const std::string& identifier) { ended.push_back(identifier); });
    if (!subject_->runApplication("com.quorlen.korvanepro")) {
        GTEST_SKIP() << "no application can run here";
    }
    subject_->runUntil([&] { return !ended.empty(); });
    EXPECT_THAT(ended, testing::ElementsAre("com.quorlen.korvanepro"));
    subject_->processes().setDidTerminateApplication(nullptr);
}

TEST_P(ProcessesConformance, TellOfAWatchedApplicationWhenItsLastProcessEnds) {
    std::vector<std::string> ended;
    subject_->processes().setDidTerminateApplication(
        [&](const std::string& identifier) { ended.push_back(identifier); });
    subject_->processes().watchApplication("Korvane Pro ", "nothing of it runs");
    subject_->start("Korvane Pro 1");
    subject_->start("Korvane Pro 2");
    subject_->processes().watchApplication("Korvane Pro ", "com.quorlen.korvanepro");
    subject_->start("Korvane Pro 3");
    subject_->quit("Korvane Pro 1");
    subject_->quit("Korvane Pro 2");
    subject_->runUntil([&] { return subject_->isQuiet(); });
    EXPECT_THAT(ended, testing::IsEmpty());
    subject_->quit("Korvane Pro 3");
    subject_->runUntil([&] { return !ended.empty(); });
    EXPECT_THAT(ended, testing::ElementsAre("com.quorlen.korvanepro"));
    subject_->processes().setDidTerminateApplication(nullptr);
}

TEST_P(ProcessesConformance, TellOnceThatALaunchedProgramHasEnded) {
    const std::string path = subject_->newPath();
    std::unique_ptr<Task> task;
    int ends = 0;
    countEnds(task, ends);
    task = subject_->processes().launch(subject_->fileMaker(), {path});
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(ends, 0);
    subject_->runUntil([&] { return ends > 0; });
    EXPECT_EQ(ends, 1);
    EXPECT_FALSE(task->isRunning());
    EXPECT_TRUE(subject_->exists(path));
    // Of no effect, and not on anybody else either.
    task->interrupt();
    task->terminate();
}

TEST_P(ProcessesConformance, TellWhichSignalEndedAProgram) {
    std::unique_ptr<Task> task;
    int ends = 0;
    countEnds(task, ends);
    task = subject_->processes().launch(subject_->sleeper(), {"1000"});
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->endingSignal(), 0);
    task->terminate();
    subject_->runUntil([&] { return ends > 0; });
    EXPECT_EQ(task->endingSignal(), SIGTERM);
    task = subject_->processes().launch(subject_->fileMaker(), {subject_->newPath()});
    ASSERT_NE(task, nullptr);
    subject_->runUntil([&] { return ends > 1; });
    EXPECT_EQ(task->endingSignal(), 0);
}

TEST_P(ProcessesConformance, LaunchAProgramThatCopies) {
    const std::string path = subject_->newPath();
    std::unique_ptr<Task> task;
    int ends = 0;
    countEnds(task, ends);
    task = subject_->processes().launchCopy(subject_->fileMaker(), {path}, std::nullopt);
    ASSERT_NE(task, nullptr);
    subject_->runUntil([&] { return ends > 0; });
    EXPECT_TRUE(subject_->exists(path));
    EXPECT_EQ(subject_->processes().launchCopy(subject_->newPath(), {}, std::nullopt), nullptr);
}

TEST_P(ProcessesConformance, LaunchNothingFromAPathWithoutAProgram) {
    EXPECT_EQ(subject_->processes().launch(subject_->newPath(), {}), nullptr);
}

TEST_P(ProcessesConformance, EndALaunchedProgramThatIsInterruptedOrTerminated) {
    for (void (Task::*const ask)() : {&Task::interrupt, &Task::terminate}) {
        std::unique_ptr<Task> task;
        int ends = 0;
        countEnds(task, ends);
        task = subject_->processes().launch(subject_->sleeper(), {"60"});
        ASSERT_NE(task, nullptr);
        EXPECT_TRUE(task->isRunning());
        ((*task).*ask)();
        subject_->runUntil([&] { return ends > 0; });
        EXPECT_EQ(ends, 1);
        EXPECT_FALSE(task->isRunning());
    }
}

TEST_P(ProcessesConformance, LetAProgramRunOnWhoseTaskIsDestroyed) {
    const std::string path = subject_->newPath();
    int ends = 0;
    subject_->processes().setTaskDidTerminate([&](const Task&) { ++ends; });
    ASSERT_NE(subject_->processes().launch(subject_->fileMaker(), {path}), nullptr);
    subject_->runUntil([&] { return subject_->exists(path); });
    EXPECT_TRUE(subject_->exists(path));
    EXPECT_EQ(ends, 0);
}

TEST_P(ProcessesConformance, MayLoseTheTaskInTheCallbackOfItsEnd) {
    std::unique_ptr<Task> task;
    bool isOver = false;
    subject_->processes().setTaskDidTerminate([&](const Task&) {
        subject_->processes().setTaskDidTerminate(nullptr);
        task.reset();
        isOver = true;
    });
    task = subject_->processes().launch(subject_->fileMaker(), {subject_->newPath()});
    subject_->runUntil([&] { return isOver; });
    EXPECT_TRUE(isOver);
    EXPECT_EQ(task, nullptr);
}

}  // namespace korvane
