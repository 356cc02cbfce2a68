// The resource file format: reading the map into its host-order image, loading one blob,
// rewriting the whole file, writing one block in place, and the structure checks.
//
// Every number read from a file is treated as hostile until checked: the map must lie inside
// the file before it is allocated, its structure must lie inside the map before it is swapped,
// and a blob must lie inside the file before its buffer is allocated. After that, TQXMapWalk
// keeps every access inside the image.
#include <algorithm>
#include <cstdio>
#include <string>

#include "Platform/QXPlatform.h"
#include "Platform/QXPlatformFileSystem.h"
#include "QXException.h"
#include "QXFile.h"
#include "QXMemory.h"
#include "QXPlatformUtilities.h"
#include "resources/QXResourceInternal.h"

using namespace QXRes;

namespace {

// A type code as text for messages: its four characters when printable, else hex.
std::string CodeText(uint32_t code) {
  char text[16];
  bool printable = true;
  text[0] = '\'';
  for (int i = 0; i < 4; ++i) {
    const uint8_t c = uint8_t(code >> (24 - 8 * i));
    if (c < 0x20 || c > 0x7E) printable = false;
    text[1 + i] = char(c);
  }
  text[5] = '\'';
  // Built in one buffer: "'" + std::string draws a false -Wrestrict from g++ 12 at -O3.
  if (printable) return std::string(text, 6);
  std::snprintf(text, sizeof text, "0x%08X", code);
  return text;
}

uint32_t Refuse(TQXString* message, const char* format, int64_t a = 0, int64_t b = 0,
                int64_t c = 0) {
  if (message) {
    char text[256];
    std::snprintf(text, sizeof text, format, (long long)a, (long long)b, (long long)c);
    message->FromCPtr(text);
  }
  return kQXErrIO;
}

struct TQXSpan {
  int64_t start, end;  // [start, end) in the map
  bool operator<(const TQXSpan& other) const { return start < other.start; }
};

// Reads exactly `count` bytes at `position`.
uint32_t ReadAt(IQXFile* file, uint64_t position, void* buffer, uint32_t count) {
  if (position > 0x7FFFFFFFu) return kQXErrEndOfFile;  // past any position the interface takes
  if (const uint32_t error = file->SetPosition(int32_t(position), 0)) return error;
  uint32_t done = 0;
  return file->Read(buffer, count, &done);
}

// The file writer of the rewrite and of in-place writes: collects small writes into one block
// (when it has one: `buffered` and the allocation succeeded), so that a map of thousands of
// entries costs a few system calls, not one per entry. The first error sticks and ends all
// writing.
class TQXBufferedWriter {
 public:
  TQXBufferedWriter(IQXFile* file, bool buffered)
      : file_(file), buffer_(buffered ? static_cast<uint8_t*>(QXmalloc(kCapacity)) : nullptr) {}
  ~TQXBufferedWriter() { QXfree(buffer_); }
  TQXBufferedWriter(const TQXBufferedWriter&) = delete;
  TQXBufferedWriter& operator=(const TQXBufferedWriter&) = delete;

  void Put(const void* data, uint32_t count) {
    if (error_ || count == 0) return;
    if (!buffer_ || count > kCapacity - used_) {
      Flush();
      if (!buffer_ || count >= kCapacity) {
        uint32_t done = 0;
        if (!error_) error_ = file_->Write(data, count, &done);
        return;
      }
    }
    std::memcpy(buffer_ + used_, data, count);
    used_ += count;
  }
  // `count` zero bytes.
  void PutZeros(uint32_t count) {
    static const uint8_t zeros[256] = {};
    while (count && !error_) {
      const uint32_t n = count < sizeof zeros ? count : uint32_t(sizeof zeros);
      Put(zeros, n);
      count -= n;
    }
  }
  void PutBE16(uint16_t v) {
    uint8_t b[2];
    QXRes::PutBE16(b, v);
    Put(b, 2);
  }
  void PutBE32(uint32_t v) {
    uint8_t b[4];
    QXRes::PutBE32(b, v);
    Put(b, 4);
  }
  void Flush() {
    if (used_ && !error_) {
      uint32_t done = 0;
      error_ = file_->Write(buffer_, used_, &done);
    }
    used_ = 0;
  }
  void Seek(uint32_t position) {
    Flush();
    if (!error_)
      error_ = position > 0x7FFFFFFFu ? kQXErrIO : file_->SetPosition(int32_t(position), 0);
  }
  uint32_t Error() const { return error_; }

