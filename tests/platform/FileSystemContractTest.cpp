// The file-system role's contract, run against the Linux side (on a temporary directory mapped to
// T:) and against the fake. The backend's name is part of each test's name.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "FileSystemBackends.h"

namespace {

template <class Backend>
class FileSystemContract : public ::testing::Test {
 protected:
  TQXPlatformFileSystem& fs() { return backend_.fs(); }

  // Makes a file with this data through the role.
  void Put(const char* path, const std::string& data) {
    TQXFileHandle h;
    ASSERT_EQ(fs().CreateNewFile(path, &h), 0u) << path;
    uint32_t done;
    ASSERT_EQ(fs().Write(h, data.data(), uint32_t(data.size()), done), 0u);
    ASSERT_EQ(fs().Close(h), 0u);
  }

  // The data of a file, read through the role.
  std::string Get(const char* path) {
    TQXFileHandle h;
    if (fs().Open(path, TQXFileAccess::kRead, h)) return "<no file>";
    std::string data(1 << 12, '\0');
    uint32_t done = 0;
    fs().Read(h, data.data(), uint32_t(data.size()), done);
    data.resize(done);
    fs().Close(h);
    return data;
  }

  TQXFileAttributes Attributes(const char* path) {
    TQXFileAttributes a;
    EXPECT_EQ(fs().GetAttributes(path, a), 0u) << path;
    return a;
  }

  // Flags and size in one word: "d" a folder, "r" read-only, "h" hidden, then the size.
  std::string Flags(const char* path) {
    TQXFileAttributes a = Attributes(path);
    return std::string(a.isFolder ? "d" : "") + (a.isReadOnly ? "r" : "") +
           (a.isHidden ? "h" : "") + std::to_string(a.size);
  }

  // Names and folder flags that a pattern finds, sorted.
  std::vector<std::string> Find(const char* pattern, uint32_t* firstResult = nullptr) {
    std::vector<std::string> names;
    TQXFindHandle find;
    TQXFindEntry entry;
    const uint32_t r = fs().FindFirst(pattern, find, entry);
    if (firstResult) *firstResult = r;
    if (r) {
      EXPECT_EQ(find, kQXInvalidFileHandle);
      return names;
    }
    do
      names.push_back(entry.name + (entry.attributes.isFolder ? "\\" : ""));
    while (fs().FindNext(find, entry) == 0);
    EXPECT_EQ(fs().FindNext(find, entry), kQXSysNoMoreFiles);  // and it stays at the end
    EXPECT_EQ(fs().FindClose(find), 0u);
    std::sort(names.begin(), names.end());
    return names;
  }

