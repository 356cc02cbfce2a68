// The resource file engine: opening and closing, the chain of open files, the known-files
// table, lookups, counting, string lists, and the changes to the map image that AddResource,
// RemoveEntry and SetEntryInfo make.
//
// The image's layout is that of the map (QXResourceFile.h). Adding an entry inserts bytes in the
// middle of the image and shifts what follows: the new reference goes at the end of its type's
// list, a new type's entry at the end of the type list and its (empty) reference list where the
// name list began, and the name at the very end. Removing an entry only closes the gap inside its
// list (and in the type list when its type goes): the freed bytes stay at the list's end until
// the next rewrite compacts the disk.
#include <cstdlib>
#include <string>

#include "QXException.h"
#include "QXMemory.h"
#include "resources/QXResourceInternal.h"

using namespace QXRes;

TQXResourceFile* TQXResourceFile::fgCurrent = nullptr;
TQXArray<TQXResourceFileEntry*> TQXResourceFile::fgKnownFiles(0xB0008000u);
TQXLostResourceHandler* TQXResourceFile::fgLostHandler = nullptr;
void* TQXResourceFile::fgSecond = nullptr;

namespace {

// At exit the known-files table is emptied the way ShutDown empties it (defined after the table,
// so destroyed before it).
struct TQXKnownFilesAtExit {
  ~TQXKnownFilesAtExit() { TQXResourceFile::ShutDown(); }
} gKnownFilesAtExit;

constexpr int32_t kMaxStored16 = 0x7FFF;

// The entry that holds `ref` in a host-order image: its type entry and index in the list.
struct TQXLocation {
  int32_t typeIndex = -1;
  uint32_t typeEntry = 0;
  int32_t refIndex = -1;
};

TQXLocation Locate(const uint8_t* map, uint32_t ref) {
  TQXLocation at;
  const TQXMapWalk walk(map, Get32(map + kMapLength));
  const int32_t types = walk.TypeCount();
  for (int32_t t = 0; t < types; ++t) {
    const uint32_t entry = walk.TypeEntry(t);
    const int32_t refs = walk.RefCount(entry);
    if (refs == 0) continue;
    const int64_t first = walk.RefList(entry);
    if (ref < first || ref >= first + int64_t(refs) * kRefEntrySize) continue;
    if ((ref - first) % kRefEntrySize) continue;
    at.typeIndex = t;
    at.typeEntry = entry;
    at.refIndex = int32_t((ref - first) / kRefEntrySize);
    return at;
  }
  return at;
}

}  // namespace

// --- Entries of the known-files table -----------------------------------------------------------

TQXResourceFileEntry::TQXResourceFileEntry(const TQXString& path, TQXResourceFile* openFile)
    : TQXDynamicString(path), file(openFile) {}

TQXResourceFileEntry::~TQXResourceFileEntry() = default;

// --- Shared operations ---------------------------------------------------------------------------

int64_t TQXResourceFile::Access::FindEntry(const TQXResourceFile& rf, const TQXResource* resource) {
  const uint32_t handle = QXResPeekHandle(resource);
  if (!rf.map || !handle) return -1;
  const TQXMapWalk walk(rf.map, Get32(rf.map + kMapLength));
  // Reference entries lie past the map header, so an entry's offset is never 0.
  const uint32_t ref = walk.ForEachRef([&](uint32_t, uint32_t entry) {
    return Get32(rf.map + entry + kRefSlot) == handle ? entry : 0;
  });
  return ref ? int64_t(ref) : -1;
}

void TQXResourceFile::Access::Unload(TQXResourceFile& rf) {
  rf.dirty = false;
  if (!rf.map) return;
  const TQXMapWalk walk(rf.map, Get32(rf.map + kMapLength));
  walk.ForEachRef([&](uint32_t, uint32_t ref) {
    TQXResource* object = SlotObject(rf.map, ref);
    Put32(rf.map + ref + kRefSlot, 0);
    if (object) {
      // Whatever its use count: a holder that outlives the file holds nothing.
      object->freeStanding = true;
      object->file = nullptr;
      delete object;
    }
    return 0u;
  });
  QXfree(rf.map);
  rf.map = nullptr;
}

// --- Opening and closing -----------------------------------------------------------------------

