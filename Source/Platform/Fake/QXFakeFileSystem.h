// An in-memory file system with the role's contract, for tests: drives with trees of folders and
// files, network shares that lead into a drive, a current directory and a clock that a test
// sets, and scripted failures.
//
// It keeps every rule of QXPlatformFileSystem.h the way the Linux side does (the same error
// numbers, sharing, read-only, hidden names, "not found" as 2 or 3), so the contract tests and a
// differential test run against both. Where the fake goes further:
//  - it keeps creation times (KeepsCreationTime is true unless a test says otherwise);
//  - hidden marks are always storable unless SetHiddenStorable(false);
//  - a name longer than 255 bytes gives 206 as on Linux, but a whole path has no length limit;
//  - moving between two drives is a move between devices: a file is carried, a folder gives 17.
// Entries of a folder come in byte order of their names. An enumeration lists the names that
// match when it starts and skips those deleted before they are reached.
//
// Scripted failures:
//  - FailCall(op, n, error): the n-th call of `op` from now (1: the next one) fails with `error`
//    before it changes anything (`done` counts stay 0); with `andAfter`, every call from then on.
//  - SetFreeSpace(letter, bytes): file data on that drive may grow by `bytes` more; a write that
//    would pass it writes what fits and gives 112; SetLength and copies that would, change
//    nothing and give 112.
//  - SetUndeletable(path): deleting, removing or moving it gives 5.
//  - SetAccessError(path, error): every operation that reaches that file or folder by its path
//    (open, attributes, access test, changes, a find of that one name) gives `error`; listing
//    its folder still shows it.
// Counters: Calls(op), OpenHandles(), OpenFinds().
#ifndef QXFAKEFILESYSTEM_H
#define QXFAKEFILESYSTEM_H

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/QXPathForm.h"
#include "Platform/QXPlatformFileSystem.h"

class TQXFakeFileSystem final : public TQXPlatformFileSystem {
 public:
  enum class Op : uint32_t {
    kOpen,
    kCreateNewFile,
    kClose,
    kRead,
    kWrite,
    kSeek,
    kGetPosition,
    kGetLength,
    kSetLength,
    kSetTimes,
    kGetAttributes,
    kTestAccess,
    kCreateFolder,
    kDeleteFile,
    kRemoveFolder,
    kMove,
    kCopyFile,
    kSetAttributes,
    kFindFirst,
    kFindNext,
    kFindClose,
    kFullPath,
    kCount
  };

  // Drive C: with an empty root; the current directory is "C:\", the application
  // "C:\Program\Host", the clock 1 January 2020.
  TQXFakeFileSystem();
  ~TQXFakeFileSystem() override;

  // --- The scene -----------------------------------------------------------------------------
  void AddDrive(char letter);  // an empty drive; an existing one stays as it is
  void RemoveDrive(char letter);
  // A share "\\server\share" that leads to a folder given in drive form ("T:\pub").
  bool AddShare(const char* share, const char* folder);
  // A folder with all folders above it; 0 or the error of the first step that failed.
  uint32_t MakeFolders(const char* path);
  // A file with this data (made, with its folders, or replaced). It always fits: free space
  // that runs out stays at 0.
  uint32_t PutFile(const char* path, std::string_view data);
  // The data of a file; false when there is none.
  bool GetFile(const char* path, std::string& data);
  // An absolute path in the library's form; false when it is not an existing folder.
  bool SetCurrentDirectory(const char* path);
  void SetApplicationPath(const char* path) { application_ = path; }
  void SetNow(uint64_t count) { now_ = count; }
  uint64_t Now() const { return now_; }
  void SetLeadByteTest(TQXLeadByteTest lead) { lead_ = lead; }
  void SetHiddenStorable(bool storable) { hiddenStorable_ = storable; }
  void SetKeepsCreationTime(bool keeps) { keepsCreation_ = keeps; }

  // --- Failures and counters -----------------------------------------------------------------
  void FailCall(Op op, uint32_t nth, uint32_t error, bool andAfter = false);
  void ClearFailures();
  void SetFreeSpace(char letter, uint64_t bytes);  // UINT64_MAX: no limit (the start)
  uint64_t FreeSpace(char letter) const;
  uint32_t SetUndeletable(const char* path, bool undeletable);
  uint32_t SetAccessError(const char* path, uint32_t error);  // 0 clears
  uint32_t Calls(Op op) const { return calls_[uint32_t(op)]; }
  uint32_t OpenHandles() const { return uint32_t(handles_.size()); }
  uint32_t OpenFinds() const { return uint32_t(finds_.size()); }

  // --- The role ------------------------------------------------------------------------------
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
  bool KeepsCreationTime() override { return keepsCreation_; }
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
  struct TQXNode;
  using TQXNodePtr = std::shared_ptr<TQXNode>;
  struct TQXLocated;
  struct TQXHandle;
  struct TQXFind;

  uint32_t Tick(Op op);
  uint32_t Locate(const char* text, TQXLocated& at);
  TQXHandle* Lookup(TQXFileHandle handle);
  TQXFileHandle Register(const TQXLocated& at, TQXFileAccess access);
  TQXNodePtr NewNode(bool folder);
  void Attach(TQXLocated& at, const TQXNodePtr& node);
  void Detach(TQXLocated& at);
  bool Grow(char drive, uint64_t from, uint64_t to);
  void Shrink(char drive, uint64_t from, uint64_t to);
  bool MayOpen(const TQXNode& node, bool writes) const;
  bool IsHidden(const std::string& name, const TQXNode& node) const;
  void Describe(const std::string& name, const TQXNode& node, TQXFileAttributes& a) const;
  bool NextMatch(TQXFind& find, TQXFindEntry& entry);
  void FreeTree(char drive, const TQXNode& node);

  TQXNodePtr drives_[26];
  uint64_t free_[26];
  struct TQXShare {
    std::string server, share;
    TQXPath folder;
  };
  std::vector<TQXShare> shares_;
  std::map<TQXFileHandle, TQXHandle> handles_;
  std::map<TQXFindHandle, TQXFind> finds_;
  int32_t nextHandle_ = 1;
  int32_t nextFind_ = 1;
  TQXPath current_;
  std::string application_ = "C:\\Program\\Host";
  uint64_t now_;
  TQXLeadByteTest lead_ = nullptr;
  bool hiddenStorable_ = true;
  bool keepsCreation_ = true;

  struct TQXScript {
    uint32_t countdown = 0;  // 0: nothing scripted
    uint32_t error = 0;
    bool andAfter = false;
    bool firing = false;
  };
  TQXScript scripts_[uint32_t(Op::kCount)];
  uint32_t calls_[uint32_t(Op::kCount)] = {};
};

#endif  // QXFAKEFILESYSTEM_H
