// Path operations of the file object on many forms, type codes, file types and the array behind
// them. Paths are set with SetPath, which touches no disk.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "Platform/Fake/QXFakeFileSystem.h"
#include "Platform/QXPlatform.h"
#include "QXException.h"
#include "QXFile.h"
#include "QXFileType.h"
#include "Win/QXWinFile.h"

namespace {

// A file object that releases itself.
struct FileRef {
  FileRef() { TQXFile::Create(&file); }
  explicit FileRef(const std::string& path, bool folder = false) : FileRef() {
    file->SetPath(TQXStringUTF8(path), folder);
  }
  // What a string getter gives, into a string that held something before.
  std::string Get(uint32_t (TQXFile::*getter)(TQXStringUTF8&) const) const {
    TQXStringUTF8 out(std::string("junk"));
    (file->*getter)(out);
    return std::string(out);
  }
  ~FileRef() {
    if (file) file->Release();
  }
  TQXFile* operator->() const { return file; }
  TQXFile* file = nullptr;
};

std::string S(const TQXStringUTF8& s) {
  return std::string(s);
}

TEST(FilePaths, NamesFolderPathsAndBaseNames) {
  using Case = std::tuple<const char*, bool, const char*, const char*, const char*>;
  for (auto [path, folder, name, folderPath, base] : std::initializer_list<Case>{
           {"C:\\a\\b.txt", false, "b.txt", "C:\\a\\", "b"},
           {"C:\\a\\b\\", true, "b", "C:\\a\\b\\", "b"},
           {"C:\\a\\c.tar.gz", false, "c.tar.gz", "C:\\a\\", "c.tar"},
           {"\\\\server\\share\\a.tif", false, "a.tif", "\\\\server\\share\\", "a"},
           {"abc", false, "abc", "", "abc"},
           {"\\", false, "\\", "\\", "\\"},
           {"\\tmp\\x", false, "x", "\\tmp\\", "x"},
           {"C:\\a.b\\c", false, "c", "C:\\a.b\\", "c"},
       }) {
    SCOPED_TRACE(path);
    FileRef f(path, folder);
    EXPECT_EQ(f.Get(&TQXFile::GetName), name);
    EXPECT_EQ(f.Get(&TQXFile::GetFolderPath), folderPath);
    EXPECT_EQ(f.Get(&TQXFile::GetBaseName), base);
  }
  // POSIX separators and later colons become the separator; the drive's colon stays.
  EXPECT_EQ(FileRef("/tmp/dir/file.c").Get(&TQXFile::GetName), "file.c");
  EXPECT_EQ(FileRef("C:/x/y:z").Get(&TQXFile::GetName), "z");
  EXPECT_EQ(FileRef("C:/x/y:z").Get(&TQXFile::GetPath), "C:\\x\\y\\z");
}

// Fixed, then random paths from a small alphabet against a model of the rules on std::string:
// separators made uniform, the name behind the last separator, the extension behind a last dot
// that stands behind it, and SetExtension's cut or append.
TEST(FilePaths, RandomPathsMatchStringModel) {
  const char* fixed[] = {"C:\\a.b\\c", "C:\\a\\c.tar.gz", "C:\\a\\c.",  "noext",       "x.JPEG",
                         "C:\\a\\b",   "C:\\a\\b.tif",    "C:\\a.d\\b", "C:\\a\\b.c.d"};
  std::mt19937 rng(20261122);
  const char alphabet[] = "ab.\\/:";
  for (int round = 0; round < 3000; ++round) {
    std::string p;
    const int n = 1 + int(rng() % 10);
    for (int i = 0; i < n; ++i)
      p += alphabet[rng() % 6];
    if (round < int(std::size(fixed))) p = fixed[round];
    SCOPED_TRACE(p);
    std::string uniform = p;
    for (size_t i = 0; i < uniform.size(); ++i)
      if (uniform[i] == '/' || (uniform[i] == ':' && i >= 2)) uniform[i] = '\\';
    const size_t sep = p.find_last_of('\\'), dot = p.find_last_of('.');
    const bool hasExt = dot != std::string::npos && (sep == std::string::npos || dot > sep);

    FileRef f(p);
    const std::string folder = sep == std::string::npos ? "" : p.substr(0, sep + 1);
    ASSERT_EQ(f.Get(&TQXFile::GetPath), uniform);
    ASSERT_EQ(f.Get(&TQXFile::GetFolderPath), folder);
    TQXStringUTF8 out(std::string("junk"));
    ASSERT_EQ(f->GetExtension(out), 0u);
    ASSERT_EQ(S(out), hasExt ? p.substr(dot + 1) : "");
    const size_t usep = uniform.find_last_of('\\');
    ASSERT_EQ(f.Get(&TQXFile::GetName), usep == std::string::npos || uniform.size() == 1
                                            ? uniform
                                            : uniform.substr(usep + 1));
    f->SetExtension(TQXStringUTF8(std::string("xy")));
    ASSERT_EQ(f.Get(&TQXFile::GetPath),
              (hasExt ? uniform.substr(0, dot + 1) : uniform + ".") + "xy");
    ASSERT_EQ(f.Get(&TQXFile::GetExtension), "xy");
    ASSERT_EQ(f.Get(&TQXFile::GetFolderPath), folder);
  }
}

TEST(FilePaths, ExtensionOfALongNameAndBaseNameReplacement) {
  // A name longer than 250 characters keeps its length.
  const std::string longName = "C:\\" + std::string(300, 'n');
  FileRef named(longName);
  named->SetExtension(TQXStringUTF8(std::string("tif")));
  EXPECT_EQ(named.Get(&TQXFile::GetPath), longName + ".tif");

  // A new base name keeps the extension.
  auto setBase = [](const char* path, const char* base) {
    FileRef f(path);
    f->SetBaseName(TQXStringUTF8(std::string(base)));
    return f.Get(&TQXFile::GetPath);
  };
  EXPECT_EQ(setBase("C:\\a\\photo.jpg", "new"), "C:\\a\\new.jpg");
  EXPECT_EQ(setBase("C:\\a.d\\photo", "new"), "C:\\a.d\\new");
  EXPECT_EQ(setBase("photo.tar.gz", "x"), "x.gz");
  EXPECT_EQ(setBase("C:\\a\\.hidden", "x"), "C:\\a\\x.hidden");
}

TEST(FilePaths, RelativePathsAndSameFile) {
  FileRef f("c:\\a\\b.txt"), g;
  TQXStringUTF8 out;
  f->GetRelativePath(out, TQXStringUTF8(std::string("C:\\A\\")));
  EXPECT_EQ(S(out), "\\b.txt");
  f->GetRelativePath(out, TQXStringUTF8(std::string("D:\\")));
  EXPECT_EQ(S(out), "c:\\a\\b.txt");

  TQXFakeFileSystem fake;
  QXPlatform::ScopedRole<TQXPlatformFileSystem> role(fake);
  TQXStringUTF8 rel(std::string("/sub/x.tif"));
  g->SetRelativePath(rel, TQXStringUTF8(std::string("C:\\root\\")), false);
  EXPECT_EQ(g.Get(&TQXFile::GetPath), "C:\\root\\sub\\x.tif");
  EXPECT_EQ(S(rel), "\\sub\\x.tif");  // made uniform in place

  g->SetPath(TQXStringUTF8(std::string("c:/a/b.txt")), false);
  EXPECT_TRUE(f->IsSameFile(g.file));
  g->SetPath(TQXStringUTF8(std::string("C:\\a\\b.txt")), false);
  EXPECT_FALSE(f->IsSameFile(g.file));  // exact, with case
  EXPECT_FALSE(f->IsSameFile(nullptr));
}

TEST(FilePaths, SetPathAndFullPathForms) {
  TQXFakeFileSystem fake;
  fake.MakeFolders("C:\\cur");
  fake.SetCurrentDirectory("C:\\cur");
  QXPlatform::ScopedRole<TQXPlatformFileSystem> role(fake);
  using Case = std::tuple<const char*, bool, const char*, uint32_t>;
  for (auto [given, folder, path, type] : std::initializer_list<Case>{
           {"C:\\x\\photo.JPG", false, "C:\\x\\photo.JPG", 0x6A706700},
           {"C:\\x", true, "C:\\x\\", 0},
           {"C:\\x\\", true, "C:\\x\\", 0},
           {".hidden", false, "C:\\cur\\.hidden", 0x68696464},
           {"\\\\server\\share\\a", false, "\\\\server\\share\\a", 0},
           {"a\\b.jpeg", false, "C:\\cur\\a\\b.jpeg", 0x6A706567},
           {"/tmp/a.tiff", false, "C:\\tmp\\a.tiff", 0x74696666},
       }) {
    SCOPED_TRACE(given);
    FileRef f;
    f->SetFullPath(TQXStringUTF8(std::string(given)), folder);
    EXPECT_EQ(f.Get(&TQXFile::GetPath), path);
    TQXFileInfo info;
    f->GetCachedInfo(info);
    EXPECT_EQ(info.fileType, type);
    EXPECT_EQ(f->IsFolder(), folder);
  }
  // Taken as it stands, a leading dot is no extension.
  FileRef dot(".hidden");
  TQXFileInfo info;
  dot->GetCachedInfo(info);
  EXPECT_EQ(info.fileType, 0u);
}

TEST(FilePaths, StaticsAndInterfaceTable) {
  TQXStringUTF8 p(std::string("abc"));
  TQXFile::JustPathFromPathName(p);
  EXPECT_EQ(S(p), "");
  p = TQXStringUTF8(std::string("C:\\a\\b.c"));
  TQXFile::JustPathFromPathName(p);
  EXPECT_EQ(S(p), "C:\\a\\");

  TQXString255 hfs("C:\\x\\y");
  TQXStringUTF8 posix;
  TQXFile::ConvertHFStoPOSIX(hfs, posix);
  TQXString255 back;
  TQXFile::ConvertPOSIXtoHFS(posix, back);
  EXPECT_EQ(S(posix), "C:\\x\\y");
  EXPECT_TRUE(back == hfs);

  TQXFakeFileSystem fake;
  QXPlatform::ScopedRole<TQXPlatformFileSystem> role(fake);
  TQXStringUTF8 app;
  EXPECT_EQ(TQXFile::GetAppPath(app, false), 0u);
  EXPECT_GT(app.Length(), 0u);

  // Create releases what the slot held; counting goes through either base.
  TQXFile* f = nullptr;
  TQXFile::Create(&f);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(static_cast<IQXFile*>(f)->AddRef(), 2);
  void* asFile = nullptr;
  EXPECT_EQ(f->QueryInterface(kQXIIDFile, &asFile), 0u);
  EXPECT_EQ(asFile, static_cast<IQXFile*>(f));
  EXPECT_EQ(static_cast<TQXCountedObject*>(f)->Release(), 2);
  EXPECT_EQ(f->Release(), 1);
  TQXFile::Create(&f);  // releases the old object, which goes away
  ASSERT_NE(f, nullptr);
  f->Release();

  uint64_t space = 0;
  FileRef g;
  EXPECT_EQ(g->GetFreeSpace(&space), uint32_t(kQXErrNotImplemented));
}

TEST(FileTypes, ExtensionCodes) {
  EXPECT_EQ(TWIN_QXFile::ExtensionCode("TIF"), 0x74696600u);
  EXPECT_EQ(TWIN_QXFile::ExtensionCode("jpeg"), 0x6A706567u);
  EXPECT_EQ(TWIN_QXFile::ExtensionCode("jpegxyz"), 0x6A706567u);
  EXPECT_EQ(TWIN_QXFile::ExtensionCode(""), 0u);
  EXPECT_EQ(TWIN_QXFile::TextExtensionCode(TQXStringUTF8(std::string("a.b"))), 0x62000000u);
  // Fixed, then random texts: the code equals the reference of its definition (a dot at index 0
  // is no extension).
  const char* fixed[] = {".b", "x", "a.b\\c", "abc."};
  std::mt19937 rng(6);
  const char alphabet[] = "aB.\\xYz9";
  for (int round = 0; round < 2000; ++round) {
    std::string s;
    const int n = int(rng() % 9);
    for (int i = 0; i < n; ++i)
      s += alphabet[rng() % 8];
    if (round < int(std::size(fixed))) s = fixed[round];
    uint32_t expected = 0;
    const size_t dot = s.find_last_of('.'), sep = s.find_last_of('\\');
    if (s.size() > 1 && dot != std::string::npos && dot > 0 &&
        (sep == std::string::npos || dot > sep) && dot + 1 < s.size()) {
      for (size_t i = 0; i < 4 && dot + 1 + i < s.size(); ++i)
        expected |= uint32_t(uint8_t(std::tolower(uint8_t(s[dot + 1 + i])))) << (24 - 8 * i);
    }
    ASSERT_EQ(TWIN_QXFile::TextExtensionCode(TQXStringUTF8(s)), expected) << s;
  }
}

TEST(FileTypes, ListLookupsAndRegistry) {
  TQXFakeFileSystem fake;
  QXPlatform::ScopedRole<TQXPlatformFileSystem> role(fake);
  gFileTypeList = new TQXFileTypeList;
  TQXFileType tiff, jpeg, jpegToo, none;
  tiff.SetID(1);
  tiff.AddPlatformType(0x74696600);
  tiff.AddPlatformType(0x74696666);
  tiff.AddPlatformType(0x74696600);
  EXPECT_EQ(tiff.PlatformTypeCount(), 2u);
  jpeg.SetID(2);
  jpeg.AddPlatformType(0x6A706700);
  jpegToo.SetID(3);
  jpegToo.AddPlatformType(0x6A706700);
  jpegToo.Group() = 7;
  none.SetID(4);
  EXPECT_TRUE(gFileTypeList->AllSameGroup());
  gFileTypeList->Add(tiff);
  gFileTypeList->Add(jpeg);
  EXPECT_TRUE(gFileTypeList->AllSameGroup());
  gFileTypeList->Add(jpegToo);
  gFileTypeList->Add(none);
  EXPECT_FALSE(gFileTypeList->AllSameGroup());

  FileRef f("C:\\a\\b.JPG");
  EXPECT_EQ(gFileTypeList->FindQXFileType(*f.file)->GetID(), 2u);
  uint32_t id = 0;
  EXPECT_EQ(f->GetTypeID(&id), 0u);
  EXPECT_EQ(id, 2u);
  f->SetPath(TQXStringUTF8(std::string("C:\\a\\b.xyz")), false);
  EXPECT_EQ(gFileTypeList->GetTypeID(*f.file), 0u);
  EXPECT_EQ(f->GetTypeID(&id), uint32_t(kQXErrIO));
  f->SetPath(TQXStringUTF8(std::string("C:\\a\\noext")), false);
  EXPECT_EQ(gFileTypeList->FindQXFileType(*f.file), nullptr);

  // SetTypeID gives a file its type's first extension when it has none that fits.
  EXPECT_EQ(f->SetTypeID(1), 0u);
  EXPECT_EQ(f.Get(&TQXFile::GetPath), "C:\\a\\noext.tif");
  EXPECT_EQ(f->SetTypeID(1), 0u);
  EXPECT_EQ(f.Get(&TQXFile::GetPath), "C:\\a\\noext.tif");
  EXPECT_EQ(f->SetTypeID(4), 0u);  // no platform types: unchanged
  EXPECT_EQ(f->SetTypeID(99), uint32_t(kQXErrIO));

  EXPECT_FALSE(IsRegisteredTypeName(5));
  RegisterTypeName(5, TQXString31("Five"));
  RegisterTypeName(5, TQXString31("Again"));
  EXPECT_TRUE(IsRegisteredTypeName(5));
  EXPECT_FALSE(IsRegisteredTypeName(6));
  FreeFileTypes();
  EXPECT_EQ(gFileTypeList, nullptr);
  EXPECT_FALSE(IsRegisteredTypeName(5));
  EXPECT_EQ(f->GetTypeID(&id), uint32_t(kQXErrIO));
}

// The array against a vector: appends, resizes and growth steps, with a fixed seed.
TEST(FileTypes, ArrayMatchesVectorModel) {
  std::mt19937 rng(61);
  for (uint32_t flags : {0xB0008000u, 0x20000004u, 0xA0000003u}) {
    TQXArray<uint32_t> array(flags);
    std::vector<uint32_t> model;
    for (int step = 0; step < 3000; ++step) {
      const uint32_t op = rng() % 10;
      if (op < 8) {
        const uint32_t before = array.Allocated();
        const uint32_t expectedStep = array.GrowthStep();
        const uint32_t v = rng();
        ASSERT_TRUE(array.Append(v));
        model.push_back(v);
        if (model.size() - 1 == before) {
          ASSERT_EQ(array.Allocated(), before + expectedStep);
        }
        if (flags & TQXArray<uint32_t>::kFlagFifth) {
          const uint32_t fifth = uint32_t(double(model.size() - 1) * 0.2) + 1;
          const uint32_t limit = flags & TQXArray<uint32_t>::kStepMask;
          ASSERT_EQ(expectedStep, fifth < limit ? fifth : limit);
        }
      } else {
        const uint32_t n = rng() % 40;
        ASSERT_TRUE(array.Resize(n));
        const size_t old = model.size();
        model.resize(n, 0);
        ASSERT_EQ(array.Allocated(), n);
        for (size_t i = old; i < n; ++i)
          ASSERT_EQ(array[uint32_t(i)], 0u);
      }
      ASSERT_EQ(array.Count(), model.size());
    }
    for (uint32_t i = 0; i < array.Count(); ++i)
      ASSERT_EQ(array[i], model[i]);
  }
  // A type list of objects survives many moves of its block.
  TQXFileTypeList list;
  for (uint32_t i = 0; i < 200; ++i) {
    TQXFileType t;
    t.SetID(i);
    t.SetName(TQXString31(std::to_string(i).c_str()));
    t.AddPlatformType(i * 3);
    list.Add(t);
  }
  ASSERT_EQ(list.Count(), 200u);
  for (uint32_t i = 0; i < 200; ++i) {
    EXPECT_EQ(list.FindByPlatformType(i * 3)->GetID(), i);
    EXPECT_EQ(std::string(list[i].GetName().StrGet()), std::to_string(i));
  }
  EXPECT_EQ(list.FindByID(500), nullptr);
}

}  // namespace
