// A fresh folder for one test, removed with all that is in it when the test ends.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

namespace korvane {

class TemporaryFolder {
  public:
    explicit TemporaryFolder(
        const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
        std::string form = parent / "korvane-base-XXXXXX";
        path_ = mkdtemp(form.data());
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() {
        std::error_code ignored;  // What stays in the temporary folder does no harm.
        std::filesystem::remove_all(path_, ignored);
    }

    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::string operator/(std::string_view name) const {
        return path_ + "/" + std::string(name);
    }

  private:
    std::string path_;
};

inline std::string contentsOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void putContents(const std::string& path, std::string_view contents) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
}

}  // namespace korvane