 private:
  static constexpr uint32_t kCapacity = 64 * 1024;
  IQXFile* file_;
  uint8_t* buffer_;
  uint32_t used_ = 0;
  uint32_t error_ = 0;
};

// Steps 1 to 6 of reading, without preloading: the host-order image of the file's map in
// `*out` (from QXmalloc), or a failure with `*out` null.
uint32_t LoadImage(IQXFile* file, uint8_t** out, TQXString* message) {
  *out = nullptr;
  uint8_t header[kQXResHeaderSize];
  if (const uint32_t error = ReadAt(file, 0, header, kQXResHeaderSize)) {
    if (message) message->FromCPtr("cannot read the 256-byte file header");
    return error;
  }
  const uint32_t fields[4] = {GetBE32(header), GetBE32(header + 4), GetBE32(header + 8),
                              GetBE32(header + 12)};
  const uint32_t mapOffset = fields[1], mapLength = fields[3];
  if (mapLength < kQXResMapHeaderSize)
    return Refuse(message, "map length %lld is below 28", mapLength);
  // The map must lie in the file before anything is allocated for it: a map length from a
  // damaged header would otherwise ask for up to 4 GiB.
  uint32_t fileLength = 0;
  if (const uint32_t error = file->GetLength(&fileLength)) return error;
  if (uint64_t(mapOffset) + mapLength > fileLength)
    return Refuse(message,
                  "map at %lld, %lld bytes long, runs past the end of the file (%lld bytes)",
                  mapOffset, mapLength, fileLength);
  auto* map = static_cast<uint8_t*>(QXmalloc(mapLength));
  if (!map) return kQXErrFailed;
  if (const uint32_t error = ReadAt(file, mapOffset, map, mapLength)) {
    QXfree(map);
    return error;
  }
  if (const uint32_t error = QXCheckMapStructure(map, mapLength, true, message)) {
    QXfree(map);
    return error;
  }
  // Swap the map header: five words, four halves; then the file header's values go over the
  // first four words.
  for (uint32_t i = 0; i < 20; i += 4)
    Put32(map + i, GetBE32(map + i));
  for (uint32_t i = 20; i < 28; i += 2)
    Put16(map + i, GetBE16(map + i));
  for (uint32_t i = 0; i < 4; ++i)
    Put32(map + 4 * i, fields[i]);
  // The structure check has shown that the type list and the reference lists lie inside the map
  // and do not overlap, so each field is swapped exactly once.
  const uint32_t tl = uint16_t(int16_t(Get16(map + kTypeListOffset)));
  Put16(map + tl, GetBE16(map + tl));
  const TQXMapWalk walk(map, mapLength);
  const int32_t types = walk.TypeCount();
  for (int32_t t = 0; t < types; ++t) {
    uint8_t* entry = map + walk.TypeEntry(t);
    Put32(entry + kTypeCode, GetBE32(entry + kTypeCode));
    Put16(entry + kTypeRefCount, GetBE16(entry + kTypeRefCount));
    Put16(entry + kTypeRefList, GetBE16(entry + kTypeRefList));
    const int32_t refs = walk.RefCount(uint32_t(entry - map));
    for (int32_t r = 0; r < refs; ++r) {
      uint8_t* ref = map + walk.RefEntry(uint32_t(entry - map), r);
      Put16(ref + kRefID, GetBE16(ref + kRefID));
      Put16(ref + kRefName, GetBE16(ref + kRefName));
      Put32(ref + kRefAttrPos, GetBE32(ref + kRefAttrPos));
      Put32(ref + kRefSlot, 0);
    }
  }
  *out = map;
  return 0;
}

TQXPlatformFileSystem& FS() {
  return QXPlatform::Get<TQXPlatformFileSystem>();
}

}  // namespace

