#include "korvanectl/RecordSearch.h"

#include <fnmatch.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <deque>
#include <utility>

namespace korvane::ctl {

namespace {

char lowerCase(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

// One record, at the next of its entries that match.
struct Place {
    std::size_t number = 0;
    RecordReader reader;
    std::optional<RecordEntry> entry;
};

std::optional<double> sizeOf(const RecordEntry& entry) {
    const auto word = entry.word("size");
    std::uint64_t bytes = 0;
    if (!word ||
        std::from_chars(word->data(), word->data() + word->size(), bytes).ec != std::errc{}) {
        return std::nullopt;
    }
    return static_cast<double>(bytes);
}

RecordMatch matchOf(const Place& place) {
    const RecordEntry& entry = *place.entry;
    std::string path = place.reader.mountPoint();
    if (!path.ends_with('/')) {
        path += '/';
    }
    path += entry.path;
    return {.path = std::move(path),
            .type = std::string{entry.word("type").value_or("")},
            .sizeBytes = sizeOf(entry),
            .modified = recordedTime(entry.word("time")),
            .newest = place.number,
            .backups = 0};
}

class Search {
  public:
    Search(const std::string& text, const std::function<void(const Failure&)>& warn)
        : text_(text), warn_(warn) {}

    void add(std::size_t number, const std::string& path) {
        Outcome<RecordReader> reader = RecordReader::open(path);
        if (!reader) {
            warn_(reader.failure());
            return;
        }
        places_.push_back({.number = number, .reader = std::move(*reader), .entry = {}});
        advance(places_.back());
    }

    void run(const std::function<void(const RecordMatch&)>& tell) {
        for (;;) {
            const Place* first = nullptr;
            for (const Place& place : places_) {
                if (place.entry &&
                    (first == nullptr ||
                     compareRecordPaths(place.entry->path, first->entry->path) < 0)) {
                    first = &place;
                }
            }
            if (first == nullptr) {
                return;
            }
            const std::string path{first->entry->path};
            RecordMatch match;
            std::size_t backups = 0;
            for (Place& place : places_) {
                if (place.entry && place.entry->path == path) {
                    match = matchOf(place);
                    ++backups;
                    advance(place);
                }
            }
            match.backups = backups;
            tell(match);
        }
    }

  private:
    void advance(Place& place) {
        for (;;) {
            auto next = place.reader.next();
            if (!next) {
                warn_(next.failure());
                place.entry.reset();
                return;
            }
            place.entry = *next;
            if (!place.entry || matchesName(place.entry->path, text_)) {
                return;
            }
        }
    }

    const std::string& text_;
    const std::function<void(const Failure&)>& warn_;
    std::deque<Place> places_;  // an entry points into its own reader
};

}  // namespace

bool matchesName(std::string_view path, const std::string& text) {
    if (path.empty()) {
        return false;  // the volume's own folder has no name in it
    }
    const std::string_view name =
        text.find('/') == std::string::npos ? path.substr(path.rfind('/') + 1) : path;
    if (text.find_first_of("*?[") != std::string::npos) {
        return ::fnmatch(text.c_str(), std::string{name}.c_str(), FNM_CASEFOLD | FNM_NOESCAPE) == 0;
    }
    return std::search(name.begin(), name.end(), text.begin(), text.end(),
                       [](char one, char other) { return lowerCase(one) == lowerCase(other); }) !=
           name.end();
}

std::optional<Time> recordedTime(std::optional<std::string_view> word) {
    // Beyond what a calendar can be asked for.
    constexpr std::int64_t kFarthest = 100'000'000'000;
    std::int64_t seconds = 0;
    if (!word ||
        std::from_chars(word->data(), word->data() + word->size(), seconds).ec != std::errc{} ||
        seconds > kFarthest || seconds < -kFarthest) {
        return std::nullopt;
    }
    return Time{std::chrono::seconds{seconds}};
}

void searchRecords(const std::vector<std::string>& records, const std::string& text,
                   const std::function<void(const RecordMatch&)>& tell,
                   const std::function<void(const Failure&)>& warn) {
    Search search{text, warn};
    for (std::size_t number = 0; number < records.size(); ++number) {
        search.add(number, records[number]);
    }
    search.run(tell);
}

}  // namespace korvane::ctl
