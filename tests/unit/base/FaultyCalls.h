// Stands between the code under test and the C library: counts the calls that change a file, and
// makes the n-th of them fail, or be the last thing that the process does.
#pragma once

#include <functional>

namespace korvane {

struct FaultPlan {
    int atCall = 0;         // 1 for the first call from now on; 0 for no fault.
    int error = 0;          // The errno the call fails with; a write has then done half its work.
    bool dies = false;      // Instead of failing, the process ends in the middle of the call.
    bool persists = false;  // Every later call fails, too.
};

void planFault(const FaultPlan& plan);
[[nodiscard]] int changingCalls();  // Since the last plan.
[[nodiscard]] int readingCalls();
[[nodiscard]] int syncCalls();

// What another program does before the next call that sets the times of a file; once.
void interveneBeforeStamp(std::function<void()> intervention);

// What the process ends with when it was planned to die.
inline constexpr int kDied = 77;

}  // namespace korvane