// --- Structure ---------------------------------------------------------------------------------

uint32_t QXRes::QXCheckMapStructure(const uint8_t* map, uint32_t size, bool bigEndian,
                                    TQXString* message, bool checkNames) {
  auto g16 = [&](int64_t at) { return int16_t(bigEndian ? GetBE16(map + at) : Get16(map + at)); };
  auto g32 = [&](int64_t at) { return bigEndian ? GetBE32(map + at) : Get32(map + at); };
  if (!map || size < kQXResMapHeaderSize)
    return Refuse(message, "map length %lld is below 28", size);
  const int64_t tl = g16(kTypeListOffset);
  if (tl < int64_t(kQXResMapHeaderSize) || tl + 2 > size)
    return Refuse(message, "type list offset %lld lies outside the map (%lld bytes)", tl, size);
  int64_t types = g16(tl) + 1;
  if (types < 0) types = 0;
  const int64_t typeListEnd = tl + 2 + types * kTypeEntrySize;
  if (typeListEnd > size)
    return Refuse(message, "type list of %lld types runs past the end of the map (%lld bytes)",
                  types, size);

  // Every structure of the map as a span: the header, the type list, each reference list.
  // Aligned for the 64-bit fields (the allocator's own blocks are 4-byte aligned).
  auto* spans = static_cast<TQXSpan*>(QXalignedMalloc(uint32_t((types + 2) * sizeof(TQXSpan)), 2));
  if (!spans) return kQXErrFailed;
  int64_t n = 0;
  spans[n++] = {0, kQXResMapHeaderSize};
  spans[n++] = {tl, typeListEnd};
  uint32_t result = 0;
  for (int64_t t = 0; t < types && !result; ++t) {
    const int64_t entry = tl + 2 + t * kTypeEntrySize;
    int64_t refs = g16(entry + kTypeRefCount) + 1;
    if (refs <= 0) continue;
    const int64_t list = tl + g16(entry + kTypeRefList);
    if (list < 0 || list + refs * kRefEntrySize > size) {
      result =
          Refuse(message, "reference list of type %lld (%lld entries at %lld) runs outside the map",
                 t + 1, refs, list);
      break;
    }
    spans[n++] = {list, list + refs * kRefEntrySize};
  }
  if (!result) {
    std::sort(spans, spans + n);
    for (int64_t i = 1; i < n && !result; ++i)
      if (spans[i].start < spans[i - 1].end)
        result = Refuse(message, "map structures overlap at map offsets %lld and %lld",
                        spans[i - 1].start, spans[i].start);
  }
  QXalignedFree(spans);
  if (result || !checkNames) return result;

  // Names: wholly inside the map.
  const int64_t nl = g16(kNameListOffset);
  for (int64_t t = 0; t < types; ++t) {
    const int64_t entry = tl + 2 + t * kTypeEntrySize;
    const int64_t refs = g16(entry + kTypeRefCount) + 1;
    const int64_t list = tl + g16(entry + kTypeRefList);
    for (int64_t r = 0; r < refs; ++r) {
      const int64_t ref = list + r * kRefEntrySize;
      const int16_t offset = g16(ref + kRefName);
      if (offset == -1) continue;
      const int64_t at = nl + offset;
      if (at < 0 || at + 1 > size || at + 1 + map[at] > size) {
        if (message) {
          const std::string text = "name of " + CodeText(g32(entry)) + " id " +
                                   std::to_string(g16(ref + kRefID)) + " at map offset " +
                                   std::to_string(at) + " runs outside the map";
          message->FromCPtr(text.c_str());
        }
        return kQXErrIO;
      }
    }
  }
  return 0;
}

// --- Reading -----------------------------------------------------------------------------------