TQXResourceFile::TQXResourceFile(IQXFile* newFile, bool writable, bool preloading)
    : file(newFile),
      map(nullptr),
      dirty(false),
      preload(preloading),
      linked(false),
      knownIndex(0xFFFFFFFFu),
      next(nullptr),
      openResult(0) {
  if (!file) {  // guarded: the original calls through the pointer
    openResult = kQXErrFailed;
    return;
  }
  file->AddRef();
  const bool wasOpen = file->IsOpen();
  uint32_t result = file->SetAccess(writable ? 3 : 1);
  if (!result) result = file->Open();
  if (!result) result = Access::ReadMap(*this);
  openResult = result;
  if (result) {
    next = nullptr;
    Access::Unload(*this);
    // A file opened here is closed again: an unlinked object never closes it, and the file
    // object does not close itself when it dies.
    if (!wasOpen) file->Close();
    return;
  }
  next = fgCurrent;
  fgCurrent = this;
  linked = true;

  TQXStringUTF8 path;
  file->GetPath(path);
  const TQXDynamicString text{std::string(path)};
  for (uint32_t i = 0; i < fgKnownFiles.Count(); ++i) {
    TQXResourceFileEntry* entry = fgKnownFiles[i];
    if (entry && *entry == text) {
      knownIndex = i;
      if (!entry->file) entry->file = this;
      return;
    }
  }
  // Out of memory leaves the file open and the table as it was (and the file unregistered).
  auto* entry = new TQXResourceFileEntry(text, this);
  if (!entry) return;
  if (!fgKnownFiles.Append(entry)) {
    delete entry;
    return;
  }
  knownIndex = fgKnownFiles.Count() - 1;
}

TQXResourceFile::~TQXResourceFile() {
  if (linked) {
    UpdateResFile(nullptr);  // the result is lost
    if (fgCurrent == this) {
      fgCurrent = next;
    } else {
      for (TQXResourceFile* f = fgCurrent; f; f = f->next) {
        if (f->next == this) {
          f->next = next;
          break;
        }
      }
    }
    if (knownIndex < fgKnownFiles.Count() && fgKnownFiles[knownIndex])
      fgKnownFiles[knownIndex]->file = nullptr;
    Access::Unload(*this);
    file->Close();
    linked = false;
  }
  // No table entry may keep pointing here: OpenKnownFile keeps unlinked files in entries too.
  for (uint32_t i = 0; i < fgKnownFiles.Count(); ++i)
    if (fgKnownFiles[i] && fgKnownFiles[i]->file == this) fgKnownFiles[i]->file = nullptr;
  if (file) file->Release();
  file = nullptr;
}

uint32_t TQXResourceFile::GetMapImageSize() const {
  return map ? Get32(map + kMapLength) : 0;
}

uint32_t TQXResourceFile::UpdateResFile(TQXProgress* progress) {
  if (!map) return 0;
  bool needed = dirty;
  if (!needed) {
    const TQXMapWalk walk(map, Get32(map + kMapLength));
    needed = walk.ForEachRef([&](uint32_t, uint32_t ref) {
      return Get32(map + ref + kRefAttrPos) & kChangedBit;
    }) != 0;
  }
  return needed ? Access::Rewrite(*this, progress) : 0;
}

// --- The chain and the table ---------------------------------------------------------------------

void TQXResourceFile::InitCurrentRessourceFile() {
  fgCurrent = nullptr;
  fgSecond = nullptr;
}

void TQXResourceFile::ShutDown() {
  for (uint32_t i = 0; i < fgKnownFiles.Count(); ++i) {
    delete fgKnownFiles[i];
    fgKnownFiles[i] = nullptr;
  }
  fgKnownFiles.Free();
}

TQXResourceFile* TQXResourceFile::GetCurrentFile() {
  return fgCurrent;
}

uint32_t TQXResourceFile::CountKnownFiles() {
  return fgKnownFiles.Count();
}

TQXResourceFileEntry* TQXResourceFile::GetKnownFile(uint32_t index) {
  return index < fgKnownFiles.Count() ? fgKnownFiles[index] : nullptr;
}

void TQXResourceFile::SetLostResourceHandler(TQXLostResourceHandler* handler) {
  fgLostHandler = handler;
}

TQXLostResourceHandler* TQXResourceFile::GetLostResourceHandler() {
  return fgLostHandler;
}

