// Holds the list of log messages against the code: each has its place in it, and there are no
// others.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "formats/LogMessages.h"

namespace korvane {
namespace {

namespace fs = std::filesystem;

// The sources of the daemon, without the list itself.
std::vector<fs::path> sourcesOfTheDaemon() {
    std::vector<fs::path> files;
    for (const auto& item :
         fs::recursive_directory_iterator{fs::path(KORVANE_SOURCE_DIR) / "src"}) {
        const std::string extension = item.path().extension().string();
        if ((extension == ".h" || extension == ".cpp") && item.path().stem() != "LogMessages")
            files.push_back(item.path());
    }
    return files;
}

std::string textOf(const fs::path& file) {
    std::ostringstream text;
    text << std::ifstream{file}.rdbuf();
    return text.str();
}

// "driveFailing" of "drive-failing".
std::string enumeratorOf(std::string_view identifier) {
    std::string name;
    bool isCapital = false;
    for (const char character : identifier) {
        if (character != '-') {
            name += isCapital ? static_cast<char>(std::toupper(character)) : character;
        }
        isCapital = character == '-';
    }
    return name;
}

std::size_t directivesIn(std::string_view text) {
    std::size_t count = 0;
    for (std::size_t at = text.find('%'); at != std::string_view::npos; at = text.find('%', at)) {
        const bool isPercentSign = text.substr(at, 2) == "%%";
        at += isPercentSign ? 2 : 1;
        if (!isPercentSign) ++count;
    }
    return count;
}

// How many arguments a list in braces has, from behind its first brace on.
std::size_t argumentsIn(std::string_view code) {
    int depth = 1;
    std::size_t count = 1;
    for (const char character : code) {
        if (character == '(' || character == '{') ++depth;
        if (character == ')' || character == '}') --depth;
        if (depth == 0) break;
        if (depth == 1 && character == ',') ++count;
    }
    return count;
}

TEST(LogMessages, HaveAnIdentifierAndReadersOfTheirOwn) {
    std::set<std::string_view> identifiers;
    std::set<std::pair<std::string_view, LogReaders>> lines;
    for (const LogMessageForm& form : logMessages()) {
        EXPECT_THAT(std::string(form.identifier), testing::MatchesRegex("[a-z]+(-[a-z]+)*"));
        EXPECT_TRUE(identifiers.insert(form.identifier).second) << form.identifier;
        EXPECT_TRUE(lines.emplace(form.text, form.readers).second) << form.text;
        EXPECT_EQ(&formOf(form.message), &form);
    }
}

TEST(LogMessages, AreEachWrittenByTheDaemon) {
    const std::regex use(R"(\bLogMessage::(\w+))");
    std::set<std::string> used;
    for (const fs::path& file : sourcesOfTheDaemon()) {
        const std::string code = textOf(file);
        for (std::sregex_iterator each(code.begin(), code.end(), use), end; each != end; ++each) {
            used.insert((*each)[1]);
        }
    }
    for (const LogMessageForm& form : logMessages()) {
        EXPECT_TRUE(used.contains(enumeratorOf(form.identifier))) << form.identifier;
    }
}

TEST(LogMessages, AreGivenWhatTheirTextsName) {
    const std::regex write(
        R"(write\(\s*(?:[\w.():]+,\s*)?(?:korvane::)?LogMessage::(\w+)\s*(\)|,\s*\{))");
    std::size_t seen = 0;
    for (const fs::path& file : sourcesOfTheDaemon()) {
        const std::string code = textOf(file);
        for (std::sregex_iterator each(code.begin(), code.end(), write), end; each != end; ++each) {
            const std::string name = (*each)[1];
            const auto form = std::ranges::find_if(logMessages(), [&](const LogMessageForm& one) {
                return enumeratorOf(one.identifier) == name;
            });
            ASSERT_NE(form, logMessages().end()) << name;
            const std::size_t given = (*each)[2] == ")" ? 0 : argumentsIn(each->suffix().str());
            EXPECT_EQ(given, directivesIn(form->text)) << file << ": " << name;
            ++seen;
        }
    }
    EXPECT_GT(seen, logMessages().size() / 2);  // the search itself works
}

// A line beside the list would have no identifier.
TEST(LogMessages, AreTheOnlyWayIntoTheLog) {
    const std::regex otherWay(
        R"(\b((v?syslog|sd_journal_\w+|perror)\(|write\(STDERR_FILENO|std::(cerr|clog)))");
    for (const fs::path& file : sourcesOfTheDaemon()) {
        if (file.filename() == "LinuxSystemLog.cpp") continue;
        std::istringstream lines{textOf(file)};
        for (std::string line; std::getline(lines, line);) {
            const std::string code = line.substr(0, line.find("//"));
            EXPECT_FALSE(std::regex_search(code, otherWay)) << file << ": " << line;
        }
    }
}

}  // namespace
}  // namespace korvane
