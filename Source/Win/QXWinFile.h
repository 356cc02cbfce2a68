// QXWinFile.h: TWIN_QXFile, the platform class behind IQXFile. It fills every slot that needs
// the system, through the file-system role of the platform layer, and keeps the original
// system's three error policies side by side, per operation:
//  - any failure is kQXErrIO: create, delete, rename, read, write, position, length, end of file;
//  - any failure is kQXErrNotFound: open, close;
//  - the system's error number passes through unchanged: GetInfo, SetInfo, CopyTo, MoveTo.
// Only SetAccess splits a reason (kQXErrNotFound or kQXErrOpenFailed), and only Read reports
// kQXErrEndOfFile.
#ifndef QXWINFILE_H
#define QXWINFILE_H

#include "Platform/QXPlatformFileSystem.h"
#include "QXFile.h"

class TWIN_QXFile : public TQXFile {
 public:
  TWIN_QXFile() : handle(kQXNoFileHandle) {}
  // Does not close an open handle, as the original's destructor does not.
  ~TWIN_QXFile() override;

  uint32_t SetPath(const TQXStringUTF8& newPath, bool isFolder) override;
  uint32_t SetFullPath(const TQXStringUTF8& newPath, bool isFolder) override;
  uint32_t SetFromFile(IQXFile* other) override;
  uint32_t SetAccess(int32_t mode) override;
  bool Exists() const override;
  bool IsOpen() const override;
  uint32_t GetInfo(TQXFileInfo& out) override;
  uint32_t GetPlatformType(uint32_t* code) override;
  uint32_t GetLength(uint32_t* bytes) override;
  uint32_t GetPosition(uint32_t* pos) override;
  uint32_t CreateOnDisk() override;
  uint32_t Delete(bool recursive) override;
  uint32_t Open() override;
  uint32_t Close() override;
  uint32_t Flush() override;
  uint32_t Rename(const TQXStringUTF8& newName) override;
  uint32_t Read(void* buffer, uint32_t count, uint32_t* done) override;
  uint32_t Write(const void* buffer, uint32_t count, uint32_t* done) override;
  uint32_t SetPosition(int32_t offset, int32_t origin) override;
  uint32_t SetEOF(int32_t length) override;
  uint32_t GetBaseName(TQXStringUTF8& name) const override;
  uint32_t SetBaseName(const TQXStringUTF8& name) override;
  uint32_t SetPlatformType(const uint32_t* code) override;
  uint32_t SetInfo(const TQXFileInfo& record) override;
  uint32_t CopyTo(IQXFile* dest, bool resourceAsData) override;
  uint32_t MoveTo(IQXFile* dest) override;

  // Fills `info` from a find record. A size of 4 GB and more is high * 0xFFFFFFFF + low, the
  // original's factor, off by the high word; kept as it is.
  void UpdateInfo(const TQXFileAttributes& found);

  // Up to four characters of an extension, lower-cased, first in the top byte: "TIF" is
  // 0x74696600. The text stops at its first zero byte.
  static uint32_t ExtensionCode(const char* name);
  // The code of a whole path's extension: 0 for a text of one byte or less, for a separator met
  // before a dot, for a dot that ends the text; the first byte is never looked at.
  static uint32_t TextExtensionCode(const TQXStringUTF8& text);

  // The longest path the original's ANSI calls take, terminator included.
  static constexpr uint32_t kMaxPath = 260;

 private:
  TQXFileHandle handle;  // 0 closed, kQXInvalidFileHandle after a failed open
};

#endif  // QXWINFILE_H