uint32_t TQXResourceFile::OpenKnownFile(uint32_t index, bool& wasOpen) {
  if (index >= fgKnownFiles.Count() || !fgKnownFiles[index]) return 0;
  TQXResourceFileEntry* entry = fgKnownFiles[index];
  if (entry->file) {
    wasOpen = true;
    return 0;
  }
  wasOpen = false;
  TQXFile* opened = nullptr;
  TQXFile::Create(&opened);
  if (!opened) return 0;
  opened->SetFullPath(TQXStringUTF8(*entry), false);
  opened->SetAccess(1);
  if (opened->Exists() && opened->Open() == 0) {
    auto* resourceFile = new TQXResourceFile(opened, false, false);
    // An object that failed to open is kept in the entry too: the host sees it is not linked.
    if (resourceFile) entry->file = resourceFile;
  }
  opened->Release();
  return 0;
}

// --- Lookups -----------------------------------------------------------------------------------

// Loads an entry and hands out one hold on its object.
uint32_t TQXResourceFile::Access::Fetch(TQXResourceFile& rf, uint32_t ref, uint32_t type,
                                        TQXResource*& out, bool read) {
  if (const uint32_t error = LoadEntry(rf, ref, type, read)) return error;
  out = SlotObject(rf.map, ref);
  if (!out) return kQXErrFailed;
  ++out->useCount;
  return 0;
}

uint32_t TQXResourceFile::GetResource(uint32_t type, int16_t id, TQXResource*& out, bool read) {
  return Access::FetchFirst(*this, type, out, read, [&](const TQXMapWalk&, uint32_t ref) {
    return int16_t(Get16(map + ref + kRefID)) == id;
  });
}

uint32_t TQXResourceFile::GetChainedResource(uint32_t type, int16_t id, TQXResource*& out,
                                             bool read) {
  out = nullptr;
  uint32_t result = kQXErrResource;
  for (TQXResourceFile* f = this; f; f = f->next) {
    result = f->GetResource(type, id, out, read);
    if (out) return result;
  }
  return result;
}

uint32_t TQXResourceFile::GetCurrentResource(uint32_t type, int16_t id, TQXResource*& out,
                                             bool read) {
  if (!fgCurrent) {
    out = nullptr;
    return kQXErrResource;
  }
  return fgCurrent->GetResource(type, id, out, read);
}

uint32_t TQXResourceFile::GetAnyResource(uint32_t type, int16_t id, TQXResource*& out, bool read) {
  if (fgCurrent) {
    const uint32_t result = fgCurrent->GetChainedResource(type, id, out, read);
    if (result != kQXErrResource) return result;
  } else {
    out = nullptr;
  }
  if (fgLostHandler) return fgLostHandler->HandleLostResource(type, id, out, read);
  return kQXErrResource;
}

uint32_t TQXResourceFile::GetNamedResource(uint32_t type, const TQXString& name, TQXResource*& out,
                                           bool read) {
  return Access::FetchFirst(*this, type, out, read, [&](const TQXMapWalk& walk, uint32_t ref) {
    const uint8_t* text = walk.Name(ref);
    if (!text) return false;
    TQXString255 candidate;
    candidate.FromPPtr(text);
    return candidate == name;
  });
}

uint32_t TQXResourceFile::GetIndexedResource(uint32_t type, int32_t index, TQXResource*& out,
                                             bool read) {
  out = nullptr;
  if (!map) return kQXErrResource;
  const TQXMapWalk walk(map, Get32(map + kMapLength));
  const int64_t entry = walk.FindType(type);
  if (entry < 0) return kQXErrResource;
  if (index < 1 || index > walk.RefCount(uint32_t(entry))) return kQXErrResource;
  const uint32_t result =
      Access::Fetch(*this, walk.RefEntry(uint32_t(entry), index - 1), type, out, read);
  if (result) out = nullptr;
  return result;
}

// --- Counting and listing ----------------------------------------------------------------------

int32_t TQXResourceFile::CountResources(uint32_t type) const {
  if (!map) return 0;
  const TQXMapWalk walk(map, Get32(map + kMapLength));
  const int64_t entry = walk.FindType(type);
  return entry < 0 ? 0 : walk.RefCount(uint32_t(entry));
}

int32_t TQXResourceFile::CountTypes() const {
  return map ? TQXMapWalk(map, Get32(map + kMapLength)).TypeCount() : 0;
}

uint32_t TQXResourceFile::GetIndexedType(uint32_t& out, int32_t index) const {
  out = 0;
  if (!map) return kQXErrResource;
  const TQXMapWalk walk(map, Get32(map + kMapLength));
  if (index < 1 || index > walk.TypeCount()) return kQXErrResource;
  out = walk.TypeCode(walk.TypeEntry(index - 1));
  return 0;
}

