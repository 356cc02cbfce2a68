// QXFStream.h: the file stream, a TQXiostream on an IQXFile with one buffer in between.
//
// Vocabulary and representation:
//  - The buffer holds the bytes of the file from `bufferBase` on: [0, bufferFill) of it are
//    valid, and `bufferPos` is the cursor in it. The stream's position is bufferBase + bufferPos,
//    and bufferPos <= bufferFill <= bufferSize holds at all times. Reading and writing share the
//    buffer: a write lands in it and marks it `dirty`; a dirty buffer goes to the file when the
//    stream moves away from it (Flush, a load elsewhere, Close, destruction).
//  - `fileLength` is the file's length as the stream knows it: asked at open, lifted by writes.
//    A read stops at it; a file that another writer changed is seen again after SyncFromFile.
//  - A buffer size of 0 makes an unbuffered stream: every operation goes straight to the file,
//    and Tell asks the file.
//  - Requests of a buffer's worth or more skip the buffer when it is empty and go straight to
//    the file in one call; the bytes, counts, state bits and position are those of the buffered
//    road.
//
// Failure contract: opening returns 0 or an error code and, on failure, sets kQXStreamFailed.
// Reads, writes and seeks clear `state` and report in it: kQXStreamEnd when a read asks for more
// than the file holds (lastCount tells what was there) or a seek lands past the end,
// kQXStreamFailed when the mode forbids the operation, a position is out of range or the file
// fails. A buffer whose write fails is dropped: what earlier writes put in the file stays.
// Nothing throws. Every operation is safe on a stream without a file.
//
// Path tokens: every word read and every quoted text written is taken as a path, written
// relative to the folder of the stream's own file so that files that refer to one another can
// move together: ":" starts such a path, each further leading ":" goes one folder up, and ":"
// stands for the separator inside it ("::fonts:a.ttf" is fonts\a.ttf one folder above the
// stream's file). Text that shares no folder with the stream's path is written as it stands.
#ifndef QXFSTREAM_H
#define QXFSTREAM_H

#include "QXBase.h"
#include "QXCountedObject.h"
#include "QXFile.h"
#include "QXStream.h"

class QX_EXPORT TQXfstream : public TQXiostream {
 public:
  // No file, no buffer; mode 0. Open or OpenPath give it a file.
  TQXfstream();
  // OpenPath(path, mode, bufferSize, created).
  TQXfstream(const char* path, uint32_t mode, uint32_t bufferSize, bool* created);
  // Gives `mode` to the file unless it is kQXFileStreamKeepMode (the stream then takes the
  // file's own access mode), then Open(file, bufferSize, created).
  TQXfstream(IQXFile* file, uint32_t mode, uint32_t bufferSize, bool* created);
  // Flushes a pending buffer of a writable stream, closes the file, frees the buffer and
  // releases the file.
  ~TQXfstream() override;

  // The mode argument of the file constructor that keeps the file's own access mode.
  static constexpr uint32_t kQXFileStreamKeepMode = 32;

  // bufferBase + bufferPos; unbuffered, the file's position (-1 when the file cannot tell).
  int32_t Tell() override;
  // Buffered: a target inside the valid part of the buffer only moves the cursor (the buffer's
  // first byte excepted: a seek there reloads); any other target loads the buffer there. The end
  // bit tells a target past the file's end. Unbuffered: the end bit tells a target at the end.
  // A target before 0 fails.
  void Seek(int32_t offset, int32_t whence) override;
  void Read(void* buffer, int32_t count) override;
  // The fast path, a byte inside the buffer, is inline; the rest is GetCharSlow.
  void GetChar(char& c) override {
    if (bufferPos < bufferFill && (mode & kQXStreamReadable) != 0) {
      c = char(buffer[bufferPos++]);
      // Cleared only when set: a reader that stops on a non-zero state keeps it 0 in a loop,
      // and the byte then costs no store to it.
      if (state != 0) state = 0;
      return;
    }
    GetCharSlow(c);
  }
  // Steps back one byte; buffered, c is stored there (loading the buffer before this one when
  // the cursor is at its start). Unbuffered, the byte is not stored. At position 0: Fail.
  void PutBack(char c) override;
  void Write(const void* buffer, int32_t count) override;

