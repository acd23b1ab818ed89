// A sysfs with as many ATA disks as are wanted, as the kernel shows them: no build machine has that
// many. The files that stand for their device nodes are made beside it, empty.
#pragma once

#include <array>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <string>

namespace korvane::bench {

// sda, sdb, … sdz, sdaa, …
inline std::string diskName(int number) {
    std::string letters;
    for (int rest = number; rest >= 0; rest = rest / 26 - 1) {
        letters.insert(letters.begin(), static_cast<char>('a' + rest % 26));
    }
    return "sd" + letters;
}

// SAT-4 12.4.2, VPD page 89h, with IDENTIFY DEVICE data at its end.
inline std::string informationPage(const std::string& model, const std::string& serial) {
    constexpr std::size_t kIdentify = 60;
    std::string page(kIdentify + 512, '\0');
    page[1] = '\x89';
    const auto fill = [&](std::size_t word, const std::string& text, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i) {
            page[kIdentify + 2 * word + (i ^ 1U)] = i < text.size() ? text[i] : ' ';
        }
    };
    fill(10, serial, 20);
    fill(27, model, 40);
    page[kIdentify + 2 * 82] = 1;
    page[kIdentify + 2 * 83 + 1] = 0x40;
    page[kIdentify + 2 * 85] = 1;
    return page;
}

inline void describeDisks(const std::filesystem::path& root, int count) {
    namespace fs = std::filesystem;
    const auto write = [](const fs::path& file, const std::string& text) {
        fs::create_directories(file.parent_path());
        std::ofstream{file} << text;
    };
    const fs::path sysfs = root / "sys";
    fs::create_directories(sysfs / "class/block");
    fs::create_directories(root / "dev");
    for (int i = 0; i < count; ++i) {
        const std::string name = diskName(i);
        const std::string host = std::to_string(i);
        const std::string unit = "devices/pci0000:00/0000:00:1f.2/ata" + std::to_string(i + 1) +
                                 "/host" + host + "/target" + host + ":0:0/" + host + ":0:0:0";
        const std::string folder = unit + "/block/" + name;
        write(sysfs / folder / "dev",
              std::to_string(8 + i / 256) + ":" + std::to_string(i % 256) + "\n");
        write(sysfs / folder / "removable", "0\n");
        write(sysfs / unit / "vendor", "ATA     \n");
        write(sysfs / unit / "model", "Bench Disk of So\n");
        write(sysfs / unit / "vpd_pg89", informationPage("Bench Disk of Some Length", "B" + host));
        fs::create_symlink("../../../" + host + ":0:0:0", sysfs / folder / "device");
        fs::create_symlink("../../" + folder, sysfs / "class/block" / name);
        write(root / "dev" / name, "");
    }
}

}  // namespace korvane::bench