uint32_t TQXResourceFile::Access::ReadMap(TQXResourceFile& rf) {
  uint8_t* image = nullptr;
  if (const uint32_t error = LoadImage(rf.file, &image, nullptr)) return error;
  rf.map = image;
  if (!rf.preload) return 0;
  const uint32_t size = Get32(image + kMapLength);
  const TQXMapWalk walk(image, size);
  return walk.ForEachRef([&](uint32_t entry, uint32_t ref) {
    if (!(Get32(rf.map + ref + kRefAttrPos) & kPreloadBit)) return 0u;
    return LoadEntry(rf, ref, walk.TypeCode(entry), true);
  });
}

uint32_t TQXResourceFile::Access::ReadLengthWord(IQXFile* file, uint64_t position,
                                                 uint32_t& length) {
  uint8_t word[4];
  length = 0;
  if (const uint32_t error = ReadAt(file, position, word, 4)) return error;
  length = GetBE32(word);
  return 0;
}

TQXResource* TQXResourceFile::Access::SlotObject(const uint8_t* map, uint32_t refEntry) {
  return QXResResolve(Get32(map + refEntry + kRefSlot));
}

uint32_t TQXResourceFile::Access::LoadEntry(TQXResourceFile& rf, uint32_t ref, uint32_t type,
                                            bool read) {
  TQXResource* object = SlotObject(rf.map, ref);
  if (object && (object->data || !read)) return 0;
  const uint32_t position24 = Get32(rf.map + ref + kRefAttrPos) & kPosMask;
  const uint64_t position = uint64_t(Get32(rf.map + kDataOffset)) + position24;
  uint32_t length = 0;
  // An entry without a block on disk (0xFFFFFF: added, and its object since destroyed) reads as
  // an empty blob instead of reading at a position that holds nothing.
  if (read && position24 != kQXResNoData) {
    if (const uint32_t error = ReadLengthWord(rf.file, position, length)) return error;
    // The blob must lie in the file before its buffer is allocated; a damaged length would
    // otherwise ask for up to 4 GiB. What the read would have said is said now.
    uint32_t fileLength = 0;
    if (const uint32_t error = rf.file->GetLength(&fileLength)) return error;
    if (position + 4 + length > fileLength) return kQXErrEndOfFile;
  }
  void* buffer = QXmalloc(length);
  if (!buffer && length) return kQXErrFailed;
  TQXString255 name;
  const TQXMapWalk walk(rf.map, Get32(rf.map + kMapLength));
  if (const uint8_t* text = walk.Name(ref)) name.FromPPtr(text);
  const bool made = object == nullptr;
  if (made) {
    object =
        new TQXResource(buffer, length, int16_t(Get16(rf.map + ref + kRefID)), type, name, &rf);
    if (!object) {
      QXfree(buffer);
      return kQXErrFailed;
    }
    const uint32_t handle = QXResHandleOf(object);
    if (!handle) {
      object->freeStanding = true;
      object->file = nullptr;
      delete object;
      return kQXErrFailed;
    }
    Put32(rf.map + ref + kRefSlot, handle);
  } else {
    object->data = buffer;  // the size field stays as it was
  }
  if (read && length > 0) {
    if (const uint32_t error = ReadAt(rf.file, position + 4, buffer, length)) {
      if (made) {
        // A fresh object that nobody holds: it leaves the slot and dies.
        Put32(rf.map + ref + kRefSlot, 0);
        object->freeStanding = true;
        object->file = nullptr;
        delete object;
      } else {
        // An object that was handed out without its data stays as it was: giving back a hold
        // here could destroy it under its holder.
        object->data = nullptr;
        QXfree(buffer);
      }
      return error;
    }
  }
  return 0;
}

// --- Rewriting ---------------------------------------------------------------------------------

