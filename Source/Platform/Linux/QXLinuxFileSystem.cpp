// The file-system role on Linux: POSIX calls on the directories of the drive map.
//
// Every path is parsed in the library's form, made absolute against the current directory and
// normalised lexically (QXPathForm.h), then carried to a POSIX path through the drive map. No
// call works on a relative POSIX path, so ".." means what it means in the library's form, and no
// buffer has a fixed size: a path too long for the kernel gives 206 from the kernel itself.
//
// What POSIX does not do by itself, and the role promises (QXPlatformFileSystem.h), is kept
// here:
//  - Sharing. The table `uses_` counts, per file (device and inode), the opens made through this
//    role and those among them that may write. It is what refuses a second writer, a delete or a
//    replace of an open file, with 32. Opens by other processes do not count.
//  - Read-only. Checked before opening for writing, deleting or replacing, because a privileged
//    process would pass the kernel's permission check.
//  - Not found. ENOENT becomes 2 when the folder above exists and 3 otherwise, by looking.
//
// File descriptors are opened with O_CLOEXEC. Handles are the descriptor plus 1, so they are
// positive and unique while open.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <map>
#include <unordered_map>
#include <utility>

#include "Platform/QXPathForm.h"
#include "Platform/QXPlatform.h"
#include "Platform/QXPlatformFileSystem.h"

uint32_t QXSystemErrorFromErrno(int error) {
  switch (error) {
    case ENOENT:
      return kQXSysFileNotFound;
    case ENOTDIR:
      return kQXSysPathNotFound;
    case EMFILE:
    case ENFILE:
      return kQXSysTooManyOpenFiles;
    case EACCES:
    case EPERM:
    case EISDIR:
      return kQXSysAccessDenied;
    case EBADF:
      return kQXSysInvalidHandle;
    case ENOMEM:
      return kQXSysNotEnoughMemory;
    case EXDEV:
      return kQXSysNotSameDevice;
    case EROFS:
      return kQXSysWriteProtect;
    case ENXIO:
    case ENODEV:
    case ENOMEDIUM:
      return kQXSysNotReady;
    case ETXTBSY:
      return kQXSysSharingViolation;
    case EOPNOTSUPP:
      return kQXSysNotSupported;
    case EEXIST:
      return kQXSysFileExists;
    case EINVAL:
      return kQXSysInvalidParameter;
    case ENOSPC:
    case EDQUOT:
      return kQXSysDiskFull;
    case ENOSYS:
      return kQXSysCallNotImplemented;
    case ENOTEMPTY:
      return kQXSysDirNotEmpty;
    case EBUSY:
      return kQXSysBusy;
    case ENAMETOOLONG:
      return kQXSysFilenameTooLong;
    case EFBIG:
      return kQXSysFileTooLarge;
    case EIO:
      return kQXSysIODevice;
    case ELOOP:
      return kQXSysCantResolveFilename;
    default:
      return kQXSysGenFailure;
  }
}

namespace {

constexpr const char* kHiddenAttribute = "user.qx.hidden";
constexpr int64_t kSecondsFrom1601To1970 = 11'644'473'600;
constexpr uint64_t kTicksPerSecond = 10'000'000;

// A POSIX time as the 100-ns count from 1601; times before 1601 give 0, times past the count's
// range its largest value.
uint64_t CountFromPosix(int64_t seconds, uint32_t nanoseconds) {
  if (seconds < -kSecondsFrom1601To1970) return 0;
  // In unsigned arithmetic: seconds near the top of int64_t must not overflow.
  const uint64_t s = uint64_t(seconds) + uint64_t(kSecondsFrom1601To1970);
  if (s > (UINT64_MAX - 9'999'999) / kTicksPerSecond) return UINT64_MAX;
  return s * kTicksPerSecond + nanoseconds / 100;
}

timespec PosixFromCount(uint64_t count) {
  timespec ts;
  ts.tv_sec = time_t(int64_t(count / kTicksPerSecond) - kSecondsFrom1601To1970);
  ts.tv_nsec = long((count % kTicksPerSecond) * 100);
  return ts;
}

struct TQXFileId {
  dev_t device;
  ino_t inode;
  auto operator<=>(const TQXFileId&) const = default;
};

// What one stat gives.
struct TQXNodeFacts {
  bool isFolder = false;
  bool isRegular = false;
  bool isLink = false;
  mode_t mode = 0;
  TQXFileId id{};
  uint64_t size = 0;
  uint64_t creation = 0;
  uint64_t modification = 0;

