// TWIN_QXFile: the file slots that need the system, on the platform layer's file-system role.
//
// Each operation follows the original's calls in their order; the role stands in for the
// system's file API and answers with the same error numbers. The 32-bit quantities of the
// interface (length, position) are the low words of the role's 64-bit ones, as the original's
// calls without a high-word argument give them.
#include "Win/QXWinFile.h"

#include <string>

#include "Platform/QXPlatform.h"
#include "QXException.h"
#include "QXFileIterator.h"
#include "QXString.h"

namespace {

constexpr uint32_t kNone = 0xFFFFFFFFu;
// The two mapped failures as plain numbers, for the conditional expressions below.
constexpr uint32_t kIO = kQXErrIO;
constexpr uint32_t kNotFound = kQXErrNotFound;

TQXPlatformFileSystem& FS() {
  return QXPlatform::Get<TQXPlatformFileSystem>();
}

std::string Text(const TQXStringUTF8& s) {
  return std::string(s);
}

uint32_t LastOf(const TQXStringUTF8& s, char c) {
  return s.Length() ? s.FindCharPosFromRight(c) : kNone;
}

}  // namespace

TWIN_QXFile::~TWIN_QXFile() = default;

// --- Type codes ------------------------------------------------------------------------------

uint32_t TWIN_QXFile::ExtensionCode(const char* name) {
  uint32_t code = 0;
  if (!name) return 0;
  for (int i = 0; i < 4 && name[i]; ++i) {
    uint8_t c = uint8_t(name[i]);
    if (c >= 'A' && c <= 'Z') c = uint8_t(c + 32);  // the C runtime's tolower, "C" locale
    code |= uint32_t(c) << (24 - 8 * i);
  }
  return code;
}

uint32_t TWIN_QXFile::TextExtensionCode(const TQXStringUTF8& text) {
  const std::string s = Text(text);
  if (s.size() <= 1) return 0;
  for (size_t i = s.size() - 1; i >= 1; --i) {
    if (s[i] == fgSeparator) return 0;
    if (s[i] == '.') return i + 1 == s.size() ? 0 : ExtensionCode(s.c_str() + i + 1);
  }
  return 0;
}

void TWIN_QXFile::UpdateInfo(const TQXFileAttributes& found) {
  info.isHidden = found.isHidden ? 1 : 0;
  info.isLocked = found.isReadOnly ? 1 : 0;
  info.creationTime.SetCount(found.creationTime);
  info.modificationTime.SetCount(found.modificationTime);
  if (found.isFolder) {
    info.isFolder = 1;
    info.dataSize = 0;
  } else {
    info.isFolder = 0;
    const uint64_t high = found.size >> 32, low = found.size & 0xFFFFFFFFu;
    info.dataSize = high ? high * 0xFFFFFFFFu + low : low;
  }
}

// --- Path slots ------------------------------------------------------------------------------

uint32_t TWIN_QXFile::SetPath(const TQXStringUTF8& newPath, bool isFolder) {
  info.isFolder = isFolder ? 1 : 0;
  path = newPath;
  if (!isFolder) {
    info.fileType = TextExtensionCode(path);
  } else {
    if (!path.IsCharAt(path.Length() ? path.Length() - 1 : 0, fgSeparator)) path += fgSeparator;
    info.fileType = 0;
  }
  return 0;
}

uint32_t TWIN_QXFile::SetFullPath(const TQXStringUTF8& newPath, bool isFolder) {
  const bool drive = newPath.IsCharAt(1, ':');
  const bool share = newPath.IsCharAt(0, '\\') && newPath.IsCharAt(1, '\\');
  if (drive || share) return SetPath(newPath, isFolder);
  // At most 259 bytes and a terminator go in; a result that does not fit in 260 bytes, or a
  // failure, leaves the path as given (the original's output buffer would be undefined).
  std::string given = Text(newPath);
  if (given.size() >= kMaxPath) given.resize(kMaxPath - 1);
  std::string full;
  if (FS().FullPath(given.c_str(), full) == 0 && full.size() < kMaxPath)
    return SetPath(TQXStringUTF8(full), isFolder);
  return SetPath(newPath, isFolder);
}

uint32_t TWIN_QXFile::SetFromFile(IQXFile* other) {
  if (!other) return kQXErrBadPath;  // guarded: the original calls through the pointer
  TQXStringUTF8 otherPath;
  TQXFileInfo otherInfo;
  other->GetPath(otherPath);
  other->GetCachedInfo(otherInfo);
  const uint32_t result = SetFullPath(otherPath, otherInfo.isFolder != 0);
  int32_t mode = accessMode;
  other->GetAccess(&mode);
  accessMode = mode;
  return result;
}

uint32_t TWIN_QXFile::SetAccess(int32_t mode) {
  if (Exists() && mode >= 1 && mode <= 3) {
    const uint32_t error = FS().TestAccess(Text(path).c_str(), TQXFileAccess(mode));
    if (error == kQXSysFileNotFound) return kQXErrNotFound;
    if (error) return kQXErrOpenFailed;
  }
  accessMode = mode;
  return 0;
}

