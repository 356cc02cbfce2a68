// Resource objects, the lost-resource handler, the resource stream, and the handle table that
// lets a map image refer to live objects with 32-bit values.
//
// The handle table is one growable array of slots {object, generation}. A resource takes a slot
// the first time a map image needs to refer to it and gives it back when it dies; the slot's
// generation then moves on, so a handle still standing in some image resolves to null instead of
// to a dead object. Free slots are reused oldest first (a queue through `nextFree`), which keeps
// a given handle value from coming back for as long as possible.
#include <cstring>

#include "QXException.h"
#include "QXMemory.h"
#include "resources/QXResourceInternal.h"

using namespace QXRes;

namespace {

struct TQXHandleSlot {
  TQXResource* object;
  uint32_t generation;  // 12 bits
  uint32_t nextFree;    // index + 1 of the next free slot, 0 at the end of the queue
};

constexpr uint32_t kIndexBits = 20;
constexpr uint32_t kIndexMask = (1u << kIndexBits) - 1;
constexpr uint32_t kMaxSlots = kIndexMask;  // index + 1 must fit in 20 bits
constexpr uint8_t kSlotAlignShift = 2;      // QXalignedMalloc: 2 << 2 = 8 bytes
static_assert(alignof(TQXHandleSlot) <= (2u << kSlotAlignShift));

TQXHandleSlot* gSlots = nullptr;
uint32_t gSlotCount = 0;
uint32_t gFreeHead = 0;  // index + 1, 0: empty
uint32_t gFreeTail = 0;

uint32_t MakeHandle(uint32_t index) {
  return (gSlots[index].generation << kIndexBits) | (index + 1);
}

}  // namespace

uint32_t QXRes::QXResPeekHandle(const TQXResource* resource) {
  return resource ? TQXResourceFile::Access::HandleField(*const_cast<TQXResource*>(resource)) : 0;
}

uint32_t QXRes::QXResHandleOf(TQXResource* resource) {
  uint32_t& handle = TQXResourceFile::Access::HandleField(*resource);
  if (handle) return handle;
  uint32_t index;
  if (gFreeHead) {
    index = gFreeHead - 1;
    gFreeHead = gSlots[index].nextFree;
    if (!gFreeHead) gFreeTail = 0;
  } else {
    if (gSlotCount >= kMaxSlots) return 0;
    const uint32_t grown = gSlotCount < 64 ? 64 : gSlotCount * 2;
    const uint32_t count = grown < kMaxSlots ? grown : kMaxSlots;
    // The allocator's blocks are 4-byte aligned; the slots hold pointers (alignment 8).
    auto* slots = static_cast<TQXHandleSlot*>(
        QXalignedMalloc(count * uint32_t(sizeof(TQXHandleSlot)), kSlotAlignShift));
    if (!slots) return 0;
    if (gSlots) {
      std::memcpy(slots, gSlots, gSlotCount * sizeof(TQXHandleSlot));
      QXalignedFree(gSlots);
    }
    gSlots = slots;
    // The new slots join the free queue behind the one taken now.
    for (uint32_t i = gSlotCount; i < count; ++i)
      gSlots[i] = {nullptr, 0, i + 2 <= count ? i + 2 : 0};
    index = gSlotCount;
    if (index + 1 < count) {
      gFreeHead = index + 2;
      gFreeTail = count;
    }
    gSlotCount = count;
  }
  gSlots[index].object = resource;
  gSlots[index].nextFree = 0;
  handle = MakeHandle(index);
  return handle;
}

TQXResource* QXRes::QXResResolve(uint32_t handle) {
  const uint32_t index = (handle & kIndexMask);
  if (index == 0 || index > gSlotCount) return nullptr;
  const TQXHandleSlot& slot = gSlots[index - 1];
  return MakeHandle(index - 1) == handle ? slot.object : nullptr;
}

void QXRes::QXResForgetHandle(TQXResource* resource) {
  const uint32_t handle = TQXResourceFile::Access::HandleField(*resource);
  TQXResourceFile::Access::HandleField(*resource) = 0;
  if (!handle || QXResResolve(handle) != resource) return;
  const uint32_t index = (handle & kIndexMask) - 1;
  gSlots[index].object = nullptr;
  gSlots[index].generation = (gSlots[index].generation + 1) & 0xFFF;
  gSlots[index].nextFree = 0;
  if (gFreeTail)
    gSlots[gFreeTail - 1].nextFree = index + 1;
  else
    gFreeHead = index + 1;
  gFreeTail = index + 1;
}

