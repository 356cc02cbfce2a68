// QXPlatformFileSystem.h: the role of the file system: open files, path queries and changes,
// folder enumeration, and the paths of the process.
//
// Paths. Every path is in the library's form (QXPathForm.h): '\' separators, "X:\..." on a
// drive letter, "\\server\share\..." on a share, rooted paths from C:, and relative paths against
// the current directory at the time of the call, with "." and ".." applied lexically. A path
// with a trailing separator names a folder: a file found there counts as not there (3), and a
// file cannot be made there (123). Names are case-sensitive on Linux, unlike the original
// system's; a find pattern ignores the case of ASCII letters.
//
// Results. Every operation returns 0 or a small positive system error number: the numbers of
// the original system (kQXSys... below), so that a host that knows them reads them unchanged.
// The Linux side maps errno through a table and gives kQXSysGenFailure (31) for any errno the
// table does not know. "Not found" is 2 when the last name is missing and 3 when a folder on the
// way is missing or is a file, or the drive is unknown; 53 for an unknown share. A null path
// gives 87.
//
// Shared behaviour, the same on every implementation:
//  - An open handle lets others read, like the library's own opens: while a file is open
//    through this role, another open fails with 32 (sharing violation) unless both opens only
//    read, and deleting, moving or replacing the file, or copying onto it, fails with 32. Only
//    opens made through the role count.
//  - Read-only is an attribute of its own, not the caller's permissions: a read-only file cannot
//    be opened for writing, deleted, replaced or written to by a copy (5), even by a privileged
//    user. On Linux it is the owner's write permission bit (set: writable); making a file
//    read-only clears every write bit, making it writable sets the owner's.
//  - Hidden: a name starting with '.' is always hidden. Any other file is hidden when it is
//    marked so; on Linux the mark is the extended attribute "user.qx.hidden". Marking a file
//    hidden on a file system without user attributes fails with 50 (not supported); clearing the
//    mark where none can be stored, or on a dot name, succeeds and leaves the name as it is.
//  - Times are 100-nanosecond counts from 1 January 1601, UTC, as the system's find record
//    gives them. On Linux the creation time is the birth time where the file system records it
//    (statx), else the modification time; it cannot be set (KeepsCreationTime is false).
//  - Only regular files and folders open; a symbolic link is followed and reported as what it
//    points to, with isLink set; a link that points nowhere shows as an empty file that can be
//    deleted.
//  - Enumeration never gives "." or "..", nor a name that has no library form (a POSIX name
//    holding '\').
#ifndef QXPLATFORMFILESYSTEM_H
#define QXPLATFORMFILESYSTEM_H

#include <cstdint>
#include <string>

// System error numbers (those of the original system, by the same names).
constexpr uint32_t kQXSysFileNotFound = 2;
constexpr uint32_t kQXSysPathNotFound = 3;
constexpr uint32_t kQXSysTooManyOpenFiles = 4;
constexpr uint32_t kQXSysAccessDenied = 5;
constexpr uint32_t kQXSysInvalidHandle = 6;
constexpr uint32_t kQXSysNotEnoughMemory = 8;
constexpr uint32_t kQXSysNotSameDevice = 17;
constexpr uint32_t kQXSysNoMoreFiles = 18;
constexpr uint32_t kQXSysWriteProtect = 19;
constexpr uint32_t kQXSysNotReady = 21;
constexpr uint32_t kQXSysWriteFault = 29;
constexpr uint32_t kQXSysReadFault = 30;
constexpr uint32_t kQXSysGenFailure = 31;
constexpr uint32_t kQXSysSharingViolation = 32;
constexpr uint32_t kQXSysHandleEOF = 38;
constexpr uint32_t kQXSysNotSupported = 50;
constexpr uint32_t kQXSysBadNetPath = 53;
constexpr uint32_t kQXSysFileExists = 80;
constexpr uint32_t kQXSysInvalidParameter = 87;
constexpr uint32_t kQXSysDiskFull = 112;
constexpr uint32_t kQXSysCallNotImplemented = 120;
constexpr uint32_t kQXSysInvalidName = 123;
constexpr uint32_t kQXSysNegativeSeek = 131;
constexpr uint32_t kQXSysDirNotEmpty = 145;
constexpr uint32_t kQXSysBadPathname = 161;
constexpr uint32_t kQXSysBusy = 170;
constexpr uint32_t kQXSysAlreadyExists = 183;
constexpr uint32_t kQXSysFilenameTooLong = 206;
constexpr uint32_t kQXSysFileTooLarge = 223;
constexpr uint32_t kQXSysDirectory = 267;
constexpr uint32_t kQXSysIODevice = 1117;
constexpr uint32_t kQXSysCantResolveFilename = 1921;

