// korvanectl as a whole on a preferences file of the test's own, with a daemon and volumes that do
// what the test tells them.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "base/PropertyListCodec.h"
#include "core/DefaultPreferences.h"
#include "korvanectl/Program.h"
#include "storage/VolumeEntry.h"
#include "unit/platform/TemporaryFolder.h"

namespace korvane::ctl {

// A daemon that answers as it is told. Each word sent runs `onWord` first, as the daemon's own
// work.
class FakeDaemon : public DaemonLink {
  public:
    [[nodiscard]] DaemonPresence presence() override { return present; }
    [[nodiscard]] std::string identity() override {
        if (identities.size() > 1) identities.pop_front();
        return identities.front();
    }
    [[nodiscard]] Outcome<bool> send(const std::string& word) override {
        words.push_back(word);
        if (onWord) onWord();
        if (present != DaemonPresence::reachable) {
            return Failure{ExitStatus::noDaemon, "the daemon does not run"};
        }
        if (!answers.empty()) {
            const bool next = answers.front();
            answers.pop_front();
            return next;
        }
        return answer;
    }
    [[nodiscard]] Outcome<std::vector<ItemFailure>> createItems(
        const std::vector<std::string>& paths) override {
        return handle("create", paths);
    }
    [[nodiscard]] Outcome<std::vector<ItemFailure>> deleteItems(
        const std::vector<std::string>& paths) override {
        return handle("delete", paths);
    }
    [[nodiscard]] Outcome<MailSessionEnd> sendTestMail() override {
        words.emplace_back(kTestMailWord);
        return mailEnd;
    }

    DaemonPresence present = DaemonPresence::reachable;
    Outcome<bool> answer = true;
    Outcome<MailSessionEnd> mailEnd = MailSessionEnd{};
    std::function<void()> onWord;
    std::vector<std::string> words;
    std::deque<bool> answers;                        // to the next words, before `answer`
    std::deque<std::string> identities{"", ":1.1"};  // one after the other; the last one stays
    std::vector<ItemFailure> itemFailures;           // of any list

  private:
    Outcome<std::vector<ItemFailure>> handle(const char* what,
                                             const std::vector<std::string>& paths) {
        if (!answer) return answer.failure();
        for (const std::string& path : paths) {
            words.push_back(std::string(what) + " " + path);
        }
        return itemFailures;
    }
};

// Mounted volumes by path. Asking for the size of one that is not there fails the test: only
// volumes that the table calls local may be touched.
class FakeVolumes : public Volumes {
  public:
    [[nodiscard]] const std::vector<MountEntry>& mountTable() override { return table; }
    [[nodiscard]] const MountEntry* mountAt(std::string_view path) override {
        asked.emplace_back(path);
        for (const MountEntry& entry : table) {
            if (entry.mountOnName == path) return &entry;
        }
        return nullptr;
    }
    [[nodiscard]] const std::vector<std::string>& mountedLocalVolumePaths() override {
        return paths;
    }
    [[nodiscard]] OSErrOr<VolumeInfo> volumeInfoByIndex(std::size_t) override {
        return {nsvErr, {}};
    }
    [[nodiscard]] OSErrOr<VolumeInfo> volumeInfoByReferenceNumber(std::int16_t) override {
        return {nsvErr, {}};
    }
    [[nodiscard]] OSErrOr<VolumeInfo> volumeInfoOfRoot(const FSRef& root) override {
        return {sizes.contains(root.rootPath) ? OSErr{0} : nsvErr, {}};
    }
    [[nodiscard]] OSErrOr<VolumeInfo> volumeInfoByDevice(std::string_view) override {
        return {nsvErr, {}};
    }
    [[nodiscard]] std::string displayName(std::string_view path) override {
        const auto name = names.find(std::string(path));
        return name == names.end() ? Volumes::displayName(path) : name->second;
    }
    [[nodiscard]] std::optional<FileSystemFlags> fileSystemFlags(const std::string&) override {
        return std::nullopt;
    }
    [[nodiscard]] std::optional<FileSystemAttributes> fileSystemAttributes(
        const std::string& path) override {
        const auto found = sizes.find(path);
        if (found == sizes.end()) return std::nullopt;
        return found->second;
    }
    bool unmount(std::int16_t) override { return false; }
    void setDidMount(std::function<void()>) override {}
    void setDidUnmount(std::function<void()>) override {}

