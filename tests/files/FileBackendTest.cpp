// The file object and the folder iterator on a real disk (a temporary directory mapped to T:)
// and on the in-memory fake: one behavioural suite for both, then what only the fake can show.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>

#include "Platform/QXPlatform.h"
#include "QXException.h"
#include "QXFile.h"
#include "QXFileIterator.h"
#include "QXFileType.h"
#include "Win/QXWinFile.h"
#include "Win/QXWinFileIterator.h"
#include "platform/FileSystemBackends.h"
#include "support/QXFailureInjection.h"

namespace {

struct FileRef {
  FileRef() { TQXFile::Create(&file); }
  explicit FileRef(const std::string& path, bool folder = false) : FileRef() {
    file->SetFullPath(TQXStringUTF8(path), folder);
  }
  ~FileRef() {
    if (file) file->Release();
  }
  TQXFile* operator->() const { return file; }
  int32_t Access() const {
    int32_t mode = -1;
    file->GetAccess(&mode);
    return mode;
  }
  TQXFile* file = nullptr;
};

std::string S(const TQXStringUTF8& s) {
  return std::string(s);
}

std::string RandomBytes(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::string data(n, '\0');
  for (char& c : data)
    c = char(rng());
  return data;
}

// Every entry of a folder by the iterator: its name with "/" behind a folder's, or its full path.
std::set<std::string> Walk(const std::string& folder, TQXFileType* filter = nullptr,
                           bool followShortcuts = false, bool fullPaths = false) {
  std::set<std::string> found;
  FileRef entry;
  TQXFileIterator* it = TQXFileIterator::Create(folder, filter, followShortcuts);
  for (it->First(entry.file); it->HasMore(); it->Next(entry.file)) {
    TQXStringUTF8 text;
    fullPaths ? entry->GetPath(text) : entry->GetName(text);
    found.insert(S(text) + (!fullPaths && entry->IsFolder() ? "/" : ""));
  }
  delete it;
  return found;
}

template <class Backend>
class FileBackend : public ::testing::Test {
 protected:
  FileBackend() : role_(backend_.fs()) {}
  TQXPlatformFileSystem& fs() { return backend_.fs(); }

  // Writes a whole file through the file object.
  void Put(const std::string& path, const std::string& data) {
    FileRef f(path);
    if (!f->Exists()) {
      ASSERT_EQ(f->CreateOnDisk(), 0u);
    }
    ASSERT_EQ(f->Open(), 0u);
    uint32_t done = 0;
    ASSERT_EQ(f->Write(data.data(), uint32_t(data.size()), &done), 0u);
    ASSERT_EQ(f->SetEOF(int32_t(data.size())), 0u);
    EXPECT_EQ(f->Close(), 0u);
  }
  // Reads a whole file through the file object.
  std::string Get(const std::string& path) {
    FileRef f(path);
    f->SetAccess(1);
    if (f->Open()) return "<missing>";
    uint32_t length = 0;
    f->GetLength(&length);
    std::string data(length, '\0');
    uint32_t done = 0;
    if (length) f->Read(data.data(), length, &done);
    f->Close();
    return data;
  }