  // A link's own mode (and so a dangling link's) has every permission bit: never read-only.
  bool IsReadOnly() const { return !(mode & S_IWUSR); }
};

void FactsFromStatx(const struct statx& sx, TQXNodeFacts& f) {
  f.mode = sx.stx_mode;
  f.isFolder = S_ISDIR(sx.stx_mode);
  f.isRegular = S_ISREG(sx.stx_mode);
  f.id = {makedev(sx.stx_dev_major, sx.stx_dev_minor), sx.stx_ino};
  f.size = f.isFolder ? 0 : sx.stx_size;
  f.modification = CountFromPosix(sx.stx_mtime.tv_sec, sx.stx_mtime.tv_nsec);
  f.creation = (sx.stx_mask & STATX_BTIME)
                   ? CountFromPosix(sx.stx_btime.tv_sec, sx.stx_btime.tv_nsec)
                   : f.modification;
}

// A kernel or a sandbox without statx: fstatat, which knows no birth time.
bool gNoStatx = false;

int StatOne(int dirfd, const char* path, int flags, struct statx& sx) {
  const unsigned mask = STATX_BASIC_STATS | STATX_BTIME;
  if (!gNoStatx) {
    if (statx(dirfd, path, flags, mask, &sx) == 0) return 0;
    if (errno != ENOSYS) return errno;
    gNoStatx = true;
  }
  struct stat st;
  if (fstatat(dirfd, path, &st, flags) != 0) return errno;
  sx = {};
  sx.stx_mask = STATX_BASIC_STATS;
  sx.stx_mode = uint16_t(st.st_mode);
  sx.stx_dev_major = major(st.st_dev);
  sx.stx_dev_minor = minor(st.st_dev);
  sx.stx_ino = st.st_ino;
  sx.stx_size = uint64_t(st.st_size);
  sx.stx_mtime.tv_sec = st.st_mtim.tv_sec;
  sx.stx_mtime.tv_nsec = uint32_t(st.st_mtim.tv_nsec);
  return 0;
}

// The facts of `path` relative to `dirfd`. With `follow`, a symbolic link is followed and isLink
// set; a link that leads nowhere reports the link itself, as an empty file. Returns 0 or errno.
int StatAt(int dirfd, const char* path, bool follow, TQXNodeFacts& f) {
  struct statx sx;
  if (int e = StatOne(dirfd, path, AT_SYMLINK_NOFOLLOW, sx)) return e;
  f = TQXNodeFacts();
  FactsFromStatx(sx, f);
  if (!S_ISLNK(sx.stx_mode)) return 0;
  f.isLink = true;
  if (!follow) return 0;
  struct statx target;
  if (StatOne(dirfd, path, 0, target) != 0) {
    f.size = 0;  // a dangling link: itself, as an empty file
    return 0;
  }
  FactsFromStatx(target, f);
  f.isLink = true;
  return 0;
}

bool HasHiddenMark(const char* posix) {
  return getxattr(posix, kHiddenAttribute, nullptr, 0) >= 0;
}

bool IsDotName(const TQXPath& p) {
  return !p.names.empty() && !p.names.back().empty() && p.names.back()[0] == '.';
}

bool HasWildcard(const std::string& name) {
  return name.find_first_of("*?") != std::string::npos;
}

bool Writes(TQXFileAccess a) {
  return a == TQXFileAccess::kWrite || a == TQXFileAccess::kReadWrite;
}

bool Reads(TQXFileAccess a) {
  return a == TQXFileAccess::kRead || a == TQXFileAccess::kReadWrite;
}

bool ValidAccess(TQXFileAccess a) {
  return Reads(a) || Writes(a);
}

// Closes a descriptor whatever close says: the descriptor is gone either way on Linux.
void CloseFd(int fd) {
  close(fd);
}

// The parent of a parsed path (the root's parent is the root).
TQXPath Parent(const TQXPath& p) {
  TQXPath parent = p;
  if (!parent.names.empty()) parent.names.pop_back();
  parent.trailingSeparator = false;
  return parent;
}

// Whether `inner` lies strictly below `outer`, by names.
bool IsBelow(const TQXPath& inner, const TQXPath& outer) {
  if (inner.drive != outer.drive || inner.server != outer.server || inner.share != outer.share ||
      inner.names.size() <= outer.names.size())
    return false;
  for (size_t i = 0; i < outer.names.size(); ++i)
    if (inner.names[i] != outer.names[i]) return false;
  return true;
}

// Copies all of `in` to `out` from their current positions. Returns 0 or errno.
int CopyData(int in, int out) {
  bool plain = false;
  for (;;) {
    if (!plain) {
      const ssize_t n = copy_file_range(in, nullptr, out, nullptr, size_t(1) << 30, 0);
      if (n > 0) continue;
      if (n == 0) return 0;
      if (errno == EINTR) continue;
      if (errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP) return errno;
      plain = true;  // nothing was copied by the failed call: go on from the same positions
    }
    char buffer[65536];
    const ssize_t n = read(in, buffer, sizeof buffer);
    if (n == 0) return 0;
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    for (ssize_t put = 0; put < n;) {
      const ssize_t w = write(out, buffer + put, size_t(n - put));
      if (w < 0) {
        if (errno == EINTR) continue;
        return errno;
      }
      put += w;
    }
  }
}

class TQXLinuxFileSystem final : public TQXPlatformFileSystem {
 public:
  uint32_t Open(const char* path, TQXFileAccess access, TQXFileHandle& handle) override;
  uint32_t CreateNewFile(const char* path, TQXFileHandle* handle) override;
  uint32_t Close(TQXFileHandle handle) override;
  uint32_t Read(TQXFileHandle handle, void* buffer, uint32_t count, uint32_t& done) override;
  uint32_t Write(TQXFileHandle handle, const void* buffer, uint32_t count, uint32_t& done) override;
  uint32_t Seek(TQXFileHandle handle, int64_t offset, TQXSeekOrigin origin,
                uint64_t& position) override;
  uint32_t GetPosition(TQXFileHandle handle, uint64_t& position) override;
  uint32_t GetLength(TQXFileHandle handle, uint64_t& length) override;
  uint32_t SetLength(TQXFileHandle handle, uint64_t length) override;
  uint32_t SetTimes(TQXFileHandle handle, const uint64_t* creation,
                    const uint64_t* modification) override;
  bool KeepsCreationTime() override { return false; }
  uint32_t GetAttributes(const char* path, TQXFileAttributes& attributes) override;
  uint32_t TestAccess(const char* path, TQXFileAccess access) override;
  uint32_t CreateFolder(const char* path) override;
  uint32_t DeleteFile(const char* path) override;
  uint32_t RemoveFolder(const char* path) override;
  uint32_t Move(const char* from, const char* to, bool replaceExisting) override;
  uint32_t CopyFile(const char* from, const char* to) override;
  uint32_t SetAttributes(const char* path, bool readOnly, bool hidden) override;
  uint32_t FindFirst(const char* pattern, TQXFindHandle& find, TQXFindEntry& entry) override;
  uint32_t FindNext(TQXFindHandle find, TQXFindEntry& entry) override;
  uint32_t FindClose(TQXFindHandle find) override;
  uint32_t FullPath(const char* path, std::string& full) override;
  uint32_t CurrentDirectory(std::string& path) override;
  uint32_t ApplicationPath(std::string& path) override;

