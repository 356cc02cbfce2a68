// QXFileType.h: file types. A file type is the library's own notion of a document kind: a 32-bit
// id and a name bound to any number of platform type codes (here the packed, lower-case
// extension codes: "tif" is 0x74696600), so that "tif" and "tiff" can be one type. The host fills
// gFileTypeList at start; the file layer uses it to turn a file into a type id and back, and to
// filter folder listings. Searches are linear: lists hold a few dozen types.
//
// Failure contract: an allocation that fails while a collection grows leaves it as it was, and
// the caller is not told.
#ifndef QXFILETYPE_H
#define QXFILETYPE_H

#include <new>
#include <type_traits>

#include "QXBase.h"
#include "QXMemory.h"
#include "QXString.h"

class TQXFile;

// The growable array behind the type lists. `flags`: bit 31 the low bits are a limit and growth
// goes by a fifth of the count plus one; bit 29 the array is constructed and owns its elements;
// bit 28 new elements are zero-filled before construction; bit 27 the storage is foreign and can
// neither grow nor be freed. The low 27 bits are the growth step, or its limit with bit 31.
//
// Storage: one block from the library's allocator, aligned for T (QXalignedMalloc, which takes
// its block from QXmalloc). Trivial elements move with QXmemcpy; others are copy-constructed
// into the new block and destroyed in the old one, which is a byte copy for what they hold.
template <class T>
class TQXArray {
 public:
  static constexpr uint32_t kFlagFifth = 0x80000000u;
  static constexpr uint32_t kFlagOwned = 0x20000000u;
  static constexpr uint32_t kFlagZeroFill = 0x10000000u;
  static constexpr uint32_t kFlagForeign = 0x08000000u;
  static constexpr uint32_t kStepMask = 0x07FFFFFFu;

  explicit TQXArray(uint32_t initialFlags) : count(0), allocated(0), flags(initialFlags) {}
  ~TQXArray() { Free(); }
  TQXArray(const TQXArray&) = delete;
  TQXArray& operator=(const TQXArray&) = delete;

  uint32_t Count() const { return count; }
  uint32_t Allocated() const { return allocated; }
  uint32_t Flags() const { return flags; }
  T& operator[](uint32_t i) { return data[i]; }
  const T& operator[](uint32_t i) const { return data[i]; }

  // The step of the next growth.
  uint32_t GrowthStep() const {
    if (flags & kFlagFifth) {
      const uint32_t step = uint32_t(double(count) * 0.2) + 1;
      const uint32_t limit = flags & kStepMask;
      return step < limit ? step : limit;
    }
    return flags & kStepMask;
  }

  // Appends a copy of `value`; false (and nothing added) when the array cannot grow.
  bool Append(const T& value) {
    if (count == allocated) {
      const uint32_t step = GrowthStep();
      if (step == 0 || !Reallocate(allocated + step)) return false;
    }
    T* slot = data + count;
    if (flags & kFlagZeroFill) QXmemfill(0, slot, int32_t(sizeof(T)));
    new (slot) T(value);
    ++count;
    return true;
  }

  // Sets the size: elements behind `n` are destroyed, new ones default-constructed. The block
  // is reallocated to exactly `n` elements, shrinking too; 0 frees it. False when that fails.
  bool Resize(uint32_t n) {
    if (n == 0) {
      Free();
      return true;
    }
    if (n != allocated && !Reallocate(n)) return false;
    while (count > n)
      data[--count].~T();
    while (count < n) {
      T* slot = data + count;
      if (flags & kFlagZeroFill) QXmemfill(0, slot, int32_t(sizeof(T)));
      new (slot) T();
      ++count;
    }
    return true;
  }

  // Destroys every element and frees the block (a foreign block is left alone).
  void Free() {
    while (count)
      data[--count].~T();
    if (!(flags & kFlagForeign) && data) QXalignedFree(data);
    if (!(flags & kFlagForeign)) {
      data = nullptr;
      allocated = 0;
    }
  }

 private:
  static constexpr uint8_t AlignShift() {
    uint8_t e = 0;
    while ((2u << e) < alignof(T))
      ++e;
    return e;
  }