uint32_t TQXResourceFile::Access::Rewrite(TQXResourceFile& rf, TQXProgress* progress) {
  TQXFile* temp = nullptr;
  TQXFile::Create(&temp);
  if (!temp) return kQXErrFailed;

  // The temporary file lies beside the real one, so that the final rename replaces the real
  // file in one step, on one file system. A name already taken is skipped.
  TQXStringUTF8 realPath;
  rf.file->GetPath(realPath);
  TQXStringUTF8 folder = realPath;
  TQXFile::JustPathFromPathName(folder);
  const uint32_t tick = TQXPlatformUtilities::TickCount();
  for (uint32_t attempt = 0; attempt < 64; ++attempt) {
    TQXStringUTF8 candidate = folder;
    candidate += TQXStringUTF8("Tmp" + std::to_string(tick + attempt));
    temp->SetFullPath(candidate, false);
    if (!temp->Exists()) break;
  }
  uint32_t result = temp->CreateOnDisk();
  if (result) {
    temp->Release();
    return result;
  }
  if ((result = temp->Open()) != 0) {
    temp->Delete(false);
    temp->Release();
    return result;
  }
  if ((result = temp->SetAccess(2)) != 0) {
    temp->Close();
    temp->Delete(false);
    temp->Release();
    return result;
  }

  uint8_t* const old = rf.map;
  const uint32_t imageSize = Get32(old + kMapLength);
  auto* image = static_cast<uint8_t*>(QXmalloc(imageSize));
  rf.map = image;
  if (progress) progress->Start(TQXString255("Writing resource file"), 100);
  bool committed = false;
  if (!image) {
    result = kQXErrFailed;
  } else {
    std::memcpy(image, old, imageSize);
    const TQXMapWalk walk(image, imageSize);
    const int32_t types = walk.TypeCount();
    TQXBufferedWriter out(temp, true);

    // The placeholder header; only its length matters until the real one replaces it.
    // An entry without a live object is copied from the real file in pieces through this block
    // instead of being loaded whole, written and released: the same bytes and results, without
    // a block of the blob's size to allocate and fault in. Without the block it is loaded.
    constexpr uint32_t kPiece = 1u << 20;
    auto* const piece = static_cast<uint8_t*>(QXmalloc(kPiece));
    auto copyEntry = [&](uint32_t ref, uint32_t& size) -> uint32_t {
      const uint32_t position24 = Get32(image + ref + kRefAttrPos) & kPosMask;
      const uint64_t position = uint64_t(Get32(image + kDataOffset)) + position24;
      size = 0;
      if (position24 != kQXResNoData) {  // as LoadEntry: no block on disk reads as empty
        if (const uint32_t error = ReadLengthWord(rf.file, position, size)) return error;
        uint32_t fileLength = 0;
        if (const uint32_t error = rf.file->GetLength(&fileLength)) return error;
        if (position + 4 + size > fileLength) return kQXErrEndOfFile;
      }
      out.PutBE32(size);
      for (uint32_t done = 0; done < size && !out.Error();) {
        const uint32_t n = size - done < kPiece ? size - done : kPiece;
        if (const uint32_t error = ReadAt(rf.file, position + 4 + done, piece, n)) return error;
        out.Put(piece, n);
        done += n;
      }
      return 0;
    };

    uint8_t header[kQXResHeaderSize] = {};
    Put32(header + 0, kQXResHeaderSize);
    Put32(header + 4, kQXResHeaderSize);
    Put32(header + 8, 0);
    Put32(header + 12, kQXResEmptyMapSize);
    out.Put(header, kQXResHeaderSize);

    // The data area, one blob at a time; a blob not loaded yet is loaded, written and released.
    uint32_t p = 0, dataLength = 0, nameBytes = 0, mapLength = kQXResEmptyMapSize;
    for (int32_t t = 0; t < types && !result && !out.Error(); ++t) {
      const uint32_t entry = walk.TypeEntry(t);
      const uint32_t type = walk.TypeCode(entry);
      mapLength += kTypeEntrySize;
      const int32_t refs = walk.RefCount(entry);
      for (int32_t r = 0; r < refs && !result && !out.Error(); ++r) {
        const uint32_t ref = walk.RefEntry(entry, r);
        TQXResource* object = SlotObject(image, ref);
        uint32_t size = 0;
        if (!object && piece) {
          if ((result = copyEntry(ref, size)) != 0) break;
        } else {
          const bool loadedHere = object == nullptr;
          if (loadedHere) {
            if ((result = LoadEntry(rf, ref, type, true)) != 0) break;
            object = SlotObject(image, ref);
            ++object->useCount;
          }
          size = object->size;
          out.PutBE32(size);
          // A free-standing resource whose buffer could not be allocated has a size and no
          // data; its block is written as zeros rather than read from a null pointer.
          if (object->data)
            out.Put(object->data, size);
          else
            out.PutZeros(size);
          if (loadedHere) object->ReleaseResource();
        }
        if (const uint8_t* name = walk.Name(ref)) nameBytes += 1u + name[0];
        const uint32_t attrPos = Get32(image + ref + kRefAttrPos);
        Put32(image + ref + kRefAttrPos, (attrPos & ~kPosMask) | (p & kPosMask));
        p += 4 + size;
        dataLength += 4 + size;
        mapLength += kRefEntrySize;
      }
    }
    QXfree(piece);
    if (!result) result = out.Error();
    if (!result) {
      const uint32_t mapOffset = dataLength + kQXResHeaderSize;
      mapLength += nameBytes;
      uint8_t mapHeader[kQXResMapHeaderSize];
      PutBE32(mapHeader + 0, kQXResHeaderSize);
      PutBE32(mapHeader + 4, mapOffset);
      PutBE32(mapHeader + 8, dataLength);
      PutBE32(mapHeader + 12, mapLength);
      PutBE32(mapHeader + 16, Get32(image + kReservedWord));
      PutBE16(mapHeader + 20, Get16(image + kReservedHalf1));
      PutBE16(mapHeader + 22, Get16(image + kReservedHalf2));
      PutBE16(mapHeader + 24, uint16_t(kQXResMapHeaderSize));
      PutBE16(mapHeader + 26, uint16_t(mapLength - nameBytes));
      std::memset(header, 0, sizeof header);
      std::memcpy(header, mapHeader, 16);
      out.Seek(0);
      out.Put(header, kQXResHeaderSize);
      out.Seek(mapOffset);
      out.Put(mapHeader, kQXResMapHeaderSize);
      out.Flush();
      result = out.Error();
    }
    if (progress) progress->Report(25);

    if (!result) {
      // The type list.
      out.PutBE16(uint16_t(types - 1));
      uint32_t listOffset = uint32_t(types - 1) * kTypeEntrySize + 10;
      for (int32_t t = 0; t < types; ++t) {
        const uint32_t entry = walk.TypeEntry(t);
        const int32_t refs = walk.RefCount(entry);
        out.PutBE32(walk.TypeCode(entry));
        out.PutBE16(uint16_t(refs - 1));
        out.PutBE16(uint16_t(listOffset));
        listOffset += kRefEntrySize * uint32_t(refs);
      }
      out.Flush();
      if (progress) progress->Report(50);
      result = out.Error();
    }
    if (!result) {
      float value = 50.0f;
      // Guarded: with no types there is no step to take (the division would be by zero).
      const float step = types ? 25.0f / float(types) : 0.0f;
      // The reference lists, with the names' new offsets and the changed bits cleared.
      uint16_t nameOffset = 0;
      for (int32_t t = 0; t < types; ++t) {
        const uint32_t entry = walk.TypeEntry(t);
        const int32_t refs = walk.RefCount(entry);
        for (int32_t r = 0; r < refs; ++r) {
          const uint32_t ref = walk.RefEntry(entry, r);
          uint8_t record[kRefEntrySize] = {};
          PutBE16(record + kRefID, Get16(image + ref + kRefID));
          const uint8_t* name = walk.Name(ref);
          PutBE16(record + kRefName, name ? nameOffset : uint16_t(0xFFFF));
          if (name) nameOffset = uint16_t(nameOffset + 1 + name[0]);
          const uint32_t attrPos = Get32(image + ref + kRefAttrPos) & ~kChangedBit;
          Put32(image + ref + kRefAttrPos, attrPos);
          PutBE32(record + kRefAttrPos, attrPos);
          out.Put(record, kRefEntrySize);
        }
        value += step;
        if (progress) progress->Report(int32_t(value));
      }
      // The names, in the same order.
      for (int32_t t = 0; t < types; ++t) {
        const uint32_t entry = walk.TypeEntry(t);
        const int32_t refs = walk.RefCount(entry);
        for (int32_t r = 0; r < refs; ++r)
          if (const uint8_t* name = walk.Name(walk.RefEntry(entry, r))) out.Put(name, 1u + name[0]);
        value += step;
        if (progress) progress->Report(int32_t(value));
      }
      out.Flush();
      result = out.Error();
    }

    if (!result) {
      // The replacement: one rename over the real file, both closed, the real one opened again
      // if it was open. A failed rename leaves the real file as it was.
      temp->Close();
      TQXStringUTF8 tempPath;
      temp->GetPath(tempPath);
      const bool wasOpen = rf.file->IsOpen();
      rf.file->Close();
      const uint32_t moved =
          FS().Move(std::string(tempPath).c_str(), std::string(realPath).c_str(), true);
      const uint32_t reopened = wasOpen ? rf.file->Open() : 0;
      if (moved) {
        result = moved;
      } else {
        // The new file is in place: the new image stands even if the reopen failed.
        committed = true;
        result = reopened;
      }
    }
  }

  if (!result || committed) {
    QXfree(old);
    rf.dirty = false;
  } else {
    if (image) {
      // An object that the failed rewrite left in a slot of the new image only (a blob loaded
      // there whose release was refused) would be lost with it.
      const TQXMapWalk walk(image, imageSize);
      walk.ForEachRef([&](uint32_t, uint32_t ref) {
        const uint32_t handle = Get32(image + ref + kRefSlot);
        if (handle && handle != Get32(old + ref + kRefSlot)) {
          if (TQXResource* orphan = QXResResolve(handle)) {
            orphan->freeStanding = true;
            orphan->file = nullptr;
            delete orphan;
          }
        }
        return 0u;
      });
      QXfree(image);
    }
    rf.map = old;
  }
  temp->Close();
  if (temp->Exists()) temp->Delete(false);
  temp->Release();
  return result;
}

