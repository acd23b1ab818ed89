#include "platform/linux/DiskFacts.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>

#include "platform/linux/AtaCommand.h"

namespace korvane {
namespace {

constexpr char kAta[] = "ATA";
constexpr char kInternal[] = "Internal";
constexpr char kExternal[] = "External";

// Disks in files and in memory, and those that a program of the user's answers for.
constexpr std::string_view kImageDrivers[] = {"loop", "zram", "ram", "nbd"};

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// "usb2", "ata1", "virtio0": a word and a number.
bool isNumbered(std::string_view component, std::string_view word) {
    return component.size() > word.size() && component.starts_with(word) &&
           std::all_of(component.begin() + static_cast<std::ptrdiff_t>(word.size()),
                       component.end(), isDigit);
}

// The folder of the nearest component of this form, or nothing.
template <typename Predicate>
std::optional<std::string> folderAbove(const std::string& path, Predicate isWanted) {
    for (std::string folder = path; !folder.empty(); folder = parentFolder(folder)) {
        if (isWanted(lastComponent(folder))) {
            return folder;
        }
    }
    return std::nullopt;
}

// "2-1.4", unlike its interface "2-1.4:1.0".
bool isUsbDevice(const std::string& component) {
    const std::size_t hyphen = component.find('-');
    return hyphen != std::string::npos && hyphen > 0 && hyphen + 1 < component.size() &&
           component.find_first_not_of("0123456789.-") == std::string::npos;
}

std::string trimmed(std::string_view text) {
    // Fixed-length fields are padded with blanks (ATA, NVMe, SCSI) or zeros (sloppy bridges).
    constexpr std::string_view kPadding{" \0", 2};
    const std::size_t first = text.find_first_not_of(kPadding);
    if (first == std::string_view::npos) {
        return {};
    }
    return std::string{text.substr(first, text.find_last_not_of(kPadding) - first + 1)};
}

// Texts of a device come from outside: what no text can carry is shown escaped.
std::string deviceText(const std::optional<std::string>& bytes) {
    return bytes ? textOfBytes(trimmed(*bytes)) : std::string{};
}

void setText(Dictionary& properties, std::string_view key, const std::string& text) {
    if (!text.empty()) {
        properties.set(key, text);
    }
}

std::optional<std::uint64_t> parseUnsigned(std::string_view text, int base) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    return error == std::errc{} && end == text.data() + text.size() && !text.empty()
               ? std::optional{number}
               : std::nullopt;
}

std::optional<DeviceNumber> parseDeviceNumber(const std::optional<std::string>& text) {
    const std::size_t colon = text ? text->find(':') : std::string::npos;
    if (colon == std::string::npos) {
        return std::nullopt;
    }
    const auto major = parseUnsigned(std::string_view{*text}.substr(0, colon), 10);
    const auto minor = parseUnsigned(std::string_view{*text}.substr(colon + 1), 10);
    if (!major || !minor) {
        return std::nullopt;
    }
    return DeviceNumber{static_cast<std::uint32_t>(*major), static_cast<std::uint32_t>(*minor)};
}

// What a drive's description says, where it is one.
AtaIdentity identityOf(const IdentifyData& identify) {
    if (!isIdentifyData(identify)) return {};
    // ATA8-ACS 7.16.7: the first character of each word is in its upper byte.
    const auto text = [&](std::size_t firstWord, std::size_t wordCount) {
        std::string swapped;
        for (std::size_t i = firstWord; i < firstWord + wordCount; ++i) {
            swapped += static_cast<char>(identify[2 * i + 1]);
            swapped += static_cast<char>(identify[2 * i]);
        }
        return textOfBytes(trimmed(swapped));
    };
    return {.model = text(27, 20),
            .serial = text(10, 10),
            .isSmartSupported = isSmartSupported(identify)};
}

// Whether the mapping with this identifier, "CRYPT-TYPE-...", encrypts. cryptsetup gives such ones
// to the mappings too that only check what they hold (INTEGRITY, VERITY) or lie below one that
// encrypts (SUBDEV).
bool isEncryptedMapping(std::string_view uuid) {
    constexpr std::string_view kMadeByCryptsetup = "CRYPT-";
    constexpr std::string_view kEncrypting[] = {"PLAIN",  "LUKS1", "LUKS2",  "LOOPAES",
                                                "TCRYPT", "BITLK", "FVAULT2"};
    if (!uuid.starts_with(kMadeByCryptsetup)) return false;
    uuid.remove_prefix(kMadeByCryptsetup.size());
    const std::string_view type = uuid.substr(0, uuid.find('-'));
    return std::find(std::begin(kEncrypting), std::end(kEncrypting), type) != std::end(kEncrypting);
}

// Reads one disk; holds what several of its nodes need.
class DiskReader {
  public:
    DiskReader(const BlockFolder& disk, const Sysfs& sysfs, const UdevDatabase& udevDatabase)
        : disk_(disk),
          sysfs_(sysfs),
          udevDatabase_(udevDatabase),
          udev_(udevOf(disk.path)),
          isRemovable_(attribute("removable") == "1") {}