  Backend backend_;
  QXPlatform::ScopedRole<TQXPlatformFileSystem> role_;
};

using Backends = ::testing::Types<QXLinuxBackend, QXFakeBackend>;
class BackendNames {
 public:
  template <class T>
  static std::string GetName(int) {
    return T::Name();
  }
};
TYPED_TEST_SUITE(FileBackend, Backends, BackendNames);

TYPED_TEST(FileBackend, CreateWriteSeekReadTruncate) {
  FileRef f("T:\\data.bin");
  EXPECT_FALSE(f->Exists());
  EXPECT_EQ(f->Open(), uint32_t(kQXErrNotFound));
  EXPECT_FALSE(f->IsOpen());
  ASSERT_EQ(f->CreateOnDisk(), 0u);
  EXPECT_EQ(f->CreateOnDisk(), uint32_t(kQXErrIO));
  ASSERT_EQ(f->Open(), 0u);
  EXPECT_TRUE(f->IsOpen());
  uint32_t done = 99;
  EXPECT_EQ(f->Write(nullptr, 0, &done), uint32_t(kQXErrIO));
  EXPECT_EQ(f->Write("hello world", 11, &done), 0u);
  EXPECT_EQ(done, 11u);
  uint32_t pos = 0, length = 0;
  EXPECT_EQ(f->GetPosition(&pos), 0u);
  EXPECT_EQ(pos, 11u);
  EXPECT_EQ(f->SetPosition(-5, 2), 0u);
  char buf[16] = {};
  EXPECT_EQ(f->Read(buf, 5, &done), 0u);
  EXPECT_EQ(std::string(buf, 5), "world");
  EXPECT_EQ(f->Read(buf, 1, &done), uint32_t(kQXErrEndOfFile));
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(f->Read(nullptr, 0, &done), 0u);
  EXPECT_EQ(f->Read(nullptr, 1, &done), uint32_t(kQXErrIO));
  EXPECT_EQ(f->SetPosition(6, 7), 0u);  // an unknown origin counts from the start
  EXPECT_EQ(f->Read(buf, 10, &done), uint32_t(kQXErrEndOfFile));
  EXPECT_EQ(done, 5u);
  EXPECT_EQ(f->SetPosition(-1, 0), uint32_t(kQXErrIO));
  EXPECT_EQ(f->SetEOF(5), 0u);
  EXPECT_EQ(f->GetPosition(&pos), 0u);
  EXPECT_EQ(pos, 5u);
  EXPECT_EQ(f->GetLength(&length), 0u);
  EXPECT_EQ(length, 5u);
  EXPECT_EQ(f->GetEOF(&length), 0u);
  EXPECT_EQ(f->Close(), 0u);
  EXPECT_EQ(f->Close(), 0u);
  EXPECT_EQ(f->GetLength(&length), uint32_t(kQXErrIO));
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(this->Get("T:\\data.bin"), "hello");

  TQXFileInfo info;
  FileRef g("T:\\data.bin");
  EXPECT_EQ(g->GetInfo(info), 0u);
  EXPECT_EQ(info.dataSize, 5u);
  EXPECT_FALSE(info.isFolder);
  FileRef missing("T:\\nothing");
  EXPECT_EQ(missing->GetInfo(info), kQXSysFileNotFound);
}

TYPED_TEST(FileBackend, AccessModesAndAttributes) {
  this->Put("T:\\a.txt", "abc");
  FileRef f("T:\\a.txt");
  EXPECT_EQ(f->SetAccess(1), 0u);
  EXPECT_EQ(f.Access(), 1);
  ASSERT_EQ(f->Open(), 0u);
  uint32_t done = 0;
  EXPECT_EQ(f->Write("x", 1, &done), uint32_t(kQXErrIO));  // read-only open
  f->Close();

  // Locking through SetInfo needs an open file: the time stamps are set first.
  TQXFileInfo info{};
  f->GetInfo(info);
  info.isLocked = 1;
  info.modificationTime.SetCount(132000000000000000ull);
  EXPECT_EQ(f->SetInfo(info), kQXSysInvalidHandle);
  f->SetAccess(3);
  ASSERT_EQ(f->Open(), 0u);
  EXPECT_EQ(f->SetInfo(info), 0u);
  f->Close();
  TQXFileInfo read{};
  EXPECT_EQ(f->GetInfo(read), 0u);
  EXPECT_TRUE(read.isLocked);
  EXPECT_EQ(read.modificationTime.Count(), 132000000000000000ull);
  EXPECT_EQ(f->SetAccess(3), uint32_t(kQXErrOpenFailed));
  EXPECT_EQ(f.Access(), 3);  // stays: the failed SetAccess left the last value
  FileRef g("T:\\a.txt");
  g->SetAccess(2);
  EXPECT_EQ(g->Open(), uint32_t(kQXErrNotFound));
  EXPECT_EQ(g->Delete(false), uint32_t(kQXErrIO));
  ASSERT_EQ(f->SetAccess(1), 0u);
  ASSERT_EQ(f->Open(), 0u);
  info.isLocked = 0;
  f->SetAccess(3);
  EXPECT_EQ(f->SetInfo(info), kQXSysAccessDenied);  // times need write access
  f->Close();
}

TYPED_TEST(FileBackend, RenameMoveCopyDelete) {
  this->Put("T:\\one.txt", "first");
  FileRef f("T:\\one.txt");
  ASSERT_EQ(f->Rename(TQXStringUTF8(std::string("two.txt"))), 0u);
  // The bare name is made absolute against the current directory, not the file's folder.
  TQXStringUTF8 after;
  f->GetPath(after);
  std::string cwd;
  ASSERT_EQ(this->fs().CurrentDirectory(cwd), 0u);
  EXPECT_EQ(S(after), cwd + (cwd.back() == '\\' ? "" : "\\") + "two.txt");
  EXPECT_TRUE(FileRef("T:\\two.txt")->Exists());
  EXPECT_FALSE(FileRef("T:\\one.txt")->Exists());
  EXPECT_EQ(FileRef("T:\\missing")->Rename(TQXStringUTF8(std::string("x"))), uint32_t(kQXErrIO));

  FileRef two("T:\\two.txt"), three("T:\\three.txt");
  this->Put("T:\\three.txt", "old contents here");
  ASSERT_EQ(two->CopyTo(three.file, false), 0u);
  EXPECT_EQ(this->Get("T:\\three.txt"), "first");
  FileRef four("T:\\four.txt");
  ASSERT_EQ(two->MoveTo(four.file), 0u);
  EXPECT_FALSE(two->Exists());
  EXPECT_EQ(this->Get("T:\\four.txt"), "first");
  ASSERT_EQ(three->MoveTo(four.file), 0u);  // replaces
  EXPECT_EQ(this->Get("T:\\four.txt"), "first");
  // The source is gone: the move fails with a system number, and the target is deleted on the
  // way, as the second attempt clears it first.
  EXPECT_EQ(two->MoveTo(four.file), kQXSysFileNotFound);
  EXPECT_FALSE(four->Exists());
  this->Put("T:\\four.txt", "first");

  // The portable copy of the base class, through the same object.
  FileRef five("T:\\five.txt");
  EXPECT_EQ(four->TQXFile::CopyTo(five.file, false), 0u);
  EXPECT_EQ(this->Get("T:\\five.txt"), "first");
  EXPECT_EQ(five->TQXFile::MoveTo(FileRef("T:\\six.txt").file), 0u);
  EXPECT_FALSE(five->Exists());
  EXPECT_EQ(this->Get("T:\\six.txt"), "first");

  // Nested folders go with a recursive delete.
  FileRef top("T:\\top", true);
  ASSERT_EQ(top->CreateOnDisk(), 0u);
  ASSERT_EQ(FileRef("T:\\top\\mid", true)->CreateOnDisk(), 0u);
  ASSERT_EQ(FileRef("T:\\top\\mid\\low", true)->CreateOnDisk(), 0u);
  for (int i = 0; i < 12; ++i)
    this->Put("T:\\top\\mid\\f" + std::to_string(i), "x");
  this->Put("T:\\top\\mid\\low\\deep.tif", "deep");
  EXPECT_EQ(top->Delete(false), uint32_t(kQXErrIO));
  EXPECT_EQ(top->Delete(true), 0u);
  EXPECT_FALSE(top->Exists());
}

TYPED_TEST(FileBackend, IteratorEntriesFiltersAndChain) {
  FileRef folder("T:\\walk", true);
  ASSERT_EQ(folder->CreateOnDisk(), 0u);
  EXPECT_TRUE(Walk("T:\\walk").empty());
  this->Put("T:\\walk\\a.tif", "1");
  this->Put("T:\\walk\\b.TIFF", "2");
  this->Put("T:\\walk\\c.jpg", "3");
  this->Put("T:\\walk\\noext", "4");
  ASSERT_EQ(FileRef("T:\\walk\\sub.tif", true)->CreateOnDisk(), 0u);
  ASSERT_EQ(FileRef("T:\\walk\\plain", true)->CreateOnDisk(), 0u);
  const std::set<std::string> all = {"a.tif", "b.TIFF", "c.jpg", "noext", "sub.tif/", "plain/"};
  EXPECT_EQ(Walk("T:\\walk"), all);
  EXPECT_EQ(Walk("T:\\walk\\"), all);

  TQXFileType tif;
  tif.AddPlatformType(0x74696600);
  EXPECT_EQ(Walk("T:\\walk", &tif), (std::set<std::string>{"a.tif", "sub.tif/", "plain/"}));

  // A folder's entry carries its separator; the file's record is filled from the listing.
  {
    FileRef entry;
    TQXFileIterator* it = TQXFileIterator::Create(std::string("T:\\walk"), &tif, false);
    it->First(entry.file);
    for (; it->HasMore(); it->Next(entry.file)) {
      TQXStringUTF8 p;
      entry->GetPath(p);
      TQXFileInfo info;
      entry->GetCachedInfo(info);
      if (info.isFolder)
        EXPECT_EQ(S(p).back(), '\\');
      else
        EXPECT_EQ(info.dataSize, 1u);
    }
    // A second live iterator on the same folder, in another case, yields nothing.
    TQXFileIterator* second = TQXFileIterator::Create(std::string("t:\\WALK"), nullptr, false);
    EXPECT_FALSE(static_cast<TQXFileIterator*>(second)->IsValid());
    second->First(entry.file);
    EXPECT_FALSE(second->HasMore());
    delete second;
    delete it;
  }
  EXPECT_EQ(Walk("t:\\walk"), all);  // once the others are gone
  EXPECT_TRUE(Walk("T:\\nowhere").empty());
  EXPECT_EQ(gFileIterators, nullptr);
}

// A tree of folders and files copied with CopyTree and compared byte for byte.
TYPED_TEST(FileBackend, CopyTreeRoundTrip) {
  std::mt19937 rng(2026);
  std::map<std::string, std::string> files;  // relative path -> data
  std::set<std::string> folders = {""};
  FileRef root("T:\\src", true);
  ASSERT_EQ(root->CreateOnDisk(), 0u);
  for (int i = 0; i < 40; ++i) {
    auto pick = folders.begin();
    std::advance(pick, rng() % folders.size());
    const std::string parent = *pick;
    if (rng() % 3 == 0) {
      const std::string sub = parent + "\\d" + std::to_string(i);
      ASSERT_EQ(FileRef("T:\\src" + sub, true)->CreateOnDisk(), 0u);
      folders.insert(sub);
    } else {
      std::string data(rng() % 40000, '\0');
      for (char& c : data)
        c = char(rng());
      const std::string rel = parent + "\\f" + std::to_string(i) + ".bin";
      this->Put("T:\\src" + rel, data);
      files[rel] = data;
    }
  }
  FileRef dest("T:\\dst", true);
  EXPECT_EQ(root->CopyTree(dest.file), 0u);
  for (const auto& [rel, data] : files)
    EXPECT_EQ(this->Get("T:\\dst" + rel), data) << rel;
  for (const std::string& sub : folders) {
    FileRef d("T:\\dst" + sub, true);
    EXPECT_TRUE(d->Exists()) << sub;
    EXPECT_EQ(Walk("T:\\dst" + sub), Walk("T:\\src" + sub)) << sub;
  }
  // Refusals: a missing source, a folder onto a file.
  this->Put("T:\\plainfile", "p");
  FileRef missing("T:\\none", true), plain("T:\\plainfile");
  EXPECT_EQ(missing->CopyTree(dest.file), uint32_t(kQXErrBadPath));
  EXPECT_EQ(root->CopyTree(plain.file), uint32_t(kQXErrBadPath));
  EXPECT_EQ(dest->Delete(true), 0u);
  EXPECT_EQ(root->Delete(true), 0u);
}

// --- What only the fake can show ---------------------------------------------------------------

class FakeFiles : public ::testing::Test {
 protected:
  FakeFiles() : role_(fake_) {
    fake_.AddDrive('T');
    fake_.MakeFolders("T:\\f");
  }
  TQXFakeFileSystem fake_;
  QXPlatform::ScopedRole<TQXPlatformFileSystem> role_;
};

TEST_F(FakeFiles, ErrorPoliciesPerOperation) {
  fake_.PutFile("T:\\f\\a", "abcdef");
  FileRef f("T:\\f\\a");
  fake_.FailCall(TQXFakeFileSystem::Op::kOpen, 1, kQXSysSharingViolation);
  EXPECT_EQ(f->Open(), uint32_t(kQXErrNotFound));
  ASSERT_EQ(f->Open(), 0u);
  uint32_t done = 0;
  char buf[8];
  fake_.FailCall(TQXFakeFileSystem::Op::kRead, 1, kQXSysReadFault);
  EXPECT_EQ(f->Read(buf, 2, &done), uint32_t(kQXErrEndOfFile));  // nothing read: short
  fake_.FailCall(TQXFakeFileSystem::Op::kWrite, 1, kQXSysWriteFault);
  EXPECT_EQ(f->Write("zz", 2, &done), uint32_t(kQXErrIO));
  fake_.SetFreeSpace('T', 1);
  EXPECT_EQ(f->SetPosition(0, 2), 0u);
  EXPECT_EQ(f->Write("zz", 2, &done), uint32_t(kQXErrIO));
  fake_.SetFreeSpace('T', UINT64_MAX);
  fake_.FailCall(TQXFakeFileSystem::Op::kClose, 1, kQXSysInvalidHandle);
  EXPECT_EQ(f->Close(), uint32_t(kQXErrNotFound));
  EXPECT_FALSE(f->IsOpen());

  fake_.FailCall(TQXFakeFileSystem::Op::kFindFirst, 1, kQXSysNotReady);
  TQXFileInfo info;
  EXPECT_EQ(f->GetInfo(info), kQXSysNotReady);
  FileRef g("T:\\f\\b");
  fake_.FailCall(TQXFakeFileSystem::Op::kCopyFile, 1, kQXSysDiskFull);
  EXPECT_EQ(f->CopyTo(g.file, false), kQXSysDiskFull);
  fake_.FailCall(TQXFakeFileSystem::Op::kMove, 1, kQXSysBusy, true);
  EXPECT_EQ(f->MoveTo(g.file), kQXSysBusy);
  fake_.ClearFailures();
  // Only SetAccess tells reasons apart: "not there" from any other refusal.
  fake_.FailCall(TQXFakeFileSystem::Op::kTestAccess, 1, kQXSysFileNotFound);
  EXPECT_EQ(f->SetAccess(1), uint32_t(kQXErrNotFound));
  fake_.FailCall(TQXFakeFileSystem::Op::kTestAccess, 1, kQXSysSharingViolation);
  EXPECT_EQ(f->SetAccess(1), uint32_t(kQXErrOpenFailed));
  EXPECT_EQ(f.Access(), 3);
}

TEST_F(FakeFiles, CopyReopensAndPortableCopySurvivesSmallBuffers) {
  const std::string data = RandomBytes(50000, 7);
  fake_.PutFile("T:\\f\\src", data);
  FileRef src("T:\\f\\src"), dst("T:\\f\\dst");
  ASSERT_EQ(src->Open(), 0u);
  src->SetPosition(100, 0);
  ASSERT_EQ(src->CopyTo(dst.file, false), 0u);
  EXPECT_TRUE(src->IsOpen());
  uint32_t pos = 1;
  src->GetPosition(&pos);
  EXPECT_EQ(pos, 0u);
  src->Close();
  std::string copied;
  ASSERT_TRUE(fake_.GetFile("T:\\f\\dst", copied));
  EXPECT_EQ(copied, data);

  // A failed write stops the portable copy with the write's failure; modes are restored.
  FileRef dst2("T:\\f\\dst2");
  fake_.FailCall(TQXFakeFileSystem::Op::kWrite, 2, kQXSysWriteFault);
  EXPECT_EQ(src->TQXFile::CopyTo(dst2.file, false), uint32_t(kQXErrIO));
  EXPECT_EQ(src.Access(), 3);
  EXPECT_EQ(dst2.Access(), 3);
  EXPECT_FALSE(src->IsOpen());
  EXPECT_FALSE(dst2->IsOpen());
}

// The portable copy under every allocation failure in turn: each run either copies exactly or
// fails, and leaks nothing; a failing copy buffer falls back to a smaller one.
TEST_F(FakeFiles, PortableCopyUnderAllocationFailures) {
  const std::string data = RandomBytes(40000, 11);
  fake_.PutFile("T:\\f\\src", data);
  FileRef src("T:\\f\\src"), dst("T:\\f\\dst");
  for (bool persistent : {false, true}) {
    uint32_t copies = 0, failures = 0;
    const QXFailureSweep sweep = QXSweepAllocationFailures(
        [&] {
          const uint32_t status = src->TQXFile::CopyTo(dst.file, false);
          std::string copied;
          if (status == 0) {
            ASSERT_TRUE(fake_.GetFile("T:\\f\\dst", copied));
            EXPECT_EQ(copied, data);
            ++copies;
          } else {
            ++failures;
          }
          fake_.DeleteFile("T:\\f\\dst");
        },
        persistent);
    EXPECT_GT(sweep.allocations, 0u);
    // One failed allocation never stops the copy; allocation running out does.
    EXPECT_EQ(failures > 0, persistent) << failures;
    EXPECT_GT(copies, 0u);
  }
}

TEST_F(FakeFiles, DeleteStopsAtAnUndeletableFile) {
  fake_.MakeFolders("T:\\f\\d\\e");
  fake_.PutFile("T:\\f\\d\\e\\keep", "k");
  fake_.PutFile("T:\\f\\d\\gone", "g");
  fake_.SetUndeletable("T:\\f\\d\\e\\keep", true);
  FileRef d("T:\\f\\d", true);
  EXPECT_EQ(d->Delete(true), uint32_t(kQXErrIO));
  std::string data;
  EXPECT_TRUE(fake_.GetFile("T:\\f\\d\\e\\keep", data));
  EXPECT_FALSE(fake_.GetFile("T:\\f\\d\\gone", data));
  EXPECT_EQ(fake_.OpenFinds(), 0u);
}

TEST_F(FakeFiles, ShortcutsAreFollowedAndAncestorsSkipped) {
  fake_.MakeFolders("T:\\f\\w\\inner");
  fake_.MakeFolders("T:\\other");
  fake_.PutFile("T:\\other\\target.tif", "t");
  fake_.PutFile("T:\\f\\w\\to-file.lnk", "");
  fake_.PutFile("T:\\f\\w\\to-parent.lnk", "");
  fake_.PutFile("T:\\f\\w\\broken.lnk", "");
  TWIN_QXFileIterator::fgResolver = [](const char* path, char* target) -> int32_t {
    const std::string p(path);
    const char* to = p.find("to-file") != std::string::npos     ? "T:\\other\\target.tif"
                     : p.find("to-parent") != std::string::npos ? "T:\\f"
                                                                : "T:\\none";
    std::strcpy(target, to);
    return 0;
  };
  const std::set<std::string> seen = Walk("T:\\f\\w", nullptr, true, true);
  TWIN_QXFileIterator::fgResolver = nullptr;
  EXPECT_EQ(seen, (std::set<std::string>{"T:\\other\\target.tif", "T:\\f\\w\\inner\\"}));
  // Without a resolver a shortcut is an ordinary file.
  char target[TWIN_QXFile::kMaxPath];
  EXPECT_LT(TWIN_QXFileIterator::ResolveShortcut("T:\\f\\w\\to-file.lnk", target), 0);
  EXPECT_EQ(target[0], 0);
}

}  // namespace