// --- Writing in place --------------------------------------------------------------------------

uint32_t TQXResourceFile::Access::WriteInPlace(TQXResourceFile& rf, uint32_t ref) {
  const uint32_t attrPos = Get32(rf.map + ref + kRefAttrPos);
  if (!(attrPos & kChangedBit) || (attrPos & kProtectedBit)) return kQXErrResourceMissing;
  TQXResource* object = SlotObject(rf.map, ref);
  if (!object) return kQXErrResource;
  const uint32_t dataOffset = Get32(rf.map + kDataOffset);
  uint32_t position24 = attrPos & kPosMask;
  uint64_t position = uint64_t(dataOffset) + position24;
  uint32_t stored = 0;
  if (position24 != kQXResNoData) {
    if (const uint32_t error = ReadLengthWord(rf.file, position, stored)) return error;
  }
  uint32_t fileSize = 0;
  if (const uint32_t error = rf.file->GetLength(&fileSize)) return error;
  const uint32_t length = object->size;
  if (position24 == kQXResNoData || length > stored) {
    // The block moves behind the end of the file (and so behind the map until the next rewrite).
    position24 = (fileSize - dataOffset) & kPosMask;
    position = fileSize;
  }
  if (position + 4 + length > 0x7FFFFFFFu) return kQXErrIO;
  TQXBufferedWriter out(rf.file, false);
  out.Seek(uint32_t(position));
  out.PutBE32(length);
  if (object->data)
    out.Put(object->data, length);
  else
    out.PutZeros(length);
  out.Flush();
  if (const uint32_t error = out.Error()) return error;
  Put32(rf.map + ref + kRefAttrPos, (attrPos & ~kPosMask & ~kChangedBit) | position24);
  rf.dirty = true;
  return 0;
}