    DiskFacts read() {
        facts_.kernelName = disk_.kernelName;
        facts_.media = mediaOf(disk_.kernelName, udev_);
        for (const BlockFolder& partition : disk_.partitions) {
            facts_.partitions.push_back(mediaOf(partition.kernelName, udevOf(partition.path)));
        }
        if (!disk_.path.starts_with("devices/virtual/") || isName("nvme")) {
            readHardware();
        } else {
            readVirtual();
        }
        return std::move(facts_);
    }

  private:
    [[nodiscard]] std::optional<std::string> attribute(const std::string& name) const {
        return sysfs_.attribute(disk_.path + "/" + name);
    }
    [[nodiscard]] std::string deviceAttribute(const std::string& name) const {
        return deviceText(attribute("device/" + name));
    }
    [[nodiscard]] std::string udev(std::string_view key) const { return udevValue(udev_, key); }
    [[nodiscard]] UdevProperties udevOf(const std::string& path) const {
        const auto number = parseDeviceNumber(sysfs_.attribute(path + "/dev"));
        return number ? udevDatabase_.propertiesOf(*number) : UdevProperties{};
    }
    [[nodiscard]] bool isName(std::string_view prefix) const {
        return disk_.kernelName.starts_with(prefix);
    }
    [[nodiscard]] std::optional<std::string> folderNumbered(std::string_view word) const {
        return folderAbove(disk_.path, [word](const std::string& component) {
            return isNumbered(component, word);
        });
    }

    static MediaFacts mediaOf(const std::string& kernelName, const UdevProperties& udev) {
        MediaFacts media;
        media.name = kernelName;
        media.properties.set("BSD Name", textOfBytes(media.name));
        // Types of other partition tables are numbers, which no one compares with.
        std::string type = udevValue(udev, "ID_PART_ENTRY_TYPE");
        if (type.size() == 36) {
            std::transform(type.begin(), type.end(), type.begin(), [](char c) {
                return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
            });
            media.properties.set("Content", textOfBytes(type));
        }
        return media;
    }

    void readVirtual() {
        facts_.underlying = sysfs_.list(disk_.path + "/slaves");
        std::sort(facts_.underlying.begin(), facts_.underlying.end(), comesBefore);
        facts_.isEncrypted = isEncryptedMapping(attribute("dm/uuid").value_or(""));
        if (isDiskImage()) {
            addAncestor("Virtual Interface", "File").set("Product Name", "Disk Image");
        }
    }

    // Other disks that are made by software keep what is on them where they are: zvols, arrays and
    // mappings whose parts have gone.
    [[nodiscard]] bool isDiskImage() const {
        return std::any_of(
            std::begin(kImageDrivers), std::end(kImageDrivers),
            [this](std::string_view driver) { return isNumbered(disk_.kernelName, driver); });
    }

    void readHardware() {
        if (isName("nvme")) {
            readNvme();
        } else if (isName("mmcblk")) {
            readMmc();
        } else if (isName("rbd")) {
            addAncestor("RADOS", kExternal);
        } else if (const auto usb = folderAbove(disk_.path, isUsbDevice);
                   usb && folderNumbered("usb")) {
            readUsb(*usb);
        } else if (const auto fireWire = folderNumbered("fw")) {
            readFireWire(*fireWire);
        } else if (folderNumbered("ata") || isAtaBehindAdapter()) {
            readAta();
        } else if (folderNumbered("host")) {
            readScsi();
        } else {
            const bool isVirtio = folderNumbered("virtio").has_value();
            Dictionary& device = addAncestor(isVirtio ? "Virtio" : "Unknown", location());
            // virtio has it beside the disk's other attributes, most others with the device's.
            setText(device, "Serial Number",
                    isVirtio ? deviceText(attribute("serial")) : deviceAttribute("serial"));
            setText(device, "Model", deviceAttribute("model"));
        }
        readOptical();
    }

