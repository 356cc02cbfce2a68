// The two implementations of the file-system role as test backends, each with a drive T: of its
// own: the Linux side on a fresh temporary directory (C: stays "/"), and the fake.
#ifndef QXTESTS_FILESYSTEMBACKENDS_H
#define QXTESTS_FILESYSTEMBACKENDS_H

#include <stdlib.h>

#include <filesystem>
#include <string>

#include "Platform/Fake/QXFakeFileSystem.h"
#include "Platform/QXPathForm.h"
#include "Platform/QXPlatformFileSystem.h"
#include "QXDriveMap.h"

// Removes a directory tree, making every folder writable first so that nothing stops it.
inline void QXTestRemoveTree(const std::string& dir) {
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::permissions(dir, fs::perms::owner_all, fs::perm_options::add, ec);
  for (auto it = fs::recursive_directory_iterator(dir, ec); !ec && it != fs::end(it);
       it.increment(ec)) {
    if (it->is_directory(ec) && !it->is_symlink(ec))
      fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
  }
  fs::remove_all(dir, ec);
}

class QXLinuxBackend {
 public:
  QXLinuxBackend() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qx-fs-XXXXXX").string();
    if (mkdtemp(pattern.data())) dir_ = pattern;
    QXMapDrive('T', dir_.c_str());
  }
  ~QXLinuxBackend() {
    QXMapDrive('T', nullptr);
    if (!dir_.empty()) QXTestRemoveTree(dir_);
  }
  QXLinuxBackend(const QXLinuxBackend&) = delete;
  QXLinuxBackend& operator=(const QXLinuxBackend&) = delete;

  TQXPlatformFileSystem& fs() { return TQXPlatformFileSystem::System(); }
  // The POSIX directory behind T:.
  const std::string& dir() const { return dir_; }
  static const char* Name() { return "Linux"; }

 private:
  std::string dir_;
};

class QXFakeBackend {
 public:
  QXFakeBackend() { fake_.AddDrive('T'); }
  TQXPlatformFileSystem& fs() { return fake_; }
  TQXFakeFileSystem& fake() { return fake_; }
  static const char* Name() { return "Fake"; }

 private:
  TQXFakeFileSystem fake_;
};

// Whether the backend can keep a hidden mark on a name without a leading dot (on Linux: user
// extended attributes on the temporary directory's file system).
inline bool QXTestHiddenStorable(TQXPlatformFileSystem& fs) {
  const char* probe = "T:\\hidden-probe";
  if (fs.CreateNewFile(probe, nullptr)) return false;
  const bool storable = fs.SetAttributes(probe, false, true) == 0;
  fs.DeleteFile(probe);
  return storable;
}

#endif  // QXTESTS_FILESYSTEMBACKENDS_H