bool TWIN_QXFile::Exists() const {
  TQXFileAttributes attributes;
  return FS().GetAttributes(Text(path).c_str(), attributes) == 0;
}

bool TWIN_QXFile::IsOpen() const {
  return handle != kQXNoFileHandle && handle != kQXInvalidFileHandle;
}

uint32_t TWIN_QXFile::GetInfo(TQXFileInfo& out) {
  // The path goes to the search as it stands, a folder's trailing separator included.
  TQXFindHandle find = kQXInvalidFileHandle;
  TQXFindEntry found;
  if (const uint32_t error = FS().FindFirst(Text(path).c_str(), find, found)) return error;
  FS().FindClose(find);
  UpdateInfo(found.attributes);
  out = info;
  return 0;
}

uint32_t TWIN_QXFile::GetPlatformType(uint32_t* code) {
  TQXStringUTF8 ext;
  GetExtension(ext);
  if (code) *code = ExtensionCode(ext.StrGet());
  return 0;
}

uint32_t TWIN_QXFile::GetLength(uint32_t* bytes) {
  uint64_t length = 0;
  uint32_t low = kNone;
  if (IsOpen() && FS().GetLength(handle, length) == 0) low = uint32_t(length);
  if (low == kNone) {
    if (bytes) *bytes = 0;
    return kQXErrIO;
  }
  if (bytes) *bytes = low;
  return 0;
}

uint32_t TWIN_QXFile::GetPosition(uint32_t* pos) {
  uint64_t position = 0;
  if (!IsOpen() || FS().GetPosition(handle, position) != 0 || uint32_t(position) == kNone)
    return kQXErrIO;
  if (pos) *pos = uint32_t(position);
  return 0;
}

// --- Changes on disk -------------------------------------------------------------------------

uint32_t TWIN_QXFile::CreateOnDisk() {
  const std::string p = Text(path);
  const uint32_t error =
      info.isFolder ? FS().CreateFolder(p.c_str()) : FS().CreateNewFile(p.c_str(), nullptr);
  return error ? kIO : 0;
}

uint32_t TWIN_QXFile::Delete(bool recursive) {
  Close();
  const std::string p = Text(path);
  if (!info.isFolder) return FS().DeleteFile(p.c_str()) ? kIO : 0;
  if (recursive) {
    // Deleting while listing may make the system skip entries: passes repeat until one deletes
    // nothing.
    TQXFile* working = nullptr;
    Create(&working);
    bool deletedAny = working != nullptr;
    while (deletedAny) {
      deletedAny = false;
      TQXFileIterator* iterator = TQXFileIterator::Create(path, nullptr, false);
      if (!iterator) break;
      iterator->First(working);
      while (iterator->HasMore()) {
        if (working->Delete(recursive) == 0) deletedAny = true;
        iterator->Next(working);
      }
      delete iterator;
    }
    if (working) working->Release();
  }
  return FS().RemoveFolder(p.c_str()) ? kIO : 0;
}

uint32_t TWIN_QXFile::Open() {
  if (IsOpen()) return 0;
  const TQXFileAccess access = accessMode == 3   ? TQXFileAccess::kReadWrite
                               : accessMode == 2 ? TQXFileAccess::kWrite
                                                 : TQXFileAccess::kRead;
  // The handle is kept even when invalid; IsOpen reads that as closed.
  return FS().Open(Text(path).c_str(), access, handle) ? kNotFound : 0;
}

uint32_t TWIN_QXFile::Close() {
  if (!IsOpen()) return 0;
  const uint32_t error = FS().Close(handle);
  handle = kQXNoFileHandle;
  return error ? kNotFound : 0;
}

uint32_t TWIN_QXFile::Flush() {
  return 0;
}

uint32_t TWIN_QXFile::Rename(const TQXStringUTF8& newName) {
  Close();
  TQXStringUTF8 folderPath;
  GetFolderPath(folderPath);
  const std::string from = Text(path), to = Text(folderPath + newName);
  if (FS().Move(from.c_str(), to.c_str(), false)) return kQXErrIO;
  // The bare name, made absolute against the current directory: the order of the original.
  path = newName;
  return SetFullPath(newName, false);
}

// --- Open file slots -------------------------------------------------------------------------

uint32_t TWIN_QXFile::Read(void* buffer, uint32_t count, uint32_t* done) {
  if (!IsOpen() || (!buffer && count)) return kQXErrIO;
  uint32_t got = 0;
  const uint32_t error = count ? FS().Read(handle, buffer, count, got) : 0;
  if (done) *done = got;
  if (got < count) return kQXErrEndOfFile;
  return error ? kIO : 0;
}

