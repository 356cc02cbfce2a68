// The file family: the interface's raising slots and the portable half of TQXFile.
//
// Positions in paths are character positions of TQXStringUTF8; "no position" is 0xFFFFFFFF.
// Every search below guards the empty text, which has no last character to start from.
#include "QXFile.h"

#include "Platform/QXPlatform.h"
#include "Platform/QXPlatformFileSystem.h"
#include "QXException.h"
#include "QXFileIterator.h"
#include "QXFileType.h"
#include "Win/QXWinFile.h"

char TQXFile::fgSeparator = '\\';
const uint32_t TQXFile::fgMaxNameLength = 250;

namespace {

constexpr uint32_t kNone = 0xFFFFFFFFu;

uint32_t LastOf(const TQXStringUTF8& s, char c) {
  return s.Length() ? s.FindCharPosFromRight(c) : kNone;
}

// Erases from `pos` to the end (EraseStr takes a count, never "the rest").
void EraseFrom(TQXStringUTF8& s, uint32_t pos) {
  if (pos < s.Length()) s.EraseStr(pos, s.Length() - pos);
}

}  // namespace

// --- The interface's own table: every slot raises ----------------------------------------------

IQXFile::~IQXFile() = default;

uint32_t IQXFile::SetPath(const TQXStringUTF8&, bool) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::SetFullPath(const TQXStringUTF8&, bool) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::SetFromFile(IQXFile*) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::SetAccess(int32_t) {
  QXThrowNotImplemented();
}
bool IQXFile::Exists() const {
  QXThrowNotImplemented();
}
bool IQXFile::IsOpen() const {
  QXThrowNotImplemented();
}
uint32_t IQXFile::GetCachedInfo(TQXFileInfo&) const {
  QXThrowNotImplemented();
}
bool IQXFile::IsFolder() const {
  QXThrowNotImplemented();
}
uint32_t IQXFile::GetInfo(TQXFileInfo&) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::GetTypeID(uint32_t*) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::GetPlatformType(uint32_t*) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::GetLength(uint32_t*) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::GetEOF(uint32_t*) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::GetPosition(uint32_t*) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::GetAccess(int32_t*) const {
  QXThrowNotImplemented();
}
uint32_t IQXFile::GetFreeSpace(uint64_t*) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::CreateOnDisk() {
  QXThrowNotImplemented();
}
uint32_t IQXFile::Delete(bool) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::Open() {
  QXThrowNotImplemented();
}
uint32_t IQXFile::Close() {
  QXThrowNotImplemented();
}
uint32_t IQXFile::Flush() {
  QXThrowNotImplemented();
}
uint32_t IQXFile::Rename(const TQXStringUTF8&) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::Read(void*, uint32_t, uint32_t*) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::Write(const void*, uint32_t, uint32_t*) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::SetPosition(int32_t, int32_t) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::SetEOF(int32_t) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::GetName(TQXStringUTF8&) const {
  QXThrowNotImplemented();
}
uint32_t IQXFile::GetFolderPath(TQXStringUTF8&) const {
  QXThrowNotImplemented();
}
uint32_t IQXFile::GetPath(TQXStringUTF8&) const {
  QXThrowNotImplemented();
}
uint32_t IQXFile::GetBaseName(TQXStringUTF8&) const {
  QXThrowNotImplemented();
}
uint32_t IQXFile::SetBaseName(const TQXStringUTF8&) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::GetRelativePath(TQXStringUTF8&, const TQXStringUTF8&) const {
  QXThrowNotImplemented();
}
uint32_t IQXFile::SetRelativePath(TQXStringUTF8&, const TQXStringUTF8&, bool) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::SetTypeID(uint32_t) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::SetPlatformType(const uint32_t*) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::SetInfo(const TQXFileInfo&) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::SetExtension(const TQXStringUTF8&) {
  QXThrowNotImplemented();
}
bool IQXFile::IsSameFile(const IQXFile*) const {
  QXThrowNotImplemented();
}
uint32_t IQXFile::CopyTo(IQXFile*, bool) {
  QXThrowNotImplemented();
}
uint32_t IQXFile::CopyTree(IQXFile*) {
  QXThrowNotImplemented();
}

