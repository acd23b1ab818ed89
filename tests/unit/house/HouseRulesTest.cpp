// Holds the rules of the house that a reader of the sources can check: which room may include
// which, and what no file may hold.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

using ::testing::IsEmpty;
using ::testing::StartsWith;

namespace fs = std::filesystem;

const fs::path kRoot = KORVANE_SOURCE_DIR;

// A room may include itself and the rooms on lower floors. Rooms of one floor do not see each
// other.
const std::map<std::string, int> kFloorOfRoom = {
    {"base", 1}, {"formats", 2},  {"platform", 3}, {"storage", 4}, {"mail", 4},
    {"core", 5}, {"monitors", 6}, {"backup", 6},   {"trash", 6},
};
// A tool reads and writes what the daemon keeps, but runs no check: it sees the floors to this one.
constexpr int kHighestFloorOfTools = 5;
// What a check and a program outside it hand each other is written down once, in the check's room.
const std::set<std::string> kSharedWithTools = {"trash/TrashFormats.h"};

// The machines behind platform's interfaces: who uses one is put together with it, by main.cpp, a
// tool's own main program, or a test.
const std::vector<std::string> kMachines = {"platform/linux", "platform/simulated"};

std::string textOf(const fs::path& file) {
    std::ifstream in{file, std::ios::binary};
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool isSource(const fs::path& file) {
    return file.extension() == ".h" || file.extension() == ".cpp";
}

// The project's own files, relative to its root, without what a build or git makes.
std::vector<fs::path> projectFiles() {
    std::vector<fs::path> files;
    for (auto item = fs::recursive_directory_iterator{kRoot}; item != fs::end(item); ++item) {
        const fs::path relative = item->path().lexically_relative(kRoot);
        if (item->is_directory() && (relative == "build" || relative == ".git")) {
            item.disable_recursion_pending();
        } else if (item->is_regular_file()) {
            files.push_back(relative);
        }
    }
    return files;
}

std::vector<fs::path> sourcesBelow(const std::string& folder) {
    std::vector<fs::path> files;
    for (const fs::path& file : projectFiles()) {
        if (isSource(file) && file.begin()->string() == folder) {
            files.push_back(file);
        }
    }
    return files;
}

// The paths in a text's quoted includes.
std::vector<std::string> quotedIncludes(const std::string& text) {
    std::vector<std::string> paths;
    std::istringstream lines{text};
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words{line};
        char hash = 0;
        std::string directive;
        std::string path;
        if (words >> hash >> directive && hash == '#' && directive == "include" &&
            words >> std::ws && words.peek() == '"' && words >> std::quoted(path)) {
            paths.push_back(path);
        }
    }
    return paths;
}

// "base" of "base/Calendar.h"; nothing for a file that lies in no room.
std::optional<std::string> roomOf(const std::string& path) {
    const std::string room = path.substr(0, path.find('/'));
    return kFloorOfRoom.contains(room) ? std::optional{room} : std::nullopt;
}

std::optional<std::string> machineOf(const std::string& path) {
    for (const std::string& machine : kMachines) {
        if (path.starts_with(machine + "/")) {
            return machine;
        }
    }
    return std::nullopt;
}

bool isOfWord(char character) {
    return std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '_';
}

// Whether the text holds the word, not merely within a longer one.
bool holdsWord(const std::string& text, const std::string& word) {
    for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
        const std::size_t end = at + word.size();
        if ((at == 0 || !isOfWord(text[at - 1])) && (end == text.size() || !isOfWord(text[end]))) {
            return true;
        }
    }
    return false;
}

// Why a file of src (path relative to src) may not include that path; nothing when it may.
std::optional<std::string> objection(const std::string& file, const std::string& included) {
    const auto room = roomOf(file);
    const auto includedRoom = roomOf(included);
    if (!includedRoom) {
        return "lies in no room; includes are rooted at src";
    }
    if (!room) {
        return std::nullopt;  // main.cpp puts everything together
    }
    const auto machine = machineOf(included);
    if (machine && machineOf(file) != machine) {
        return "is a machine, which nothing but main.cpp knows";
    }
    if (*room != *includedRoom && kFloorOfRoom.at(*includedRoom) >= kFloorOfRoom.at(*room)) {
        return "is not on a lower floor";
    }
    return std::nullopt;
}

TEST(HouseRules, ReadsEveryFormOfAnInclude) {
    EXPECT_THAT(
        quotedIncludes("#include \"base/A.h\"\n  # include\t\"core/B.h\"\n// #include \"no/C.h\"\n"
                       "#include <vector>\n"),
        testing::ElementsAre("base/A.h", "core/B.h"));
}

TEST(HouseRules, FindsAWordOnlyWhereItStandsAlone) {
    EXPECT_TRUE(holdsWord("a word.", "word"));
    EXPECT_TRUE(holdsWord("swords, word", "word"));
    EXPECT_FALSE(holdsWord("swords word_ wordX", "word"));
    EXPECT_FALSE(holdsWord("", "word"));
}

