// What only the Linux side shows: the POSIX files behind the library's paths, relative paths
// against the process's directory, time stamps and permission bits as POSIX sees them, links,
// names without a library form, long paths, and moves between devices.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

#include "FileSystemBackends.h"
#include "Platform/Fake/QXFakeText.h"
#include "Platform/QXPlatform.h"

namespace {

class LinuxFileSystem : public ::testing::Test {
 protected:
  TQXPlatformFileSystem& fs() { return backend_.fs(); }
  std::string Posix(const std::string& rel) const { return backend_.dir() + "/" + rel; }
  void Write(const std::string& rel, const std::string& data) {
    std::ofstream(Posix(rel), std::ios::binary) << data;
  }
  QXLinuxBackend backend_;
};

// Runs the body with the process's current directory set to `dir`, and puts it back.
class ScopedDirectory {
 public:
  explicit ScopedDirectory(const std::string& dir) : saved_(std::filesystem::current_path()) {
    std::filesystem::current_path(dir);
  }
  ~ScopedDirectory() { std::filesystem::current_path(saved_); }

 private:
  std::filesystem::path saved_;
};

TEST_F(LinuxFileSystem, PathsOfTheProcessAreThePosixOnes) {
  std::string app;
  ASSERT_EQ(fs().ApplicationPath(app), 0u);
  TQXPath parsed;
  std::string posix;
  ASSERT_EQ(QXParsePath(app.c_str(), nullptr, nullptr, parsed), 0u);
  ASSERT_EQ(QXPathToSystem(parsed, posix), 0u);
  EXPECT_EQ(posix, std::filesystem::read_symlink("/proc/self/exe").string());
  EXPECT_EQ(app.substr(0, 3), "C:\\");

  // With the current directory inside T:'s directory, relative paths land there and the current
  // directory reads back on T:.
  ASSERT_EQ(fs().CreateFolder("T:\\sub"), 0u);
  ScopedDirectory in(Posix("sub"));
  std::string current, full;
  ASSERT_EQ(fs().CurrentDirectory(current), 0u);
  EXPECT_EQ(current, "T:\\sub");
  ASSERT_EQ(fs().CreateNewFile("rel.txt", nullptr), 0u);
  EXPECT_TRUE(std::filesystem::exists(Posix("sub/rel.txt")));
  ASSERT_EQ(fs().FullPath("..\\x\\..\\rel.txt", full), 0u);
  EXPECT_EQ(full, "T:\\rel.txt");
  ASSERT_EQ(fs().FullPath("T:y", full), 0u);
  EXPECT_EQ(full, "T:\\sub\\y");
  TQXFileAttributes a;
  EXPECT_EQ(fs().GetAttributes("T:rel.txt", a), 0u);
  EXPECT_EQ(fs().GetAttributes("..\\..\\..\\..\\..\\..\\..\\..\\..\\..\\..", a), 0u);
  EXPECT_TRUE(a.isFolder);  // T:'s root, not the system's: ".." stops at the drive's root
}

TEST_F(LinuxFileSystem, NetworkPathsThroughTheShareTable) {
  ASSERT_EQ(fs().CreateFolder("T:\\pub"), 0u);
  ASSERT_EQ(QXMapShare("\\\\srv\\pub", Posix("pub").c_str()), 0u);
  ASSERT_EQ(fs().CreateNewFile("\\\\SRV\\Pub\\f", nullptr), 0u);
  EXPECT_TRUE(std::filesystem::exists(Posix("pub/f")));
  TQXFileAttributes a;
  EXPECT_EQ(fs().GetAttributes("\\\\srv\\pub\\", a), 0u);
  EXPECT_TRUE(a.isFolder);
  EXPECT_EQ(fs().RemoveFolder("\\\\srv\\pub"), kQXSysAccessDenied);  // a share's root
  EXPECT_EQ(fs().GetAttributes("\\\\srv\\other\\f", a), kQXSysBadNetPath);
  ASSERT_EQ(QXMapShare("\\\\srv\\pub", nullptr), 0u);
  EXPECT_EQ(fs().GetAttributes("\\\\srv\\pub\\f", a), kQXSysBadNetPath);
}

TEST_F(LinuxFileSystem, TimesAndPermissionsAsPosixSeesThem) {
  ASSERT_EQ(fs().CreateNewFile("T:\\f", nullptr), 0u);
  TQXFileHandle h;
  ASSERT_EQ(fs().Open("T:\\f", TQXFileAccess::kWrite, h), 0u);
  // 1 January 1970 00:00:01.5 UTC, and a time before 1970.
  const uint64_t epoch = 116'444'736'000'000'000ull;
  const uint64_t t = epoch + 15'000'000;
  ASSERT_EQ(fs().SetTimes(h, nullptr, &t), 0u);
  struct stat st;
  ASSERT_EQ(stat(Posix("f").c_str(), &st), 0);
  EXPECT_EQ(st.st_mtim.tv_sec, 1);
  EXPECT_EQ(st.st_mtim.tv_nsec, 500'000'000);
  const uint64_t early = epoch - 10'000'000 * uint64_t(86'400);
  ASSERT_EQ(fs().SetTimes(h, nullptr, &early), 0u);
  ASSERT_EQ(stat(Posix("f").c_str(), &st), 0);
  EXPECT_EQ(st.st_mtim.tv_sec, -86'400);
  ASSERT_EQ(fs().Close(h), 0u);
  TQXFileAttributes a;
  ASSERT_EQ(fs().GetAttributes("T:\\f", a), 0u);
  EXPECT_EQ(a.modificationTime, early);
  EXPECT_NE(a.creationTime, 0u);

  ASSERT_EQ(chmod(Posix("f").c_str(), 0666), 0);
  ASSERT_EQ(fs().SetAttributes("T:\\f", true, false), 0u);
  ASSERT_EQ(stat(Posix("f").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0444u);
  ASSERT_EQ(fs().SetAttributes("T:\\f", false, false), 0u);
  ASSERT_EQ(stat(Posix("f").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);

  // The hidden mark is the attribute "user.qx.hidden", where the file system keeps one.
  if (fs().SetAttributes("T:\\f", true, true) == 0) {
    EXPECT_GE(getxattr(Posix("f").c_str(), "user.qx.hidden", nullptr, 0), 0);
    ASSERT_EQ(fs().SetAttributes("T:\\f", false, false), 0u);
    EXPECT_LT(getxattr(Posix("f").c_str(), "user.qx.hidden", nullptr, 0), 0);
  }
}

TEST_F(LinuxFileSystem, LinksAndNamesWithoutALibraryForm) {
  ASSERT_EQ(fs().CreateFolder("T:\\d"), 0u);
  Write("d/target", "t");
  Write("d/back\\slash", "b");  // a POSIX name holding '\': no library form, not listed
  ASSERT_EQ(symlink("target", Posix("d/link").c_str()), 0);
  ASSERT_EQ(symlink("nowhere", Posix("d/dangling").c_str()), 0);
  ASSERT_EQ(symlink(".", Posix("d/self").c_str()), 0);
  std::vector<std::string> names;
  TQXFindHandle find;
  TQXFindEntry e;
  ASSERT_EQ(fs().FindFirst("T:\\d\\*", find, e), 0u);
  do {
    names.push_back(e.name);
    if (e.name == "link") {
      EXPECT_TRUE(e.attributes.isLink);
      EXPECT_EQ(e.attributes.size, 1u);
    }
    if (e.name == "dangling") {
      EXPECT_TRUE(e.attributes.isLink);
      EXPECT_FALSE(e.attributes.isFolder);
      EXPECT_EQ(e.attributes.size, 0u);
    }
    if (e.name == "self") {
      EXPECT_TRUE(e.attributes.isFolder && e.attributes.isLink);
    }
  } while (fs().FindNext(find, e) == 0);
  EXPECT_EQ(fs().FindClose(find), 0u);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"dangling", "link", "self", "target"}));

  // Deleting a link removes the link, never its target; a link to a folder is no folder to
  // remove.
  EXPECT_EQ(fs().DeleteFile("T:\\d\\dangling"), 0u);
  EXPECT_EQ(fs().DeleteFile("T:\\d\\link"), 0u);
  EXPECT_TRUE(std::filesystem::exists(Posix("d/target")));
  EXPECT_EQ(fs().RemoveFolder("T:\\d\\self"), kQXSysDirectory);
  EXPECT_EQ(fs().DeleteFile("T:\\d\\self"), 0u);
  EXPECT_TRUE(std::filesystem::exists(Posix("d")));
}

// Under code page 932 (from the text role in force) a trail byte 0x5C stays in its name, on the
// way to POSIX and back; read as single bytes, that POSIX name has no library form.
TEST_F(LinuxFileSystem, DoubleByteNamesFollowTheTextRole) {
  TQXFakeText japanese(kQXCodePageJapanese);
  {
    QXPlatform::ScopedRole<TQXPlatformText> scope(japanese);
    ASSERT_EQ(fs().CreateFolder("T:\\\x83\x5C"), 0u);
    ASSERT_EQ(fs().CreateNewFile("T:\\\x83\x5C\\\x83\x5C.txt", nullptr), 0u);
    EXPECT_TRUE(std::filesystem::exists(Posix("\x83\\/\x83\\.txt")));
    TQXFindHandle find;
    TQXFindEntry e;
    ASSERT_EQ(fs().FindFirst("T:\\\x83\x5C\\*.txt", find, e), 0u);
    EXPECT_EQ(e.name, "\x83\x5C.txt");
    EXPECT_EQ(fs().FindClose(find), 0u);
  }
  TQXFindHandle find;
  TQXFindEntry e;
  EXPECT_EQ(fs().FindFirst("T:\\*", find, e), kQXSysFileNotFound);
}

TEST_F(LinuxFileSystem, LongPathsAndOtherKindsOfFile) {
  // Any length is handled; the kernel's limits come back as 206.
  const std::string longName = "T:\\" + std::string(300, 'n');
  const std::string longPath = "T:" + [] {
    std::string s;
    for (int i = 0; i < 1000; ++i)
      s += "\\abcdefghi";
    return s;
  }();
  TQXFileAttributes a;
  TQXFileHandle h;
  EXPECT_EQ(fs().GetAttributes(longName.c_str(), a), kQXSysFilenameTooLong);
  EXPECT_EQ(fs().CreateNewFile(longPath.c_str(), nullptr), kQXSysFilenameTooLong);
  EXPECT_EQ(fs().Open(longPath.c_str(), TQXFileAccess::kRead, h), kQXSysFilenameTooLong);
  EXPECT_EQ(fs().CreateFolder(longPath.c_str()), kQXSysFilenameTooLong);

  // Only regular files open: a FIFO neither blocks nor opens.
  ASSERT_EQ(mkfifo(Posix("fifo").c_str(), 0600), 0);
  EXPECT_EQ(fs().Open("T:\\fifo", TQXFileAccess::kRead, h), kQXSysAccessDenied);
  EXPECT_EQ(fs().CopyFile("T:\\fifo", "T:\\x"), kQXSysAccessDenied);

  // Descriptors do not leak into programs the host starts.
  ASSERT_EQ(fs().CreateNewFile("T:\\f", &h), 0u);
  EXPECT_EQ(fcntl(h - 1, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(fs().Close(h), 0u);
}

TEST_F(LinuxFileSystem, MovesBetweenDevices) {
  // /dev/shm is a memory file system on another device than the temporary directory, here.
  std::string shm = "/dev/shm/qx-fs-" + std::to_string(getpid());
  struct stat a, b;
  if (stat(backend_.dir().c_str(), &a) != 0 || mkdir(shm.c_str(), 0700) != 0 ||
      stat(shm.c_str(), &b) != 0 || a.st_dev == b.st_dev) {
    rmdir(shm.c_str());
    GTEST_SKIP() << "no second device to move to";
  }
  ASSERT_EQ(QXMapDrive('S', shm.c_str()), 0u);
  Write("f", "moving");
  ASSERT_EQ(fs().CreateFolder("T:\\d"), 0u);
  TQXFileHandle h;
  const uint64_t t = 130'000'000'000'000'000ull;
  ASSERT_EQ(fs().Open("T:\\f", TQXFileAccess::kWrite, h), 0u);
  ASSERT_EQ(fs().SetTimes(h, nullptr, &t), 0u);
  ASSERT_EQ(fs().Close(h), 0u);
  ASSERT_EQ(fs().SetAttributes("T:\\f", true, false), 0u);
  EXPECT_EQ(fs().Move("T:\\f", "S:\\f", false), 0u);
  EXPECT_EQ(fs().Move("T:\\d", "S:\\d", false), kQXSysNotSameDevice);
  TQXFileAttributes attrs;
  EXPECT_EQ(fs().GetAttributes("T:\\f", attrs), kQXSysFileNotFound);
  ASSERT_EQ(fs().GetAttributes("S:\\f", attrs), 0u);
  EXPECT_EQ(attrs.modificationTime, t);
  EXPECT_TRUE(attrs.isReadOnly);
  EXPECT_EQ(attrs.size, 6u);
  QXMapDrive('S', nullptr);
  QXTestRemoveTree(shm);
}

}  // namespace
