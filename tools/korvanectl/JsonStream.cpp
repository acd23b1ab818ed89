#include "korvanectl/JsonStream.h"

#include <fmt/format.h>

#include <utility>

#include "korvanectl/Json.h"
#include "korvanectl/Program.h"

namespace korvane::ctl {

JsonStream::JsonStream(const Program& program, std::string name)
    : program_(program), name_(std::move(name)) {}

void JsonStream::begin() {
    program_.print(isBegun_ ? "," : fmt::format("{{{}: [\n", jsonString(name_)));
    isBegun_ = true;
}

void JsonStream::add(const Dictionary& element) {
    begin();
    program_.print(formatJson(PropertyList{element}));
}

void JsonStream::end() {
    if (!isBegun_) {
        begin();
    }
    program_.print("]}\n");
}

}  // namespace korvane::ctl
