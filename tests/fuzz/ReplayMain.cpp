// Runs a fuzz target over the files of its corpus, where the target is not linked with libFuzzer.
// Arguments: folders or files. An empty corpus is a failure: then nothing was tested.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

void replay(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    // Copied to a block of exactly this size, so that a sanitizer sees a read past its end.
    const std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
    (void)LLVMFuzzerTestOneInput(input.data(), input.size());  // Always 0 by its contract.
}

}  // namespace

int main(int argumentCount, char** arguments) {
    int count = 0;
    for (int i = 1; i < argumentCount; ++i) {
        const std::filesystem::path given = arguments[i];
        if (std::filesystem::is_regular_file(given)) {
            replay(given);
            ++count;
            continue;
        }
        for (const auto& entry : std::filesystem::recursive_directory_iterator(given)) {
            if (!entry.is_regular_file()) continue;
            replay(entry.path());
            ++count;
        }
    }
    std::printf("replayed %d inputs\n", count);
    return count > 0 ? 0 : 1;
}
