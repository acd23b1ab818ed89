#include "backup/ByteSwap.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <span>

namespace korvane {

namespace {

// One field of a record, or a run of equal fields side by side.
struct Field {
    std::uint16_t offset;
    std::uint8_t bits;
    std::uint8_t count = 1;
};
using Fields = std::span<const Field>;

// The name of an HFS Plus catalog key or thread has at most this many characters (TN1150,
// HFSUniStr255).
constexpr std::uint16_t kLongestName = 255;
// Type fields of catalog records: HFS keeps the type in the upper byte of the first word (Inside
// Macintosh: Files, CatDataRec), HFS Plus in a word of its own (TN1150, HFSPlusCatalogFile).
constexpr std::uint16_t kHFSTypeMask = 0x0F00;
constexpr std::uint16_t kHFSPlusTypeMask = 0x000F;

constexpr Field kField16[] = {{0, 16}};
constexpr Field kField32[] = {{0, 32}};
constexpr Field kField64[] = {{0, 64}};
constexpr Field kFixed120[] = {{0, 16}, {4, 32, 3}, {80, 32, 3}, {92, 32, 7}};
// TN1150, BTNodeDescriptor: fLink 0, bLink 4, kind 8, height 9, numRecords 10.
constexpr Field kNodeDescriptor[] = {{0, 32, 2}, {10, 16}};
// TN1150, BTHeaderRec: treeDepth 0; rootNode, leafRecords, firstLeafNode, lastLeafNode 2; nodeSize,
// maxKeyLength 18; totalNodes, freeNodes 22; clumpSize 32; attributes 38.
constexpr Field kHeaderRecord[] = {{0, 16},     {2, 32, 4}, {18, 16, 2},
                                   {22, 32, 2}, {32, 32},   {38, 32}};
constexpr Field kFixed52[] = {{0, 32}, {4, 32, 8}, {36, 64, 2}};
constexpr Field kFixed40[] = {{0, 32}, {8, 64, 3}, {32, 32, 2}};
// Inside Macintosh: Files, MDB: drSigWord 0; drCrDate, drLsMod 2; drAtrb to drNmAlBlks 10;
// drAlBlkSiz, drClpSiz 20; drAlBlSt 28; drNxtCNID 30; drFreeBks 34; (drVN 36;) drVolBkUp 64;
// drVSeqNum 68; drWrCnt, drXTClpSiz, drCTClpSiz 70; drNmRtDirs 82; drFilCnt, drDirCnt 84;
// (drFndrInfo 92;) drEmbedSigWord, drEmbedExtent 124.
constexpr Field kMasterDirectoryBlock[] = {
    {0, 16},  {2, 32, 2}, {10, 16, 5}, {20, 32, 2}, {28, 16},    {30, 32},    {34, 16},
    {64, 32}, {68, 16},   {70, 32, 3}, {82, 16},    {84, 32, 2}, {124, 16, 3}};
// Inside Macintosh: Files, ExtKeyRec: xkrFNum 2, xkrFABN 6.
constexpr Field kHFSExtentKey[] = {{2, 32}, {6, 16}};
// Inside Macintosh: Files, CatKeyRec: ckrParID 2.
constexpr Field kHFSCatalogKey[] = {{2, 32}};
// Inside Macintosh: Files, CatDataRec, after the type at 0.
// Folder: dirFlags, dirVal 2; dirDirID, dirCrDat, dirMdDat, dirBkDat 6.
constexpr Field kHFSFolder[] = {{2, 16, 2}, {6, 32, 4}};
// File: filUsrWds 4 (type, creator; flags, location 12), filFlNum 20, filStBlk 24, filLgLen,
// filPyLen 26, filRStBlk 34, filRLgLen to filBkDat 36, filClpSize 72, filExtRec 74, filRExtRec 86.
constexpr Field kHFSFile[] = {{4, 32, 2}, {12, 16, 3}, {20, 32}, {24, 16},    {26, 32, 2},
                              {34, 16},   {36, 32, 5}, {72, 16}, {74, 16, 6}, {86, 16, 6}};
// Thread: thdParID 10.
constexpr Field kHFSThread[] = {{10, 32}};
// TN1150, HFSPlusVolumeHeader: signature, version 0; attributes to nextCatalogID and writeCount 4;
// encodingsBitmap 72; (finderInfo 80;) then five HFSPlusForkData of logicalSize +0, clumpSize and
// totalBlocks +8 and eight extents +16, which are eighteen 32-bit values side by side.
constexpr Field kHFSPlusVolumeHeader[] = {
    {0, 16, 2}, {4, 32, 17},   {72, 64},  {112, 64},     {120, 32, 18}, {192, 64},    {200, 32, 18},
    {272, 64},  {280, 32, 18}, {352, 64}, {360, 32, 18}, {432, 64},     {440, 32, 18}};
// TN1150, HFSPlusExtentKey: keyLength 0, forkType 2, fileID 4, startBlock 8.
constexpr Field kHFSPlusExtentKey[] = {{0, 16}, {4, 32, 2}};
// TN1150, HFSPlusExtentRecord: eight of startBlock, blockCount.
constexpr Field kHFSPlusExtentRecord[] = {{0, 32, 16}};
// TN1150, HFSPlusCatalogKey before its name: keyLength 0, parentID 2; nodeName.length 6.
constexpr Field kHFSPlusKeyHead[] = {{0, 16}, {2, 32}};
// TN1150, HFSPlusCatalogFolder, after the type at 0: flags 2; valence, folderID, createDate,
// contentModDate, attributeModDate, accessDate, backupDate 4; permissions (HFSPlusBSDInfo: ownerID,
// groupID 32; adminFlags, ownerFlags 40; fileMode 42; special 44); userInfo (FolderInfo:
// windowBounds, finderFlags, location, reservedField 48); finderInfo (ExtendedFolderInfo:
// scrollPosition 64, reserved1 68, extendedFinderFlags and reserved2 72, putAwayFolderID 76);
// textEncoding, reserved 80.
constexpr Field kHFSPlusFolder[] = {{2, 16},     {4, 32, 7},  {32, 32, 2}, {42, 16},
                                    {44, 32},    {48, 16, 8}, {64, 16, 2}, {68, 32},
                                    {72, 16, 2}, {76, 32},    {80, 32, 2}};
// TN1150, HFSPlusCatalogFile, after the type at 0: flags 2; reserved1, fileID, the five dates 4;
// permissions 32 as above; userInfo (FileInfo: fileType, fileCreator 48; finderFlags, location,
// reservedField 56); finderInfo (ExtendedFileInfo: reserved1[4], extendedFinderFlags, reserved2 64;
// putAwayFolderID 76); textEncoding, reserved2 80; dataFork 88 and resourceFork 168, each
// logicalSize +0 and then eighteen 32-bit values.
constexpr Field kHFSPlusFile[] = {{2, 16},     {4, 32, 7},   {32, 32, 2}, {42, 16},     {44, 32},
                                  {48, 32, 2}, {56, 16, 4},  {64, 16, 6}, {76, 32},     {80, 32, 2},
                                  {88, 64},    {96, 32, 18}, {168, 64},   {176, 32, 18}};

template <typename Value>
Value swapAt(void* address) {
    std::array<unsigned char, sizeof(Value)> bytes;
    std::memcpy(bytes.data(), address, bytes.size());
    std::reverse(bytes.begin(), bytes.end());
    std::memcpy(address, bytes.data(), bytes.size());
    Value value = 0;
    std::memcpy(&value, bytes.data(), bytes.size());
    return value;
}

std::uint16_t read16(const unsigned char* address) {
    std::uint16_t value = 0;
    std::memcpy(&value, address, sizeof value);
    return value;
}

template <typename Value>
void swapRun(unsigned char* address, unsigned count) {
    for (unsigned index = 0; index < count; ++index) swapAt<Value>(address + index * sizeof(Value));
}

void swapFields(unsigned char* record, Fields fields) {
    for (const Field& field : fields) {
        unsigned char* const address = record + field.offset;
        switch (field.bits) {
            case 16:
                swapRun<std::uint16_t>(address, field.count);
                break;
            case 32:
                swapRun<std::uint32_t>(address, field.count);
                break;
            default:
                swapRun<std::uint64_t>(address, field.count);
        }
    }
}

enum class Direction { in, out };

// Swaps the field that decides something at the right moment, and answers what it says.
template <typename Body>
void swapDecidingField(Direction direction, unsigned char* field, const Body& body) {
    if (direction == Direction::in) {
        body(SetEndian16_Swap(field));
    } else {
        body(read16(field));
        SetEndian16_Swap(field);
    }
}

// A name with its length before it. False when a name on its way in claims more characters than
// there can be; on its way out such a name is swapped as far as there can be characters.
bool swapName(Direction direction, unsigned char* lengthField) {
    bool isSound = true;
    swapDecidingField(direction, lengthField, [&](std::uint16_t length) {
        isSound = direction == Direction::out || length <= kLongestName;
        if (isSound) swapRun<std::uint16_t>(lengthField + 2, std::min(length, kLongestName));
    });
    return isSound;
}

void swapHFSCatalogRecord(Direction direction, unsigned char* record) {
    swapDecidingField(direction, record, [&](std::uint16_t type) {
        switch (type & kHFSTypeMask) {
            case 0x0100:
                return swapFields(record, kHFSFolder);
            case 0x0200:
                return swapFields(record, kHFSFile);
            case 0x0300:
            case 0x0400:
                return swapFields(record, kHFSThread);
            default:
                (void)std::fputs("\n\nDoByteSwap: HFSCatalogRecord_Swap ERROR\n", stderr);
        }
    });
}

void swapHFSPlusCatalogKey(Direction direction, unsigned char* key) {
    swapFields(key, kHFSPlusKeyHead);
    if (!swapName(direction, key + 6)) std::memset(key, 0, 6);
}

// TN1150, HFSPlusCatalogThread: parentID 4, nodeName 8.
void swapHFSPlusThread(Direction direction, unsigned char* record) {
    if (swapName(direction, record + 8)) {
        SetEndian32_Swap(record + 4);
    } else {
        std::memset(record + 2, 0, 4);
    }
}

void swapHFSPlusCatalogRecord(Direction direction, unsigned char* record) {
    swapDecidingField(direction, record, [&](std::uint16_t type) {
        switch (type & kHFSPlusTypeMask) {
            case 1:
                return swapFields(record, kHFSPlusFolder);
            case 2:
                return swapFields(record, kHFSPlusFile);
            case 3:
            case 4:
                return swapHFSPlusThread(direction, record);
            default:
                (void)std::fprintf(stderr,
                                   "\n\nDoByteSwap: HFSPlusCatalogRecord_%s_Swap ERROR recordType: "
                                   "0x%04X \n",
                                   direction == Direction::in ? "In" : "Out", unsigned{type});
        }
    });
}

// The fields of a record whose layout its code alone decides; none for the others.
Fields fixedFields(std::uint32_t recordType) {
    switch (recordType) {
        case kByteSwap16:
            return kField16;
        case kByteSwap32:
            return kField32;
        case kByteSwap64:
            return kField64;
        case kByteSwapFixed120:
            return kFixed120;
        case kByteSwapNodeDescriptor:
            return kNodeDescriptor;
        case kByteSwapHeaderRecord:
            return kHeaderRecord;
        case kByteSwapFixed52:
            return kFixed52;
        case kByteSwapFixed40:
            return kFixed40;
        case kByteSwapMasterDirectoryBlock:
            return kMasterDirectoryBlock;
        case kByteSwapHFSExtentKey:
            return kHFSExtentKey;
        case kByteSwapHFSCatalogKey:
            return kHFSCatalogKey;
        case kByteSwapHFSPlusVolumeHeader:
            return kHFSPlusVolumeHeader;
        case kByteSwapHFSPlusExtentKey:
            return kHFSPlusExtentKey;
        case kByteSwapHFSPlusExtentRecord:
            return kHFSPlusExtentRecord;
        default:
            return {};
    }
}

}  // namespace

std::uint16_t SetEndian16_Swap(void* value) { return swapAt<std::uint16_t>(value); }
std::uint32_t SetEndian32_Swap(void* value) { return swapAt<std::uint32_t>(value); }
std::uint64_t SetEndian64_Swap(void* value) { return swapAt<std::uint64_t>(value); }

void DoByteSwap(std::uint32_t recordType, void* address) {
    auto* const record = static_cast<unsigned char*>(address);
    switch (recordType) {
        case kByteSwapNone:
            return;
        case kByteSwapHFSCatalogRecordIn:
            return swapHFSCatalogRecord(Direction::in, record);
        case kByteSwapHFSCatalogRecordOut:
            return swapHFSCatalogRecord(Direction::out, record);
        case kByteSwapHFSPlusCatalogKeyIn:
            return swapHFSPlusCatalogKey(Direction::in, record);
        case kByteSwapHFSPlusCatalogKeyOut:
            return swapHFSPlusCatalogKey(Direction::out, record);
        case kByteSwapHFSPlusCatalogRecordIn:
            return swapHFSPlusCatalogRecord(Direction::in, record);
        case kByteSwapHFSPlusCatalogRecordOut:
            return swapHFSPlusCatalogRecord(Direction::out, record);
        default:
            break;
    }
    const Fields fields = fixedFields(recordType);
    if (fields.empty()) {
        (void)std::fputs("DoByteSwap: recordType = UNKNOWN\n", stderr);
        return;
    }
    swapFields(record, fields);
}

void BlockMoveByteSwap(const void* source, void* destination, std::size_t length,
                       std::uint32_t recordType) {
    std::memmove(destination, source, length);
    if (recordType != kByteSwapNone) DoByteSwap(recordType, destination);
}

void DoByteSwapIntelPartition(std::uint32_t /*recordType*/, void* /*record*/) {}

void BlockMoveByteSwapIntelPartition(const void* source, void* destination, std::size_t length,
                                     std::uint32_t /*recordType*/) {
    std::memmove(destination, source, length);
}

}  // namespace korvane