  bool Reallocate(uint32_t n) {
    if (flags & kFlagForeign) return false;
    if (uint64_t(n) * sizeof(T) > 0x7FFFFFFFu) return false;
    T* block = static_cast<T*>(QXalignedMalloc(uint32_t(n * sizeof(T)), AlignShift()));
    if (!block) return false;
    const uint32_t keep = count < n ? count : n;
    if constexpr (std::is_trivially_copyable_v<T>) {
      if (keep) QXmemcpy(block, data, int32_t(keep * sizeof(T)));
      count = keep;
    } else {
      for (uint32_t i = 0; i < keep; ++i)
        new (block + i) T(data[i]);
      while (count)
        data[--count].~T();
      count = keep;
    }
    if (data) QXalignedFree(data);
    data = block;
    allocated = n;
    return true;
  }

  uint32_t count;
  uint32_t allocated;
  uint32_t flags;
  T* data = nullptr;
};

// One file type: its platform codes, id, name and group.
class TQXFileType {
 public:
  QX_EXPORT TQXFileType();
  TQXFileType(const TQXFileType& other);  // a deep copy, for the list's moves
  TQXFileType& operator=(const TQXFileType&) = delete;
  QX_EXPORT ~TQXFileType();

  QX_EXPORT void SetID(uint32_t newID);
  // Appends a code unless the type has it already. Codes must be lower-case to match.
  QX_EXPORT void AddPlatformType(const uint32_t& code);
  QX_EXPORT bool HasPlatformType(const uint32_t& code) const;

  uint32_t GetID() const { return id; }
  uint32_t PlatformTypeCount() const { return platformTypes.Count(); }
  uint32_t PlatformType(uint32_t i) const { return platformTypes[i]; }
  const TQXString& GetName() const { return name; }
  void SetName(const TQXString& newName) { name = newName; }
  // The second number that AllSameGroup compares; no operation of the library sets it.
  uint32_t& Group() { return group; }
  uint32_t Group() const { return group; }

 private:
  TQXArray<uint32_t> platformTypes;  // flags 0xB0008000: a fifth, limit 32768, zero-filled
  uint32_t id;
  TQXString31 name;
  uint32_t group;
};

// The list of the host's file types, in the order that decides between two types sharing a code.
class TQXFileTypeList {
 public:
  QX_EXPORT TQXFileTypeList();
  QX_EXPORT ~TQXFileTypeList();
  TQXFileTypeList(const TQXFileTypeList&) = delete;
  TQXFileTypeList& operator=(const TQXFileTypeList&) = delete;

  // Appends a copy of `type`; a failed allocation leaves the list as it was.
  QX_EXPORT void Add(const TQXFileType& type);
  uint32_t Count() const { return types.Count(); }
  TQXFileType& operator[](uint32_t i) { return types[i]; }

  // The first type that accepts the file's platform code (its extension decides alone).
  QX_EXPORT TQXFileType* FindQXFileType(const TQXFile& file);
  QX_EXPORT TQXFileType* FindByID(uint32_t id);
  QX_EXPORT TQXFileType* FindByPlatformType(const uint32_t& code);
  // The id of FindQXFileType's type, or 0.
  QX_EXPORT uint32_t GetTypeID(const TQXFile& file);
  // True when every type has the first one's group; true for an empty list.
  QX_EXPORT bool AllSameGroup() const;

 private:
  TQXArray<TQXFileType> types;  // a fifth, limit 1820
};

// The list that the file layer uses; may be null. The host owns what it stores here until
// FreeFileTypes.
QX_EXPORT extern TQXFileTypeList* gFileTypeList;

// The name registry: pairs of id and name, made at first use. A pair with an id already there
// is appended too, never replacing the first.
QX_EXPORT void RegisterTypeName(uint32_t id, const TQXString& name);
QX_EXPORT bool IsRegisteredTypeName(uint32_t id);
// Destroys gFileTypeList and the registry, if there are any.
QX_EXPORT void FreeFileTypes();

#endif  // QXFILETYPE_H