uint32_t TQXResourceFile::GetIndexedEntryInfo(uint32_t type, int32_t index,
                                              TQXResourceEntryInfo& out) {
  out = TQXResourceEntryInfo();
  if (!map) return kQXErrResource;
  const TQXMapWalk walk(map, Get32(map + kMapLength));
  const int64_t entry = walk.FindType(type);
  if (entry < 0 || index < 1 || index > walk.RefCount(uint32_t(entry))) return kQXErrResource;
  const uint32_t ref = walk.RefEntry(uint32_t(entry), index - 1);
  const uint32_t attrPos = Get32(map + ref + kRefAttrPos);
  out.type = type;
  out.id = int16_t(Get16(map + ref + kRefID));
  out.attributes = uint8_t(attrPos >> 24);
  if (const uint8_t* text = walk.Name(ref)) {
    out.named = true;
    out.name.FromPPtr(text);
  }
  out.dataPosition = attrPos & kPosMask;
  out.loaded = Access::SlotObject(map, ref) != nullptr;
  if (out.dataPosition != kQXResNoData && file && file->IsOpen()) {
    const uint64_t position = uint64_t(Get32(map + kDataOffset)) + out.dataPosition;
    out.onDisk = Access::ReadLengthWord(file, position, out.diskSize) == 0;
  }
  return 0;
}

int32_t TQXResourceFile::UniqueResourceID(uint32_t type) const {
  int32_t candidate = std::rand() & 0x3FFF;
  if (!map) return candidate;
  const TQXMapWalk walk(map, Get32(map + kMapLength));
  const int64_t entry = walk.FindType(type);
  if (entry < 0) return candidate;
  const int32_t refs = walk.RefCount(uint32_t(entry));
  for (int32_t r = 0; r < refs;) {
    if (int16_t(Get16(map + walk.RefEntry(uint32_t(entry), r) + kRefID)) == candidate) {
      ++candidate;  // taken: count up and scan again from the start
      r = 0;
    } else {
      ++r;
    }
  }
  return candidate;
}

uint32_t TQXResourceFile::GetResourceDiskSize(TQXResource* resource, int32_t& out) {
  out = 0;
  const int64_t ref = Access::FindEntry(*this, resource);
  if (ref < 0) return kQXErrResource;
  const uint64_t position =
      uint64_t(Get32(map + kDataOffset)) + (Get32(map + ref + kRefAttrPos) & kPosMask);
  uint32_t length = 0;
  const uint32_t result = Access::ReadLengthWord(file, position, length);
  out = result ? 0 : int32_t(length);
  return result;
}

// --- String lists ------------------------------------------------------------------------------

namespace {

// Reads a string list: its count into `*count` when that is given, else the index-th string into
// `*out`. 0, or kQXErrResource for a bad index or a list that ends early.
uint32_t ReadStringList(TQXResource& list, int16_t index, TQXString* out, uint16_t* count) {
  // The byte-swapping stream's typed reads store nothing when the bytes run out; lastCount
  // tells whether the whole value was there.
  TQXResourceStream stream(list);
  uint16_t n = 0;
  stream >> n;
  if (stream.lastCount != 2) return kQXErrResource;
  if (count) {
    *count = n;
    return 0;
  }
  if (index < 1 || index > n) return kQXErrResource;
  unsigned char length = 0;
  for (int32_t i = 1; i < index; ++i) {
    stream >> length;
    if (stream.lastCount != 1) return kQXErrResource;
    stream.Seek(length, 1);
    if (stream.state & kQXStreamFailed) return kQXErrResource;
  }
  stream >> length;
  if (stream.lastCount != 1) return kQXErrResource;
  char text[256];
  stream.Read(text, length);
  if (stream.lastCount != length) return kQXErrResource;
  out->AssignBytes(text, length);
  return 0;
}

}  // namespace

uint32_t TQXResourceFile::GetIndString(TQXString& out, int16_t id, int16_t index, bool stop) {
  uint32_t result = kQXErrResource;
  for (TQXResourceFile* f = this; f; f = stop ? nullptr : f->next) {
    TQXResource* list = nullptr;
    result = f->GetResource(kQXResTypeStringList, id, list, true);
    if (!list) continue;
    result = ReadStringList(*list, index, &out, nullptr);
    list->ReleaseResource();
    return result;
  }
  return result;
}

