// Converts on-disk records of HFS and HFS Plus volumes, which are big-endian, between disk order
// and host order in place. Self-contained: no state, no daemon. A record is named by a code; codes
// that come in pairs have an In variant (from the disk: the field that decides the layout is
// swapped first, then read) and an Out variant (to the disk: it is read in host order and swapped
// last).
//
// The caller supplies the whole record; no conversion touches a byte beyond the record's own
// layout, which for names means 255 characters. Layouts: Inside Macintosh, Files, chapter 2 (HFS)
// and Apple Technical Note TN1150 (HFS Plus).
#pragma once

#include <cstddef>
#include <cstdint>

namespace korvane {

// Record-type codes. Every other number is unknown.
enum ByteSwapRecord : std::uint32_t {
    kByteSwapNone = 100,
    kByteSwap16 = 101,
    kByteSwap32 = 102,
    kByteSwap64 = 103,
    kByteSwapFixed120 = 104,
    kByteSwapNodeDescriptor = 107,
    kByteSwapHeaderRecord = 108,
    kByteSwapFixed52 = 109,
    kByteSwapFixed40 = 110,
    kByteSwapMasterDirectoryBlock = 111,
    kByteSwapHFSExtentKey = 112,
    kByteSwapHFSCatalogKey = 114,
    kByteSwapHFSCatalogRecordIn = 115,
    kByteSwapHFSCatalogRecordOut = 116,
    kByteSwapHFSPlusVolumeHeader = 117,
    kByteSwapHFSPlusExtentKey = 118,
    kByteSwapHFSPlusExtentRecord = 119,
    kByteSwapHFSPlusCatalogKeyIn = 120,
    kByteSwapHFSPlusCatalogKeyOut = 121,
    kByteSwapHFSPlusCatalogRecordIn = 122,
    kByteSwapHFSPlusCatalogRecordOut = 123,
};

// Reverse the bytes of the value at the address, which needs no alignment; the new value.
std::uint16_t SetEndian16_Swap(void* value);
std::uint32_t SetEndian32_Swap(void* value);
std::uint64_t SetEndian64_Swap(void* value);

// Swaps the record's fields in place. An unknown code, and a catalog record of an unknown type, is
// told on standard error; the record then stays as it is but for the type field of a catalog
// record. A catalog key or thread that claims a name of more than 255 characters on its way in is
// emptied at its head and otherwise left: bytes 0 to 5 of the key, bytes 2 to 5 of the thread.
void DoByteSwap(std::uint32_t recordType, void* record);

// Copies `length` bytes, which may overlap, and swaps the copy.
void BlockMoveByteSwap(const void* source, void* destination, std::size_t length,
                       std::uint32_t recordType);

// The same for volumes whose records are in host order already: nothing, and a plain copy.
void DoByteSwapIntelPartition(std::uint32_t recordType, void* record);
void BlockMoveByteSwapIntelPartition(const void* source, void* destination, std::size_t length,
                                     std::uint32_t recordType);

}  // namespace korvane