  Backend backend_;
};

struct BackendName {
  template <class T>
  static std::string GetName(int) {
    return T::Name();
  }
};

using Backends = ::testing::Types<QXLinuxBackend, QXFakeBackend>;
TYPED_TEST_SUITE(FileSystemContract, Backends, BackendName);

// A count on the 100-ns grid: 3 February 2001 04:05:06.7 UTC.
constexpr uint64_t kSomeTime = 126'256'467'067'000'000ull;

TYPED_TEST(FileSystemContract, ReadWriteSeekAndLength) {
  TQXPlatformFileSystem& fs = this->fs();
  TQXFileHandle h;
  ASSERT_EQ(fs.CreateNewFile("T:\\f.bin", &h), 0u);
  EXPECT_GT(h, 0);
  EXPECT_EQ(fs.CreateNewFile("T:\\f.bin", nullptr), kQXSysFileExists);
  uint32_t done = 99;
  ASSERT_EQ(fs.Write(h, "hello world", 11, done), 0u);
  EXPECT_EQ(done, 11u);
  uint64_t pos = 0, length = 0;
  EXPECT_EQ(fs.GetPosition(h, pos) | fs.GetLength(h, length), 0u);
  EXPECT_EQ(std::make_pair(pos, length), (std::make_pair<uint64_t, uint64_t>(11, 11)));

  char buf[32] = {};
  ASSERT_EQ(fs.Seek(h, 0, TQXSeekOrigin::kBegin, pos), 0u);
  EXPECT_EQ(fs.Read(h, buf, 5, done), 0u);
  EXPECT_EQ(std::string(buf, done), "hello");
  ASSERT_EQ(fs.Seek(h, -5, TQXSeekOrigin::kEnd, pos), 0u);
  EXPECT_EQ(pos, 6u);
  EXPECT_EQ(fs.Read(h, buf, 10, done), kQXSysHandleEOF);  // stops at the end: what was there
  EXPECT_EQ(std::string(buf, done), "world");
  EXPECT_EQ(fs.Read(h, buf, 10, done), kQXSysHandleEOF);
  EXPECT_EQ(done, 0u);

  // Before the start: refused, the position stays. Behind the end: allowed, and a write there
  // fills the gap with zeros.
  EXPECT_EQ(fs.Seek(h, -1, TQXSeekOrigin::kBegin, pos), kQXSysNegativeSeek);
  EXPECT_EQ(fs.Seek(h, INT64_MIN, TQXSeekOrigin::kCurrent, pos), kQXSysNegativeSeek);
  EXPECT_EQ(fs.Seek(h, INT64_MAX, TQXSeekOrigin::kCurrent, pos), kQXSysInvalidParameter);
  EXPECT_EQ(fs.Seek(h, 0, TQXSeekOrigin(7), pos), kQXSysInvalidParameter);
  EXPECT_EQ(fs.GetPosition(h, pos), 0u);
  EXPECT_EQ(pos, 11u);
  ASSERT_EQ(fs.Seek(h, 4, TQXSeekOrigin::kCurrent, pos), 0u);
  EXPECT_EQ(pos, 15u);
  ASSERT_EQ(fs.Write(h, "!", 1, done), 0u);
  EXPECT_EQ(fs.GetLength(h, length), 0u);
  EXPECT_EQ(length, 16u);

  // SetLength cuts and extends with zeros; the position does not move.
  ASSERT_EQ(fs.SetLength(h, 3), 0u);
  EXPECT_EQ(fs.GetPosition(h, pos), 0u);
  EXPECT_EQ(pos, 16u);
  ASSERT_EQ(fs.SetLength(h, 6), 0u);
  ASSERT_EQ(fs.Seek(h, 0, TQXSeekOrigin::kBegin, pos), 0u);
  EXPECT_EQ(fs.Read(h, buf, 6, done), 0u);
  EXPECT_EQ(std::string(buf, 6), std::string("hel\0\0\0", 6));

  // Counts of 0 need no buffer; other counts do.
  EXPECT_EQ(fs.Read(h, nullptr, 0, done), 0u);
  EXPECT_EQ(fs.Write(h, nullptr, 0, done), 0u);
  EXPECT_EQ(fs.Read(h, nullptr, 1, done), kQXSysInvalidParameter);
  EXPECT_EQ(fs.Write(h, nullptr, 1, done), kQXSysInvalidParameter);

  EXPECT_EQ(fs.Close(h), 0u);
  EXPECT_EQ(fs.Close(h), kQXSysInvalidHandle);
  EXPECT_EQ(fs.Read(h, buf, 1, done), kQXSysInvalidHandle);
  EXPECT_EQ(fs.Write(h, buf, 1, done), kQXSysInvalidHandle);
  EXPECT_EQ(fs.Seek(h, 0, TQXSeekOrigin::kBegin, pos), kQXSysInvalidHandle);
  EXPECT_EQ(fs.GetLength(h, length), kQXSysInvalidHandle);
  EXPECT_EQ(fs.Close(kQXInvalidFileHandle), kQXSysInvalidHandle);
  EXPECT_EQ(this->Get("T:\\f.bin"), std::string("hel\0\0\0", 6));
}

TYPED_TEST(FileSystemContract, OpenAccessAndSharing) {
  TQXPlatformFileSystem& fs = this->fs();
  this->Put("T:\\f", "data");
  ASSERT_EQ(fs.CreateFolder("T:\\d"), 0u);
  TQXFileHandle h = 5, r1, r2, w;
  EXPECT_EQ(fs.Open("T:\\missing", TQXFileAccess::kRead, h), kQXSysFileNotFound);
  EXPECT_EQ(h, kQXInvalidFileHandle);
  EXPECT_EQ(fs.Open("T:\\nodir\\x", TQXFileAccess::kRead, h), kQXSysPathNotFound);
  EXPECT_EQ(fs.Open("T:\\f\\x", TQXFileAccess::kRead, h), kQXSysPathNotFound);
  EXPECT_EQ(fs.Open("T:\\f\\", TQXFileAccess::kRead, h), kQXSysPathNotFound);
  EXPECT_EQ(fs.Open("T:\\d", TQXFileAccess::kRead, h), kQXSysAccessDenied);
  EXPECT_EQ(fs.Open("T:\\d", TQXFileAccess::kWrite, h), kQXSysAccessDenied);
  EXPECT_EQ(fs.Open("T:\\f", TQXFileAccess(0), h), kQXSysInvalidParameter);

  // Readers share; a writer shares with nobody.
  ASSERT_EQ(fs.Open("T:\\f", TQXFileAccess::kRead, r1), 0u);
  ASSERT_EQ(fs.Open("T:\\f", TQXFileAccess::kRead, r2), 0u);
  EXPECT_NE(r1, r2);
  EXPECT_EQ(fs.Open("T:\\f", TQXFileAccess::kWrite, w), kQXSysSharingViolation);
  EXPECT_EQ(fs.Open("T:\\f", TQXFileAccess::kReadWrite, w), kQXSysSharingViolation);
  uint32_t done;
  char buf[8];
  EXPECT_EQ(fs.Write(r1, "x", 1, done), kQXSysAccessDenied);
  EXPECT_EQ(fs.SetLength(r1, 0), kQXSysAccessDenied);
  EXPECT_EQ(fs.SetTimes(r1, nullptr, &kSomeTime), kQXSysAccessDenied);
  EXPECT_EQ(fs.Close(r1), 0u);
  EXPECT_EQ(fs.Close(r2), 0u);
  ASSERT_EQ(fs.Open("T:\\f", TQXFileAccess::kWrite, w), 0u);
  EXPECT_EQ(fs.Read(w, buf, 1, done), kQXSysAccessDenied);
  EXPECT_EQ(fs.Open("T:\\f", TQXFileAccess::kRead, r1), kQXSysSharingViolation);
  EXPECT_EQ(fs.Open("T:\\f", TQXFileAccess::kWrite, r1), kQXSysSharingViolation);
  EXPECT_EQ(fs.Close(w), 0u);

  // A new file kept open by its maker is not shared either.
  TQXFileHandle made;
  ASSERT_EQ(fs.CreateNewFile("T:\\new", &made), 0u);
  EXPECT_EQ(fs.Open("T:\\new", TQXFileAccess::kRead, h), kQXSysSharingViolation);
  EXPECT_EQ(fs.Close(made), 0u);
  EXPECT_EQ(fs.Open("T:\\new", TQXFileAccess::kRead, h), 0u);
  EXPECT_EQ(fs.Close(h), 0u);

  // Read-only files open for reading only, whoever asks.
  ASSERT_EQ(fs.SetAttributes("T:\\f", true, false), 0u);
  EXPECT_EQ(fs.Open("T:\\f", TQXFileAccess::kWrite, h), kQXSysAccessDenied);
  EXPECT_EQ(fs.Open("T:\\f", TQXFileAccess::kReadWrite, h), kQXSysAccessDenied);
  ASSERT_EQ(fs.Open("T:\\f", TQXFileAccess::kRead, h), 0u);
  EXPECT_EQ(fs.Read(h, buf, 8, done), kQXSysHandleEOF);
  EXPECT_EQ(std::string(buf, done), "data");
  EXPECT_EQ(fs.Close(h), 0u);
}

TYPED_TEST(FileSystemContract, AttributesTimesAndAccess) {
  TQXPlatformFileSystem& fs = this->fs();
  this->Put("T:\\f.txt", "12345");
  ASSERT_EQ(fs.CreateFolder("T:\\d"), 0u);
  EXPECT_EQ(this->Flags("T:\\f.txt"), "5");
  EXPECT_EQ(this->Flags("T:\\d\\"), "d0");
  EXPECT_TRUE(this->Attributes("T:\\").isFolder);
  TQXFileAttributes a;
  EXPECT_EQ(fs.GetAttributes("T:\\nothing", a), kQXSysFileNotFound);
  EXPECT_EQ(fs.GetAttributes("T:\\no\\thing", a), kQXSysPathNotFound);
  EXPECT_EQ(fs.GetAttributes("T:\\f.txt\\", a), kQXSysPathNotFound);
  EXPECT_EQ(fs.GetAttributes("Q:\\x", a), kQXSysPathNotFound);  // a letter without a drive
  EXPECT_EQ(fs.GetAttributes(nullptr, a), kQXSysInvalidParameter);

  // Times are set through an open file.
  TQXFileHandle h;
  ASSERT_EQ(fs.Open("T:\\f.txt", TQXFileAccess::kReadWrite, h), 0u);
  const uint64_t creation = kSomeTime - 10'000'000;
  ASSERT_EQ(fs.SetTimes(h, &creation, &kSomeTime), 0u);
  ASSERT_EQ(fs.Close(h), 0u);
  a = this->Attributes("T:\\f.txt");
  EXPECT_EQ(a.modificationTime, kSomeTime);
  if (fs.KeepsCreationTime()) {
    EXPECT_EQ(a.creationTime, creation);
  }
  EXPECT_NE(a.creationTime, 0u);

  // Read-only.
  ASSERT_EQ(fs.SetAttributes("T:\\f.txt", true, false), 0u);
  EXPECT_EQ(this->Flags("T:\\f.txt"), "r5");
  EXPECT_EQ(fs.TestAccess("T:\\f.txt", TQXFileAccess::kRead), 0u);
  EXPECT_EQ(fs.TestAccess("T:\\f.txt", TQXFileAccess::kWrite), kQXSysAccessDenied);
  EXPECT_EQ(fs.TestAccess("T:\\f.txt", TQXFileAccess::kReadWrite), kQXSysAccessDenied);
  EXPECT_EQ(fs.DeleteFile("T:\\f.txt"), kQXSysAccessDenied);
  ASSERT_EQ(fs.SetAttributes("T:\\f.txt", false, false), 0u);
  EXPECT_EQ(this->Flags("T:\\f.txt"), "5");
  EXPECT_EQ(fs.TestAccess("T:\\f.txt", TQXFileAccess::kReadWrite), 0u);
  EXPECT_EQ(fs.TestAccess("T:\\d", TQXFileAccess::kReadWrite), 0u);
  EXPECT_EQ(fs.TestAccess("T:\\gone", TQXFileAccess::kRead), kQXSysFileNotFound);
  EXPECT_EQ(fs.TestAccess("T:\\no\\gone", TQXFileAccess::kRead), kQXSysFileNotFound);
  EXPECT_EQ(fs.TestAccess("Q:\\gone", TQXFileAccess::kRead), kQXSysFileNotFound);
  EXPECT_EQ(fs.SetAttributes("T:\\gone", true, false), kQXSysFileNotFound);

  // Hidden: a dot name always is; other names when marked, where a mark can be kept.
  this->Put("T:\\.dot", "");
  EXPECT_EQ(this->Flags("T:\\.dot"), "h0");
  EXPECT_EQ(fs.SetAttributes("T:\\.dot", false, false), 0u);
  EXPECT_EQ(this->Flags("T:\\.dot"), "h0");
  const uint32_t r = fs.SetAttributes("T:\\f.txt", true, true);
  if (r == 0) {
    EXPECT_EQ(this->Flags("T:\\f.txt"), "rh5");
    ASSERT_EQ(fs.SetAttributes("T:\\f.txt", false, false), 0u);
  } else {
    EXPECT_EQ(r, kQXSysNotSupported);
  }
  EXPECT_EQ(this->Flags("T:\\f.txt"), "5");
}

TYPED_TEST(FileSystemContract, FoldersAndDeletion) {
  TQXPlatformFileSystem& fs = this->fs();
  ASSERT_EQ(fs.CreateFolder("T:\\d"), 0u);
  EXPECT_EQ(fs.CreateFolder("T:\\d"), kQXSysAlreadyExists);
  EXPECT_EQ(fs.CreateFolder("T:\\d\\"), kQXSysAlreadyExists);
  EXPECT_EQ(fs.CreateFolder("T:\\"), kQXSysAlreadyExists);
  EXPECT_EQ(fs.CreateFolder("T:\\x\\y"), kQXSysPathNotFound);
  this->Put("T:\\d\\f", "x");
  EXPECT_EQ(fs.CreateFolder("T:\\d\\f"), kQXSysAlreadyExists);
  EXPECT_EQ(fs.CreateFolder("T:\\d\\f\\g"), kQXSysPathNotFound);
  EXPECT_EQ(fs.CreateNewFile("T:\\d\\g\\", nullptr), kQXSysInvalidName);
  EXPECT_EQ(fs.CreateNewFile("T:\\", nullptr), kQXSysFileExists);
  EXPECT_EQ(fs.CreateNewFile("T:\\d", nullptr), kQXSysFileExists);
  EXPECT_EQ(fs.CreateNewFile(("T:\\" + std::string(300, 'n')).c_str(), nullptr),
            kQXSysFilenameTooLong);

  EXPECT_EQ(fs.RemoveFolder("T:\\d"), kQXSysDirNotEmpty);
  EXPECT_EQ(fs.RemoveFolder("T:\\d\\f"), kQXSysDirectory);
  EXPECT_EQ(fs.RemoveFolder("T:\\"), kQXSysAccessDenied);
  EXPECT_EQ(fs.RemoveFolder("T:\\gone"), kQXSysFileNotFound);
  EXPECT_EQ(fs.DeleteFile("T:\\d"), kQXSysAccessDenied);
  EXPECT_EQ(fs.DeleteFile("T:\\gone"), kQXSysFileNotFound);
  EXPECT_EQ(fs.DeleteFile("T:\\gone\\f"), kQXSysPathNotFound);
  TQXFileHandle h;
  ASSERT_EQ(fs.Open("T:\\d\\f", TQXFileAccess::kRead, h), 0u);
  EXPECT_EQ(fs.DeleteFile("T:\\d\\f"), kQXSysSharingViolation);
  EXPECT_EQ(fs.Close(h), 0u);
  EXPECT_EQ(fs.DeleteFile("T:\\d\\f"), 0u);
  TQXFileAttributes a;
  EXPECT_EQ(fs.GetAttributes("T:\\d\\f", a), kQXSysFileNotFound);

  ASSERT_EQ(fs.SetAttributes("T:\\d", true, false), 0u);
  EXPECT_EQ(this->Flags("T:\\d"), "dr0");
  EXPECT_EQ(fs.RemoveFolder("T:\\d"), kQXSysAccessDenied);
  ASSERT_EQ(fs.SetAttributes("T:\\d", false, false), 0u);
  EXPECT_EQ(fs.RemoveFolder("T:\\d\\"), 0u);
  EXPECT_EQ(fs.GetAttributes("T:\\d", a), kQXSysFileNotFound);
}

TYPED_TEST(FileSystemContract, MoveAndRename) {
  TQXPlatformFileSystem& fs = this->fs();
  this->Put("T:\\a", "AAA");
  this->Put("T:\\c", "C");
  ASSERT_EQ(fs.CreateFolder("T:\\d"), 0u);
  ASSERT_EQ(fs.CreateFolder("T:\\e"), 0u);
  this->Put("T:\\d\\inner", "in");

  TQXFileHandle h;
  ASSERT_EQ(fs.Open("T:\\a", TQXFileAccess::kReadWrite, h), 0u);
  ASSERT_EQ(fs.SetTimes(h, nullptr, &kSomeTime), 0u);
  EXPECT_EQ(fs.Move("T:\\a", "T:\\b", false), kQXSysSharingViolation);
  ASSERT_EQ(fs.Close(h), 0u);
  ASSERT_EQ(fs.SetAttributes("T:\\a", true, false), 0u);
  ASSERT_EQ(fs.Move("T:\\a", "T:\\b", false), 0u);  // a rename keeps times and attributes
  TQXFileAttributes a;
  EXPECT_EQ(fs.GetAttributes("T:\\a", a), kQXSysFileNotFound);
  EXPECT_EQ(this->Attributes("T:\\b").modificationTime, kSomeTime);
  EXPECT_EQ(this->Flags("T:\\b"), "r3");
  ASSERT_EQ(fs.SetAttributes("T:\\b", false, false), 0u);

  EXPECT_EQ(fs.Move("T:\\b", "T:\\c", false), kQXSysAlreadyExists);
  EXPECT_EQ(fs.Move("T:\\b", "T:\\b", false), kQXSysAlreadyExists);
  EXPECT_EQ(fs.Move("T:\\b", "T:\\b", true), 0u);
  EXPECT_EQ(this->Get("T:\\b"), "AAA");
  ASSERT_EQ(fs.SetAttributes("T:\\c", true, false), 0u);
  EXPECT_EQ(fs.Move("T:\\b", "T:\\c", true), kQXSysAccessDenied);
  ASSERT_EQ(fs.SetAttributes("T:\\c", false, false), 0u);
  ASSERT_EQ(fs.Open("T:\\c", TQXFileAccess::kRead, h), 0u);
  EXPECT_EQ(fs.Move("T:\\b", "T:\\c", true), kQXSysSharingViolation);
  ASSERT_EQ(fs.Close(h), 0u);
  ASSERT_EQ(fs.Move("T:\\b", "T:\\c", true), 0u);
  EXPECT_EQ(this->Get("T:\\c"), "AAA");

  EXPECT_EQ(fs.Move("T:\\c", "T:\\d", true), kQXSysAccessDenied);  // never onto a folder
  EXPECT_EQ(fs.Move("T:\\d", "T:\\e", false), kQXSysAlreadyExists);
  EXPECT_EQ(fs.Move("T:\\d", "T:\\e", true), kQXSysAccessDenied);
  EXPECT_EQ(fs.Move("T:\\d", "T:\\d\\sub", false), kQXSysInvalidParameter);
  EXPECT_EQ(fs.Move("T:\\c", "T:\\nowhere\\c", false), kQXSysPathNotFound);
  EXPECT_EQ(fs.Move("T:\\c", "T:\\cc\\", false), kQXSysInvalidName);
  EXPECT_EQ(fs.Move("T:\\gone", "T:\\x", false), kQXSysFileNotFound);
  EXPECT_EQ(fs.Move("T:\\", "T:\\x", false), kQXSysAccessDenied);

  // A folder moves with what it holds, into another folder too.
  ASSERT_EQ(fs.Move("T:\\d", "T:\\e\\d2", false), 0u);
  EXPECT_EQ(this->Get("T:\\e\\d2\\inner"), "in");
  ASSERT_EQ(fs.Move("T:\\c", "T:\\e\\d2\\c", false), 0u);
  EXPECT_EQ(this->Find("T:\\e\\d2\\*"), (std::vector<std::string>{"c", "inner"}));
}

TYPED_TEST(FileSystemContract, CopyFile) {
  TQXPlatformFileSystem& fs = this->fs();
  this->Put("T:\\src", "source data");
  ASSERT_EQ(fs.CreateFolder("T:\\d"), 0u);
  TQXFileHandle h;
  ASSERT_EQ(fs.Open("T:\\src", TQXFileAccess::kReadWrite, h), 0u);
  ASSERT_EQ(fs.SetTimes(h, nullptr, &kSomeTime), 0u);
  EXPECT_EQ(fs.CopyFile("T:\\src", "T:\\copy"), kQXSysSharingViolation);  // open for writing
  ASSERT_EQ(fs.Close(h), 0u);
  const bool hiddenStorable = fs.SetAttributes("T:\\src", true, true) == 0;
  if (!hiddenStorable) {
    ASSERT_EQ(fs.SetAttributes("T:\\src", true, false), 0u);
  }

  ASSERT_EQ(fs.Open("T:\\src", TQXFileAccess::kRead, h), 0u);  // readers do not stop a copy
  ASSERT_EQ(fs.CopyFile("T:\\src", "T:\\copy"), 0u);
  ASSERT_EQ(fs.Close(h), 0u);
  EXPECT_EQ(this->Get("T:\\copy"), "source data");
  EXPECT_EQ(this->Attributes("T:\\copy").modificationTime, kSomeTime);
  EXPECT_EQ(this->Flags("T:\\copy"), "11");
  EXPECT_EQ(this->Flags("T:\\src"), hiddenStorable ? "rh11" : "r11");

  // Over an existing file, longer or shorter.
  this->Put("T:\\long", "a much longer text than the source");
  ASSERT_EQ(fs.CopyFile("T:\\src", "T:\\long"), 0u);
  EXPECT_EQ(this->Get("T:\\long"), "source data");
  this->Put("T:\\short", "s");
  ASSERT_EQ(fs.CopyFile("T:\\short", "T:\\long"), 0u);
  EXPECT_EQ(this->Get("T:\\long"), "s");

  EXPECT_EQ(fs.CopyFile("T:\\src", "T:\\src"), kQXSysSharingViolation);
  EXPECT_EQ(fs.CopyFile("T:\\d", "T:\\x"), kQXSysAccessDenied);
  EXPECT_EQ(fs.CopyFile("T:\\src", "T:\\d"), kQXSysAccessDenied);
  EXPECT_EQ(fs.CopyFile("T:\\long", "T:\\src"), kQXSysAccessDenied);  // read-only target
  EXPECT_EQ(fs.CopyFile("T:\\gone", "T:\\x"), kQXSysFileNotFound);
  EXPECT_EQ(fs.CopyFile("T:\\src", "T:\\gone\\x"), kQXSysPathNotFound);
  EXPECT_EQ(fs.CopyFile("T:\\src", "T:\\x\\"), kQXSysInvalidName);
  ASSERT_EQ(fs.Open("T:\\long", TQXFileAccess::kRead, h), 0u);
  EXPECT_EQ(fs.CopyFile("T:\\src", "T:\\long"), kQXSysSharingViolation);
  ASSERT_EQ(fs.Close(h), 0u);
  EXPECT_EQ(this->Find("T:\\*"), (std::vector<std::string>{"copy", "d\\", "long", "short", "src"}));
}

TYPED_TEST(FileSystemContract, Enumeration) {
  TQXPlatformFileSystem& fs = this->fs();
  ASSERT_EQ(fs.CreateFolder("T:\\d"), 0u);
  ASSERT_EQ(fs.CreateFolder("T:\\d\\sub"), 0u);
  ASSERT_EQ(fs.CreateFolder("T:\\empty"), 0u);
  for (const char* name : {"a.txt", "b.TXT", "c.tif", "noext", ".hidden", "x.y.z", "ab"}) {
    this->Put(("T:\\d\\" + std::string(name)).c_str(), name);
  }
  using V = std::vector<std::string>;
  const V all = {".hidden", "a.txt", "ab", "b.TXT", "c.tif", "noext", "sub\\", "x.y.z"};
  EXPECT_EQ(this->Find("T:\\d\\*"), all);
  EXPECT_EQ(this->Find("T:\\d\\*.*"), all);
  EXPECT_EQ(this->Find("T:/d/*"), all);
  EXPECT_EQ(this->Find("T:\\d\\*.txt"), (V{"a.txt", "b.TXT"}));  // case ignored in patterns
  EXPECT_EQ(this->Find("T:\\d\\?.tif"), (V{"c.tif"}));
  EXPECT_EQ(this->Find("T:\\d\\??"), (V{"ab"}));
  EXPECT_EQ(this->Find("T:\\d\\*.z"), (V{"x.y.z"}));
  EXPECT_EQ(this->Find("T:\\d\\a*"), (V{"a.txt", "ab"}));
  EXPECT_EQ(this->Find("T:\\d\\noext"), (V{"noext"}));  // one name, no wildcard
  EXPECT_EQ(this->Find("T:\\d\\sub"), (V{"sub\\"}));
  EXPECT_EQ(this->Find("T:\\d\\sub\\..\\a.*"), (V{"a.txt"}));

  // Patterns that find nothing: an empty folder gives no "." or "..", a folder path no name.
  for (auto [pattern, code] : {std::pair{"T:\\d\\*.jpg", kQXSysFileNotFound},
                               {"T:\\empty\\*", kQXSysFileNotFound},
                               {"T:\\d\\gone", kQXSysFileNotFound},
                               {"T:\\gone\\*", kQXSysPathNotFound},
                               {"T:\\d\\a.txt\\*", kQXSysPathNotFound},
                               {"T:\\d\\", kQXSysFileNotFound},
                               {"T:\\", kQXSysFileNotFound}}) {
    uint32_t r = 0;
    this->Find(pattern, &r);
    EXPECT_EQ(r, code) << pattern;
  }

  // What an entry says of itself.
  TQXFindHandle find;
  TQXFindEntry entry;
  ASSERT_EQ(fs.FindFirst("T:\\d\\.h*", find, entry), 0u);
  EXPECT_EQ(entry.name, ".hidden");
  EXPECT_TRUE(entry.attributes.isHidden);
  EXPECT_FALSE(entry.attributes.isFolder);
  EXPECT_EQ(entry.attributes.size, 7u);
  EXPECT_EQ(entry.attributes.modificationTime, this->Attributes("T:\\d\\.hidden").modificationTime);
  EXPECT_EQ(fs.FindNext(find, entry), kQXSysNoMoreFiles);
  EXPECT_EQ(fs.FindClose(find), 0u);
  EXPECT_EQ(fs.FindClose(find), kQXSysInvalidHandle);
  EXPECT_EQ(fs.FindNext(find, entry), kQXSysInvalidHandle);
  EXPECT_EQ(fs.FindClose(kQXInvalidFileHandle), kQXSysInvalidHandle);

  // Deleting while enumerating: nothing is given twice, nothing deleted is given after.
  ASSERT_EQ(fs.FindFirst("T:\\d\\*", find, entry), 0u);
  std::vector<std::string> seen;
  do {
    seen.push_back(entry.name);
    if (!entry.attributes.isFolder) {
      EXPECT_EQ(fs.DeleteFile(("T:\\d\\" + entry.name).c_str()), 0u);
    }
  } while (fs.FindNext(find, entry) == 0);
  EXPECT_EQ(fs.FindClose(find), 0u);
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(std::adjacent_find(seen.begin(), seen.end()), seen.end());
  EXPECT_EQ(this->Find("T:\\d\\*"), (V{"sub\\"}));
}

TYPED_TEST(FileSystemContract, PathsOfTheProcess) {
  TQXPlatformFileSystem& fs = this->fs();
  std::string current, full;
  ASSERT_EQ(fs.CurrentDirectory(current), 0u);
  EXPECT_EQ(QXClassifyPath(current.c_str()), TQXPathKind::kAbsolute);
  const std::string joined = current.back() == '\\' ? current + "y" : current + "\\y";
  ASSERT_EQ(fs.FullPath("x\\..\\.\\y", full), 0u);
  EXPECT_EQ(full, joined);
  ASSERT_EQ(fs.FullPath("T:\\a\\.\\b\\..\\c\\", full), 0u);
  EXPECT_EQ(full, "T:\\a\\c\\");
  ASSERT_EQ(fs.FullPath("/tmp//a/", full), 0u);
  EXPECT_EQ(full, "C:\\tmp\\a\\");
  ASSERT_EQ(fs.FullPath("\\\\srv\\share\\..\\x", full), 0u);
  EXPECT_EQ(full, "\\\\srv\\share\\x");
  EXPECT_EQ(fs.FullPath("", full), kQXSysInvalidName);
  EXPECT_EQ(fs.FullPath("\\\\srv", full), kQXSysBadPathname);
  EXPECT_EQ(fs.FullPath(nullptr, full), kQXSysInvalidParameter);
  std::string app;
  ASSERT_EQ(fs.ApplicationPath(app), 0u);
  EXPECT_EQ(QXClassifyPath(app.c_str()), TQXPathKind::kAbsolute);
}

}  // namespace