 private:
  struct TQXOpenFile {
    int fd;
    TQXFileAccess access;
    TQXFileId id;
  };
  struct TQXUse {
    uint32_t opens = 0;
    uint32_t writers = 0;
  };
  struct TQXFind {
    DIR* dir = nullptr;  // null once the entries are used up, or for a single-name find
    std::string folder;  // POSIX, with a trailing '/'
    std::string pattern;
  };
  // A path, parsed and carried to POSIX.
  struct TQXTarget {
    TQXPath path;
    std::string posix;
  };

  uint32_t Parse(const char* text, TQXPath& path);
  uint32_t Resolve(const char* text, TQXTarget& t);
  uint32_t Current(TQXPath& current);
  // The error of a failed call on `path`: ENOENT becomes 2 or 3 by looking at the parent.
  uint32_t Failure(int error, const TQXPath& path);
  bool ParentIsFolder(const TQXPath& path);
  TQXOpenFile* Lookup(TQXFileHandle handle);

  // Sharing: whether an open for `writes` may join the opens of `id`.
  bool MayOpen(const TQXFileId& id, bool writes) const {
    auto it = uses_.find(id);
    return it == uses_.end() || it->second.opens == 0 || (!writes && it->second.writers == 0);
  }
  bool IsOpen(const TQXFileId& id) const { return !MayOpen(id, true); }
  TQXFileHandle Register(int fd, TQXFileAccess access, const TQXFileId& id);
  TQXFindHandle NewFindHandle();

  uint32_t ReadAttributes(const TQXTarget& t, TQXFileAttributes& a);
  bool NextMatch(TQXFind& f, TQXFindEntry& entry);
  uint32_t MoveAcrossDevices(const TQXTarget& from, const TQXTarget& to, const TQXNodeFacts& facts);