uint32_t TQXResourceFile::GetIndString(TQXString& out, int16_t id, int16_t index) {
  if (!fgCurrent || index < 1) return kQXErrResource;
  return fgCurrent->GetIndString(out, id, index, false);
}

uint32_t TQXResourceFile::CountIndStrings(uint16_t& out, int16_t id, bool stop) {
  uint32_t result = kQXErrResource;
  for (TQXResourceFile* f = this; f; f = stop ? nullptr : f->next) {
    TQXResource* list = nullptr;
    result = f->GetResource(kQXResTypeStringList, id, list, true);
    if (!list) continue;
    result = ReadStringList(*list, 0, nullptr, &out);
    list->ReleaseResource();
    return result;
  }
  return result;
}

uint32_t TQXResourceFile::CountIndStrings(uint16_t& out, int16_t id) {
  if (!fgCurrent) return kQXErrResource;
  return fgCurrent->CountIndStrings(out, id, false);
}

// --- Changing the map --------------------------------------------------------------------------

uint32_t TQXResourceFile::AddResource(TQXResource& resource) {
  if (!map) return kQXErrResource;  // guarded: a file whose map failed to read has none
  if (Access::FindEntry(*this, &resource) >= 0) return kQXErrResourceExists;
  const uint32_t oldLength = Get32(map + kMapLength);
  const TQXMapWalk walk(map, oldLength);
  const int64_t tl = walk.TypeList();
  const int64_t nl = walk.NameList();
  const int32_t types = walk.TypeCount();
  if (tl < 0) return kQXErrResource;
  int32_t position = -1;
  for (int32_t t = 0; t < types && position < 0; ++t)
    if (walk.TypeCode(walk.TypeEntry(t)) == resource.type) position = t;
  const bool newType = position < 0;
  if (newType) position = types;
  const uint32_t typeEntry = uint32_t(tl + 2 + int64_t(position) * kTypeEntrySize);
  const int32_t refs = newType ? 0 : walk.RefCount(typeEntry);
  const uint32_t nameLength = resource.name.ByteLength() > 255 ? 255 : resource.name.ByteLength();
  const bool named = nameLength > 0;
  const uint32_t grow = kRefEntrySize + (newType ? kTypeEntrySize : 0);
  const uint64_t newLength = uint64_t(oldLength) + grow + (named ? 1 + nameLength : 0);
  const int64_t newNameList = nl + grow;

  // The map's offsets and counts are 16-bit and signed: an entry that would push one past 32767
  // (or a layout that the insertion rules cannot follow) is refused instead of wrapping.
  const int64_t typeListEnd = tl + 2 + int64_t(types) * kTypeEntrySize;
  if (nl < typeListEnd || nl > oldLength || newNameList > kMaxStored16 ||
      (newType && types >= kMaxStored16) || refs >= kMaxStored16 ||
      (!newType && (int16_t(Get16(map + typeEntry + kTypeRefCount)) + 1 != refs)) ||
      (named && int64_t(newLength - 1 - nameLength) - newNameList > kMaxStored16))
    return kQXErrResource;
  const int64_t insertRef = newType ? nl : walk.RefList(typeEntry) + int64_t(refs) * kRefEntrySize;
  if (insertRef < typeListEnd || insertRef > nl) return kQXErrResource;
  // The shifts below follow the layout that every writer makes: the reference lists after the
  // type list in type order, the name list after them. A map laid out otherwise is refused.
  for (int32_t t = 0; t < types; ++t) {
    const uint32_t entry = walk.TypeEntry(t);
    const int32_t shift = (newType ? 8 : 0) + (t > position ? 12 : 0);
    if (int16_t(Get16(map + entry + kTypeRefList)) + shift > kMaxStored16) return kQXErrResource;
    const int32_t count = walk.RefCount(entry);
    if (count == 0) continue;
    const int64_t start = walk.RefList(entry), end = start + int64_t(count) * kRefEntrySize;
    if (start < typeListEnd || end > nl) return kQXErrResource;
    if (t < position && end > insertRef) return kQXErrResource;
    if (t > position && start < insertRef) return kQXErrResource;
  }

  auto* image = static_cast<uint8_t*>(QXmalloc(uint32_t(newLength)));
  if (!image) return kQXErrNoMemory;
  if (!QXResHandleOf(&resource)) {
    QXfree(image);
    return kQXErrNoMemory;
  }
  std::memcpy(image, map, oldLength);
  QXfree(map);
  map = image;
  Put32(map + kMapLength, uint32_t(newLength));

  for (int32_t t = 0; t < types; ++t) {
    const uint32_t entry = uint32_t(tl + 2 + int64_t(t) * kTypeEntrySize);
    const int32_t shift = (newType ? 8 : 0) + (t > position ? 12 : 0);
    Put16(map + entry + kTypeRefList, uint16_t(int16_t(Get16(map + entry + kTypeRefList)) + shift));
  }
  uint32_t length = oldLength;
  int64_t insertAt = insertRef;
  if (newType) {
    std::memmove(map + typeEntry + kTypeEntrySize, map + typeEntry, length - typeEntry);
    length += kTypeEntrySize;
    Put32(map + typeEntry + kTypeCode, resource.type);
    Put16(map + typeEntry + kTypeRefCount, 0xFFFF);
    Put16(map + typeEntry + kTypeRefList, uint16_t(nl - tl + kTypeEntrySize));
    Put16(map + tl, uint16_t(types));  // the stored count, count - 1, of types + 1 types
    insertAt += kTypeEntrySize;
  }
  Put16(map + kNameListOffset, uint16_t(newNameList));
  Put16(map + typeEntry + kTypeRefCount, uint16_t(refs));  // count - 1 of refs + 1 entries

  uint8_t* ref = map + insertAt;
  std::memmove(ref + kRefEntrySize, ref, length - uint32_t(insertAt));
  length += kRefEntrySize;
  Put16(ref + kRefID, uint16_t(resource.id));
  Put16(ref + kRefName, 0xFFFF);
  Put32(ref + kRefAttrPos, kChangedBit | kQXResNoData);
  Put32(ref + kRefSlot, resource.handle);
  if (named) {
    uint8_t* text = map + length;
    text[0] = uint8_t(nameLength);
    std::memcpy(text + 1, resource.name.StrGet(), nameLength);
    Put16(ref + kRefName, uint16_t(int64_t(length) - newNameList));
  }
  resource.file = this;
  resource.freeStanding = false;
  return 0;
}

