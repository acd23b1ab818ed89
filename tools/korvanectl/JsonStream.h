// A JSON document of one list that is printed as it comes, for lists too long for the memory:
//   {"name": [ ... ]}
#pragma once

#include <string>

#include "base/PropertyList.h"

namespace korvane::ctl {

struct Program;

class JsonStream {
  public:
    // Prints nothing yet.
    JsonStream(const Program& program, std::string name);
    void add(const Dictionary& element);
    // Once, after the last element.
    void end();

  private:
    void begin();

    const Program& program_;
    std::string name_;
    bool isBegun_ = false;
};

}  // namespace korvane::ctl
