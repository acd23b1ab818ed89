// What a conformance suite is instantiated with: an implementation's name, and how one is made for
// each test. A suite states what the interface's header promises and nothing else. To hold another
// implementation to it, include the suite's header in one source file and say there
//
//     INSTANTIATE_TEST_SUITE_P(Linux, RunLoopConformance,
//         testing::Values(Implementation<RunLoopSubject>{"Linux", [] { ... }}));
//
// A subject is one implementation with what a test must be able to do to its surroundings. Where a
// subject's verb answers nothing or false by default, the tests that need it are skipped.
#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>

namespace korvane {

template <typename Subject>
struct Implementation {
    std::string name;
    std::function<std::unique_ptr<Subject>()> make;

    friend std::ostream& operator<<(std::ostream& out, const Implementation& implementation) {
        return out << implementation.name;
    }
};

}  // namespace korvane