uint32_t TQXResourceFile::RemoveEntry(TQXResource* resource) {
  const int64_t ref = Access::FindEntry(*this, resource);
  if (ref < 0) return kQXErrResource;
  if (Get32(map + ref + kRefAttrPos) & kProtectedBit) return kQXErrResourceLocked;
  const TQXLocation at = Locate(map, uint32_t(ref));
  if (at.typeIndex < 0) return kQXErrResource;
  const TQXMapWalk walk(map, Get32(map + kMapLength));
  const int32_t refs = walk.RefCount(at.typeEntry);
  const int32_t types = walk.TypeCount();
  // Locate found the entry inside both lists, so both counts of entries behind it are >= 0.
  const uint32_t refsBehind = uint32_t(refs - 1 - at.refIndex);
  const uint32_t typesBehind = uint32_t(types - 1 - at.typeIndex);
  std::memmove(map + ref, map + ref + kRefEntrySize, refsBehind * kRefEntrySize);
  Put16(map + at.typeEntry + kTypeRefCount, uint16_t(refs - 2));
  if (refs - 2 < 0) {
    std::memmove(map + at.typeEntry, map + at.typeEntry + kTypeEntrySize,
                 typesBehind * kTypeEntrySize);
    Put16(map + walk.TypeList(), uint16_t(types - 2));
  }
  dirty = true;
  return 0;
}

uint32_t TQXResourceFile::SetEntryInfo(TQXResource* resource) {
  const int64_t ref = Access::FindEntry(*this, resource);
  if (ref < 0) return kQXErrResource;
  if (Get32(map + ref + kRefAttrPos) & kProtectedBit) return kQXErrResourceMissing;
  Put16(map + ref + kRefID, uint16_t(resource->id));
  const uint32_t length = resource->name.ByteLength() > 255 ? 255 : resource->name.ByteLength();
  const uint32_t mapLength = Get32(map + kMapLength);
  const uint8_t* old = TQXMapWalk(map, mapLength).Name(uint32_t(ref));
  if (old && length <= old[0]) {
    uint8_t* text = map + (old - map);
    text[0] = uint8_t(length);
    std::memcpy(text + 1, resource->name.StrGet(), length);
    return 0;
  }
  // The name goes to the end of the image, and its offset is the old map length as it stands,
  // measured from the image's start while names are read from the name list: such a name reads
  // back only where the name list offset is 0 (elsewhere the entry reads as unnamed, or with
  // another entry's bytes).
  auto* image = static_cast<uint8_t*>(QXrealloc(map, mapLength + 1 + length));
  if (!image) return kQXErrNoMemory;
  map = image;
  map[mapLength] = uint8_t(length);
  std::memcpy(map + mapLength + 1, resource->name.StrGet(), length);
  Put16(map + ref + kRefName, uint16_t(mapLength));
  Put32(map + kMapLength, mapLength + 1 + length);
  return 0;
}

