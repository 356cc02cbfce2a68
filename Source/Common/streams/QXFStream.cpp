// TQXfstream and TQXfstreamContext.
//
// The buffer is a window [bufferBase, bufferBase + bufferFill) on the file with a cursor
// bufferPos in it; every step below keeps bufferPos <= bufferFill <= bufferSize, so a copy in
// or out of the buffer never leaves it, whatever the counts, positions or file the caller gives.
// Positions are computed in 64 bits and must lie in [0, INT32_MAX], the range of the file's
// 32-bit positions; anything else fails as a bad position.
//
// A buffered stream remembers where its own reads and writes left the file's position
// (`filePosition`) and seeks only when a transfer must start elsewhere: a sequential run costs one
// call per buffer, not two. The memory is dropped (-1) whenever the position is in doubt: at
// open and close, after a failed transfer, and in SyncFromFile, the call for a caller that used
// the file behind the stream's back.
#include "QXFStream.h"

#include <cstring>
#include <string>

#include "QXException.h"
#include "QXInternal.h"
#include "QXMemory.h"
#include "QXString.h"

namespace {

// The separator of the library's path form, TQXFile::fgSeparator, reached through a class of
// the family since it is protected.
struct TQXSeparator : TQXFile {
  static char Get() { return fgSeparator; }
};

constexpr int64_t kMaxPosition = INT32_MAX;

uint32_t Min(uint32_t a, uint32_t b) {
  return a < b ? a : b;
}

// Letters match in either case: two bytes that differ by exactly 32, the lower one "A" to "Z".
bool SameLetter(unsigned char a, unsigned char b) {
  if (a == b) return true;
  const unsigned char lo = a < b ? a : b, hi = a < b ? b : a;
  return hi - lo == 32 && lo >= 'A' && lo <= 'Z';
}

bool IsPathMark(char c, char separator) {
  return c == '\\' || c == '/' || c == ':' || c == separator;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Construction, opening and closing
// ---------------------------------------------------------------------------------------------

TQXfstream::TQXfstream()
    : buffer(nullptr),
      bufferSize(0),
      bufferFill(0),
      bufferPos(0),
      bufferBase(0),
      fileLength(0),
      dirty(false),
      bufferLoaded(false),
      filePosition(-1) {}

TQXfstream::TQXfstream(const char* path, uint32_t modeBits, uint32_t size, bool* created)
    : TQXfstream() {
  OpenPath(path, modeBits, size, created);
}

TQXfstream::TQXfstream(IQXFile* given, uint32_t modeBits, uint32_t size, bool* created)
    : TQXfstream() {
  if (modeBits != kQXFileStreamKeepMode) {
    mode = modeBits;
    if (given != nullptr) given->SetAccess(int32_t(modeBits & 3));
  }
  Open(given, size, created);
}

TQXfstream::~TQXfstream() {
  Close();
  ReleaseBuffer();
}

void TQXfstream::ReleaseBuffer() {
  QXfree(buffer);
  buffer = nullptr;
  bufferSize = bufferFill = bufferPos = bufferBase = 0;
  dirty = bufferLoaded = false;
}

uint32_t TQXfstream::Open(IQXFile* given, uint32_t size, bool* created) {
  if (created != nullptr) *created = false;
  state = 0;
  // A stream that had a file lets it go first: its pending bytes are written and it is closed.
  if (file) Close();
  ReleaseBuffer();
  filePosition = -1;

  TQXCountedPtr<IQXFile> fresh;
  if (given == nullptr) {
    TQXFile* made = nullptr;
    TQXFile::Create(&made);
    fresh.Adopt(made);
    given = made;
  }
  file = given;
  uint32_t result = given == nullptr ? uint32_t(kQXErrFailed) : 0;

  if (result == 0) {
    // Whether the object answers as a file at all.
    void* self = nullptr;
    result = given->QueryInterface(kQXIIDFile, &self);
    if (result == 0 && self != nullptr) static_cast<IQXFile*>(self)->Release();
  }
  if (result == 0) {
    // A stream without an access mode of its own takes the file's.
    if ((mode & (kQXStreamReadable | kQXStreamWritable)) == 0) {
      int32_t access = 0;
      given->GetAccess(&access);
      mode |= uint32_t(access) & (kQXStreamReadable | kQXStreamWritable);
    }
    // A refusal (a read-only file opened for writing) ends the open here, with its reason,
    // rather than as a missing file that cannot be created.
    result = given->SetAccess(int32_t(mode & (kQXStreamReadable | kQXStreamWritable)));
    fileLength = 0;
    dirty = bufferLoaded = false;
  }
  if (result == 0) {
    result = given->Open();
    if (result == uint32_t(kQXErrNotFound) && (mode & kQXStreamWritable) != 0 &&
        (mode & kQXStreamNoCreate) == 0) {
      // `*created` tells only of a file that was really made.
      if (given->CreateOnDisk() == 0) {
        if (created != nullptr) *created = true;
        result = given->Open();
      }
    }
  }
  if (result == 0) {
    if ((mode & kQXStreamReadable) != 0) {
      uint32_t length = 0;
      given->GetLength(&length);
      fileLength = length;
    } else if ((mode & kQXStreamWritable) != 0) {
      given->SetEOF(0);
    }
    if (size > 0) {
      buffer = static_cast<unsigned char*>(QXmalloc(size));
      if (buffer == nullptr) {
        result = kQXErrFailed;
      } else {
        bufferSize = size;
      }
    }
  }
  if (result != 0) Fail(kQXStreamOutOfRange);
  return result;
}

uint32_t TQXfstream::OpenPath(const char* path, uint32_t modeBits, uint32_t size, bool* created) {
  mode = modeBits;
  TQXFile* made = nullptr;
  TQXFile::Create(&made);
  TQXCountedPtr<IQXFile> held;
  held.Adopt(made);
  if (made == nullptr) {
    Fail(kQXStreamOutOfRange);
    return kQXErrFailed;
  }
  const TQXString1023 hfs(path != nullptr ? path : "");
  const TQXStringUTF8 posix(hfs);
  uint32_t result = made->SetFullPath(posix, false);
  if (result == 0) result = made->SetAccess(int32_t(modeBits & 3));
  if (result == 0) return Open(made, size, created);
  Fail(kQXStreamOutOfRange);
  return result;
}

void TQXfstream::Close() {
  if (dirty && (mode & kQXStreamWritable) != 0) Flush();
  if (file) file->Close();
  filePosition = -1;
  bufferBase += bufferPos;
  bufferFill = bufferPos = 0;
  dirty = bufferLoaded = false;
}

// ---------------------------------------------------------------------------------------------
// Moving bytes between the buffer and the file
// ---------------------------------------------------------------------------------------------

bool TQXfstream::SeekFile(int64_t offset) {
  if (!file || offset < 0 || offset > kMaxPosition) return false;
  if (filePosition == offset) return true;
  const bool moved = file->SetPosition(int32_t(offset), 0) == 0;
  filePosition = moved ? offset : -1;
  return moved;
}

uint32_t TQXfstream::ReadAt(uint32_t offset, void* out, uint32_t count) {
  if (count == 0 || !SeekFile(offset)) return 0;
  uint32_t done = 0;
  const uint32_t result = file->Read(out, count, &done);
  done = Min(done, count);  // a file object that claims more is not believed
  filePosition = result == 0 || result == uint32_t(kQXErrEndOfFile) ? int64_t(offset) + done : -1;
  return done;
}

uint32_t TQXfstream::WriteAt(uint32_t offset, const void* data, uint32_t count) {
  if (!SeekFile(offset)) {
    Fail(kQXStreamOutOfRange);
    return 0;
  }
  uint32_t done = 0;
  const uint32_t result = file->Write(data, count, &done);
  done = Min(done, count);
  filePosition = result == 0 ? int64_t(offset) + done : -1;
  if (result != 0 || done < count) Fail(kQXStreamOutOfRange);
  if (offset + uint64_t(done) > fileLength) fileLength = offset + done;
  return done;
}

void TQXfstream::Flush() {
  if (dirty && bufferFill > 0 && (mode & kQXStreamWritable) != 0) {
    WriteAt(bufferBase, buffer, bufferFill);
  }
  // The bytes past the cursor are in the file now, so the position is kept and the next read
  // takes them from there. A failed write has set kQXStreamFailed; its bytes are dropped, and
  // whatever earlier flushes wrote stays in the file.
  bufferBase += bufferPos;
  bufferFill = bufferPos = 0;
  dirty = false;
}

void TQXfstream::LoadAt(int64_t p) {
  if (dirty) Flush();
  if (p < 0 || p > kMaxPosition) {
    Fail(kQXStreamOutOfRange);
    return;
  }
  if (!SeekFile(p)) {
    state |= kQXStreamEnd;
    return;
  }
  const uint32_t at = uint32_t(p);
  // Past the known end the buffer is empty (the literal fileLength - p would wrap).
  const uint32_t want = at >= fileLength ? 0 : Min(bufferSize, fileLength - at);
  uint32_t got = 0;
  if ((mode & kQXStreamReadable) != 0) {
    got = ReadAt(at, buffer, want);
    // The file is shorter than the stream knows, or its read failed.
    if (got < want) Fail(kQXStreamFileEmpty);
  }
  bufferFill = got;
  bufferPos = 0;
  bufferBase = at;
  bufferLoaded = true;
}

void TQXfstream::SyncFromFile() {
  uint32_t length = 0;
  if (file) file->GetLength(&length);
  fileLength = length;
  dirty = false;
  filePosition = -1;
  if (bufferSize == 0) {
    if (file) file->SetPosition(0, 2);
    return;
  }
  LoadAt(fileLength);
}

// ---------------------------------------------------------------------------------------------
// Position
// ---------------------------------------------------------------------------------------------

int32_t TQXfstream::Tell() {
  if (bufferSize > 0) return int32_t(bufferBase + bufferPos);
  uint32_t pos = 0xFFFFFFFFu;
  if (file) file->GetPosition(&pos);
  return int32_t(pos);
}

void TQXfstream::Seek(int32_t offset, int32_t whence) {
  state = 0;
  if (bufferSize == 0) {
    if (!file) {
      Fail(kQXStreamOutOfRange);
      return;
    }
    int64_t target = -1;
    uint32_t result = 0;
    switch (whence) {
      case 0:
        result = file->SetPosition(offset, 0);
        target = offset;
        break;
      case 1: {
        uint32_t current = 0;
        file->GetPosition(&current);
        result = file->SetPosition(offset, 1);
        target = int64_t(current) + offset;
        break;
      }
      case 2:
        result = file->SetPosition(QXWrapNeg(offset), 2);
        if (offset == 0) state |= kQXStreamEnd;
        break;
      default:
        return;
    }
    if (result != 0) {
      Fail(kQXStreamOutOfRange);
    } else if (target == int64_t(fileLength)) {
      state |= kQXStreamEnd;
    }
    return;
  }

  int64_t relative;
  switch (whence) {
    case 0:
      relative = int64_t(offset) - bufferBase;
      break;
    case 1:
      relative = int64_t(bufferPos) + offset;
      break;
    case 2:
      relative = int64_t(fileLength) - offset - bufferBase;
      break;
    default:
      relative = 0;
      break;
  }
  const int64_t target = int64_t(bufferBase) + relative;
  if (target > int64_t(fileLength)) state = kQXStreamEnd;
  if (relative > 0 && relative <= int64_t(bufferFill)) {
    bufferPos = uint32_t(relative);
    return;
  }
  LoadAt(target);
}

// ---------------------------------------------------------------------------------------------
// Reading
// ---------------------------------------------------------------------------------------------

void TQXfstream::Read(void* out, int32_t count) {
  if ((mode & kQXStreamReadable) == 0) {
    lastCount = 0;
    Fail(kQXStreamModeForbids);
    return;
  }
  state = 0;
  lastCount = 0;
  if (count <= 0) return;
  if (out == nullptr) {
    Fail(kQXStreamNullBuffer);
    return;
  }

  if (bufferSize == 0) {
    if (!file) {
      Fail(kQXStreamModeForbids);
      return;
    }
    uint32_t done = 0;
    const uint32_t result = file->Read(out, uint32_t(count), &done);
    lastCount = int32_t(Min(done, uint32_t(count)));
    if (result == uint32_t(kQXErrEndOfFile)) {
      state |= kQXStreamEnd;
    } else if (result != 0) {
      Fail(kQXStreamFileEmpty);
    }
    return;
  }

  unsigned char* to = static_cast<unsigned char*>(out);
  uint32_t remaining = uint32_t(count);
  uint32_t total = 0;
  // The bytes that came are delivered even when a load failed on the way; a load that brings
  // nothing ends the read.
  while (remaining > 0) {
    const uint32_t available = bufferFill - bufferPos;
    if (available > 0) {
      const uint32_t n = Min(available, remaining);
      QXmemcpy(to, buffer + bufferPos, int32_t(n));
      bufferPos += n;
      to += n;
      total += n;
      remaining -= n;
      continue;
    }
    // The buffer is spent: the next bytes come from the file, unless the file ends here.
    const uint32_t position = bufferBase + bufferPos;
    if (position >= fileLength) {
      state |= kQXStreamEnd;
      break;
    }
    if (dirty) Flush();
    if (remaining >= bufferSize) {
      // A buffer's worth or more goes straight to the caller's memory.
      const uint32_t want = Min(remaining, fileLength - position);
      const uint32_t got = ReadAt(position, to, want);
      to += got;
      total += got;
      remaining -= got;
      bufferBase = position + got;
      bufferFill = bufferPos = 0;
      bufferLoaded = true;
      if (got < want) {
        // The file is shorter than the stream knew, or its read failed.
        state |= kQXStreamEnd;
        Fail(kQXStreamFileEmpty);
        break;
      }
      continue;
    }
    LoadAt(position);
    if (bufferPos >= bufferFill) {  // nothing came: no load, or an empty one
      state |= kQXStreamEnd;
      Fail(kQXStreamFileEmpty);
      break;
    }
  }
  lastCount = int32_t(total);
}

void TQXfstream::GetCharSlow(char& c) {
  if ((mode & kQXStreamReadable) == 0) {
    Fail(kQXStreamModeForbids);
    return;
  }
  if (bufferSize == 0) {
    char byte;
    Read(&byte, 1);
    if (lastCount == 1) c = byte;
    return;
  }
  state = 0;
  const uint32_t position = bufferBase + bufferPos;
  if (position >= fileLength) {
    state = kQXStreamEnd;
    return;
  }
  LoadAt(position);
  if (bufferPos < bufferFill) {
    c = char(buffer[bufferPos++]);
  } else {
    state |= kQXStreamEnd;
    Fail(kQXStreamFileEmpty);
  }
}

void TQXfstream::PutBack(char c) {
  if ((mode & kQXStreamReadable) == 0) {
    Fail(kQXStreamModeForbids);
    return;
  }
  if (bufferSize == 0) {
    if (!file || file->SetPosition(-1, 1) != 0) Fail(kQXStreamOutOfRange);
    return;
  }
  if (bufferPos > 0) {
    buffer[--bufferPos] = static_cast<unsigned char>(c);
    return;
  }
  if (bufferBase == 0) {
    Fail(kQXStreamOutOfRange);
    return;
  }
  // The buffer before this one, with the cursor on its last byte.
  const uint32_t position = bufferBase;
  LoadAt(position >= bufferSize ? int64_t(position) - bufferSize : 0);
  const uint32_t back = position - 1 - bufferBase;
  if (bufferLoaded && back < bufferFill) {
    bufferPos = back;
    buffer[bufferPos] = static_cast<unsigned char>(c);
  } else {
    // The byte before the position is not in the file (it lies past the end, or the file is
    // shorter than the stream knew): the position steps back over an empty buffer, and c is
    // not stored, as an unbuffered stream does.
    bufferBase = position - 1;
    bufferFill = bufferPos = 0;
  }
}

// ---------------------------------------------------------------------------------------------
// Writing
// ---------------------------------------------------------------------------------------------

void TQXfstream::Write(const void* data, int32_t count) {
  if ((mode & kQXStreamWritable) == 0) {
    Fail(kQXStreamModeForbids);
    return;
  }
  state = 0;
  if (count <= 0) return;
  if (data == nullptr) {
    Fail(kQXStreamNullBuffer);
    return;
  }

  if (bufferSize == 0) {
    if (!file) {
      Fail(kQXStreamModeForbids);
      return;
    }
    uint32_t done = 0;
    if (file->Write(data, uint32_t(count), &done) != 0 || done < uint32_t(count))
      Fail(kQXStreamOutOfRange);
    uint32_t position = 0;
    if (file->GetPosition(&position) == 0 && position > fileLength) fileLength = position;
    return;
  }

  const unsigned char* from = static_cast<const unsigned char*>(data);
  uint32_t remaining = uint32_t(count);
  if (int64_t(bufferBase) + bufferPos + remaining > kMaxPosition) {
    Fail(kQXStreamOutOfRange);  // the file's positions are 32-bit
    return;
  }
  while (remaining > 0 && (state & kQXStreamFailed) == 0) {
    if (bufferPos == bufferSize) {
      Flush();
      continue;
    }
    if (bufferPos == 0 && bufferFill == 0 && remaining >= bufferSize) {
      // An empty buffer and a buffer's worth or more: straight to the file.
      const uint32_t done = WriteAt(bufferBase, from, remaining);
      from += done;
      remaining -= done;
      bufferBase += done;
      bufferLoaded = true;
      continue;
    }
    const uint32_t n = Min(bufferSize - bufferPos, remaining);
    QXmemcpy(buffer + bufferPos, from, int32_t(n));
    bufferPos += n;
    from += n;
    remaining -= n;
    if (bufferFill < bufferPos) bufferFill = bufferPos;
    dirty = true;
    bufferLoaded = true;
    // Lifted as the bytes enter the buffer, so that the length always covers them.
    if (bufferBase + bufferPos > fileLength) fileLength = bufferBase + bufferPos;
  }
}

// ---------------------------------------------------------------------------------------------
// Path tokens
// ---------------------------------------------------------------------------------------------

void TQXfstream::OwnPath(TQXStringUTF8& out) const {
  out.Empty();
  if (file) file->GetPath(out);
}

void TQXfstream::ReadWord(char* out) {
  if (out == nullptr) return;
  TQXiostream::ReadWord(out);
  if (out[0] != ':') return;

  const char separator = TQXSeparator::Get();
  TQXStringUTF8 own;
  OwnPath(own);
  const char* base = own.StrGet();
  const uint32_t baseLength = own.Length();

  // Each ":" after the first goes one folder up.
  size_t i = 1;
  uint32_t levels = 0;
  while (out[i] == ':') {
    ++levels;
    ++i;
  }
  // The base path up to and including the separator `levels` places from its end. More levels
  // than the path has folders stop at its first separator; a path without one gives no base.
  uint32_t separators = 0;
  for (uint32_t k = 0; k < baseLength; ++k)
    separators += base[k] == separator ? 1 : 0;
  uint32_t keep = 0;
  if (separators > 0) {
    const uint32_t wanted = levels < separators ? separators - levels : 1;  // 1-based
    uint32_t seen = 0;
    for (uint32_t k = 0; k < baseLength; ++k) {
      if (base[k] == separator && ++seen == wanted) {
        keep = k + 1;
        break;
      }
    }
  }

  std::string result(base, keep);
  for (; out[i] != 0; ++i)
    result += IsPathMark(out[i], separator) ? separator : out[i];
  // The caller's buffer holds a word of kQXStreamWordMax characters: a longer path is cut.
  if (result.size() > size_t(kQXStreamWordMax)) result.resize(size_t(kQXStreamWordMax));
  std::memcpy(out, result.c_str(), result.size() + 1);
}

void TQXfstream::WriteQuoted(const char* text) {
  if (text == nullptr) {
    TQXiostream::WriteQuoted(text);
    return;
  }
  const char separator = TQXSeparator::Get();
  TQXStringUTF8 own;
  OwnPath(own);
  const char* base = own.StrGet();
  const size_t baseLength = own.Length();
  const size_t textLength = std::strlen(text);

  // The common front, ASCII letters in either case, and the last separator inside it.
  size_t common = 0;
  size_t lastSeparator = SIZE_MAX;
  while (common < baseLength && common < textLength &&
         SameLetter(static_cast<unsigned char>(base[common]),
                    static_cast<unsigned char>(text[common]))) {
    if (text[common] == separator) lastSeparator = common;
    ++common;
  }
  if (lastSeparator == SIZE_MAX) {
    TQXiostream::WriteQuoted(text);
    return;
  }
  // One ":" per folder of the stream's path below the common part, then the rest of the text
  // from the last common separator, each separator as ":".
  size_t up = 0;
  for (size_t k = lastSeparator + 1; k < baseLength; ++k)
    up += base[k] == separator ? 1 : 0;
  std::string relative(up, ':');
  for (size_t k = lastSeparator; k < textLength; ++k)
    relative += text[k] == separator ? ':' : text[k];
  TQXiostream::WriteQuoted(relative.c_str());
}

// ---------------------------------------------------------------------------------------------
// Contexts
// ---------------------------------------------------------------------------------------------

TQXiostreamContext* TQXfstream::GetContext() {
  if (!file) return nullptr;
  TQXStringUTF8 own;
  OwnPath(own);
  TQXfstreamContext* context = new TQXfstreamContext(own.StrGet(), mode, bufferSize, Tell());
  if (context != nullptr && context->path == nullptr) {
    delete context;
    return nullptr;
  }
  return context;
}

TQXfstreamContext::TQXfstreamContext(const char* text, uint32_t modeBits, uint32_t size, int32_t at)
    : path(nullptr), mode(modeBits), bufferSize(size), position(at) {
  const int32_t n = QXCStringLength(text);
  path = static_cast<char*>(QXmalloc(uint32_t(n) + 1));
  if (path != nullptr) {
    if (n > 0) QXmemcpy(path, text, n);
    path[n] = 0;
  }
}

TQXfstreamContext::~TQXfstreamContext() {
  QXfree(path);
}

TQXiostream* TQXfstreamContext::Reopen() {
  TQXfstream* stream = new TQXfstream();
  if (stream == nullptr) return nullptr;
  if (stream->OpenPath(path, mode, bufferSize, nullptr) == 0) stream->Seek(position, 0);
  return stream;
}

void TQXfstreamContext::Update(const void* a, const void* b, int32_t kind) {
  if (kind == 1 && a != nullptr && b != nullptr && path != nullptr) {
    const char* from = static_cast<const char*>(a);
    const char* to = static_cast<const char*>(b);
    for (size_t i = 0; from[i] != 0 && path[i] != 0; ++i)
      if (from[i] != path[i]) return;
    const int32_t n = QXCStringLength(to);
    char* renamed = static_cast<char*>(QXmalloc(uint32_t(n) + 1));
    if (renamed == nullptr) return;  // the old path stays
    if (n > 0) QXmemcpy(renamed, to, n);
    renamed[n] = 0;
    QXfree(path);
    path = renamed;
  } else if (kind == 2 && a == nullptr && b != nullptr) {
    std::memcpy(&mode, b, sizeof mode);
  }
}