    // Starts the chain of what the drive hangs on.
    Dictionary& addAncestor(const char* interconnect, const char* where) {
        facts_.hasDrive = true;
        facts_.drive.set("Protocol Characteristics",
                         Dictionary{{"Physical Interconnect", interconnect},
                                    {"Physical Interconnect Location", where}});
        return facts_.ancestors.emplace_back(Dictionary{{"Physical Interconnect", interconnect}});
    }

    // Of what is built into the machine unless it says otherwise. The kernel knows a PCI device
    // behind an external port (Thunderbolt) as removable.
    [[nodiscard]] const char* location() const {
        if (isRemovable_) {
            return kExternal;
        }
        for (std::string folder = parentFolder(disk_.path); !folder.empty();
             folder = parentFolder(folder)) {
            const std::string name = lastComponent(folder);
            // "0000:00:1f.2"
            const bool isPciDevice = name.size() >= 12 && name[4] == ':' && name[7] == ':';
            if (isPciDevice && sysfs_.attribute(folder + "/removable") == "removable") {
                return kExternal;
            }
        }
        return kInternal;
    }

    void readNvme() {
        // With several paths to it the device is the subsystem, which knows no transport.
        std::string transport = deviceAttribute("transport");
        if (transport.empty()) {
            for (const std::string& name : sysfs_.list(disk_.path + "/device")) {
                if (isNumbered(name, "nvme")) {
                    transport = deviceAttribute(name + "/transport");
                    break;
                }
            }
        }
        const bool isLocal = transport.empty() || transport == "pcie";
        Dictionary& device = addAncestor(isLocal ? "PCI-Express" : "NVMe over Fabrics",
                                         isLocal ? location() : kExternal);
        setText(device, "Model", deviceAttribute("model"));
        setText(device, "Serial Number", deviceAttribute("serial"));
        if (isFirstNamespace()) facts_.drive.set("SMART Capable", true);
    }

    // Health is a controller's: its other namespaces would only warn of it again, by equal names.
    [[nodiscard]] bool isFirstNamespace() const {
        const std::string controller =
            disk_.kernelName.substr(0, disk_.kernelName.find_last_of('n'));
        const std::string first = controller + "n1";
        return disk_.kernelName == first || !sysfs_.exists(parentFolder(disk_.path) + "/" + first);
    }

    void readMmc() {
        // Cards do not count as removable with the kernel; only what is soldered in is not one.
        const bool isCard = deviceAttribute("type") != "MMC";
        Dictionary& device =
            addAncestor(isCard ? "Secure Digital" : "MMC", isCard ? kExternal : location());
        setText(device, "Product Name", deviceAttribute("name"));
        setText(device, "Serial Number", deviceAttribute("serial"));
    }

    void readUsb(const std::string& usb) {
        Dictionary& device = addAncestor("USB", kExternal);
        std::string product = deviceText(sysfs_.attribute(usb + "/product"));
        if (product.empty()) {
            product = deviceAttribute("model");
        }
        setText(device, "USB Product Name", product);
        const std::string serial = deviceText(sysfs_.attribute(usb + "/serial"));
        setText(device, "USB Serial Number", serial);
        // A bridge without a number of its own: the disk's, so that the drive has a name at all.
        if (serial.empty()) setText(device, "Serial Number", textOfBytes(udev("ID_SERIAL_SHORT")));
        setText(device, "USB Vendor Name", deviceText(sysfs_.attribute(usb + "/manufacturer")));
        device.set("locationID", static_cast<std::int64_t>(usbLocation(lastComponent(usb))));
        if (udev("ID_ATA_FEATURE_SET_SMART") == "1") {
            facts_.drive.set("SMART Capable", true);
        }
        // Sticks and card readers are removable, disks in enclosures are not.
        facts_.wantsIdentity = udev_.empty() && !isRemovable_;
    }