// The system error number of an errno value (Linux side; 31 for values the table lacks).
uint32_t QXSystemErrorFromErrno(int error);

// An open file: positive while open. kQXNoFileHandle is "never opened", kQXInvalidFileHandle
// what a failed open leaves, as the file backend keeps them.
using TQXFileHandle = int32_t;
constexpr TQXFileHandle kQXNoFileHandle = 0;
constexpr TQXFileHandle kQXInvalidFileHandle = -1;

// A running enumeration: positive while open; kQXInvalidFileHandle after a failed FindFirst.
using TQXFindHandle = int32_t;

// The access of an open, with the values of the file's access mode.
enum class TQXFileAccess : int32_t { kRead = 1, kWrite = 2, kReadWrite = 3 };

enum class TQXSeekOrigin : int32_t { kBegin = 0, kCurrent = 1, kEnd = 2 };

struct TQXFileAttributes {
  bool isFolder = false;
  bool isReadOnly = false;
  bool isHidden = false;
  bool isLink = false;            // reached through a symbolic link
  uint64_t size = 0;              // 0 for a folder
  uint64_t creationTime = 0;      // 100-ns count from 1601, UTC
  uint64_t modificationTime = 0;  // the same
};

struct TQXFindEntry {
  std::string name;  // the name alone, in the library's form
  TQXFileAttributes attributes;
};

class TQXPlatformFileSystem {
 public:
  virtual ~TQXPlatformFileSystem() = default;

  // --- Open files --------------------------------------------------------------------------
  // Opens an existing regular file. `handle` gets the handle, or kQXInvalidFileHandle on
  // failure. Folders give 5; a read-only file opened for writing gives 5; 32 as above.
  virtual uint32_t Open(const char* path, TQXFileAccess access, TQXFileHandle& handle) = 0;
  // Makes a new empty file; 80 when anything exists at `path`. With `handle` not null the file
  // stays open for reading and writing, shared with nobody (any other open gives 32), and
  // `*handle` gets the handle (kQXInvalidFileHandle on failure); otherwise it is closed at once.
  virtual uint32_t CreateNewFile(const char* path, TQXFileHandle* handle) = 0;
  // 6 for a handle that is not open.
  virtual uint32_t Close(TQXFileHandle handle) = 0;
  // Reads up to `count` bytes at the position and moves it on; `done` gets the count read.
  // A read that stops at the end of the file gives 38 (kQXSysHandleEOF) with the bytes there
  // were. A count of 0 gives 0 with any buffer; otherwise a null buffer gives 87. A handle
  // without read access gives 5.
  virtual uint32_t Read(TQXFileHandle handle, void* buffer, uint32_t count, uint32_t& done) = 0;
  // Writes `count` bytes at the position, extending the file (with zeros over any gap behind
  // its end), and moves the position on; `done` gets the count written, also when a full disk
  // (112) stops the write early. Null buffer with a count: 87. No write access: 5.
  virtual uint32_t Write(TQXFileHandle handle, const void* buffer, uint32_t count,
                         uint32_t& done) = 0;
  // Moves the position and gives the new one. A position before the start gives 131 and leaves
  // the position; one behind the end is allowed. An origin outside the three gives 87.
  virtual uint32_t Seek(TQXFileHandle handle, int64_t offset, TQXSeekOrigin origin,
                        uint64_t& position) = 0;
  virtual uint32_t GetPosition(TQXFileHandle handle, uint64_t& position) = 0;
  virtual uint32_t GetLength(TQXFileHandle handle, uint64_t& length) = 0;
  // Cuts or extends (with zeros) the file to `length`; the position does not move. Needs write
  // access (5).
  virtual uint32_t SetLength(TQXFileHandle handle, uint64_t length) = 0;
  // Sets the creation and modification times of an open file; a null pointer leaves that time.
  // Needs write access (5). The creation time is kept only where KeepsCreationTime().
  virtual uint32_t SetTimes(TQXFileHandle handle, const uint64_t* creation,
                            const uint64_t* modification) = 0;
  virtual bool KeepsCreationTime() = 0;