    std::vector<MountEntry> table{{"/", "/dev/sda1", "ext4"}};
    std::vector<std::string> paths;
    std::map<std::string, FileSystemAttributes> sizes{
        {"/", {.sizeBytes = 500'000'000'000, .freeBytes = 216'000'000'000, .number = 1}}};
    std::map<std::string, std::string> names;  // where they are not the last path components
    std::vector<std::string> asked;
};

class KorvanectlTest : public testing::Test {
  protected:
    KorvanectlTest() {
        setenv("TZ", "UTC", 1);
        tzset();
        Dictionary preferences = defaultPreferences();
        preferences.set(kDirectoryBackupLocations, PropertyListArray{"/Volumes/System"});
        preferences.set(kDriveArray, PropertyListArray{});
        PropertyListArray entries;
        for (const char* const path : {"/", "/mnt/a/Data", "/mnt/b/Data"}) {
            entries.emplace_back(newVolumeEntry({.mountPoint = path, .isInternal = true}, now));
        }
        preferences.set(kVolumeArray, std::move(entries));
        store(preferences);
        for (const char* const name : {"KorvaneProDirectoryBackup", "KorvaneProCopy",
                                       "KorvaneProDataRecovery", "KorvaneProNotice"}) {
            plugIns.write(name, "");
            std::filesystem::permissions(plugIns / name, std::filesystem::perms::owner_all);
        }
    }

    // Runs one command line and gives its exit status.
    int run(std::vector<const char*> arguments) {
        arguments.insert(arguments.begin(), "korvanectl");
        out.clear();
        shown.clear();
        pauses = 0;
        err.clear();
        Program program{
            .preferences = Preferences{file, std::chrono::milliseconds{0}},
            .supportFolder = folder.path(),
            .plugInsFolder = plugIns.path(),
            .daemon = daemon,
            .volumes = [this]() -> Volumes& { return volumes; },
            .now = [this] { return now; },
            .paint = Paint{false},
            .print = [this](std::string_view text) { out += text; },
            .note = [this](std::string_view line) { (err += line) += '\n'; },
            .progress = [this](std::string_view line) { shown.emplace_back(line); },
            .pause =
                [this](std::chrono::milliseconds) {
                    daemon.words.emplace_back("(pause)");
                    return ++pauses < mostPauses;
                },
            .beMainApplication = [this] { daemon.words.emplace_back("(main application)"); },
            .isTerminal = isTerminal,
            .ask = [this](const std::string& question, Echo echo) -> std::optional<std::string> {
                questions.push_back({question, echo});
                if (answers.empty()) return std::nullopt;
                std::string answer = answers.front();
                answers.pop_front();
                return answer;
            },
            .json = false,
            .command = {}};
        return runProgram(program, static_cast<int>(arguments.size()), arguments.data());
    }

    void store(const Dictionary& preferences) const { storeText(formatPropertyList(preferences)); }
    void storeText(std::string_view text) const {
        std::ofstream{file, std::ios::binary | std::ios::trunc} << text;
    }
    [[nodiscard]] std::string storedText() const {
        std::ifstream in{file, std::ios::binary};
        return {std::istreambuf_iterator<char>{in}, {}};
    }
    [[nodiscard]] Dictionary stored() const {
        auto parsed = parsePropertyList(storedText());
        return parsed && parsed->dictionary() ? *parsed->dictionary() : Dictionary{};
    }
    // The stored entry of the volume at the index, for changing and storing back.
    void changeEntry(std::size_t index, const std::function<void(Dictionary&)>& change) const {
        Dictionary preferences = stored();
        change(*(*preferences.find(kVolumeArray)->array())[index].dictionary());
        store(preferences);
    }
    [[nodiscard]] Dictionary entry(std::size_t index) const {
        return *(*stored().find(kVolumeArray)->array())[index].dictionary();
    }

    TemporaryFolder folder;
    TemporaryFolder plugIns;
    std::string file = folder / "KorvaneProtection.plist";
    bool isTerminal = false;
    std::vector<std::string> shown;  // lines of progress
    int pauses = 0;
    int mostPauses = 10;
    FakeDaemon daemon;
    FakeVolumes volumes;
    Time now{std::chrono::seconds{1767225600}};  // 2026-01-01 00:00:00 UTC
    // What the person at the terminal types, and what was asked.
    std::deque<std::string> answers;
    std::vector<std::pair<std::string, Echo>> questions;
    std::string out;
    std::string err;
};

}  // namespace korvane::ctl
