// Stands between the code under test and the heap: counts what operator new is asked for, and
// makes the n-th request, or that and all later ones, fail. A suite that links
// FailingAllocations.cpp has this instead of the library's operators.
#pragma once

namespace korvane {

enum class Shortage {
    once,    // the n-th allocation alone
    forGood  // the n-th and all after it
};

// As long as one lives, allocation number `at` from here on throws std::bad_alloc. 0: none does.
class FailingAllocations {
  public:
    FailingAllocations(int at, Shortage shortage);
    ~FailingAllocations();
    FailingAllocations(const FailingAllocations&) = delete;
    FailingAllocations& operator=(const FailingAllocations&) = delete;

    // How many were asked for since this was made.
    [[nodiscard]] static int count();
};

}  // namespace korvane