// --- TQXFile: counting -------------------------------------------------------------------------

TQXFile::TQXFile() : info{}, accessMode(3) {}

TQXFile::~TQXFile() = default;

uint32_t TQXFile::QueryInterface(uint32_t id, void** result) {
  if (id == kQXIIDFile && result) {
    *result = static_cast<IQXFile*>(this);
    AddRef();
    return 0;
  }
  return TQXCountedObject::QueryInterface(id, result);
}

int32_t TQXFile::AddRef() {
  return TQXCountedObject::AddRef();
}

int32_t TQXFile::Release() {
  return TQXCountedObject::Release();
}

// --- Cached state --------------------------------------------------------------------------------

uint32_t TQXFile::GetCachedInfo(TQXFileInfo& out) const {
  out = info;
  return 0;
}

bool TQXFile::IsFolder() const {
  TQXFileInfo cached;
  GetCachedInfo(cached);
  return cached.isFolder != 0;
}

uint32_t TQXFile::GetEOF(uint32_t* bytes) {
  GetLength(bytes);
  return 0;
}

uint32_t TQXFile::GetAccess(int32_t* mode) const {
  if (mode) *mode = accessMode;  // a null target is guarded, not written
  return 0;
}

uint32_t TQXFile::GetFreeSpace(uint64_t* bytes) {
  // The free space comes from the volume of this file; volumes are not available yet, and
  // their query answers kQXErrNotImplemented, which is passed on. `bytes` is not written.
  (void)bytes;
  return kQXErrNotImplemented;
}

// --- Paths -----------------------------------------------------------------------------------

void TQXFile::MakeUniform(TQXStringUTF8& p) {
  const auto sep = uint16_t(uint8_t(fgSeparator));
  p.Replace('\\', sep, 0);
  p.Replace(':', sep, 2);  // position 2 spares a drive letter's colon
  p.Replace('/', sep, 0);
}

uint32_t TQXFile::GetName(TQXStringUTF8& name) const {
  name = path;
  MakeUniform(name);
  const uint32_t length = name.Length();
  if (!IsFolder()) {
    const uint32_t sep = LastOf(name, fgSeparator);
    // A path that is the separator alone is left as it stands.
    if (sep != kNone && length > 1) name.EraseStr(0, sep + 1);
  } else if (length >= 2) {
    // The search starts at the second-last character: the trailing separator does not count.
    const uint32_t sep = name.FindCharPosFromRight(fgSeparator, length - 2);
    if (sep != kNone) name.EraseStr(0, sep + 1);
    if (name.Length() && name.IsCharAt(name.Length() - 1, fgSeparator))
      name.SetLength(name.Length() - 1);
  }
  return 0;
}

uint32_t TQXFile::GetFolderPath(TQXStringUTF8& out) const {
  out = path;
  JustPathFromPathName(out);
  return 0;
}

uint32_t TQXFile::GetPath(TQXStringUTF8& out) const {
  out = path;
  MakeUniform(out);
  return 0;
}

uint32_t TQXFile::GetBaseName(TQXStringUTF8& name) const {
  GetName(name);
  EraseFrom(name, LastOf(name, '.'));
  return 0;
}

uint32_t TQXFile::SetBaseName(const TQXStringUTF8& name) {
  TQXStringUTF8 newName(name);
  MakeUniform(newName);
  const uint32_t sep = LastOf(path, fgSeparator);
  if (sep == kNone) {
    path = newName;
  } else {
    EraseFrom(path, sep + 1);
    path += newName;
  }
  return 0;
}

uint32_t TQXFile::GetRelativePath(TQXStringUTF8& out, const TQXStringUTF8& root) const {
  TQXStringUTF8 upperRoot(root);
  upperRoot.ToUpper();
  GetPath(out);
  TQXStringUTF8 upperPath(out);
  upperPath.ToUpper();
  // The root's last character (normally the separator) stays as the result's first.
  if (root.Length() > 1 && upperPath.SearchStr(upperRoot) == 0) out.EraseStr(0, root.Length() - 1);
  return 0;
}