TEST(HouseRules, ObjectsToWhatTheFloorsForbid) {
    EXPECT_FALSE(objection("storage/A.cpp", "platform/Volumes.h"));
    EXPECT_FALSE(objection("platform/linux/A.cpp", "platform/linux/B.h"));
    EXPECT_FALSE(objection("main.cpp", "platform/linux/LinuxMachine.h"));
    EXPECT_TRUE(objection("base/A.h", "platform/Clock.h"));
    EXPECT_TRUE(objection("formats/A.h", "platform/Clock.h"));
    EXPECT_TRUE(objection("storage/A.h", "mail/B.h"));
    EXPECT_TRUE(objection("monitors/A.h", "backup/B.h"));
    EXPECT_TRUE(objection("core/A.cpp", "platform/linux/B.h"));
    EXPECT_TRUE(objection("platform/Volumes.h", "platform/simulated/B.h"));
    EXPECT_TRUE(objection("platform/linux/A.cpp", "platform/simulated/B.h"));
    EXPECT_TRUE(objection("core/A.cpp", "B.h"));
}

TEST(HouseRules, EveryFileIncludesOnlyItsOwnRoomAndLowerFloors) {
    for (const fs::path& file : sourcesBelow("src")) {
        const std::string inSrc = file.lexically_relative("src").string();
        for (const std::string& included : quotedIncludes(textOf(kRoot / file))) {
            const auto why = objection(inSrc, included);
            EXPECT_FALSE(why) << file << " includes \"" << included << "\", which " << *why;
        }
    }
}

TEST(HouseRules, ToolsRunNoCheckAndKnowNoSimulatedMachine) {
    for (const std::string folder : {"tools", "helpers"}) {
        for (const fs::path& file : sourcesBelow(folder)) {
            for (const std::string& included : quotedIncludes(textOf(kRoot / file))) {
                const auto room = roomOf(included);
                EXPECT_FALSE(room && kFloorOfRoom.at(*room) > kHighestFloorOfTools &&
                             !kSharedWithTools.contains(included))
                    << file << " includes \"" << included << "\"";
                EXPECT_NE(machineOf(included), "platform/simulated") << file;
            }
        }
    }
}

TEST(HouseRules, NothingAsksWhetherTheMachineIsSimulated) {
    for (const std::string folder : {"src", "tools", "helpers"}) {
        for (const fs::path& file : sourcesBelow(folder)) {
            EXPECT_FALSE(holdsWord(textOf(kRoot / file), "isSimulated")) << file;
        }
    }
}

TEST(HouseRules, EveryHeaderBeginsWithWhatItIs) {
    for (const std::string folder : {"src", "tools", "helpers", "tests", "bench"}) {
        for (const fs::path& file : sourcesBelow(folder)) {
            if (file.extension() == ".h") {
                EXPECT_THAT(textOf(kRoot / file), StartsWith("// ")) << file;
            }
        }
    }
}

// Notes to oneself belong to a list of work, and a path of the machine that something was written
// on means nothing on another one.
TEST(HouseRules, NoFileHoldsANoteToOneselfOrAPathOfThisMachine) {
    // In pieces, so that this file does not hold them itself.
    const std::string notes[] = {std::string{"TO"} + "DO", std::string{"FIX"} + "ME",
                                 std::string{"X"} + "XX", std::string{"HA"} + "CK"};
    // A root such as /src reads like a part of any other path.
    const bool rootIsTelling = std::distance(kRoot.begin(), kRoot.end()) > 2;
    std::vector<std::string> found;
    for (const fs::path& file : projectFiles()) {
        if (*file.begin() == "tests" && file.string().find("corpus") != std::string::npos) {
            continue;  // what a fuzzer made up may hold any word
        }
        const std::string text = textOf(kRoot / file);
        if (text.find('\0') != std::string::npos) {
            continue;  // a picture or a program
        }
        for (const std::string& note : notes) {
            if (holdsWord(text, note)) {
                found.push_back(file.string() + ": " + note);
            }
        }
        if (rootIsTelling && text.find(kRoot.string() + "/") != std::string::npos) {
            found.push_back(file.string() + ": " + kRoot.string());
        }
    }
    EXPECT_THAT(found, IsEmpty());
}

// Half a copy of a backup would count as a backup, so a stop leaves the copying programs alone; the
// others end with the daemon by themselves.
TEST(Service, StopsTheDaemonAlone) {
    const std::string unit = textOf(kRoot / "packaging/korvane-pro.service");
    EXPECT_THAT(unit, ::testing::HasSubstr("\nKillMode=process\n"));
    EXPECT_THAT(unit, ::testing::Not(::testing::HasSubstr("SendSIGKILL")));
}

}  // namespace
