#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "RecordingLog.h"
#include "platform/LogOnce.h"

namespace korvane {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

TEST(LogOnce, WritesOneLineForEachCauseAndEpisode) {
    RecordingLog log;
    LogOnce once(log);
    for (int i = 0; i < 3; ++i) {
        once.write("/a", LogMessage::createError, {"/a"});
        once.write("/b", LogMessage::createError, {"/b"});
        // Whatever else is said of it: the cause is the same.
        once.write("/a", LogMessage::deleteError, {"/a"});
    }
    once.ended("/a");
    once.ended("/never begun");
    once.write("/a", LogMessage::createError, {"/a"});
    once.write("/b", LogMessage::createError, {"/b"});
    EXPECT_THAT(log.lines,
                ElementsAre("\"/a\" create error", "\"/b\" create error", "\"/a\" create error"));
}

TEST(LogOnce, KeepsTheFirstOfVeryManyCausesForALongTime) {
    RecordingLog log;
    LogOnce once(log);
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 1000; ++i) {
            once.write(std::to_string(i), LogMessage::mailStreamFull);
        }
    }
    EXPECT_THAT(log.lines, SizeIs(1000));
}

}  // namespace
}  // namespace korvane