  std::unordered_map<TQXFileHandle, TQXOpenFile> files_;
  std::map<TQXFileId, TQXUse> uses_;
  std::unordered_map<TQXFindHandle, TQXFind> finds_;
  TQXFindHandle nextFind_ = 1;
};

uint32_t TQXLinuxFileSystem::Current(TQXPath& current) {
  std::string buffer(256, '\0');
  while (!getcwd(buffer.data(), buffer.size())) {
    if (errno != ERANGE) return QXSystemErrorFromErrno(errno);
    if (buffer.size() >= (size_t(1) << 24)) return kQXSysFilenameTooLong;
    buffer.resize(buffer.size() * 2);
  }
  // A directory outside the process's root shows as "(unreachable)/...": not absolute.
  const uint32_t r = QXPathFromSystem(buffer.c_str(), QXPathLeadByteTest(), current);
  return r == kQXSysInvalidParameter ? kQXSysPathNotFound : r;
}

uint32_t TQXLinuxFileSystem::Parse(const char* text, TQXPath& path) {
  if (!text) return kQXSysInvalidParameter;
  const TQXPathKind kind = QXClassifyPath(text);
  TQXPath current;
  bool haveCurrent = false;
  if (kind == TQXPathKind::kRelative || kind == TQXPathKind::kDriveRelative)
    haveCurrent = Current(current) == 0;
  return QXParsePath(text, haveCurrent ? &current : nullptr, QXPathLeadByteTest(), path);
}

uint32_t TQXLinuxFileSystem::Resolve(const char* text, TQXTarget& t) {
  if (uint32_t r = Parse(text, t.path)) return r;
  return QXPathToSystem(t.path, t.posix);
}

bool TQXLinuxFileSystem::ParentIsFolder(const TQXPath& path) {
  std::string parent;
  if (QXPathToSystem(Parent(path), parent)) return false;
  TQXNodeFacts f;
  return StatAt(AT_FDCWD, parent.c_str(), true, f) == 0 && f.isFolder;
}

uint32_t TQXLinuxFileSystem::Failure(int error, const TQXPath& path) {
  if (error != ENOENT) return QXSystemErrorFromErrno(error);
  if (path.IsRoot()) return kQXSysPathNotFound;
  return ParentIsFolder(path) ? kQXSysFileNotFound : kQXSysPathNotFound;
}

TQXLinuxFileSystem::TQXOpenFile* TQXLinuxFileSystem::Lookup(TQXFileHandle handle) {
  auto it = files_.find(handle);
  return it == files_.end() ? nullptr : &it->second;
}

TQXFileHandle TQXLinuxFileSystem::Register(int fd, TQXFileAccess access, const TQXFileId& id) {
  TQXUse& use = uses_[id];
  ++use.opens;
  if (Writes(access)) ++use.writers;
  const TQXFileHandle handle = fd + 1;
  files_[handle] = {fd, access, id};
  return handle;
}

TQXFindHandle TQXLinuxFileSystem::NewFindHandle() {
  for (;;) {
    const TQXFindHandle h = nextFind_;
    nextFind_ = nextFind_ == INT32_MAX ? 1 : nextFind_ + 1;
    if (!finds_.count(h)) return h;
  }
}

uint32_t TQXLinuxFileSystem::Open(const char* path, TQXFileAccess access, TQXFileHandle& handle) {
  handle = kQXInvalidFileHandle;
  if (!ValidAccess(access)) return kQXSysInvalidParameter;
  TQXTarget t;
  if (uint32_t r = Resolve(path, t)) return r;
  // O_NONBLOCK keeps a FIFO or a device from blocking the open; it is cleared for the file.
  const int mode = access == TQXFileAccess::kRead    ? O_RDONLY
                   : access == TQXFileAccess::kWrite ? O_WRONLY
                                                     : O_RDWR;
  const int fd = open(t.posix.c_str(), mode | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return Failure(errno, t.path);
  struct stat st;
  uint32_t r = 0;
  if (fstat(fd, &st) != 0)
    r = QXSystemErrorFromErrno(errno);
  else if (!S_ISREG(st.st_mode))
    r = kQXSysAccessDenied;
  else if (Writes(access) && !(st.st_mode & S_IWUSR))
    r = kQXSysAccessDenied;
  else if (!MayOpen({st.st_dev, st.st_ino}, Writes(access)))
    r = kQXSysSharingViolation;
  else if (fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0)
    r = QXSystemErrorFromErrno(errno);
  if (r) {
    CloseFd(fd);
    return r;
  }
  handle = Register(fd, access, {st.st_dev, st.st_ino});
  return 0;
}

uint32_t TQXLinuxFileSystem::CreateNewFile(const char* path, TQXFileHandle* handle) {
  if (handle) *handle = kQXInvalidFileHandle;
  TQXTarget t;
  if (uint32_t r = Resolve(path, t)) return r;
  if (t.path.IsRoot()) return kQXSysFileExists;
  if (t.path.trailingSeparator) return kQXSysInvalidName;
  const int fd = open(t.posix.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, 0666);
  if (fd < 0) return Failure(errno, t.path);
  if (!handle) {
    CloseFd(fd);
    return 0;
  }
  struct stat st;
  if (fstat(fd, &st) != 0) {
    const int e = errno;
    CloseFd(fd);
    return QXSystemErrorFromErrno(e);
  }
  // Shared with nobody: counted as a writer, any other open is refused while it lives.
  *handle = Register(fd, TQXFileAccess::kReadWrite, {st.st_dev, st.st_ino});
  return 0;
}

uint32_t TQXLinuxFileSystem::Close(TQXFileHandle handle) {
  TQXOpenFile* f = Lookup(handle);
  if (!f) return kQXSysInvalidHandle;
  auto use = uses_.find(f->id);
  if (use != uses_.end()) {
    --use->second.opens;
    if (Writes(f->access)) --use->second.writers;
    if (use->second.opens == 0) uses_.erase(use);
  }
  CloseFd(f->fd);
  files_.erase(handle);
  return 0;
}

uint32_t TQXLinuxFileSystem::Read(TQXFileHandle handle, void* buffer, uint32_t count,
                                  uint32_t& done) {
  done = 0;
  TQXOpenFile* f = Lookup(handle);
  if (!f) return kQXSysInvalidHandle;
  if (!Reads(f->access)) return kQXSysAccessDenied;
  if (count == 0) return 0;
  if (!buffer) return kQXSysInvalidParameter;
  char* out = static_cast<char*>(buffer);
  while (done < count) {
    const ssize_t n = read(f->fd, out + done, count - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return QXSystemErrorFromErrno(errno);
    }
    if (n == 0) return kQXSysHandleEOF;
    done += uint32_t(n);
  }
  return 0;
}

uint32_t TQXLinuxFileSystem::Write(TQXFileHandle handle, const void* buffer, uint32_t count,
                                   uint32_t& done) {
  done = 0;
  TQXOpenFile* f = Lookup(handle);
  if (!f) return kQXSysInvalidHandle;
  if (!Writes(f->access)) return kQXSysAccessDenied;
  if (count == 0) return 0;
  if (!buffer) return kQXSysInvalidParameter;
  const char* in = static_cast<const char*>(buffer);
  while (done < count) {
    const ssize_t n = write(f->fd, in + done, count - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return QXSystemErrorFromErrno(errno);
    }
    if (n == 0) return kQXSysDiskFull;
    done += uint32_t(n);
  }
  return 0;
}

uint32_t TQXLinuxFileSystem::Seek(TQXFileHandle handle, int64_t offset, TQXSeekOrigin origin,
                                  uint64_t& position) {
  TQXOpenFile* f = Lookup(handle);
  if (!f) return kQXSysInvalidHandle;
  int64_t base = 0;
  switch (origin) {
    case TQXSeekOrigin::kBegin:
      break;
    case TQXSeekOrigin::kCurrent:
      base = lseek(f->fd, 0, SEEK_CUR);
      break;
    case TQXSeekOrigin::kEnd: {
      struct stat st;
      base = fstat(f->fd, &st) == 0 ? st.st_size : -1;
      break;
    }
    default:
      return kQXSysInvalidParameter;
  }
  if (base < 0) return QXSystemErrorFromErrno(errno);
  int64_t target;
  if (__builtin_add_overflow(base, offset, &target))
    return offset < 0 ? kQXSysNegativeSeek : kQXSysInvalidParameter;
  if (target < 0) return kQXSysNegativeSeek;
  const off_t at = lseek(f->fd, off_t(target), SEEK_SET);
  if (at < 0) return QXSystemErrorFromErrno(errno);
  position = uint64_t(at);
  return 0;
}

uint32_t TQXLinuxFileSystem::GetPosition(TQXFileHandle handle, uint64_t& position) {
  TQXOpenFile* f = Lookup(handle);
  if (!f) return kQXSysInvalidHandle;
  const off_t at = lseek(f->fd, 0, SEEK_CUR);
  if (at < 0) return QXSystemErrorFromErrno(errno);
  position = uint64_t(at);
  return 0;
}

uint32_t TQXLinuxFileSystem::GetLength(TQXFileHandle handle, uint64_t& length) {
  TQXOpenFile* f = Lookup(handle);
  if (!f) return kQXSysInvalidHandle;
  struct stat st;
  if (fstat(f->fd, &st) != 0) return QXSystemErrorFromErrno(errno);
  length = uint64_t(st.st_size);
  return 0;
}

uint32_t TQXLinuxFileSystem::SetLength(TQXFileHandle handle, uint64_t length) {
  TQXOpenFile* f = Lookup(handle);
  if (!f) return kQXSysInvalidHandle;
  if (!Writes(f->access)) return kQXSysAccessDenied;
  if (length > uint64_t(INT64_MAX)) return kQXSysInvalidParameter;
  while (ftruncate(f->fd, off_t(length)) != 0) {
    if (errno != EINTR) return QXSystemErrorFromErrno(errno);
  }
  return 0;
}

uint32_t TQXLinuxFileSystem::SetTimes(TQXFileHandle handle, const uint64_t* /*creation*/,
                                      const uint64_t* modification) {
  // Linux has no call that sets a birth time: the creation time is left as it is.
  TQXOpenFile* f = Lookup(handle);
  if (!f) return kQXSysInvalidHandle;
  if (!Writes(f->access)) return kQXSysAccessDenied;
  if (!modification) return 0;
  timespec times[2];
  times[0].tv_sec = 0;
  times[0].tv_nsec = UTIME_OMIT;
  times[1] = PosixFromCount(*modification);
  if (futimens(f->fd, times) != 0) return QXSystemErrorFromErrno(errno);
  return 0;
}

uint32_t TQXLinuxFileSystem::ReadAttributes(const TQXTarget& t, TQXFileAttributes& a) {
  TQXNodeFacts f;
  if (int e = StatAt(AT_FDCWD, t.posix.c_str(), true, f)) return Failure(e, t.path);
  a = TQXFileAttributes();
  a.isFolder = f.isFolder;
  a.isReadOnly = f.IsReadOnly();
  a.isLink = f.isLink;
  a.isHidden = IsDotName(t.path) || HasHiddenMark(t.posix.c_str());
  a.size = f.size;
  a.creationTime = f.creation;
  a.modificationTime = f.modification;
  return 0;
}

uint32_t TQXLinuxFileSystem::GetAttributes(const char* path, TQXFileAttributes& attributes) {
  TQXTarget t;
  if (uint32_t r = Resolve(path, t)) return r;
  return ReadAttributes(t, attributes);
}

uint32_t TQXLinuxFileSystem::TestAccess(const char* path, TQXFileAccess access) {
  if (!ValidAccess(access)) return kQXSysInvalidParameter;
  TQXTarget t;
  if (uint32_t r = Resolve(path, t)) return r == kQXSysPathNotFound ? kQXSysFileNotFound : r;
  TQXNodeFacts f;
  if (int e = StatAt(AT_FDCWD, t.posix.c_str(), true, f))
    return e == ENOENT || e == ENOTDIR ? kQXSysFileNotFound : QXSystemErrorFromErrno(e);
  if (Writes(access) && f.IsReadOnly()) return kQXSysAccessDenied;
  const int mode = (Reads(access) ? R_OK : 0) | (Writes(access) ? W_OK : 0);
  if (faccessat(AT_FDCWD, t.posix.c_str(), mode, AT_EACCESS) != 0)
    return errno == ENOENT ? kQXSysFileNotFound : QXSystemErrorFromErrno(errno);
  return 0;
}

uint32_t TQXLinuxFileSystem::CreateFolder(const char* path) {
  TQXTarget t;
  if (uint32_t r = Resolve(path, t)) return r;
  if (t.path.IsRoot()) return kQXSysAlreadyExists;
  if (mkdir(t.posix.c_str(), 0777) != 0)
    return errno == EEXIST ? kQXSysAlreadyExists : Failure(errno, t.path);
  return 0;
}

uint32_t TQXLinuxFileSystem::DeleteFile(const char* path) {
  TQXTarget t;
  if (uint32_t r = Resolve(path, t)) return r;
  if (t.path.IsRoot()) return kQXSysAccessDenied;
  TQXNodeFacts f;
  if (int e = StatAt(AT_FDCWD, t.posix.c_str(), false, f)) return Failure(e, t.path);
  if (!f.isLink) {
    if (f.isFolder || f.IsReadOnly()) return kQXSysAccessDenied;
    if (IsOpen(f.id)) return kQXSysSharingViolation;
  }
  if (unlink(t.posix.c_str()) != 0) return Failure(errno, t.path);
  return 0;
}

uint32_t TQXLinuxFileSystem::RemoveFolder(const char* path) {
  TQXTarget t;
  if (uint32_t r = Resolve(path, t)) return r;
  if (t.path.IsRoot()) return kQXSysAccessDenied;
  TQXNodeFacts f;
  if (int e = StatAt(AT_FDCWD, t.posix.c_str(), false, f)) return Failure(e, t.path);
  if (!f.isFolder || f.isLink) return kQXSysDirectory;
  if (f.IsReadOnly()) return kQXSysAccessDenied;
  if (rmdir(t.posix.c_str()) != 0) {
    if (errno == ENOTEMPTY || errno == EEXIST) return kQXSysDirNotEmpty;
    return Failure(errno, t.path);
  }
  return 0;
}

uint32_t TQXLinuxFileSystem::Move(const char* fromText, const char* toText, bool replaceExisting) {
  TQXTarget from, to;
  if (uint32_t r = Resolve(fromText, from)) return r;
  if (uint32_t r = Resolve(toText, to)) return r;
  if (from.path.IsRoot()) return kQXSysAccessDenied;
  TQXNodeFacts f;
  if (int e = StatAt(AT_FDCWD, from.posix.c_str(), false, f)) return Failure(e, from.path);
  const bool fromFolder = f.isFolder && !f.isLink;
  if (to.path.IsRoot()) return replaceExisting ? kQXSysAccessDenied : kQXSysAlreadyExists;
  if (!ParentIsFolder(to.path)) return kQXSysPathNotFound;
  if (to.path.trailingSeparator && !fromFolder) return kQXSysInvalidName;
  if (fromFolder && IsBelow(to.path, from.path)) return kQXSysInvalidParameter;
  TQXNodeFacts g;
  const bool toExists = StatAt(AT_FDCWD, to.posix.c_str(), false, g) == 0;
  if (toExists) {
    if (!replaceExisting) return kQXSysAlreadyExists;
    if (fromFolder || (g.isFolder && !g.isLink)) return kQXSysAccessDenied;
    if (!g.isLink && g.IsReadOnly()) return kQXSysAccessDenied;
    if (IsOpen(g.id)) return kQXSysSharingViolation;
  }
  if (!fromFolder && IsOpen(f.id)) return kQXSysSharingViolation;
  if (toExists && g.id == f.id) return 0;  // the same file: nothing to do
  int result;
  if (replaceExisting) {
    result = rename(from.posix.c_str(), to.posix.c_str());
  } else {
    result = renameat2(AT_FDCWD, from.posix.c_str(), AT_FDCWD, to.posix.c_str(), RENAME_NOREPLACE);
    // A file system without the flag: the target was seen missing above.
    if (result != 0 && (errno == EINVAL || errno == ENOSYS) && !fromFolder)
      result = rename(from.posix.c_str(), to.posix.c_str());
  }
  if (result == 0) return 0;
  if (errno == EXDEV) {
    return fromFolder ? kQXSysNotSameDevice : MoveAcrossDevices(from, to, f);
  }
  if (errno == EEXIST) return kQXSysAlreadyExists;
  if (errno == EINVAL) return kQXSysInvalidParameter;
  return Failure(errno, from.path);
}

uint32_t TQXLinuxFileSystem::MoveAcrossDevices(const TQXTarget& from, const TQXTarget& to,
                                               const TQXNodeFacts& facts) {
  const int in = open(from.posix.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (in < 0) return Failure(errno, from.path);
  const int out = open(to.posix.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY, 0600);
  if (out < 0) {
    const int e = errno;
    CloseFd(in);
    return Failure(e, to.path);
  }
  int e = CopyData(in, out);
  if (!e) {
    // The moved file keeps its times, permission bits and hidden mark.
    const timespec times[2] = {PosixFromCount(facts.modification),
                               PosixFromCount(facts.modification)};
    if (HasHiddenMark(from.posix.c_str())) fsetxattr(out, kHiddenAttribute, "1", 1, 0);
    if (futimens(out, times) != 0 || fchmod(out, facts.mode & 07777) != 0) e = errno;
  }
  CloseFd(in);
  CloseFd(out);
  if (!e && unlink(from.posix.c_str()) != 0) e = errno;
  if (e) {
    unlink(to.posix.c_str());
    return QXSystemErrorFromErrno(e);
  }
  return 0;
}

uint32_t TQXLinuxFileSystem::CopyFile(const char* fromText, const char* toText) {
  TQXTarget from, to;
  if (uint32_t r = Resolve(fromText, from)) return r;
  if (uint32_t r = Resolve(toText, to)) return r;
  if (from.path.IsRoot()) return kQXSysAccessDenied;
  TQXNodeFacts f;
  if (int e = StatAt(AT_FDCWD, from.posix.c_str(), true, f)) return Failure(e, from.path);
  if (!f.isRegular) return kQXSysAccessDenied;
  if (!MayOpen(f.id, false)) return kQXSysSharingViolation;
  if (to.path.IsRoot()) return kQXSysAccessDenied;
  if (to.path.trailingSeparator) return kQXSysInvalidName;
  TQXNodeFacts g;
  const int toError = StatAt(AT_FDCWD, to.posix.c_str(), true, g);
  const bool toExists = toError == 0;
  if (toExists) {
    if (!g.isRegular) return kQXSysAccessDenied;
    if (g.id == f.id) return kQXSysSharingViolation;
    if (g.IsReadOnly()) return kQXSysAccessDenied;
    if (IsOpen(g.id)) return kQXSysSharingViolation;
  } else if (toError != ENOENT) {
    return QXSystemErrorFromErrno(toError);
  }
  const int in = open(from.posix.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (in < 0) return Failure(errno, from.path);
  const int out = open(to.posix.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY,
                       (f.mode & 0777) | S_IWUSR);
  if (out < 0) {
    const int e = errno;
    CloseFd(in);
    return Failure(e, to.path);
  }
  int e = CopyData(in, out);
  if (!e) {
    const timespec times[2] = {{0, UTIME_OMIT}, PosixFromCount(f.modification)};
    if (futimens(out, times) != 0) e = errno;
    fremovexattr(out, kHiddenAttribute);  // the copy is not hidden; no mark is fine too
  }
  CloseFd(in);
  CloseFd(out);
  if (e) {
    if (!toExists) unlink(to.posix.c_str());
    return QXSystemErrorFromErrno(e);
  }
  return 0;
}

uint32_t TQXLinuxFileSystem::SetAttributes(const char* path, bool readOnly, bool hidden) {
  TQXTarget t;
  if (uint32_t r = Resolve(path, t)) return r;
  struct stat st;
  if (stat(t.posix.c_str(), &st) != 0) return Failure(errno, t.path);
  const char* p = t.posix.c_str();
  const bool wantMark = hidden && !IsDotName(t.path);
  const bool haveMark = HasHiddenMark(p);
  const mode_t target = readOnly ? (st.st_mode & ~mode_t(0222)) : (st.st_mode | S_IWUSR);
  if (wantMark != haveMark) {
    // User attributes follow the write permission: open it up for the change if need be.
    if (!(st.st_mode & S_IWUSR) && chmod(p, (st.st_mode | S_IWUSR) & 07777) != 0)
      return QXSystemErrorFromErrno(errno);
    int e = 0;
    if (wantMark) {
      if (setxattr(p, kHiddenAttribute, "1", 1, 0) != 0) e = errno;
    } else if (removexattr(p, kHiddenAttribute) != 0 && errno != ENODATA && errno != EOPNOTSUPP) {
      e = errno;
    }
    if (e) {
      chmod(p, st.st_mode & 07777);
      return e == EOPNOTSUPP ? kQXSysNotSupported : QXSystemErrorFromErrno(e);
    }
    st.st_mode |= S_IWUSR;  // as it stands now, so the last step below sets the target
  }
  if ((target & 07777) != (st.st_mode & 07777) || wantMark != haveMark) {
    if (chmod(p, target & 07777) != 0) return QXSystemErrorFromErrno(errno);
  }
  return 0;
}

bool TQXLinuxFileSystem::NextMatch(TQXFind& find, TQXFindEntry& entry) {
  const TQXLeadByteTest lead = QXPathLeadByteTest();
  while (find.dir) {
    errno = 0;
    const dirent* d = readdir(find.dir);
    if (!d) {
      closedir(find.dir);
      find.dir = nullptr;
      break;
    }
    const char* name = d->d_name;
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
    if (!QXNameHasLibraryForm(name, lead)) continue;
    if (!QXMatchFindPattern(find.pattern.c_str(), name, lead)) continue;
    TQXNodeFacts f;
    if (StatAt(dirfd(find.dir), name, true, f) != 0) continue;  // gone since it was listed
    entry.name = name;
    entry.attributes = TQXFileAttributes();
    entry.attributes.isFolder = f.isFolder;
    entry.attributes.isReadOnly = f.IsReadOnly();
    entry.attributes.isLink = f.isLink;
    entry.attributes.isHidden = name[0] == '.' || HasHiddenMark((find.folder + name).c_str());
    entry.attributes.size = f.size;
    entry.attributes.creationTime = f.creation;
    entry.attributes.modificationTime = f.modification;
    return true;
  }
  return false;
}

uint32_t TQXLinuxFileSystem::FindFirst(const char* pattern, TQXFindHandle& find,
                                       TQXFindEntry& entry) {
  find = kQXInvalidFileHandle;
  TQXTarget t;
  if (uint32_t r = Resolve(pattern, t)) return r;
  if (t.path.IsRoot() || t.path.trailingSeparator) return kQXSysFileNotFound;
  TQXFind f;
  f.pattern = t.path.names.back();
  TQXTarget folder;
  folder.path = Parent(t.path);
  if (uint32_t r = QXPathToSystem(folder.path, folder.posix)) return r;
  f.folder = folder.posix;
  if (f.folder.back() != '/') f.folder += '/';
  if (!HasWildcard(f.pattern)) {
    // One name: the entry itself, if it is there.
    if (uint32_t r = ReadAttributes(t, entry.attributes)) return r;
    entry.name = f.pattern;
  } else {
    const int fd = open(folder.posix.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
      return errno == ENOENT || errno == ENOTDIR ? kQXSysPathNotFound
                                                 : QXSystemErrorFromErrno(errno);
    f.dir = fdopendir(fd);
    if (!f.dir) {
      const int e = errno;
      CloseFd(fd);
      return QXSystemErrorFromErrno(e);
    }
    if (!NextMatch(f, entry)) return kQXSysFileNotFound;
  }
  find = NewFindHandle();
  finds_.emplace(find, std::move(f));
  return 0;
}

uint32_t TQXLinuxFileSystem::FindNext(TQXFindHandle find, TQXFindEntry& entry) {
  auto it = finds_.find(find);
  if (it == finds_.end()) return kQXSysInvalidHandle;
  return NextMatch(it->second, entry) ? 0 : kQXSysNoMoreFiles;
}

uint32_t TQXLinuxFileSystem::FindClose(TQXFindHandle find) {
  auto it = finds_.find(find);
  if (it == finds_.end()) return kQXSysInvalidHandle;
  if (it->second.dir) closedir(it->second.dir);
  finds_.erase(it);
  return 0;
}

uint32_t TQXLinuxFileSystem::FullPath(const char* path, std::string& full) {
  TQXPath p;
  if (uint32_t r = Parse(path, p)) return r;
  full = QXJoinPath(p);
  return 0;
}

uint32_t TQXLinuxFileSystem::CurrentDirectory(std::string& path) {
  TQXPath current;
  if (uint32_t r = Current(current)) return r;
  path = QXJoinPath(current);
  return 0;
}

uint32_t TQXLinuxFileSystem::ApplicationPath(std::string& path) {
  std::string buffer(256, '\0');
  for (;;) {
    const ssize_t n = readlink("/proc/self/exe", buffer.data(), buffer.size());
    if (n < 0) return QXSystemErrorFromErrno(errno);
    if (size_t(n) < buffer.size()) {
      buffer.resize(size_t(n));
      break;
    }
    if (buffer.size() >= (size_t(1) << 24)) return kQXSysFilenameTooLong;
    buffer.resize(buffer.size() * 2);
  }
  TQXPath p;
  if (uint32_t r = QXPathFromSystem(buffer.c_str(), QXPathLeadByteTest(), p)) return r;
  path = QXJoinPath(p);
  return 0;
}

}  // namespace

TQXPlatformFileSystem& TQXPlatformFileSystem::System() {
  static QXPlatform::NoDestructor<TQXLinuxFileSystem> fileSystem;
  return fileSystem.get();
}
