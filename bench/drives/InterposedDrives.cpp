// Every SCSI command of the program that this is loaded into is answered as by a healthy ATA drive
// with SMART, whatever file it is sent to. Stands in for drives that no build machine has.
#include <dlfcn.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

constexpr std::uint8_t kInquiry = 0x12;
constexpr std::uint8_t kPassThrough = 0x85;
constexpr std::uint8_t kCheckPowerMode = 0xe5;
constexpr std::uint8_t kIdentifyDevice = 0xec;
constexpr std::uint8_t kSmart = 0xb0;
constexpr std::uint8_t kReadData = 0xd0;
constexpr std::uint8_t kReadThresholds = 0xd1;
constexpr std::uint8_t kRegistersWanted = 0x20;
constexpr std::uint8_t kCheckCondition = 2;

void fill(std::uint8_t* field, const char* text, std::size_t size) {
    const std::size_t length = std::strlen(text);
    for (std::size_t i = 0; i < size; ++i) {
        field[i ^ 1U] = i < length ? static_cast<std::uint8_t>(text[i]) : ' ';
    }
}

// ATA8-ACS 7.16: an ATA-8 drive with 48-bit addresses and SMART, which is on.
void identify(std::uint8_t* data) {
    const auto word = [data](std::size_t number, unsigned value) {
        data[2 * number] = static_cast<std::uint8_t>(value);
        data[2 * number + 1] = static_cast<std::uint8_t>(value >> 8U);
    };
    word(0, 0x0040);
    fill(data + 2 * 10, "B0", 20);
    fill(data + 2 * 23, "1.0", 8);
    fill(data + 2 * 27, "Bench Disk of Some Length", 40);
    word(49, 0x0f00);
    word(60, 0xffff);
    word(61, 0x0fff);
    word(80, 0x01f0);
    for (const std::size_t supported : {82U, 85U}) word(supported, 0x0001);
    for (const std::size_t supported : {83U, 86U}) word(supported, 0x4400);
    for (const std::size_t supported : {84U, 87U}) word(supported, 0x4003);
    word(100, 0xffff);
    word(101, 0x0fff);
}

// ATA8-ACS, annex: a table of 16 attributes or their thresholds, as drives commonly have them, and
// the checksum that makes all bytes sum up to nothing.
void attributes(std::uint8_t* data, bool areThresholds) {
    constexpr std::uint8_t kIds[] = {1,   3,   4,   5,   7,   9,   10,  12,
                                     187, 188, 190, 194, 197, 198, 199, 241};
    data[0] = 16;  // the table's revision
    std::uint8_t* entry = data + 2;
    for (const std::uint8_t id : kIds) {
        entry[0] = id;
        if (areThresholds) {
            entry[1] = 6;
        } else {
            entry[1] = 0x33;
            entry[3] = 100;
            entry[4] = 100;
            entry[5] = id;
        }
        entry += 12;
    }
    std::uint8_t sum = 0;
    for (std::size_t i = 0; i < 511; ++i) sum = static_cast<std::uint8_t>(sum + data[i]);
    data[511] = static_cast<std::uint8_t>(-sum);
}

void answer(sg_io_hdr_t& header) {
    header.status = 0;
    header.host_status = 0;
    header.driver_status = 0;
    header.sb_len_wr = 0;
    header.resid = 0;
    auto* const data = static_cast<std::uint8_t*>(header.dxferp);
    if (header.dxfer_direction == SG_DXFER_FROM_DEV) std::memset(data, 0, header.dxfer_len);
    const std::uint8_t* const block = header.cmdp;
    if (block[0] == kInquiry && header.dxfer_len >= 36) {
        data[2] = 5;
        data[4] = 31;
        std::memcpy(data + 8, "ATA     Bench Disk of So1.0 ", 28);
    }
    if (block[0] != kPassThrough) return;
    if (block[14] == kIdentifyDevice && header.dxfer_len >= 512) identify(data);
    const bool isTable =
        block[14] == kSmart && (block[4] == kReadData || block[4] == kReadThresholds);
    if (isTable && header.dxfer_len >= 512) attributes(data, block[4] == kReadThresholds);
    if ((block[2] & kRegistersWanted) == 0) return;
    const std::uint8_t count = block[14] == kCheckPowerMode ? 0xff : 0;
    const std::uint8_t sense[] = {0x72, 1, 0,     0x1d, 0, 0, 0,    14, 0x09, 12, 0,
                                  0,    0, count, 0,    0, 0, 0x4f, 0,  0xc2, 0,  0x50};
    header.status = kCheckCondition;
    header.sb_len_wr =
        static_cast<unsigned char>(std::min<std::size_t>(sizeof sense, header.mx_sb_len));
    std::memcpy(header.sbp, sense, header.sb_len_wr);
}

}  // namespace

extern "C" int ioctl(int descriptor, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (request == SG_IO) {
        answer(*static_cast<sg_io_hdr_t*>(argument));
        return 0;
    }
    static const auto next =
        reinterpret_cast<int (*)(int, unsigned long, void*)>(dlsym(RTLD_NEXT, "ioctl"));
    return next(descriptor, request, argument);
}
