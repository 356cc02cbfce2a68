// The folder iterator: the chain of live iterators, and the platform class on the role's find
// calls.
#include "Win/QXWinFileIterator.h"

#include <cstring>

#include "Platform/QXPlatform.h"
#include "QXException.h"
#include "QXFile.h"
#include "QXFileType.h"
#include "QXString.h"
#include "Win/QXWinFile.h"

TQXFileIterator* gFileIterators = nullptr;
TQXShortcutResolver TWIN_QXFileIterator::fgResolver = nullptr;

namespace {

TQXPlatformFileSystem& FS() {
  return QXPlatform::Get<TQXPlatformFileSystem>();
}

// `folder` with a separator behind it if it has none.
std::string WithSeparator(const TQXStringUTF8& folder) {
  std::string text(folder);
  if (text.empty() || text.back() != '\\') text += '\\';
  return text;
}

}  // namespace

// --- The chain -------------------------------------------------------------------------------

TQXFileIterator::TQXFileIterator(const TQXStringUTF8& folderPath, TQXFileType* typeFilter,
                                 bool resolve)
    : folder(folderPath),
      filter(typeFilter),
      isValid(true),
      hasMore(false),
      resolveShortcuts(resolve),
      nextIterator(nullptr) {
  // A folder that a live iterator has already yields nothing here; the walk goes on to the end.
  for (TQXFileIterator* it = gFileIterators; it; it = it->nextIterator) {
    if (it->folder.IsEqualNotCaseSensitive(folderPath)) {
      isValid = false;
      folder.Empty();
    }
  }
  nextIterator = gFileIterators;
  gFileIterators = this;
}

TQXFileIterator::~TQXFileIterator() {
  for (TQXFileIterator** link = &gFileIterators; *link; link = &(*link)->nextIterator) {
    if (*link == this) {
      *link = nextIterator;
      break;
    }
  }
}

void TQXFileIterator::First(IQXFile*) {
  QXThrowNotImplemented();
}

void TQXFileIterator::Next(IQXFile*) {
  QXThrowNotImplemented();
}

TQXFileIterator* TQXFileIterator::Create(const TQXStringUTF8& folder, TQXFileType* filter,
                                         bool resolveShortcuts) {
  return new TWIN_QXFileIterator(folder, filter, resolveShortcuts);
}

TQXFileIterator* TQXFileIterator::Create(const std::string& folder, TQXFileType* filter,
                                         bool resolveShortcuts) {
  return Create(TQXStringUTF8(folder), filter, resolveShortcuts);
}

// --- The platform class ----------------------------------------------------------------------

TWIN_QXFileIterator::~TWIN_QXFileIterator() {
  // A failed search leaves the invalid handle here; it is passed on too, as the original does.
  if (findHandle != 0) FS().FindClose(findHandle);
}

void TWIN_QXFileIterator::First(IQXFile* file) {
  if (folder.Length() == 0 || !file) {  // a null file is guarded: nothing to hand entries to
    hasMore = false;
    return;
  }
  // A second First restarts: the running search is closed first rather than lost.
  if (findHandle != 0) FS().FindClose(findHandle);
  const std::string pattern = WithSeparator(folder) + "*.*";
  hasMore = FS().FindFirst(pattern.c_str(), findHandle, entry) == 0;
  Advance(file);
}

void TWIN_QXFileIterator::Next(IQXFile* file) {
  hasMore = FS().FindNext(findHandle, entry) == 0;
  if (!file) {
    hasMore = false;
    return;
  }
  Advance(file);
}

void TWIN_QXFileIterator::Advance(IQXFile* file) {
  bool fromShortcut = false;
  std::string targetText;
  while (hasMore) {
    bool accept = true;
    const uint32_t code = TWIN_QXFile::TextExtensionCode(TQXStringUTF8(entry.name));
    if (entry.name == "." || entry.name == "..") accept = false;
    if (filter && !entry.attributes.isFolder && !filter->HasPlatformType(code)) accept = false;
    if (accept && resolveShortcuts && code == kShortcutCode) {
      const std::string shortcut = WithSeparator(folder) + entry.name;
      char target[TWIN_QXFile::kMaxPath];
      TQXFindHandle find = kQXInvalidFileHandle;
      TQXFindEntry found;
      if (ResolveShortcut(shortcut.c_str(), target) < 0 || FS().FindFirst(target, find, found)) {
        accept = false;
      } else {
        FS().FindClose(find);
        entry.attributes = found.attributes;
        targetText = target;
        fromShortcut = true;
        // A shortcut to this folder or one above it would make a recursive walk endless.
        if (entry.attributes.isFolder && folder.SearchStr(TQXStringUTF8(targetText)) == 0)
          accept = false;
      }
    }
    if (accept && hasMore) {
      if (auto* platformFile = dynamic_cast<TWIN_QXFile*>(file))
        platformFile->UpdateInfo(entry.attributes);
      // The joined path passes through a 1023-byte string, which cuts a longer one.
      const TQXString1023 joined(fromShortcut ? targetText : WithSeparator(folder) + entry.name);
      file->SetFullPath(TQXStringUTF8(joined), entry.attributes.isFolder);
      return;
    }
    hasMore = FS().FindNext(findHandle, entry) == 0;
    fromShortcut = false;
  }
}

int32_t TWIN_QXFileIterator::ResolveShortcut(const char* path, char* target) {
  if (!target) return int32_t(0x80004005u);
  *target = 0;
  if (!fgResolver || !path) return int32_t(0x80004005u);  // no shell links on this system
  const int32_t result = fgResolver(path, target);
  target[TWIN_QXFile::kMaxPath - 1] = 0;
  return result;
}
