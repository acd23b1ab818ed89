#include "korvanectl/RecordComparison.h"

#include <optional>
#include <utility>

namespace korvane::ctl {

namespace {

// As mtree(5) calls them.
constexpr std::string_view kComparedWords[] = {"type", "mode", "uid",    "gid",
                                               "size", "time", "device", "link"};

class Comparison {
  public:
    Comparison(RecordReader& before, RecordReader& after,
               const std::function<void(const Change&)>& tell)
        : before_(before), after_(after), tell_(tell) {}

    Outcome<ChangeCounts> run();

  private:
    using Next = Outcome<std::optional<RecordEntry>>;

    // An entry that one record alone has.
    void only(const RecordEntry& entry, const RecordReader& other, ChangeKind kind);
    void both(const RecordEntry& first, const RecordEntry& second);
    void tell(const Change& change);

    RecordReader& before_;
    RecordReader& after_;
    const std::function<void(const Change&)>& tell_;
    ChangeCounts counts_;
};

Outcome<ChangeCounts> Comparison::run() {
    Next first = before_.next();
    Next second = after_.next();
    while (first && second && (*first || *second)) {
        const auto order = !*second  ? std::strong_ordering::less
                           : !*first ? std::strong_ordering::greater
                                     : compareRecordPaths((*first)->path, (*second)->path);
        if (order < 0) {
            only(**first, after_, ChangeKind::vanished);
        } else if (order > 0) {
            only(**second, before_, ChangeKind::appeared);
        } else {
            both(**first, **second);
        }
        if (order <= 0) {
            first = before_.next();
        }
        if (order >= 0) {
            second = after_.next();
        }
    }
    if (!first) {
        return first.failure();
    }
    if (!second) {
        return second.failure();
    }
    return counts_;
}

void Comparison::only(const RecordEntry& entry, const RecordReader& other, ChangeKind kind) {
    const bool isUnknown = other.isCutShort() || other.isSilentAbout(entry.path);
    tell({.kind = isUnknown ? ChangeKind::unknown : kind,
          .path = std::string{entry.path},
          .words = {}});
}

void Comparison::both(const RecordEntry& first, const RecordEntry& second) {
    if (first.words == second.words) {
        return;
    }
    // What was seen there at one of the times is what was mounted there.
    if (!first.word("mode") || !second.word("mode")) {
        tell({.kind = ChangeKind::unknown, .path = std::string{first.path}, .words = {}});
        return;
    }
    Change change{.kind = ChangeKind::changed, .path = std::string{first.path}, .words = {}};
    for (const std::string_view key : kComparedWords) {
        const auto before = first.word(key);
        const auto after = second.word(key);
        if (before != after) {
            change.words.push_back({.key = key,
                                    .before = std::string{before.value_or("")},
                                    .after = std::string{after.value_or("")}});
        }
    }
    if (!change.words.empty()) {
        tell(change);
    }
}

void Comparison::tell(const Change& change) {
    switch (change.kind) {
        case ChangeKind::appeared:
            ++counts_.appeared;
            break;
        case ChangeKind::vanished:
            ++counts_.vanished;
            break;
        case ChangeKind::changed:
            ++counts_.changed;
            break;
        case ChangeKind::unknown:
            ++counts_.unknown;
            break;
    }
    tell_(change);
}

}  // namespace

Outcome<ChangeCounts> compareRecords(RecordReader& before, RecordReader& after,
                                     const std::function<void(const Change&)>& tell) {
    return Comparison{before, after, tell}.run();
}

}  // namespace korvane::ctl