// --- Per-entry operations ------------------------------------------------------------------------

uint32_t TQXResourceFile::DropEntry(TQXResource* resource, bool destroy) {
  const int64_t ref = Access::FindEntry(*this, resource);
  if (ref < 0) return kQXErrResource;
  if (Get32(map + ref + kRefAttrPos) & kChangedBit) return kQXErrResourceMissing;
  Put32(map + ref + kRefSlot, 0);
  if (destroy) {
    resource->freeStanding = true;
    delete resource;
  }
  return 0;
}

uint32_t TQXResourceFile::MarkChanged(TQXResource* resource) {
  const int64_t ref = Access::FindEntry(*this, resource);
  if (ref < 0) return kQXErrResource;
  const uint32_t attrPos = Get32(map + ref + kRefAttrPos);
  if (attrPos & kProtectedBit) return kQXErrResourceMissing;
  Put32(map + ref + kRefAttrPos, attrPos | kChangedBit);
  return 0;
}

uint32_t TQXResourceFile::ForgetEntry(TQXResource* resource) {
  const int64_t ref = Access::FindEntry(*this, resource);
  if (ref < 0) return kQXErrResource;
  if (Get32(map + ref + kRefAttrPos) & kChangedBit) return kQXErrResourceMissing;
  Put32(map + ref + kRefSlot, 0);
  return 0;
}

uint32_t TQXResourceFile::WriteEntry(TQXResource* resource) {
  const int64_t ref = Access::FindEntry(*this, resource);
  if (ref < 0) return kQXErrResource;
  return Access::WriteInPlace(*this, uint32_t(ref));
}

uint32_t TQXResourceFile::GetEntryAttributes(TQXResource* resource, uint32_t& out) {
  const int64_t ref = Access::FindEntry(*this, resource);
  if (ref < 0) return kQXErrResource;
  out = Get32(map + ref + kRefAttrPos) >> 24;
  return 0;
}

uint32_t TQXResourceFile::SetEntryAttributes(TQXResource* resource, uint32_t value) {
  const int64_t ref = Access::FindEntry(*this, resource);
  if (ref < 0) return kQXErrResource;
  const uint32_t attrPos = Get32(map + ref + kRefAttrPos);
  Put32(map + ref + kRefAttrPos, (attrPos & kPosMask) | ((value & 0xFF) << 24));
  return 0;
}

// --- The image check ---------------------------------------------------------------------------

uint32_t TQXResourceFile::CheckMap(TQXString& message) const {
  if (!map) {
    message.FromCPtr("no map image");
    return kQXErrIO;
  }
  const uint32_t size = Get32(map + kMapLength);
  if (const uint32_t error = QXCheckMapStructure(map, size, false, &message, false)) return error;
  const TQXMapWalk walk(map, size);
  const int32_t types = walk.TypeCount();
  for (int32_t t = 0; t < types; ++t) {
    const uint32_t entry = walk.TypeEntry(t);
    const int32_t refs = walk.RefCount(entry);
    for (int32_t r = 0; r < refs; ++r) {
      const uint32_t ref = walk.RefEntry(entry, r);
      const TQXResource* object = Access::SlotObject(map, ref);
      if (!object) continue;
      std::string problem;
      if (object->type != walk.TypeCode(entry))
        problem = "a live object of another type";
      else if (Access::FindEntry(*this, object) != ref)
        problem = "a live object that another entry holds too";
      else if (object->file != this && !object->freeStanding)
        problem = "a live object attached to another file";
      if (!problem.empty()) {
        const std::string text = "entry " + std::to_string(r + 1) + " of type " +
                                 std::to_string(t + 1) + " holds " + problem;
        message.FromCPtr(text.c_str());
        return kQXErrIO;
      }
    }
  }
  message.FromCPtr("ok");
  return 0;
}