    // The bus in the highest byte, then a digit for each port on the way: where it is plugged in.
    static std::uint32_t usbLocation(const std::string& device) {
        std::uint32_t location = 0;
        int shift = 24;
        std::uint32_t number = 0;
        for (const char c : device + ".") {
            if (isDigit(c)) {
                number = number * 10 + static_cast<std::uint32_t>(c - '0');
                continue;
            }
            location |= shift < 0 ? 0 : (number & (shift == 24 ? 0xffU : 0xfU)) << shift;
            shift -= 4;
            number = 0;
        }
        return location;
    }

    void readFireWire(const std::string& unit) {
        Dictionary& device = addAncestor("FireWire", kExternal);
        const std::string name = deviceText(sysfs_.attribute(unit + "/model_name"));
        setText(device, "FireWire Product Name", name.empty() ? deviceAttribute("model") : name);
        std::string guid = deviceText(sysfs_.attribute(unit + "/guid"));
        if (const auto number = parseUnsigned(
                guid.starts_with("0x") ? std::string_view{guid}.substr(2) : guid, 16)) {
            device.set("GUID", *number);
        }
    }

    // SAS and RAID adapters speak SCSI to the kernel for the ATA drives on them: they take the same
    // commands, and only the vendor tells them from SCSI drives.
    [[nodiscard]] bool isAtaBehindAdapter() const {
        return deviceAttribute("vendor") == kAta && !folderNumbered("session");
    }

    void readAta() {
        const bool isDisk = deviceAttribute("vendor") == kAta;
        Dictionary& device = addAncestor(isDisk ? kAta : "ATAPI", location());
        AtaIdentity identity = parseAtaInformationPage(attribute("device/vpd_pg89").value_or(""));
        if (identity.model.empty()) {
            identity.model = textOfBytes(trimmed(decodeUdevText(udev("ID_MODEL_ENC"))));
            identity.isSmartSupported = udev("ID_ATA_FEATURE_SET_SMART") == "1";
        }
        if (identity.model.empty()) {
            facts_.wantsIdentity = isDisk;
            // The SCSI form of the name has 16 characters: a longer name has lost its end, perhaps
            // right after a blank.
            constexpr std::size_t kSurelyWhole = 14;
            const std::string name = deviceAttribute("model");
            identity.model = name.size() <= kSurelyWhole ? name : std::string{};
        }
        if (identity.serial.empty()) {
            identity.serial = parseUnitSerialPage(attribute("device/vpd_pg80").value_or(""));
        }
        if (identity.serial.empty()) {
            identity.serial = textOfBytes(udev("ID_SERIAL_SHORT"));
        }
        setText(device, "device model", identity.model);
        setText(device, "device serial", identity.serial);
        if (isDisk && identity.isSmartSupported) {
            facts_.drive.set("SMART Capable", true);
        }
    }

    void readScsi() {
        const bool isNetwork = folderNumbered("session").has_value();
        const bool isFibre = folderAbove(disk_.path, [](const std::string& component) {
                                 return component.starts_with("rport-");
                             }).has_value();
        Dictionary& device = addAncestor(isNetwork ? "iSCSI"
                                         : isFibre ? "Fibre Channel Interface"
                                                   : "SCSI",
                                         isNetwork || isFibre ? kExternal : location());
        setText(device, "Vendor Identification", deviceAttribute("vendor"));
        setText(device, "Product Identification", deviceAttribute("model"));
        setText(device, "Product Revision Level", deviceAttribute("rev"));
        // On a node of its own: beside the identification it would be taken for the drive's name.
        Dictionary unit;
        setText(unit, "Serial Number",
                parseUnitSerialPage(attribute("device/vpd_pg80").value_or("")));
        facts_.ancestors.push_back(std::move(unit));
    }

    void readOptical() {
        if (!isName("sr")) {
            return;
        }
        facts_.ancestors.front().set("ATAPI", true);
        const bool isDvd = std::any_of(udev_.begin(), udev_.end(), [](const auto& property) {
            return (property.first.starts_with("ID_CDROM_MEDIA_DVD") ||
                    property.first.starts_with("ID_CDROM_MEDIA_BD")) &&
                   property.second == "1";
        });
        facts_.kind = isDvd ? MediaKind::dvd : MediaKind::compactDisc;
    }