uint32_t TQXFile::SetRelativePath(TQXStringUTF8& relative, const TQXStringUTF8& root,
                                  bool isFolder) {
  MakeUniform(relative);
  if (!relative.IsCharAt(0, fgSeparator)) return SetFullPath(relative, isFolder);
  TQXStringUTF8 joined(root);
  if (joined.Length()) joined.SetLength(joined.Length() - 1);
  joined += relative;
  return SetFullPath(joined, isFolder);
}

uint32_t TQXFile::GetExtension(TQXStringUTF8& ext) const {
  ext.Empty();
  const uint32_t dot = LastOf(path, '.');
  const uint32_t sep = LastOf(path, fgSeparator);
  if (dot != kNone && (sep == kNone || dot > sep)) {
    ext = path;
    ext.EraseStr(0, dot + 1);
    if (dot + 1 >= path.Length()) ext.Empty();
  }
  return 0;
}

uint32_t TQXFile::SetExtension(const TQXStringUTF8& ext) {
  const uint32_t dot = LastOf(path, '.');
  const uint32_t sep = LastOf(path, fgSeparator);
  if (dot == kNone || (sep != kNone && dot <= sep))
    path += '.';
  else
    path.SetLength(dot + 1);
  // The name is checked against fgMaxNameLength on a copy only, so a name longer than that keeps
  // its length: the check changes nothing and is left out.
  path += ext;
  return 0;
}

bool TQXFile::IsSameFile(const IQXFile* other) const {
  if (!other) return false;  // guarded: the original reads through the pointer
  TQXStringUTF8 mine, theirs;
  GetPath(mine);
  other->GetPath(theirs);
  return mine == theirs;
}

// --- Types ---------------------------------------------------------------------------------

uint32_t TQXFile::GetTypeID(uint32_t* id) {
  uint32_t code = 0;
  if (const uint32_t error = GetPlatformType(&code)) return error;
  const TQXFileType* type = gFileTypeList ? gFileTypeList->FindByPlatformType(code) : nullptr;
  if (!type) return kQXErrIO;
  if (id) *id = type->GetID();
  return 0;
}

uint32_t TQXFile::SetTypeID(uint32_t id) {
  const TQXFileType* type = gFileTypeList ? gFileTypeList->FindByID(id) : nullptr;
  if (!type) return kQXErrIO;
  uint32_t code = 0;
  GetPlatformType(&code);
  if (!type->HasPlatformType(code) && type->PlatformTypeCount()) {
    const uint32_t first = type->PlatformType(0);
    return SetPlatformType(&first);
  }
  return 0;
}

// --- Copies --------------------------------------------------------------------------------

