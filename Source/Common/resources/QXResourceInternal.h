// QXResourceInternal.h: the map image and the handle table, shared by the three units of the
// resource family (QXResourceMap.cpp: the format; QXResourceFile.cpp: the engine; QXResource.cpp:
// objects, streams and handles).
//
// The map image is the map's bytes with its integers in host order (see QXResourceFile.h for the
// layout). Nothing in it is aligned, so every field is reached with a byte copy. Every walk over
// the image goes through TQXMapWalk, which sees only those type entries, reference entries and
// names that lie wholly inside the image: the open-time check refuses maps that need more, and
// the walk keeps any later state (names set past the name list, dead bytes) from reaching
// outside the block.
#ifndef QXRESOURCEINTERNAL_H
#define QXRESOURCEINTERNAL_H

#include <cstdint>
#include <cstring>

#include "QXResourceFile.h"

namespace QXRes {

// Map header fields (offsets in the map and in the image).
constexpr uint32_t kDataOffset = 0;
constexpr uint32_t kMapOffset = 4;
constexpr uint32_t kDataLength = 8;
constexpr uint32_t kMapLength = 12;
constexpr uint32_t kReservedWord = 16;
constexpr uint32_t kReservedHalf1 = 20;
constexpr uint32_t kReservedHalf2 = 22;
constexpr uint32_t kTypeListOffset = 24;
constexpr uint32_t kNameListOffset = 26;

// A type entry: type code, stored reference count, reference list offset (from the type list).
constexpr uint32_t kTypeEntrySize = 8;
constexpr uint32_t kTypeCode = 0;
constexpr uint32_t kTypeRefCount = 4;
constexpr uint32_t kTypeRefList = 6;

// A reference entry: id, name offset, attribute byte and data position, object slot.
constexpr uint32_t kRefEntrySize = 12;
constexpr uint32_t kRefID = 0;
constexpr uint32_t kRefName = 2;
constexpr uint32_t kRefAttrPos = 4;
constexpr uint32_t kRefSlot = 8;

constexpr uint32_t kPosMask = 0x00FFFFFF;
constexpr uint32_t kChangedBit = kQXResAttrChanged << 24;
constexpr uint32_t kPreloadBit = kQXResAttrPreload << 24;
constexpr uint32_t kProtectedBit = kQXResAttrProtected << 24;

inline uint16_t Get16(const uint8_t* p) {
  uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}
inline uint32_t Get32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}
inline void Put16(uint8_t* p, uint16_t v) {
  std::memcpy(p, &v, 2);
}
inline void Put32(uint8_t* p, uint32_t v) {
  std::memcpy(p, &v, 4);
}
inline uint16_t GetBE16(const uint8_t* p) {
  return uint16_t((p[0] << 8) | p[1]);
}
inline uint32_t GetBE32(const uint8_t* p) {
  return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}
inline void PutBE16(uint8_t* p, uint16_t v) {
  p[0] = uint8_t(v >> 8);
  p[1] = uint8_t(v);
}
inline void PutBE32(uint8_t* p, uint32_t v) {
  p[0] = uint8_t(v >> 24);
  p[1] = uint8_t(v >> 16);
  p[2] = uint8_t(v >> 8);
  p[3] = uint8_t(v);
}

// A bounds-checked walk over a host-order map image. Offsets are byte offsets in the image;
// counts are of entries that lie wholly inside it.
class TQXMapWalk {
 public:
  TQXMapWalk(const uint8_t* image, uint32_t size) : map_(image), size_(image ? size : 0) {}

  bool Fits(int64_t offset, int64_t n) const {
    return offset >= 0 && n >= 0 && offset + n <= int64_t(size_);
  }
  uint32_t Size() const { return size_; }
  // The type list's offset, or -1 when its count does not fit.
  int64_t TypeList() const {
    if (size_ < kQXResMapHeaderSize) return -1;
    const int64_t tl = int16_t(Get16(map_ + kTypeListOffset));
    return Fits(tl, 2) ? tl : -1;
  }
  int64_t NameList() const {
    if (size_ < kQXResMapHeaderSize) return -1;
    return int16_t(Get16(map_ + kNameListOffset));
  }
  // The stored type count as it stands (count - 1), or -1 without a type list.
  int32_t StoredTypeCount() const {
    const int64_t tl = TypeList();
    return tl < 0 ? -1 : int16_t(Get16(map_ + tl));
  }
  int32_t TypeCount() const {
    const int64_t tl = TypeList();
    if (tl < 0) return 0;
    int32_t n = int16_t(Get16(map_ + tl)) + 1;
    if (n < 0) n = 0;
    const int64_t room = (int64_t(size_) - tl - 2) / kTypeEntrySize;
    return n < room ? n : int32_t(room);
  }
  // The t-th type entry (0-based, t < TypeCount()).
  uint32_t TypeEntry(int32_t t) const {
    return uint32_t(TypeList() + 2 + int64_t(t) * kTypeEntrySize);
  }
  uint32_t TypeCode(uint32_t typeEntry) const { return Get32(map_ + typeEntry + kTypeCode); }
  // The start of the type's reference list, or -1 when it lies outside.
  int64_t RefList(uint32_t typeEntry) const {
    return TypeList() + int16_t(Get16(map_ + typeEntry + kTypeRefList));
  }
  int32_t RefCount(uint32_t typeEntry) const {
    int32_t n = int16_t(Get16(map_ + typeEntry + kTypeRefCount)) + 1;
    if (n <= 0) return 0;
    const int64_t list = RefList(typeEntry);
    if (list < 0 || list > int64_t(size_)) return 0;
    const int64_t room = (int64_t(size_) - list) / kRefEntrySize;
    return n < room ? n : int32_t(room);
  }
  // The r-th reference entry of the type (0-based, r < RefCount()).
  uint32_t RefEntry(uint32_t typeEntry, int32_t r) const {
    return uint32_t(RefList(typeEntry) + int64_t(r) * kRefEntrySize);
  }
  // The entry's name (its length byte) when it has one that lies wholly inside the image.
  const uint8_t* Name(uint32_t refEntry) const {
    const int16_t offset = int16_t(Get16(map_ + refEntry + kRefName));
    if (offset == -1) return nullptr;
    const int64_t at = NameList() + offset;
    if (!Fits(at, 1) || !Fits(at + 1, map_[at])) return nullptr;
    return map_ + at;
  }
  // The first type entry with this code, or -1.
  int64_t FindType(uint32_t type) const {
    const int32_t n = TypeCount();
    for (int32_t t = 0; t < n; ++t)
      if (TypeCode(TypeEntry(t)) == type) return TypeEntry(t);
    return -1;
  }
  // Calls visit(typeEntry, refEntry) for every reference entry, types in list order and each
  // type's references in order; stops at the first non-zero result and returns it.
  template <class Visit>
  uint32_t ForEachRef(Visit&& visit) const {
    const int32_t types = TypeCount();
    for (int32_t t = 0; t < types; ++t) {
      const uint32_t entry = TypeEntry(t);
      const int32_t refs = RefCount(entry);
      for (int32_t r = 0; r < refs; ++r)
        if (const uint32_t result = visit(entry, RefEntry(entry, r))) return result;
    }
    return 0;
  }

