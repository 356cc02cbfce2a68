// Shared pieces of the resource tests: file access through the file-system role, opening a
// resource file by path, a reference writer that assembles a resource file from a plain list of
// entries, and the listing of an open file in the same plain form.
#ifndef QXTESTS_RESOURCETESTSUPPORT_H
#define QXTESTS_RESOURCETESTSUPPORT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "Platform/QXPlatform.h"
#include "QXException.h"
#include "QXFile.h"
#include "QXMemory.h"
#include "QXResourceFile.h"
#include "platform/FileSystemBackends.h"

namespace qxrestest {

// One resource as the tests see it.
struct Item {
  uint32_t type = 0;
  int16_t id = 0;
  bool named = false;
  std::string name;
  uint8_t attributes = 0;
  std::string bytes;
  bool operator==(const Item& o) const {
    return type == o.type && id == o.id && named == o.named && name == o.name &&
           attributes == o.attributes && bytes == o.bytes;
  }
};

// Items grouped by type, in the order of the type list and of each reference list.
using Listing = std::vector<std::vector<Item>>;

inline std::string Describe(const Listing& l) {
  std::string s;
  for (const auto& type : l)
    for (const auto& i : type) {
      for (int k = 0; k < 4; ++k)
        s += char(uint8_t(i.type >> (24 - 8 * k)));
      s += " " + std::to_string(i.id);
      if (i.named) s += "/\"" + i.name + "\"";
      if (i.attributes) s += "[" + std::to_string(i.attributes) + "]";
      s += " (" + std::to_string(i.bytes.size()) + " bytes)\n";
    }
  return s;
}

// The listing without the bytes, and without the changed bits unless `keepChanged`.
inline Listing Stripped(Listing l, bool keepChanged = true) {
  for (auto& t : l)
    for (auto& i : t) {
      i.bytes.clear();
      if (!keepChanged) i.attributes &= uint8_t(~kQXResAttrChanged);
    }
  return l;
}

// --- Files through the role in force --------------------------------------------------------

// How a test reads a whole file behind the library's back, also while the library holds it
// open (which an open through the role would refuse): set by the fixture.
inline std::function<std::string(const std::string&)>& Reader() {
  static std::function<std::string(const std::string&)> reader;
  return reader;
}

inline std::string ReadAll(const std::string& path) {
  return Reader() ? Reader()(path) : "<no reader>";
}

// A whole POSIX file, or `missing` when it cannot be read.
inline std::string ReadPosix(const std::string& path, const char* missing = "<missing>") {
  std::ifstream in(path, std::ios::binary);
  if (!in) return missing;
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// Readers for the two backends: the fake's own store, and the POSIX file behind drive T:.
inline void UseReader(QXFakeBackend& backend) {
  TQXFakeFileSystem* fake = &backend.fake();
  Reader() = [fake](const std::string& path) {
    std::string data;
    return fake->GetFile(path.c_str(), data) ? data : std::string("<missing>");
  };
}
inline void UseReader(QXLinuxBackend& backend) {
  Reader() = [directoryOfT = backend.dir()](const std::string& path) {
    std::string posix = directoryOfT + "/" + path.substr(3);  // behind "T:\"
    for (char& c : posix)
      if (c == '\\') c = '/';
    return ReadPosix(posix);
  };
}

inline void WriteAll(const std::string& path, const std::string& data) {
  TQXPlatformFileSystem& fs = QXPlatform::Get<TQXPlatformFileSystem>();
  TQXFileHandle h = kQXInvalidFileHandle;
  fs.DeleteFile(path.c_str());
  ASSERT_EQ(fs.CreateNewFile(path.c_str(), &h), 0u) << path;
  uint32_t done = 0;
  if (!data.empty()) {
    ASSERT_EQ(fs.Write(h, data.data(), uint32_t(data.size()), done), 0u);
  }
  fs.Close(h);
}

// Names in a folder that start with "Tmp" (leftover temporary files of a rewrite).
inline int CountTemporaries(const std::string& folder) {
  TQXPlatformFileSystem& fs = QXPlatform::Get<TQXPlatformFileSystem>();
  TQXFindHandle find = kQXInvalidFileHandle;
  TQXFindEntry entry;
  if (fs.FindFirst((folder + "\\Tmp*").c_str(), find, entry)) return 0;
  int n = 1;
  while (fs.FindNext(find, entry) == 0)
    ++n;
  fs.FindClose(find);
  return n;
}

// What `use` makes of a file object for the path (given back after); `failed` when there is none.
template <class Result, class Use>
Result WithFile(const std::string& path, Result failed, Use use) {
  TQXFile* file = nullptr;
  TQXFile::Create(&file);
  if (!file) return failed;
  file->SetFullPath(TQXStringUTF8(path), false);
  const Result result = use(file);
  file->Release();
  return result;
}

inline TQXResourceFile* Open(const std::string& path, bool writable = true, bool preload = false) {
  return WithFile(path, (TQXResourceFile*)nullptr,
                  [&](TQXFile* f) { return new TQXResourceFile(f, writable, preload); });
}
inline uint32_t CreateEmpty(const std::string& path) {
  return WithFile(path, uint32_t(kQXErrIO), TQXResourceFile::CreateEmpty);
}
inline uint32_t ValidateFile(const std::string& path, TQXString1023& message) {
  return WithFile(path, uint32_t(kQXErrIO),
                  [&](TQXFile* f) { return TQXResourceFile::Validate(f, message); });
}

// A free-standing resource holding a copy of `bytes`; null when an allocation fails.
inline TQXResource* Make(uint32_t type, int16_t id, const std::string& name,
                         const std::string& bytes) {
  void* block = QXmalloc(uint32_t(bytes.size()));
  if (!bytes.empty() && !block) return nullptr;
  if (!bytes.empty()) std::memcpy(block, bytes.data(), bytes.size());
  auto* r = new TQXResource(block, uint32_t(bytes.size()), id, type, TQXString255(name.c_str()));
  if (!r) QXfree(block);
  return r;
}

// Adds a resource and lets go of the test's hold (the entry keeps the object, changed, until the
// next rewrite). Attributes beyond the changed bit are then set on the entry, changed.
inline void Add(TQXResourceFile& rf, const Item& i) {
  TQXResource* r = Make(i.type, i.id, i.named ? i.name : "", i.bytes);
  ASSERT_NE(r, nullptr);
  ASSERT_EQ(rf.AddResource(*r), 0u);
  if (i.attributes & ~kQXResAttrChanged) r->SetAttributes(i.attributes | kQXResAttrChanged);
  EXPECT_EQ(r->ReleaseResource(), kQXErrResourceMissing);  // changed: stays in its entry
}

// A new file holding the given resources, written and closed.
inline void Build(const std::string& path, const std::vector<Item>& items) {
  ASSERT_EQ(CreateEmpty(path), 0u);
  TQXResourceFile* rf = Open(path);
  for (const Item& i : items)
    Add(*rf, i);
  EXPECT_EQ(rf->UpdateResFile(nullptr), 0u);
  delete rf;
}

// --- The reference writer -------------------------------------------------------------------

inline void Be16(std::string& s, uint16_t v) {
  s += char(v >> 8);
  s += char(v & 0xFF);
}
inline void Be32(std::string& s, uint32_t v) {
  Be16(s, uint16_t(v >> 16));
  Be16(s, uint16_t(v));
}

// A resource file as the library's writer lays it out: data blocks in type and reference order,
// the map right behind, names in the same order. Changed bits are not stored.
inline std::string Assemble(const Listing& types, uint32_t reservedWord = 0,
                            uint16_t reservedHalf1 = 0, uint16_t reservedHalf2 = 0) {
  std::string data, refs, names, typeList;
  Be16(typeList, uint16_t(types.size() - 1));
  uint16_t listOffset = uint16_t(2 + 8 * types.size());
  for (const auto& t : types) {
    Be32(typeList, t.front().type);
    Be16(typeList, uint16_t(t.size() - 1));
    Be16(typeList, listOffset);
    listOffset = uint16_t(listOffset + 12 * t.size());
    for (const Item& i : t) {
      Be16(refs, uint16_t(i.id));
      Be16(refs, i.named ? uint16_t(names.size()) : 0xFFFF);
      Be32(refs, (uint32_t(i.attributes & ~kQXResAttrChanged) << 24) | uint32_t(data.size()));
      Be32(refs, 0);
      if (i.named) names += char(i.name.size()) + i.name;
      Be32(data, uint32_t(i.bytes.size()));
      data += i.bytes;
    }
  }
  const uint32_t mapLength = uint32_t(28 + typeList.size() + refs.size() + names.size());
  std::string head;
  Be32(head, 256);
  Be32(head, uint32_t(256 + data.size()));
  Be32(head, uint32_t(data.size()));
  Be32(head, mapLength);
  std::string file = head + std::string(240, '\0') + data + head;
  Be32(file, reservedWord);
  Be16(file, reservedHalf1);
  Be16(file, reservedHalf2);
  Be16(file, 28);
  Be16(file, uint16_t(mapLength - names.size()));
  return file + typeList + refs + names;
}

// --- Listing an open file -------------------------------------------------------------------

// Every entry from the map image, and with `load` its bytes through a lookup (which is then
// given back; a failed load shows as the bytes "<load failed>").
inline Listing List(TQXResourceFile& rf, bool load) {
  Listing out;
  for (int32_t t = 1; t <= rf.CountTypes(); ++t) {
    uint32_t type = 0;
    EXPECT_EQ(rf.GetIndexedType(type, t), 0u);
    std::vector<Item> items;
    for (int32_t r = 1; r <= rf.CountResources(type); ++r) {
      TQXResourceEntryInfo info;
      EXPECT_EQ(rf.GetIndexedEntryInfo(type, r, info), 0u);
      Item i{type, info.id, info.named, info.name.StrGet(), info.attributes, ""};
      TQXResource* res = nullptr;
      if (load && rf.GetIndexedResource(type, r, res, true)) i.bytes = "<load failed>";
      if (res) {
        i.bytes.assign(static_cast<const char*>(res->GetData()), res->GetSize());
        res->ReleaseResource();
      }
      items.push_back(i);
    }
    out.push_back(items);
  }
  return out;
}

// Each test starts with no current file and ends with the known-files table emptied.
class ResourceTest : public ::testing::Test {
 protected:
  void SetUp() override { TQXResourceFile::InitCurrentRessourceFile(); }
  void TearDown() override {
    Reader() = nullptr;
    EXPECT_EQ(TQXResourceFile::GetCurrentFile(), nullptr) << "a test left a file open";
    TQXResourceFile::ShutDown();
    TQXResourceFile::SetLostResourceHandler(nullptr);
  }
};

// A resource test with the file-system role played by one backend (the fake or the real disk).
template <class Backend>
class OnDisk : public ResourceTest {
 protected:
  OnDisk() : role_(backend_.fs()) { UseReader(backend_); }
  TQXFakeFileSystem& fake() { return backend_.fake(); }
  Backend backend_;
  QXPlatform::ScopedRole<TQXPlatformFileSystem> role_;
};

}  // namespace qxrestest

#endif  // QXTESTS_RESOURCETESTSUPPORT_H