uint32_t TWIN_QXFile::Write(const void* buffer, uint32_t count, uint32_t* done) {
  if (!IsOpen() || !buffer) return kQXErrIO;
  uint32_t put = 0;
  const uint32_t error = FS().Write(handle, buffer, count, put);
  if (done) *done = put;
  return error ? kIO : 0;
}

uint32_t TWIN_QXFile::SetPosition(int32_t offset, int32_t origin) {
  if (!IsOpen()) return kQXErrIO;
  const TQXSeekOrigin method = origin == 1   ? TQXSeekOrigin::kCurrent
                               : origin == 2 ? TQXSeekOrigin::kEnd
                                             : TQXSeekOrigin::kBegin;
  uint64_t position = 0;
  if (FS().Seek(handle, offset, method, position) || uint32_t(position) == kNone) return kQXErrIO;
  return 0;
}

uint32_t TWIN_QXFile::SetEOF(int32_t length) {
  if (!IsOpen()) return kQXErrIO;
  uint64_t position = 0;
  if (FS().Seek(handle, length, TQXSeekOrigin::kBegin, position)) return kQXErrIO;
  return FS().SetLength(handle, position) ? kIO : 0;
}

// --- Names and types -------------------------------------------------------------------------

uint32_t TWIN_QXFile::GetBaseName(TQXStringUTF8& name) const {
  GetName(name);
  const uint32_t dot = LastOf(name, '.');
  if (dot != kNone) name.EraseStr(dot, name.Length() - dot);
  return 0;
}

uint32_t TWIN_QXFile::SetBaseName(const TQXStringUTF8& name) {
  // Only the base changes: the extension behind the last dot survives.
  const uint32_t dot = LastOf(path, '.');
  const uint32_t slash = LastOf(path, '\\');
  const uint32_t start = slash == kNone ? 0 : slash + 1;
  if (dot != kNone && (slash == kNone || dot > slash)) {
    if (dot > start) path.EraseStr(start, dot - start);
  } else if (start < path.Length()) {
    path.EraseStr(start, path.Length() - start);
  }
  path.InsertStr(name, start);
  return 0;
}

uint32_t TWIN_QXFile::SetPlatformType(const uint32_t* code) {
  if (!code) return 0;  // guarded: the original reads through the pointer
  TQXString15 text;
  text.FromCode(*code, false);
  SetExtension(TQXStringUTF8(text));
  return 0;
}

// --- Info, copy and move ---------------------------------------------------------------------

uint32_t TWIN_QXFile::SetInfo(const TQXFileInfo& record) {
  const std::string p = Text(path);
  TQXFindHandle find = kQXInvalidFileHandle;
  TQXFindEntry found;
  if (const uint32_t error = FS().FindFirst(p.c_str(), find, found)) return error;
  FS().FindClose(find);
  if (found.attributes.isReadOnly) FS().SetAttributes(p.c_str(), false, found.attributes.isHidden);
  info.creationTime = record.creationTime;
  info.modificationTime = record.modificationTime;
  // The original first tries a second, path-based open that cannot succeed; time stamps are set
  // only through this object's own open handle.
  if (!IsOpen()) return kQXSysInvalidHandle;
  const uint64_t creation = record.creationTime.Count();
  const uint64_t modification = record.modificationTime.Count();
  if (const uint32_t error = FS().SetTimes(handle, &creation, &modification)) return error;
  info.isHidden = record.isHidden ? 1 : 0;
  info.isLocked = record.isLocked ? 1 : 0;
  if (const uint32_t error = FS().SetAttributes(p.c_str(), info.isLocked, info.isHidden))
    return error;
  return 0;
}

uint32_t TWIN_QXFile::CopyTo(IQXFile* dest, bool) {
  if (!dest) return kQXSysInvalidParameter;  // guarded: the original calls through the pointer
  const bool sourceWasOpen = IsOpen(), destWasOpen = dest->IsOpen();
  TQXStringUTF8 from, to;
  GetPath(from);
  dest->GetPath(to);
  Close();
  dest->Close();
  uint32_t result = FS().CopyFile(Text(from).c_str(), Text(to).c_str());
  if (result == 0) FS().SetAttributes(Text(to).c_str(), false, false);
  // Files open before are open again, at position 0, whatever the copy gave.
  if (sourceWasOpen) Open();
  if (destWasOpen) dest->Open();
  return result;
}

uint32_t TWIN_QXFile::MoveTo(IQXFile* dest) {
  if (!dest) return kQXSysInvalidParameter;  // guarded: the original calls through the pointer
  TQXStringUTF8 from, to;
  GetPath(from);
  dest->GetPath(to);
  const std::string source = Text(from), target = Text(to);
  if (FS().Move(source.c_str(), target.c_str(), true) == 0) return 0;
  TQXFileAttributes attributes;
  if (FS().GetAttributes(target.c_str(), attributes) == 0) FS().DeleteFile(target.c_str());
  return FS().Move(source.c_str(), target.c_str(), false);
}
