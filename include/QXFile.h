// QXFile.h: the file family. IQXFile is the one abstract view of a file or folder on disk;
// TQXFile is the common class behind it, which holds the path and a record of what is known of
// the file, and does in portable terms everything that needs no system call (path splitting,
// type lookup, copy by read and write, recursive copy, move by copy and delete). Operations that
// need the system are filled by the platform class that TQXFile::Create makes.
//
// Paths are in the library's own form ('\' separators, "X:\..." on a drive, "\\server\share\..."
// on a share); a folder's path ends with the separator. "HFS" paths are those held in a
// TQXString, "POSIX" paths those held in a TQXStringUTF8; they are the same bytes.
//
// Results: 0 or an error code (QXException.h). Nothing throws, except an operation that a class
// leaves unimplemented, which throws TQXException(kQXErrNotImplemented).
#ifndef QXFILE_H
#define QXFILE_H

#include "QXBase.h"
#include "QXCountedObject.h"
#include "QXStringUTF8.h"
#include "QXTime.h"

// What is known of a file: the record that GetInfo fills and SetInfo takes, twelve 32-bit words.
struct TQXFileInfo {
  uint8_t isFolder;
  uint8_t isLocked;  // read-only
  uint8_t isHidden;
  uint8_t reserved0;               // always 0
  TQXSystemTime creationTime;      // 100-ns count from 1601, high word first
  TQXSystemTime modificationTime;  // the same
  uint32_t reserved1;              // carried along, never written
  uint64_t dataSize;
  uint64_t resourceSize;  // no second fork here: always 0
  uint32_t fileType;      // the platform type code (the packed extension)
  uint32_t creator;       // always 0 here
};
static_assert(sizeof(TQXFileInfo) == 48, "TQXFileInfo is twelve 32-bit words");

// The identifier of IQXFile for QueryInterface.
constexpr uint32_t kQXIIDFile = 0x51584649;  // "QXFI"

// The interface. Every operation of its own throws TQXException(kQXErrNotImplemented); an
// implementing class overrides them. Modes: 1 read, 2 write, 3 read and write. Origins of
// SetPosition: 0 start, 1 current, 2 end.
class QX_EXPORT IQXFile : public IQXUnknown {
 public:
  ~IQXFile() override;

  virtual uint32_t SetPath(const TQXStringUTF8& path, bool isFolder);
  virtual uint32_t SetFullPath(const TQXStringUTF8& path, bool isFolder);
  virtual uint32_t SetFromFile(IQXFile* other);
  virtual uint32_t SetAccess(int32_t mode);
  virtual bool Exists() const;
  virtual bool IsOpen() const;
  virtual uint32_t GetCachedInfo(TQXFileInfo& info) const;
  virtual bool IsFolder() const;
  virtual uint32_t GetInfo(TQXFileInfo& info);
  virtual uint32_t GetTypeID(uint32_t* id);
  virtual uint32_t GetPlatformType(uint32_t* code);
  virtual uint32_t GetLength(uint32_t* bytes);
  virtual uint32_t GetEOF(uint32_t* bytes);
  virtual uint32_t GetPosition(uint32_t* pos);
  virtual uint32_t GetAccess(int32_t* mode) const;
  virtual uint32_t GetFreeSpace(uint64_t* bytes);
  virtual uint32_t CreateOnDisk();
  virtual uint32_t Delete(bool recursive);
  virtual uint32_t Open();
  virtual uint32_t Close();
  virtual uint32_t Flush();
  virtual uint32_t Rename(const TQXStringUTF8& newName);
  virtual uint32_t Read(void* buffer, uint32_t count, uint32_t* done);
  virtual uint32_t Write(const void* buffer, uint32_t count, uint32_t* done);
  virtual uint32_t SetPosition(int32_t offset, int32_t origin);
  virtual uint32_t SetEOF(int32_t length);
  virtual uint32_t GetName(TQXStringUTF8& name) const;
  virtual uint32_t GetFolderPath(TQXStringUTF8& path) const;
  virtual uint32_t GetPath(TQXStringUTF8& path) const;
  virtual uint32_t GetBaseName(TQXStringUTF8& name) const;
  virtual uint32_t SetBaseName(const TQXStringUTF8& name);
  virtual uint32_t GetRelativePath(TQXStringUTF8& out, const TQXStringUTF8& root) const;
  virtual uint32_t SetRelativePath(TQXStringUTF8& relative, const TQXStringUTF8& root,
                                   bool isFolder);
  virtual uint32_t SetTypeID(uint32_t id);
  virtual uint32_t SetPlatformType(const uint32_t* code);
  virtual uint32_t SetInfo(const TQXFileInfo& info);
  virtual uint32_t SetExtension(const TQXStringUTF8& ext);
  virtual bool IsSameFile(const IQXFile* other) const;
  virtual uint32_t CopyTo(IQXFile* dest, bool resourceAsData);
  virtual uint32_t CopyTree(IQXFile* dest);
  // The last slot has no raising entry in the interface: every implementation supplies it.
  virtual uint32_t MoveTo(IQXFile* dest) = 0;