  // --- Queries -----------------------------------------------------------------------------
  virtual uint32_t GetAttributes(const char* path, TQXFileAttributes& attributes) = 0;
  // Whether the file or folder may be read, written or both: 0, 2 when it is not there (the
  // whole path counts: never 3 here), 5 when the access is refused (also: write access to a
  // read-only file), another number for other failures.
  virtual uint32_t TestAccess(const char* path, TQXFileAccess access) = 0;

  // --- Changes -----------------------------------------------------------------------------
  // Makes a folder; 183 when anything exists there, 3 when its parent is missing.
  virtual uint32_t CreateFolder(const char* path) = 0;
  // Deletes a file (a symbolic link itself, not its target). A folder gives 5, a read-only file
  // 5, an open one 32.
  virtual uint32_t DeleteFile(const char* path) = 0;
  // Removes an empty folder. Not empty: 145; a file: 267; a drive's or share's root, or a
  // read-only folder: 5.
  virtual uint32_t RemoveFolder(const char* path) = 0;
  // Moves or renames a file or folder, to another folder too. An existing target gives 183,
  // unless `replaceExisting` and both are files: then the target is replaced (5 when it is
  // read-only, 32 when either is open). A folder onto anything existing: 183 or 5 when
  // replacing; a folder into itself: 87. A file is carried across devices by copy and delete,
  // keeping its times and attributes; a folder is not (17). The C runtime's rename is
  // Move(from, to, false).
  virtual uint32_t Move(const char* from, const char* to, bool replaceExisting) = 0;
  // Copies a file's data and modification time; an existing target file is overwritten. The
  // copy is neither read-only nor hidden. The copy reads the source and writes the target as
  // opens would: a source open for writing or a target open at all gives 32, and so does a
  // target that is the source. A folder on either side: 5; a read-only target: 5. A failed
  // copy leaves no new file behind (an existing target may be left cut short).
  virtual uint32_t CopyFile(const char* from, const char* to) = 0;
  // Sets both attributes of a file or folder (see the top of this file).
  virtual uint32_t SetAttributes(const char* path, bool readOnly, bool hidden) = 0;

  // --- Enumeration -------------------------------------------------------------------------
  // `pattern` is a folder path and a last name that may hold '*' and '?' ("C:\a\*.*"). Gives
  // the first entry that matches, and the handle for FindNext; nothing matches: 2 (the folder
  // is missing: 3). A last name without wildcards finds that one entry. A pattern that ends in a
  // separator or is a root has no name to match: 2. Entries come in the system's order. On
  // failure `find` is kQXInvalidFileHandle and nothing needs closing.
  virtual uint32_t FindFirst(const char* pattern, TQXFindHandle& find, TQXFindEntry& entry) = 0;
  // The next entry; 18 after the last one (and again on every later call).
  virtual uint32_t FindNext(TQXFindHandle find, TQXFindEntry& entry) = 0;
  // 6 for a handle that is not open (kQXInvalidFileHandle included).
  virtual uint32_t FindClose(TQXFindHandle find) = 0;

  // --- Paths of the process ----------------------------------------------------------------
  // The absolute, normalised form of a path (the C runtime's _fullpath, without its length
  // limit: the caller cuts). "" gives 123.
  virtual uint32_t FullPath(const char* path, std::string& full) = 0;
  // The current directory, in the library's form, without a trailing separator below a root.
  virtual uint32_t CurrentDirectory(std::string& path) = 0;
  // The full path of the running program.
  virtual uint32_t ApplicationPath(std::string& path) = 0;

  // The Linux implementation: POSIX calls on the directories of the drive map.
  static TQXPlatformFileSystem& System();
};

#endif  // QXPLATFORMFILESYSTEM_H
