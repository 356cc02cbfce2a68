// What only the fake does: scripted failures, a full disk, undeletable files, access failures,
// counters, shares, two drives, and its own current directory and clock.
#include <gtest/gtest.h>

#include <string>

#include "Platform/Fake/QXFakeFileSystem.h"
#include "Platform/QXPlatform.h"

namespace {

using Op = TQXFakeFileSystem::Op;

class FakeFileSystem : public ::testing::Test {
 protected:
  FakeFileSystem() { fs.AddDrive('T'); }
  TQXFakeFileSystem fs;
};

TEST_F(FakeFileSystem, ScriptedCallFailures) {
  ASSERT_EQ(fs.PutFile("T:\\f", "0123456789"), 0u);
  TQXFileHandle h;
  ASSERT_EQ(fs.Open("T:\\f", TQXFileAccess::kReadWrite, h), 0u);
  char buf[4];
  uint32_t done = 7;
  fs.FailCall(Op::kRead, 2, kQXSysReadFault);
  EXPECT_EQ(fs.Read(h, buf, 2, done), 0u);
  EXPECT_EQ(fs.Read(h, buf, 2, done), kQXSysReadFault);  // the second read from now
  EXPECT_EQ(done, 0u);
  uint64_t pos;
  EXPECT_EQ(fs.GetPosition(h, pos), 0u);
  EXPECT_EQ(pos, 2u);  // a scripted failure changes nothing
  EXPECT_EQ(fs.Read(h, buf, 2, done), 0u);
  EXPECT_EQ(std::string(buf, 2), "23");

  fs.FailCall(Op::kWrite, 1, kQXSysWriteFault, true);
  EXPECT_EQ(fs.Write(h, "ab", 2, done), kQXSysWriteFault);
  EXPECT_EQ(fs.Write(h, "ab", 2, done), kQXSysWriteFault);  // and every one after
  fs.ClearFailures();
  EXPECT_EQ(fs.Write(h, "ab", 2, done), 0u);
  EXPECT_EQ(fs.Calls(Op::kWrite), 3u);
  EXPECT_EQ(fs.Calls(Op::kRead), 3u);
  EXPECT_EQ(fs.Close(h), 0u);

  fs.FailCall(Op::kOpen, 1, kQXSysSharingViolation);
  EXPECT_EQ(fs.Open("T:\\f", TQXFileAccess::kRead, h), kQXSysSharingViolation);
  EXPECT_EQ(h, kQXInvalidFileHandle);
  EXPECT_EQ(fs.OpenHandles(), 0u);
}

// The usual fault-injection loop: fail the N-th write for N = 1, 2, ... until a whole job goes
// through, and check after each failure that nothing was left open.
TEST_F(FakeFileSystem, FailTheNthWriteUntilTheJobSucceeds) {
  auto job = [this]() -> uint32_t {
    TQXFileHandle h;
    fs.DeleteFile("T:\\out");
    if (uint32_t r = fs.CreateNewFile("T:\\out", &h)) return r;
    uint32_t r = 0, done;
    for (int chunk = 0; chunk < 3 && r == 0; ++chunk)
      r = fs.Write(h, "chunk", 5, done);
    fs.Close(h);
    return r;
  };
  uint32_t n = 1;
  for (;; ++n) {
    fs.FailCall(Op::kWrite, n, kQXSysWriteFault);
    const uint32_t r = job();
    EXPECT_EQ(fs.OpenHandles(), 0u);
    if (r == 0) break;
    EXPECT_EQ(r, kQXSysWriteFault);
    ASSERT_LT(n, 10u);
  }
  EXPECT_EQ(n, 4u);
  std::string data;
  ASSERT_TRUE(fs.GetFile("T:\\out", data));
  EXPECT_EQ(data, "chunkchunkchunk");
}

TEST_F(FakeFileSystem, DiskFull) {
  fs.SetFreeSpace('T', 10);
  TQXFileHandle h;
  ASSERT_EQ(fs.CreateNewFile("T:\\f", &h), 0u);
  uint32_t done;
  EXPECT_EQ(fs.Write(h, "0123456789abcdef", 16, done), kQXSysDiskFull);
  EXPECT_EQ(done, 10u);  // what fits is written
  EXPECT_EQ(fs.FreeSpace('T'), 0u);
  uint64_t pos;
  ASSERT_EQ(fs.Seek(h, 0, TQXSeekOrigin::kBegin, pos), 0u);
  EXPECT_EQ(fs.Write(h, "ABCD", 4, done), 0u);  // overwriting needs no space
  EXPECT_EQ(fs.SetLength(h, 11), kQXSysDiskFull);
  EXPECT_EQ(fs.SetLength(h, 6), 0u);
  EXPECT_EQ(fs.FreeSpace('T'), 4u);
  EXPECT_EQ(fs.Close(h), 0u);
  ASSERT_EQ(fs.PutFile("T:\\small", "xy"), 0u);  // the scene's files count too
  EXPECT_EQ(fs.FreeSpace('T'), 2u);
  EXPECT_EQ(fs.CopyFile("T:\\f", "T:\\copy"), kQXSysDiskFull);
  TQXFileAttributes a;
  EXPECT_EQ(fs.GetAttributes("T:\\copy", a), kQXSysFileNotFound);  // nothing left behind
  EXPECT_EQ(fs.CopyFile("T:\\small", "T:\\copy"), 0u);
  EXPECT_EQ(fs.FreeSpace('T'), 0u);
  std::string data;
  ASSERT_TRUE(fs.GetFile("T:\\f", data));
  EXPECT_EQ(data, "ABCD45");
  EXPECT_EQ(fs.DeleteFile("T:\\f"), 0u);
  EXPECT_EQ(fs.FreeSpace('T'), 6u);
  EXPECT_EQ(fs.Move("T:\\copy", "T:\\small", true), 0u);  // replacing gives the old back
  EXPECT_EQ(fs.FreeSpace('T'), 8u);
}

TEST_F(FakeFileSystem, UndeletableAndAccessFailures) {
  ASSERT_EQ(fs.PutFile("T:\\d\\keep", "k"), 0u);
  ASSERT_EQ(fs.PutFile("T:\\d\\secret", "s"), 0u);
  ASSERT_EQ(fs.SetUndeletable("T:\\d\\keep", true), 0u);
  EXPECT_EQ(fs.DeleteFile("T:\\d\\keep"), kQXSysAccessDenied);
  EXPECT_EQ(fs.Move("T:\\d\\keep", "T:\\d\\moved", false), kQXSysAccessDenied);
  EXPECT_EQ(fs.CopyFile("T:\\d\\secret", "T:\\d\\keep"), 0u);  // its data may change
  EXPECT_EQ(fs.SetUndeletable("T:\\gone", true), kQXSysFileNotFound);

  ASSERT_EQ(fs.SetAccessError("T:\\d\\secret", kQXSysAccessDenied), 0u);
  TQXFileHandle h;
  TQXFileAttributes a;
  EXPECT_EQ(fs.Open("T:\\d\\secret", TQXFileAccess::kRead, h), kQXSysAccessDenied);
  EXPECT_EQ(fs.GetAttributes("T:\\d\\secret", a), kQXSysAccessDenied);
  EXPECT_EQ(fs.TestAccess("T:\\d\\secret", TQXFileAccess::kRead), kQXSysAccessDenied);
  EXPECT_EQ(fs.DeleteFile("T:\\d\\secret"), kQXSysAccessDenied);
  TQXFindHandle find;
  TQXFindEntry e;
  EXPECT_EQ(fs.FindFirst("T:\\d\\secret", find, e), kQXSysAccessDenied);
  ASSERT_EQ(fs.FindFirst("T:\\d\\s*", find, e), 0u);  // the listing still shows it
  EXPECT_EQ(e.name, "secret");
  EXPECT_EQ(fs.OpenFinds(), 1u);
  EXPECT_EQ(fs.FindClose(find), 0u);
  EXPECT_EQ(fs.OpenFinds(), 0u);
  ASSERT_EQ(fs.SetAccessError("T:\\d\\secret", 0), 0u);
  EXPECT_EQ(fs.DeleteFile("T:\\d\\secret"), 0u);
}

TEST_F(FakeFileSystem, SharesDrivesCurrentDirectoryAndClock) {
  ASSERT_TRUE(fs.AddShare("\\\\srv\\pub", "T:\\pub"));
  EXPECT_FALSE(fs.AddShare("\\\\srv", "T:\\pub"));
  ASSERT_EQ(fs.MakeFolders("T:\\pub\\in"), 0u);
  ASSERT_EQ(fs.PutFile("\\\\SRV\\Pub\\in\\f", "net"), 0u);
  std::string data;
  EXPECT_TRUE(fs.GetFile("T:\\pub\\in\\f", data));
  EXPECT_EQ(data, "net");
  TQXFileAttributes a;
  EXPECT_EQ(fs.GetAttributes("\\\\srv\\nope\\f", a), kQXSysBadNetPath);
  EXPECT_EQ(fs.RemoveFolder("\\\\srv\\pub\\"), kQXSysAccessDenied);  // a share's root
  EXPECT_EQ(fs.Move("\\\\srv\\pub\\in", "T:\\pub\\in\\x", false), kQXSysInvalidParameter);

  // Two drives are two devices: files are carried over, folders are not.
  fs.AddDrive('U');
  fs.SetNow(fs.Now() + 777);
  ASSERT_EQ(fs.Move("T:\\pub\\in\\f", "U:\\f", false), 0u);
  EXPECT_TRUE(fs.GetFile("U:\\f", data));
  EXPECT_EQ(fs.Move("T:\\pub", "U:\\pub", false), kQXSysNotSameDevice);
  fs.SetFreeSpace('U', 2);
  ASSERT_EQ(fs.PutFile("T:\\g", "abc"), 0u);
  EXPECT_EQ(fs.Move("T:\\g", "U:\\g", false), kQXSysDiskFull);
  EXPECT_EQ(fs.GetAttributes("T:\\g", a), 0u);
  EXPECT_EQ(a.creationTime, fs.Now());
  EXPECT_EQ(fs.GetAttributes("Q:\\", a), kQXSysPathNotFound);
  fs.RemoveDrive('U');
  EXPECT_EQ(fs.GetAttributes("U:\\f", a), kQXSysPathNotFound);

  // The current directory: relative, and drive-relative on the current drive.
  EXPECT_FALSE(fs.SetCurrentDirectory("T:\\g"));  // a file
  EXPECT_FALSE(fs.SetCurrentDirectory("pub"));    // not absolute
  ASSERT_TRUE(fs.SetCurrentDirectory("T:\\pub\\in\\"));
  std::string s;
  EXPECT_EQ(fs.CurrentDirectory(s), 0u);
  EXPECT_EQ(s, "T:\\pub\\in");
  ASSERT_EQ(fs.CreateNewFile("rel", nullptr), 0u);
  EXPECT_EQ(fs.GetAttributes("T:\\pub\\in\\rel", a), 0u);
  EXPECT_EQ(fs.FullPath("T:x", s), 0u);
  EXPECT_EQ(s, "T:\\pub\\in\\x");
  EXPECT_EQ(fs.FullPath("C:x", s), 0u);
  EXPECT_EQ(s, "C:\\x");
  fs.SetApplicationPath("C:\\Apps\\Host.exe");
  EXPECT_EQ(fs.ApplicationPath(s), 0u);
  EXPECT_EQ(s, "C:\\Apps\\Host.exe");

  // Installed as the role for a scope.
  {
    QXPlatform::ScopedRole<TQXPlatformFileSystem> scope(fs);
    EXPECT_EQ(&QXPlatform::Get<TQXPlatformFileSystem>(), &fs);
  }
  EXPECT_EQ(&QXPlatform::Get<TQXPlatformFileSystem>(), &TQXPlatformFileSystem::System());
}

}  // namespace