    const BlockFolder& disk_;
    const Sysfs& sysfs_;
    const UdevDatabase& udevDatabase_;
    UdevProperties udev_;
    bool isRemovable_;
    DiskFacts facts_;
};

// The letters that a driver counts its disks in ("aa" after "z") follow these.
constexpr std::string_view kLetteredDrivers[] = {"sd", "vd", "hd", "xvd"};

std::size_t letteredPrefixLength(const std::string& name) {
    for (const std::string_view driver : kLetteredDrivers) {
        if (name.starts_with(driver)) {
            return driver.size();
        }
    }
    return 0;
}

}  // namespace

DiskFacts readDisk(const BlockFolder& disk, const Sysfs& sysfs, const UdevDatabase& udev) {
    return DiskReader{disk, sysfs, udev}.read();
}

AtaIdentity parseAtaInformationPage(std::string_view page) {
    constexpr unsigned char kPageCode = 0x89;
    constexpr std::size_t kIdentifyOffset = 60;  // SAT-4 table 187
    if (page.size() <= kIdentifyOffset || static_cast<unsigned char>(page[1]) != kPageCode) {
        return {};
    }
    // Words that a page which was cut short does not have are 0, which says that it tells nothing.
    IdentifyData identify{};
    std::copy_n(page.begin() + kIdentifyOffset,
                std::min(page.size() - kIdentifyOffset, identify.size()), identify.begin());
    return identityOf(identify);
}

void addIdentity(DiskFacts& disk, const IdentifyData& identify) {
    const AtaIdentity identity = identityOf(identify);
    Dictionary& device = disk.ancestors.front();
    if (stringValue(device.find("Physical Interconnect")) == kAta) {
        setText(device, "device model", identity.model);
        setText(device, "device serial", identity.serial);
    } else if (!device.contains("USB Serial Number")) {
        setText(device, "Serial Number", identity.serial);
    }
    if (identity.isSmartSupported) disk.drive.set("SMART Capable", true);
}

std::string parseUnitSerialPage(std::string_view page) {
    constexpr unsigned char kPageCode = 0x80;
    constexpr std::size_t kHeaderLength = 4;
    if (page.size() < kHeaderLength || static_cast<unsigned char>(page[1]) != kPageCode) {
        return {};
    }
    const auto length = static_cast<std::size_t>(static_cast<unsigned char>(page[2])) << 8U |
                        static_cast<std::size_t>(static_cast<unsigned char>(page[3]));
    return textOfBytes(trimmed(page.substr(kHeaderLength, length)));
}

bool comesBefore(const std::string& a, const std::string& b) {
    const std::size_t lettered = letteredPrefixLength(a);
    if (lettered != 0 && a.substr(0, lettered) == b.substr(0, lettered)) {
        const auto lettersOf = [lettered](const std::string& name) {
            const std::size_t end = std::min(name.find_first_of("0123456789"), name.size());
            return name.substr(lettered, end - lettered);
        };
        const std::string lettersOfA = lettersOf(a);
        const std::string lettersOfB = lettersOf(b);
        if (lettersOfA.size() != lettersOfB.size()) {
            return lettersOfA.size() < lettersOfB.size();
        }
    }
    for (std::size_t i = 0, j = 0; i < a.size() && j < b.size();) {
        if (!isDigit(a[i]) || !isDigit(b[j])) {
            if (a[i] != b[j]) {
                return a[i] < b[j];
            }
            ++i;
            ++j;
            continue;
        }
        const auto numberAt = [](const std::string& name, std::size_t at) {
            const std::size_t end = std::min(name.find_first_not_of("0123456789", at), name.size());
            return std::string_view{name}.substr(at, end - at);
        };
        const std::string_view numberOfA = numberAt(a, i);
        const std::string_view numberOfB = numberAt(b, j);
        if (numberOfA != numberOfB) {
            return numberOfA.size() != numberOfB.size() ? numberOfA.size() < numberOfB.size()
                                                        : numberOfA < numberOfB;
        }
        i += numberOfA.size();
        j += numberOfB.size();
    }
    return a.size() < b.size();
}

}  // namespace korvane