uint32_t TQXFile::CopyTo(IQXFile* dest, bool resourceAsData) {
  if (!dest) return kQXErrBadPath;  // guarded: the original calls through the pointer
  int32_t destMode = 3, sourceMode = 3;
  dest->GetAccess(&destMode);
  GetAccess(&sourceMode);
  if (const uint32_t error = dest->SetAccess(2)) return error;
  uint32_t status = SetAccess(1);
  const bool sourceModeChanged = status == 0;
  if (status == 0) {
    bool created = true;
    if (!dest->Exists()) {
      TQXFileInfo record{};
      record.isFolder = IsFolder() ? 1 : 0;
      record.dataSize = info.dataSize;
      record.resourceSize = info.resourceSize;
      record.fileType = info.fileType;
      record.creator = info.creator;
      if (resourceAsData && info.resourceSize != 0) {
        record.dataSize = info.resourceSize;
        record.resourceSize = 0;
      }
      status = dest->CreateOnDisk();
      if (status == 0)
        dest->SetInfo(record);
      else
        created = false;
    }
    if (created) {
      bool openedDest = false, openedSource = false;
      if (!dest->IsOpen()) {
        status = dest->Open();
        openedDest = status == 0;
      }
      if (status == 0 && !IsOpen()) {
        status = Open();
        openedSource = status == 0;
      }
      if (status == 0) {
        uint32_t remaining = 0;
        GetLength(&remaining);
        // 16384 bytes, else 8192, else halving down to 512.
        uint32_t size = 16384;
        void* buffer = QXmalloc(size);
        while (!buffer && size > 512) {
          size /= 2;
          buffer = QXmalloc(size);
        }
        if (!buffer) {
          status = kQXErrFailed;
        } else {
          dest->SetPosition(0, 0);
          SetPosition(0, 0);
          while (status == 0 && remaining) {
            uint32_t done = 0;
            status = Read(buffer, remaining < size ? remaining : size, &done);
            if (status == 0 || (status == kQXErrEndOfFile && done)) {
              uint32_t written = 0;
              status = dest->Write(buffer, done, &written);
            }
            remaining = done < remaining ? remaining - done : 0;
            if (status == 0 && done == 0) break;  // nothing moves: a file cut short meanwhile
          }
          QXdeleteArrayFree(buffer);
        }
      }
      if (openedDest) dest->Close();
      if (openedSource) Close();
    }
  }
  if (sourceModeChanged) SetAccess(sourceMode);
  dest->SetAccess(destMode);
  uint32_t typeID = 0;
  GetTypeID(&typeID);
  dest->SetTypeID(typeID);
  return status;
}

uint32_t TQXFile::CopyTree(IQXFile* dest) {
  if (!dest || !Exists() || IsFolder() != dest->IsFolder()) return kQXErrBadPath;
  if (!IsFolder()) {
    CopyTo(dest, false);
    return 0;
  }
  if (!dest->Exists()) dest->CreateOnDisk();
  TQXStringUTF8 destPath;
  dest->GetPath(destPath);
  TQXFileIterator* iterator = TQXFileIterator::Create(path, nullptr, false);
  TQXFile* entry = nullptr;
  TQXFile* target = nullptr;
  Create(&entry);
  Create(&target);
  if (iterator && entry && target) {
    iterator->First(entry);
    while (iterator->HasMore()) {
      TQXStringUTF8 name;
      entry->GetName(name);
      target->SetFullPath(destPath + name, entry->IsFolder());
      if (entry->CopyTree(target) != 0) break;
      iterator->Next(entry);
    }
  }
  delete iterator;
  if (entry) entry->Release();
  if (target) target->Release();
  return 0;
}

uint32_t TQXFile::MoveTo(IQXFile* dest) {
  uint32_t status = CopyTo(dest, false);
  if (status == 0) status = Delete(false);
  return status;
}

// --- Statics ---------------------------------------------------------------------------------

uint32_t TQXFile::Create(TQXFile** file) {
  if (!file) return kQXErrFailed;  // guarded: the original stores through the pointer
  if (*file) (*file)->Release();
  *file = new TWIN_QXFile;
  return *file ? 0u : uint32_t(kQXErrNoMemory);
}

void TQXFile::JustPathFromPathName(TQXStringUTF8& p) {
  const uint32_t sep = LastOf(p, fgSeparator);
  EraseFrom(p, sep == kNone ? 0 : sep + 1);
}

uint32_t TQXFile::GetAppPath(TQXStringUTF8& out, bool) {
  // Filled at the first call and kept for the life of the process.
  static TQXStringUTF8* cache = nullptr;
  if (!cache) {
    std::string text;
    if (const uint32_t error = QXPlatform::Get<TQXPlatformFileSystem>().ApplicationPath(text))
      return error;
    cache = new (std::nothrow) TQXStringUTF8(text);
  }
  if (cache)
    out = *cache;
  else
    out.Empty();  // the original assigns from a null cache; an empty text stands for it
  return 0;
}

void TQXFile::ConvertHFStoPOSIX(const TQXString& hfs, TQXStringUTF8& posix) {
  posix.FromTQXString(hfs);
}

void TQXFile::ConvertPOSIXtoHFS(const TQXStringUTF8& posix, TQXString& hfs) {
  posix.ToTQXString(hfs);
}
