// Reads the keys of one dictionary of a machine description, strictly: a key of another type, a
// missing one, and one that nobody asked for are errors that say where they stand.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "base/PropertyList.h"
#include "base/Result.h"

namespace korvane {

class DescriptionReader {
  public:
    // `place` names the dictionary in errors: "mounts[1]". Null stands for a missing one.
    DescriptionReader(const PropertyList* value, std::string place);

    // Each leaves the target alone when the key is absent, and an error when it is of another type.
    void read(std::string_view key, std::string& target);
    void read(std::string_view key, bool& target);
    void read(std::string_view key, std::uint64_t& target);
    void read(std::string_view key, std::uint16_t& target);
    void read(std::string_view key, std::int16_t& target);
    void read(std::string_view key, std::uint32_t& target);
    void read(std::string_view key, Dictionary& target);
    void read(std::string_view key, PropertyListDate& target);
    // As above; an empty text or a missing key is an error too.
    void require(std::string_view key, std::string& target);
    // The array under the key, or null.
    [[nodiscard]] const PropertyListArray* array(std::string_view key);

    [[nodiscard]] const std::string& place() const { return place_; }
    [[nodiscard]] std::string placeOf(std::string_view key, std::size_t index) const;
    void fail(std::string_view key, std::string_view problem);
    // The first error there was; else that a key was never asked for.
    [[nodiscard]] std::optional<Error> finish();

  private:
    const PropertyList* take(std::string_view key);
    std::optional<std::int64_t> integer(std::string_view key, std::int64_t lowest,
                                        std::int64_t highest);

    const Dictionary* dictionary_;
    std::string place_;
    std::set<std::string, std::less<>> asked_;
    std::optional<Error> error_;
};

}  // namespace korvane
