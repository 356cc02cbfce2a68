// qxdemo: a small host. It loads libQXCore.so like the painting application does, calls each
// service that exists so far, prints what comes back, and exits 0 when every answer is the
// expected one.
#include <stdlib.h>
#include <unistd.h>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>

#include "QXCore.h"

namespace {

int gFailures = 0;

void Check(bool ok, const char* what) {
  if (!ok) {
    std::printf("  !! unexpected: %s\n", what);
    ++gFailures;
  }
}

void PrintRect(const char* name, const TQXRect& r) {
  std::printf("  TQXRect::%-8s = { %" PRId32 ", %" PRId32 ", %" PRId32 ", %" PRId32 " }\n", name,
              r.left, r.top, r.right, r.bottom);
}

void ShowStartUp() {
  std::printf("Start-up values (no host writes yet):\n");
  std::printf("  ghInstance = %p, ghMainFrame = %p, gMMX = %d, gEMMX = %d\n",
              TWIN_QXGlobals::ghInstance, TWIN_QXGlobals::ghMainFrame, TWIN_QXGlobals::gMMX,
              TWIN_QXGlobals::gEMMX);
  PrintRect("kZero", TQXRect::kZero);
  PrintRect("kEmpty", TQXRect::kEmpty);
  PrintRect("kInvalid", TQXRect::kInvalid);
  PrintRect("kBiggest", TQXRect::kBiggest);
  std::printf("  kQXInverse65536 = %.16g, kQXFull65535 = %.16g\n", double(kQXInverse65536),
              kQXFull65535);
  Check(!TWIN_QXGlobals::gMMX && TWIN_QXGlobals::ghInstance == nullptr, "start-up globals");
  Check(TQXRect::kInvalid.left == INT32_MAX && TQXRect::kInvalid.right == INT32_MIN, "kInvalid");
}

void ShowByteSwap() {
  std::printf("Byte swap of a big-endian value:\n");
  int32_t v = 0x11223344;
  int32_t r = TQXByteSwap::SwapInt32(v);
  std::printf("  SwapInt32(0x11223344) = 0x%08" PRIX32 ", stored 0x%08" PRIX32 "\n", uint32_t(r),
              uint32_t(v));
  Check(uint32_t(r) == 0x44332211u && v == r, "SwapInt32");
  double d = 1.0;
  TQXByteSwap::SwapDouble(d);
  TQXByteSwap::SwapDouble(d);
  std::printf("  SwapDouble twice of 1.0 = %g\n", d);
  Check(d == 1.0, "SwapDouble round trip");
}

void ShowFaultToException() {
  std::printf("A fault turned into an exception:\n");
  QXInstallFailureHandlers(true);
  char buffer[16];
  const void* volatile bad = nullptr;
  bool caught = false;
  try {
    QXmemcpy(buffer, bad, sizeof buffer);  // reads through a null pointer inside the library
  } catch (const TQXException& e) {
    caught = true;
    std::printf("  QXmemcpy from a null pointer threw TQXException code 0x%08" PRIX32
                ", file \"%s\", line %" PRId32 "\n",
                e.code, e.GetFile(), e.line);
    Check(e.code == kQXErrUnhandled && e.line == 43, "fault report");
  }
  QXInstallFailureHandlers(false);
  Check(caught, "fault caught");
}

void ShowBulkCopy() {
  std::printf("Bulk copy and fill, on each path:\n");
  for (bool wide : {false, true}) {
    TWIN_QXGlobals::gMMX = wide;
    alignas(16) unsigned char src[100], dst[100];
    for (int i = 0; i < 100; ++i)
      src[i] = uint8_t(i * 7);
    std::memset(dst, 0, sizeof dst);
    QXmemcpy(dst + 1, src + 3, 90);
    QXmemmove(dst + 5, dst + 1, 90);  // overlapping, backwards
    bool same = std::memcmp(dst + 5, src + 3, 90) == 0;
    QXmemfill(0x04030201, src, 6);  // src is aligned: 01 02 03 04, then the low byte twice
    same = same && src[0] == 1 && src[3] == 4 && src[4] == 1 && src[5] == 1;
    std::printf(
        "  %s path: QXmemcpy 90 bytes, QXmemmove over itself by 4, QXmemfill(0x04030201, "
        "6) = %02X %02X %02X %02X %02X %02X: %s\n",
        wide ? "wide " : "plain", src[0], src[1], src[2], src[3], src[4], src[5],
        same ? "ok" : "WRONG");
    Check(same, "bulk memory");
  }
  TWIN_QXGlobals::gMMX = false;
}

// Files: a folder on a temporary directory mapped to drive Q:, listed with a type filter, and a
// file copied.
void ShowFiles() {
  std::printf("\nFiles:\n");
  char dir[] = "/tmp/qxdemo-XXXXXX";
  if (!mkdtemp(dir) || QXMapDrive('Q', dir) != 0) {
    Check(false, "temporary drive");
    return;
  }
  std::printf("  Q: is %s\n", dir);
  auto make = [](const char* path, bool folder) {
    TQXFile* f = nullptr;
    TQXFile::Create(&f);
    if (f) f->SetFullPath(TQXStringUTF8(std::string(path)), folder);
    return f;
  };
  const char* names[] = {"Q:\\album\\sea.tif", "Q:\\album\\sky.TIFF", "Q:\\album\\notes.txt"};
  TQXFile* album = make("Q:\\album", true);
  Check(album && album->CreateOnDisk() == 0, "create folder");
  TQXFile* sub = make("Q:\\album\\older", true);
  Check(sub && sub->CreateOnDisk() == 0, "create sub-folder");
  for (const char* name : names) {
    TQXFile* f = make(name, false);
    uint32_t done = 0;
    const bool ok = f && f->CreateOnDisk() == 0 && f->Open() == 0 &&
                    f->Write(name, uint32_t(std::strlen(name)), &done) == 0 && f->Close() == 0;
    std::printf("  wrote %-22s %u bytes\n", name, done);
    Check(ok, "write file");
    if (f) f->Release();
  }

  TQXFileType tiff;
  tiff.AddPlatformType(0x74696600);  // "tif"
  tiff.AddPlatformType(0x74696666);  // "tiff"
  TQXFile* entry = make("", false);
  TQXFileIterator* it = TQXFileIterator::Create(std::string("Q:\\album"), &tiff, false);
  int listed = 0;
  std::printf("  listing Q:\\album with the TIFF filter (folders always pass):\n");
  if (it && entry) {
    for (it->First(entry); it->HasMore(); it->Next(entry)) {
      TQXStringUTF8 path;
      entry->GetPath(path);
      std::printf("    %s%s\n", path.StrGet(), entry->IsFolder() ? "  (folder)" : "");
      ++listed;
    }
  }
  delete it;
  Check(listed == 3, "filtered listing");

  TQXFile* source = make(names[0], false);
  TQXFile* copy = make("Q:\\album\\older\\sea-copy.tif", false);
  const uint32_t copied = source && copy ? source->CopyTo(copy, false) : 1;
  std::printf("  CopyTo %s -> Q:\\album\\older\\sea-copy.tif: %u\n", names[0], copied);
  char text[64] = {};
  uint32_t done = 0;
  Check(copied == 0 && copy->Open() == 0 && copy->Read(text, 63, &done) == kQXErrEndOfFile &&
            std::strcmp(text, names[0]) == 0,
        "copied contents");
  std::printf("  the copy reads \"%s\"\n", text);
  if (copy) copy->Close();

  Check(album && album->Delete(true) == 0, "delete folder tree");
  std::printf("  deleted Q:\\album and everything in it\n");
  for (TQXFile* f : {album, sub, entry, source, copy})
    if (f) f->Release();
  rmdir(dir);
  QXMapDrive('Q', nullptr);
}

// A settings document in the token text: written with blocks into memory, printed, read back.
void ShowTokenDocument() {
  std::printf("\nToken text:\n");
  TQXstrstream out;
  QXToken::AttachState(out);  // an indentation of its own, not the shared default
  QXToken::PutLong(out, QX_FOURCC('V', 'e', 'r', 's'), 2);
  QXToken::BeginBlock(out, QX_FOURCC('B', 'r', 's', 'h'), false);
  QXToken::PutString(out, QX_FOURCC('N', 'a', 'm', 'e'), TQXString255("Soft \"round\""));
  QXToken::PutDouble(out, QX_FOURCC('S', 'i', 'z', 'e'), 12.5);
  QXToken::PutPoint(out, QX_FOURCC('S', 'p', 'o', 't'), TQXPoint(3, -4));
  QXToken::PutRect(out, QX_FOURCC('A', 'r', 'e', 'a'), TQXRect(0, 0, 640, 480));
  QXToken::EndBlock(out);
  const std::string text(reinterpret_cast<const char*>(out.buffer), size_t(out.Tell()));
  for (size_t from = 0, to; (to = text.find("\r\n", from)) != std::string::npos; from = to + 2)
    std::printf("  | %s\n", text.substr(from, to - from).c_str());

  TQXstrstream in(out.buffer, out.Tell(), kQXStreamReadable);
  try {
    Check(QXToken::GetCode(in) == QX_FOURCC('V', 'e', 'r', 's'), "token Vers");
    const int32_t version = QXToken::GetLong(in);
    Check(QXToken::GetCode(in) == QX_FOURCC('B', 'r', 's', 'h'), "token Brsh");
    QXToken::ExpectOpen(in);
    TQXDynamicString name;
    QXToken::GetCode(in);
    QXToken::GetLongString(in, name);
    QXToken::GetCode(in);
    const double size = QXToken::GetDouble(in);
    TQXPoint spot;
    QXToken::GetCode(in);
    QXToken::GetPoint(in, spot);
    TQXRect area;
    QXToken::GetCode(in);
    QXToken::GetRect(in, area);
    QXToken::ExpectClose(in);
    std::printf("  read back: version %" PRId32 ", name %s, size %g, spot %" PRId32 ",%" PRId32
                ", area %" PRId32 " x %" PRId32 "\n",
                version, name.StrGet(), size, spot.h, spot.v, area.GetWidth(), area.GetHeight());
    Check(version == 2 && std::strcmp(name.StrGet(), "Soft \"round\"") == 0 && size == 12.5 &&
              spot.h == 3 && spot.v == -4 && area.GetWidth() == 640 && area.GetHeight() == 480,
          "token values read back");
  } catch (const TQXException& e) {
    std::printf("  !! token read failed: 0x%08" PRIX32 "\n", e.code);
    ++gFailures;
  }
}

// A file stream and a resource file on a temporary directory mapped to drive R:: a text file
// written and read back line by line, then a resource file with a "STR#" list, a string read
// back through the chain, and the file listed.
void ShowFileStreamAndResources() {
  std::printf("\nFile stream and resource file:\n");
  char dir[] = "/tmp/qxdemo-XXXXXX";
  if (!mkdtemp(dir) || QXMapDrive('R', dir) != 0) {
    Check(false, "temporary drive");
    return;
  }
  {
    bool created = false;
    TQXfstream out("R:\\notes.txt", kQXStreamWritable, 4096, &created);
    out << "first line" << endl << "second line" << endl;
    std::printf("  wrote R:\\notes.txt through a 4 KiB buffer (created: %d)\n", int(created));
  }
  {
    TQXfstream in("R:\\notes.txt", kQXStreamReadable, 4096, nullptr);
    char line[64];
    int lines = 0;
    while (lines < 4 && in.GetLine(line, sizeof line, '\n') == '\n') {
      std::printf("  read  \"%s\"\n", line);
      ++lines;
    }
    Check(lines == 2, "two lines read back");
  }

  TQXFile* file = nullptr;
  TQXFile::Create(&file);
  if (file) file->SetFullPath(TQXStringUTF8(std::string("R:\\demo.rsrc")), false);
  TQXResourceFile::InitCurrentRessourceFile();
  if (file && TQXResourceFile::CreateEmpty(file) == 0) {
    auto* resources = new TQXResourceFile(file, true, false);
    // "STR#": a big-endian count, then length-prefixed strings.
    static const unsigned char list[] = {0,   2, 5,   'H', 'e', 'l', 'l',
                                         'o', 5, 'W', 'o', 'r', 'l', 'd'};
    void* block = QXmalloc(sizeof list);
    if (block) QXmemcpy(block, list, sizeof list);
    auto* strings = new TQXResource(block, block ? uint32_t(sizeof list) : 0, 128,
                                    kQXResTypeStringList, TQXString255("Greetings"));
    resources->AddResource(*strings);
    strings->ReleaseResource();  // the file keeps it until it is written
    const uint32_t updated = resources->UpdateResFile(nullptr);
    std::printf("  created R:\\demo.rsrc, UpdateResFile: 0x%08" PRIX32 "\n", updated);
    TQXString255 text;
    const uint32_t found = TQXResourceFile::GetIndString(text, 128, 2);
    std::printf("  GetIndString(STR# 128, 2): \"%s\"\n", found == 0 ? text.StrGet() : "");
    Check(updated == 0 && found == 0 && std::strcmp(text.StrGet(), "World") == 0,
          "string read back from the resource file");
    for (int32_t t = 1; t <= resources->CountTypes(); ++t) {
      uint32_t type = 0;
      resources->GetIndexedType(type, t);
      for (int32_t r = 1; r <= resources->CountResources(type); ++r) {
        TQXResourceEntryInfo info;
        resources->GetIndexedEntryInfo(type, r, info);
        std::printf("  '%c%c%c%c' %d \"%s\" attributes 0x%02X, %u bytes\n", char(type >> 24),
                    char(type >> 16), char(type >> 8), char(type), int(info.id), info.name.StrGet(),
                    unsigned(info.attributes), unsigned(info.diskSize));
      }
    }
    delete resources;
  } else {
    Check(false, "create resource file");
  }
  if (file) file->Release();
  TQXResourceFile::ShutDown();
  unlink((std::string(dir) + "/notes.txt").c_str());
  unlink((std::string(dir) + "/demo.rsrc").c_str());
  rmdir(dir);
  QXMapDrive('R', nullptr);
}

}  // namespace

int main() {
  std::printf("QXCore demonstration host\n\n");
  ShowStartUp();
  ShowByteSwap();
  ShowFaultToException();
  ShowBulkCopy();
  ShowFiles();
  ShowTokenDocument();
  ShowFileStreamAndResources();
  std::printf("\n%s\n", gFailures == 0 ? "All services answered as expected." : "FAILURES");
  return gFailures == 0 ? 0 : 1;
}