// --- TQXResource -------------------------------------------------------------------------------

TQXResource::TQXResource(void* block, uint32_t bytes, int16_t newID, uint32_t newType,
                         const TQXString& newName)
    : file(nullptr),
      size(bytes),
      data(block ? block : QXmalloc(bytes)),
      id(newID),
      type(newType),
      attributes(0),
      useCount(1),
      name(newName),
      freeStanding(true),
      handle(0) {}

TQXResource::TQXResource(void* block, uint32_t bytes, int16_t newID, uint32_t newType,
                         const TQXString& newName, TQXResourceFile* owner)
    : file(owner),
      size(bytes),
      data(block),
      id(newID),
      type(newType),
      attributes(0),
      useCount(0),
      name(newName),
      freeStanding(false),
      handle(0) {}

TQXResource::~TQXResource() {
  // An attached object leaves its entry first. The file would destroy it a second time to free
  // its data; here the entry is only emptied and the data freed below, once. When the entry
  // refuses (changed), its slot keeps the handle, which now resolves to nothing.
  if (!freeStanding && file) {
    TQXResourceFile* owner = file;
    file = nullptr;
    const int64_t ref = TQXResourceFile::Access::FindEntry(*owner, this);
    if (ref >= 0 && !(Get32(owner->map + ref + kRefAttrPos) & kChangedBit))
      Put32(owner->map + ref + kRefSlot, 0);
  }
  QXfree(data);
  QXResForgetHandle(this);
}

uint32_t TQXResource::ReleaseResource() {
  if (useCount > 0 && --useCount > 0) return 0;
  if (!freeStanding) {
    freeStanding = true;
    if (file) return file->DropEntry(this, true);
    return 0;
  }
  // Free-standing, yet still held by an entry: an earlier last release was refused because the
  // entry is changed. Destroying it now would leave the entry pointing at a dead object and lose
  // the data that the next rewrite is to write; the entry decides again instead.
  if (file && TQXResourceFile::Access::FindEntry(*file, this) >= 0)
    return file->DropEntry(this, true);
  delete this;
  return 0;
}

uint32_t TQXResource::Remove() {
  if (!file) return 0;
  const uint32_t result = file->RemoveEntry(this);
  file = nullptr;
  freeStanding = true;
  return result;
}

uint32_t TQXResource::Write() {
  return file ? file->WriteEntry(this) : kQXErrResource;
}

uint32_t TQXResource::MarkChanged() {
  return file ? file->MarkChanged(this) : 0;
}

uint32_t TQXResource::Forget() {
  return file ? file->ForgetEntry(this) : 0;
}

uint32_t TQXResource::GetAttributes(uint32_t& out) {
  if (file) file->GetEntryAttributes(this, attributes);
  out = attributes;
  return 0;
}

uint32_t TQXResource::SetAttributes(uint32_t value) {
  attributes = value;
  return file ? file->SetEntryAttributes(this, value) : 0;
}

uint32_t TQXResource::SetInfo(int16_t newID, const TQXString* newName) {
  id = newID;
  if (newName) name = *newName;
  return file ? file->SetEntryInfo(this) : 0;
}

void TQXResource::AdoptData(void* block, uint32_t newSize) {
  if (block != data) QXfree(data);
  data = block;
  size = newSize;
}

// --- The lost-resource handler -------------------------------------------------------------------

TQXLostResourceHandler::~TQXLostResourceHandler() = default;

uint32_t TQXLostResourceHandler::HandleLostResource(uint32_t, int16_t, TQXResource*&, bool) {
  return kQXErrResource;
}

// --- The stream --------------------------------------------------------------------------------

namespace {

// A stream window on the blob. A size of 0 must not reach the memory stream with a buffer: it
// would read the buffer as a zero-terminated text. A blob past 2 GiB is seen up to 2 GiB.
void* WindowData(const TQXResource& r) {
  return r.GetSize() ? r.GetData() : nullptr;
}
int32_t WindowSize(const TQXResource& r) {
  if (!r.GetData()) return 0;
  return r.GetSize() > 0x7FFFFFFFu ? 0x7FFFFFFF : int32_t(r.GetSize());
}

}  // namespace

TQXResourceStream::TQXResourceStream(TQXResource& r, uint32_t streamMode)
    : TQXByteSwapStream(WindowSize(r) ? WindowData(r) : nullptr, WindowSize(r), streamMode),
      resource(&r) {}

TQXResourceStream::~TQXResourceStream() = default;