 private:
  const uint8_t* map_;
  uint32_t size_;
};

// Checks the structure of a map of `size` bytes (big-endian as read, or a host-order image):
// the type list, every reference list and every name inside the map; the map header, the type
// list and the reference lists not overlapping. 0 when sound, else kQXErrIO and the first
// problem in `message` (may be null). Names are checked only with `checkNames` (a running image
// may hold names that SetEntryInfo placed out of the name list's reach).
uint32_t QXCheckMapStructure(const uint8_t* map, uint32_t size, bool bigEndian, TQXString* message,
                             bool checkNames = true);

// The handle table: the live resources that map images refer to by 32-bit handle. A handle is
// (generation << 20) | (index + 1): 0 is never a handle, and a handle whose object died resolves
// to null (until its index has been reused 4096 times; released indices are reused oldest
// first).
uint32_t QXResHandleOf(TQXResource* resource);  // registers on first use; 0 if out of memory
TQXResource* QXResResolve(uint32_t handle);
void QXResForgetHandle(TQXResource* resource);
// The resource's handle without registering (0 if none).
uint32_t QXResPeekHandle(const TQXResource* resource);

}  // namespace QXRes

// The engine's private operations that the units share.
struct QX_HIDDEN TQXResourceFile::Access {
  // Reads the map of an open file into a new image (Part of opening). 0 or the failure.
  static uint32_t ReadMap(TQXResourceFile& rf);
  // Loads the entry at `refEntry` of a type (the blob loader). 0 or the failure; the slot then
  // holds the object, or is empty on failure.
  static uint32_t LoadEntry(TQXResourceFile& rf, uint32_t refEntry, uint32_t type, bool read);
  // The resource's handle field, for the handle table.
  static uint32_t& HandleField(TQXResource& resource) { return resource.handle; }
  // LoadEntry, then one hold on the entry's object for the caller.
  static uint32_t Fetch(TQXResourceFile& rf, uint32_t refEntry, uint32_t type, TQXResource*& out,
                        bool read);
  // Fetch of the first entry of `type`, in list order, for which matches(walk, refEntry) holds;
  // kQXErrResource when there is none. `out` is null unless the fetch succeeded.
  template <class Matches>
  static uint32_t FetchFirst(TQXResourceFile& rf, uint32_t type, TQXResource*& out, bool read,
                             Matches&& matches) {
    out = nullptr;
    if (!rf.map) return kQXErrResource;
    const QXRes::TQXMapWalk walk(rf.map, QXRes::Get32(rf.map + QXRes::kMapLength));
    const int64_t entry = walk.FindType(type);
    if (entry < 0) return kQXErrResource;
    const int32_t refs = walk.RefCount(uint32_t(entry));
    for (int32_t r = 0; r < refs; ++r) {
      const uint32_t ref = walk.RefEntry(uint32_t(entry), r);
      if (!matches(walk, ref)) continue;
      const uint32_t result = Fetch(rf, ref, type, out, read);
      if (result) out = nullptr;
      return result;
    }
    return kQXErrResource;
  }
  // The rewrite of UpdateResFile.
  static uint32_t Rewrite(TQXResourceFile& rf, TQXProgress* progress);
  // The in-place write of one entry.
  static uint32_t WriteInPlace(TQXResourceFile& rf, uint32_t refEntry);
  // The reference entry whose slot holds the resource, or -1.
  static int64_t FindEntry(const TQXResourceFile& rf, const TQXResource* resource);
  // Destroys every live object of the image and frees it; clears dirty.
  static void Unload(TQXResourceFile& rf);
  // The live object of an entry, or null.
  static TQXResource* SlotObject(const uint8_t* map, uint32_t refEntry);
  // Reads the 4-byte big-endian length word at `position` of the file.
  static uint32_t ReadLengthWord(IQXFile* file, uint64_t position, uint32_t& length);
};

#endif  // QXRESOURCEINTERNAL_H