  // A word as the base reads it; a word starting with ":" is resolved against the folder of the
  // stream's file, the result cut at kQXStreamWordMax characters.
  void ReadWord(char* buffer) override;
  // The text made relative to the stream's file (see the top), then written in quotes.
  void WriteQuoted(const char* text) override;
  // A TQXfstreamContext of the file's path, mode, buffer size and position; null without a file
  // or memory. The caller owns it.
  TQXiostreamContext* GetContext() override;

  // Opens `file` (a new, pathless file object when null) with the stream's mode and a buffer of
  // `bufferSize` bytes. A missing file is created when the mode writes and lacks
  // kQXStreamNoCreate; `*created` (may be null) tells. Write-only opens truncate. Returns 0 or
  // an error code (kQXErrFailed: no memory); a failure sets kQXStreamFailed.
  virtual uint32_t Open(IQXFile* file, uint32_t bufferSize, bool* created);
  // A new file object on `path` (library form; relative to the current directory) with `mode`,
  // then Open.
  virtual uint32_t OpenPath(const char* path, uint32_t mode, uint32_t bufferSize, bool* created);

  // Writes a dirty buffer to the file and empties the buffer; the position stays.
  void Flush();
  // Flushes a writable stream and closes the file; the stream keeps the file object.
  void Close();
  // Takes the file's length afresh, drops the buffer unwritten and loads at the end of the file:
  // for a caller that wrote to the file behind the stream's back.
  void SyncFromFile();

  TQXCountedPtr<IQXFile> file;  // one reference
  unsigned char* buffer;        // from QXmalloc; null when unbuffered
  uint32_t bufferSize;          // capacity; 0 when unbuffered
  uint32_t bufferFill;          // valid bytes in the buffer
  uint32_t bufferPos;           // cursor in the buffer
  uint32_t bufferBase;          // file offset of the buffer's first byte
  uint32_t fileLength;          // the file's length as far as the stream knows
  bool dirty;                   // the buffer holds bytes not yet written
  bool bufferLoaded;            // the buffer holds data for bufferBase

 private:
  QX_HIDDEN void GetCharSlow(char& c);
  // Puts the file's position at `offset` unless it is known to be there; false on failure.
  QX_HIDDEN bool SeekFile(int64_t offset);
  // Loads the buffer at file offset p (flushing first); out of range: Fail.
  QX_HIDDEN void LoadAt(int64_t p);
  // Reads up to `count` bytes at `offset`; the count read.
  QX_HIDDEN uint32_t ReadAt(uint32_t offset, void* out, uint32_t count);
  // Writes `count` bytes at `offset`; the count written. A failure sets kQXStreamFailed.
  QX_HIDDEN uint32_t WriteAt(uint32_t offset, const void* data, uint32_t count);
  // The stream's file's path, made uniform; empty without a file.
  QX_HIDDEN void OwnPath(TQXStringUTF8& path) const;
  QX_HIDDEN void ReleaseBuffer();

  int64_t filePosition;  // where the stream's own transfers left the file; -1: not known
};

// A saved description of a file stream: its path, mode, buffer size and position, enough to
// reopen it after the host closed it.
class QX_EXPORT TQXfstreamContext : public TQXiostreamContext {
 public:
  // Copies `path` (a null path is kept as empty).
  TQXfstreamContext(const char* path, uint32_t mode, uint32_t bufferSize, int32_t position);
  ~TQXfstreamContext() override;

  // A new TQXfstream on the saved path with the saved mode and buffer size, at the saved
  // position; its state tells whether that worked. Null without memory. The caller owns it.
  TQXiostream* Reopen() override;
  // kind 1, a file was renamed: when the saved path begins with the text `a` (compared up to
  // the end of either), the saved path becomes the text `b`. kind 2 with a null `a`: `b` points
  // at the new mode (uint32_t). Other calls change nothing.
  void Update(const void* a, const void* b, int32_t kind) override;

  char* path;  // from QXmalloc, zero-terminated
  uint32_t mode;
  uint32_t bufferSize;
  int32_t position;
};

#endif  // QXFSTREAM_H