// --- Creating and checking whole files -----------------------------------------------------------

uint32_t TQXResourceFile::CreateEmpty(IQXFile* target) {
  if (!target) return kQXErrFailed;
  uint8_t bytes[kQXResHeaderSize + kQXResEmptyMapSize] = {};
  PutBE32(bytes + 0, kQXResHeaderSize);
  PutBE32(bytes + 4, kQXResHeaderSize);
  PutBE32(bytes + 8, 0);
  PutBE32(bytes + 12, kQXResEmptyMapSize);
  uint8_t* map = bytes + kQXResHeaderSize;
  std::memcpy(map, bytes, 16);
  PutBE16(map + kTypeListOffset, uint16_t(kQXResMapHeaderSize));
  PutBE16(map + kNameListOffset, uint16_t(kQXResEmptyMapSize));
  PutBE16(map + kQXResMapHeaderSize, 0xFFFF);
  if (!target->Exists()) {
    if (const uint32_t error = target->CreateOnDisk()) return error;
  }
  target->Close();
  if (const uint32_t error = target->SetAccess(3)) return error;
  if (const uint32_t error = target->Open()) return error;
  uint32_t done = 0;
  uint32_t result = target->SetPosition(0, 0);
  if (!result) result = target->Write(bytes, sizeof bytes, &done);
  if (!result) result = target->SetEOF(int32_t(sizeof bytes));
  const uint32_t closed = target->Close();
  return result ? result : closed;
}