 protected:
  IQXFile() = default;
};

// The common class. Counting is the counted object's; the interface's AddRef and Release
// forward to it. Slots marked "platform" in the interface stay unimplemented here.
class QX_EXPORT TQXFile : public IQXFile, public TQXCountedObject {
 public:
  // Both bases bring class-scope allocation; this one decides.
  QX_CLASS_ALLOCATION

  TQXFile();
  ~TQXFile() override;

  uint32_t QueryInterface(uint32_t id, void** result) override;
  int32_t AddRef() override;
  int32_t Release() override;

  uint32_t GetCachedInfo(TQXFileInfo& out) const override;
  bool IsFolder() const override;
  uint32_t GetTypeID(uint32_t* id) override;
  uint32_t GetEOF(uint32_t* bytes) override;
  uint32_t GetAccess(int32_t* mode) const override;
  // Not available yet: the volume query gives kQXErrNotImplemented, and so does this.
  uint32_t GetFreeSpace(uint64_t* bytes) override;
  uint32_t GetName(TQXStringUTF8& name) const override;
  uint32_t GetFolderPath(TQXStringUTF8& out) const override;
  uint32_t GetPath(TQXStringUTF8& out) const override;
  uint32_t GetBaseName(TQXStringUTF8& name) const override;
  uint32_t SetBaseName(const TQXStringUTF8& name) override;
  uint32_t GetRelativePath(TQXStringUTF8& out, const TQXStringUTF8& root) const override;
  uint32_t SetRelativePath(TQXStringUTF8& relative, const TQXStringUTF8& root,
                           bool isFolder) override;
  uint32_t SetTypeID(uint32_t id) override;
  uint32_t SetExtension(const TQXStringUTF8& ext) override;
  bool IsSameFile(const IQXFile* other) const override;
  uint32_t CopyTo(IQXFile* dest, bool resourceAsData) override;
  uint32_t CopyTree(IQXFile* dest) override;
  uint32_t MoveTo(IQXFile* dest) override;

  // Always 0: `ext` gets the text behind the last "." when that dot stands behind the last
  // separator, else it stays empty.
  uint32_t GetExtension(TQXStringUTF8& ext) const;

  // Releases the file in `*file` if there is one, then stores a new file object (the platform
  // class), or null when the allocation fails; the caller holds one reference.
  static uint32_t Create(TQXFile** file);
  // Erases everything behind the last separator; a path without one becomes empty.
  static void JustPathFromPathName(TQXStringUTF8& path);
  // The full file name of the running program, cached at the first call; the flag is not read.
  // 0, or the system's error number (path untouched).
  static uint32_t GetAppPath(TQXStringUTF8& path, bool unused);
  static void ConvertHFStoPOSIX(const TQXString& hfs, TQXStringUTF8& posix);
  static void ConvertPOSIXtoHFS(const TQXStringUTF8& posix, TQXString& hfs);

  // Every separator form made the one separator: '\', then ':' from position 2 (sparing a drive
  // letter's colon), then '/'.
  static void MakeUniform(TQXStringUTF8& path);

 protected:
  friend class TQXFileIterator;
  friend class TWIN_QXFileIterator;

  // The path separator of the library's own form: the backslash, 0x5C. Never written.
  static char fgSeparator;
  static const uint32_t fgMaxNameLength;  // 250

  TQXFileInfo info;
  int32_t accessMode;  // 1 read, 2 write, 3 both
  TQXStringUTF8 path;
};

#endif  // QXFILE_H
