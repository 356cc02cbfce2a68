// Fuzz target for the resource file reader: the input is a whole resource file. It is opened
// (with and without preloading), every type and entry is listed, loaded and looked up by name,
// string lists are read, the map image is checked, and the file is closed without a rewrite.
// The file lives in the in-memory file system, so a run costs no disk traffic.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Platform/Fake/QXFakeFileSystem.h"
#include "Platform/QXPlatform.h"
#include "QXFile.h"
#include "QXResourceFile.h"

namespace {

TQXFakeFileSystem& Disk() {
  static TQXFakeFileSystem* fake = [] {
    auto* f = new TQXFakeFileSystem;
    f->AddDrive('T');
    QXPlatform::Install<TQXPlatformFileSystem>(f);
    return f;
  }();
  return *fake;
}

void Walk(TQXResourceFile& rf) {
  for (int32_t t = 1; t <= rf.CountTypes(); ++t) {
    uint32_t type = 0;
    rf.GetIndexedType(type, t);
    for (int32_t r = 1; r <= rf.CountResources(type); ++r) {
      TQXResourceEntryInfo info;
      rf.GetIndexedEntryInfo(type, r, info);
      TQXResource* res = nullptr;
      if (rf.GetIndexedResource(type, r, res, r % 2 == 1) == 0 && res) {
        TQXResourceStream stream(*res);
        uint32_t word = 0;
        stream >> word;
        int32_t disk = 0;
        rf.GetResourceDiskSize(res, disk);
        res->ReleaseResource();
      }
      if (info.named && rf.GetNamedResource(type, info.name, res, true) == 0 && res)
        res->ReleaseResource();
      if (type == kQXResTypeStringList) {
        uint16_t count = 0;
        TQXString255 s;
        rf.CountIndStrings(count, info.id, true);
        for (int16_t i = 1; i <= count && i < 64; ++i)
          rf.GetIndString(s, info.id, i, true);
      }
    }
  }
  TQXString1023 message;
  rf.CheckMap(message);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  TQXFakeFileSystem& disk = Disk();
  const char* path = "T:\\fuzz.rsrc";
  disk.PutFile(path, std::string_view(reinterpret_cast<const char*>(data), size));
  TQXFile* file = nullptr;
  TQXFile::Create(&file);
  if (!file) return 0;
  file->SetFullPath(TQXStringUTF8(std::string(path)), false);
  TQXString1023 message;
  TQXResourceFile::Validate(file, message);
  auto* rf = new TQXResourceFile(file, false, size % 2 == 1);
  file->Release();
  if (rf) {
    if (rf->IsLinked()) Walk(*rf);
    // Closed without a rewrite: a changed bit read from the input would otherwise start one.
    disk.FailCall(TQXFakeFileSystem::Op::kCreateNewFile, 1, kQXSysAccessDenied, true);
    delete rf;
    disk.ClearFailures();
  }
  TQXResourceFile::ShutDown();
  return 0;
}