uint32_t TQXResourceFile::Validate(IQXFile* target, TQXString& message) {
  if (!target) {
    message.FromCPtr("no file");
    return kQXErrFailed;
  }
  const bool wasOpen = target->IsOpen();
  int32_t mode = 3;
  if (!wasOpen) {
    target->GetAccess(&mode);
    target->SetAccess(1);
    if (const uint32_t error = target->Open()) {
      target->SetAccess(mode);
      message.FromCPtr("cannot open the file");
      return error;
    }
  }
  uint8_t* image = nullptr;
  uint32_t result = LoadImage(target, &image, &message);
  uint32_t fileLength = 0;
  if (!result) result = target->GetLength(&fileLength);
  if (!result) {
    // Every data block inside the file.
    const uint32_t size = Get32(image + kMapLength);
    const uint64_t dataOffset = Get32(image + kDataOffset);
    const TQXMapWalk walk(image, size);
    const int32_t types = walk.TypeCount();
    for (int32_t t = 0; t < types && !result; ++t) {
      const uint32_t entry = walk.TypeEntry(t);
      const int32_t refs = walk.RefCount(entry);
      for (int32_t r = 0; r < refs && !result; ++r) {
        const uint32_t ref = walk.RefEntry(entry, r);
        const uint32_t position24 = Get32(image + ref + kRefAttrPos) & kPosMask;
        if (position24 == kQXResNoData) continue;
        const uint64_t at = dataOffset + position24;
        uint32_t length = 0;
        const bool inside = at + 4 <= fileLength &&
                            Access::ReadLengthWord(target, at, length) == 0 &&
                            at + 4 + length <= fileLength;
        if (!inside) {
          const std::string text = "data block of " + CodeText(walk.TypeCode(entry)) + " id " +
                                   std::to_string(int16_t(Get16(image + ref + kRefID))) +
                                   " at file offset " + std::to_string(at) +
                                   " runs past the end of the file (" + std::to_string(fileLength) +
                                   " bytes)";
          message.FromCPtr(text.c_str());
          result = kQXErrIO;
        }
      }
    }
  }
  if (!result) message.FromCPtr("ok");
  QXfree(image);
  if (!wasOpen) {
    target->Close();
    target->SetAccess(mode);
  }
  return result;
}
