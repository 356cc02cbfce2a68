// The in-memory file system. Each operation takes its checks in the order the Linux side meets
// them (the kernel's walk of the path first, then the role's own rules), so both give the same
// number for the same fault; the differential test holds them to it.
#include "Platform/Fake/QXFakeFileSystem.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t kMaxName = 255;                                   // bytes in one name, as on Linux
constexpr uint64_t kMaxFile = uint64_t(1) << 30;                   // bytes in one fake file
constexpr uint64_t kStartTime = 153'036ull * 86'400 * 10'000'000;  // 1 January 2020

bool Writes(TQXFileAccess a) {
  return a == TQXFileAccess::kWrite || a == TQXFileAccess::kReadWrite;
}

bool Reads(TQXFileAccess a) {
  return a == TQXFileAccess::kRead || a == TQXFileAccess::kReadWrite;
}

bool HasWildcard(const std::string& name) {
  return name.find_first_of("*?") != std::string::npos;
}

char UpperAscii(char c) {
  return (c >= 'a' && c <= 'z') ? char(c - 'a' + 'A') : c;
}

bool EqualNoCaseAscii(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (UpperAscii(a[i]) != UpperAscii(b[i])) return false;
  return true;
}

// A positive number not in use as a key of `used`, counting on from `next`.
template <class Map>
int32_t NextNumber(int32_t& next, const Map& used) {
  for (;;) {
    const int32_t n = next;
    next = next == INT32_MAX ? 1 : next + 1;
    if (!used.count(n)) return n;
  }
}

bool IsBelow(const TQXPath& inner, const TQXPath& outer) {
  if (inner.drive != outer.drive || inner.names.size() <= outer.names.size()) return false;
  return std::equal(outer.names.begin(), outer.names.end(), inner.names.begin());
}

}  // namespace

struct TQXFakeFileSystem::TQXNode {
  bool folder = false;
  bool readOnly = false;
  bool hiddenMark = false;
  bool undeletable = false;
  uint32_t accessError = 0;
  uint64_t creation = 0;
  uint64_t modification = 0;
  std::string data;
  std::map<std::string, TQXNodePtr> children;
  uint32_t opens = 0;
  uint32_t writers = 0;
};

// Where a path leads.
struct TQXFakeFileSystem::TQXLocated {
  TQXPath path;  // in drive form: a share is replaced by its folder
  bool isRoot = false;
  uint32_t wayError = 0;        // a folder on the way is missing or a file (3), or too long (206)
  bool lastTooLong = false;     // the last name is longer than a name may be
  bool trailingOnFile = false;  // "file\": a file where the separator asks for a folder
  TQXNodePtr parent;            // the folder of the last name; null for a root or a way error
  TQXNodePtr node;              // what stands there

  bool Exists() const { return node && !trailingOnFile; }
  // The error of a path that leads to nothing.
  uint32_t Missing() const {
    if (wayError) return wayError;
    if (lastTooLong) return kQXSysFilenameTooLong;
    if (trailingOnFile || isRoot) return kQXSysPathNotFound;
    return kQXSysFileNotFound;
  }
  const std::string& Name() const { return path.names.back(); }
};

struct TQXFakeFileSystem::TQXHandle {
  TQXNodePtr node;
  TQXFileAccess access;
  char drive;
  uint64_t position = 0;
};

struct TQXFakeFileSystem::TQXFind {
  TQXNodePtr folder;
  std::vector<std::string> names;  // matching names, when the find began
  size_t next = 0;
};

TQXFakeFileSystem::TQXFakeFileSystem() : now_(kStartTime) {
  std::fill(std::begin(free_), std::end(free_), UINT64_MAX);
  AddDrive('C');
  current_.drive = 'C';
}

TQXFakeFileSystem::~TQXFakeFileSystem() = default;

// --- The scene -------------------------------------------------------------------------------

void TQXFakeFileSystem::AddDrive(char letter) {
  letter = UpperAscii(letter);
  if (letter < 'A' || letter > 'Z' || drives_[letter - 'A']) return;
  drives_[letter - 'A'] = NewNode(true);
}

void TQXFakeFileSystem::RemoveDrive(char letter) {
  letter = UpperAscii(letter);
  if (letter >= 'A' && letter <= 'Z') drives_[letter - 'A'].reset();
}

bool TQXFakeFileSystem::AddShare(const char* share, const char* folder) {
  TQXPath root, target;
  if (QXParsePath(share, nullptr, lead_, root) || root.drive || !root.names.empty()) return false;
  if (QXParsePath(folder, nullptr, lead_, target) || !target.drive) return false;
  target.trailingSeparator = false;
  shares_.push_back({root.server, root.share, target});
  return true;
}

uint32_t TQXFakeFileSystem::MakeFolders(const char* path) {
  TQXLocated at;
  if (uint32_t r = Locate(path, at)) return r;
  TQXPath walk = at.path;
  walk.trailingSeparator = false;
  TQXPath prefix = walk;
  for (size_t n = 1; n <= walk.names.size(); ++n) {
    prefix.names.assign(walk.names.begin(), walk.names.begin() + std::ptrdiff_t(n));
    TQXLocated step;
    if (uint32_t r = Locate(QXJoinPath(prefix).c_str(), step)) return r;
    if (step.Exists()) {
      if (!step.node->folder) return kQXSysPathNotFound;
      continue;
    }
    if (step.wayError || step.lastTooLong) return step.Missing();
    Attach(step, NewNode(true));
  }
  return 0;
}

uint32_t TQXFakeFileSystem::PutFile(const char* path, std::string_view data) {
  TQXLocated at;
  if (uint32_t r = Locate(path, at)) return r;
  if (at.isRoot || at.path.trailingSeparator) return kQXSysInvalidName;
  if (!at.parent) {
    TQXPath folder = at.path;
    folder.names.pop_back();
    if (uint32_t r = MakeFolders(QXJoinPath(folder).c_str())) return r;
    if (uint32_t r = Locate(path, at)) return r;
  }
  if (at.Exists()) {
    if (at.node->folder) return kQXSysAccessDenied;
  } else {
    if (at.lastTooLong || !at.parent) return at.Missing();
    Attach(at, NewNode(false));
  }
  // The scene may fill a drive past its free space, which then stays at 0.
  if (!Grow(at.path.drive, at.node->data.size(), data.size())) free_[at.path.drive - 'A'] = 0;
  at.node->data.assign(data.data(), data.size());
  at.node->modification = now_;
  return 0;
}

bool TQXFakeFileSystem::GetFile(const char* path, std::string& data) {
  TQXLocated at;
  if (Locate(path, at) || !at.Exists() || at.node->folder) return false;
  data = at.node->data;
  return true;
}

bool TQXFakeFileSystem::SetCurrentDirectory(const char* path) {
  TQXPath parsed;
  if (QXParsePath(path, nullptr, lead_, parsed) || QXClassifyPath(path) == TQXPathKind::kRelative)
    return false;
  TQXLocated at;
  if (Locate(path, at) || !at.Exists() || !at.node->folder) return false;
  parsed.trailingSeparator = false;
  current_ = parsed;
  return true;
}

// --- Failures --------------------------------------------------------------------------------

void TQXFakeFileSystem::FailCall(Op op, uint32_t nth, uint32_t error, bool andAfter) {
  TQXScript& s = scripts_[uint32_t(op)];
  s.countdown = nth;
  s.error = error;
  s.andAfter = andAfter;
  s.firing = false;
}

void TQXFakeFileSystem::ClearFailures() {
  for (TQXScript& s : scripts_)
    s = TQXScript();
}

void TQXFakeFileSystem::SetFreeSpace(char letter, uint64_t bytes) {
  letter = UpperAscii(letter);
  if (letter >= 'A' && letter <= 'Z') free_[letter - 'A'] = bytes;
}

uint64_t TQXFakeFileSystem::FreeSpace(char letter) const {
  letter = UpperAscii(letter);
  return letter >= 'A' && letter <= 'Z' ? free_[letter - 'A'] : 0;
}

uint32_t TQXFakeFileSystem::SetUndeletable(const char* path, bool undeletable) {
  TQXLocated at;
  if (uint32_t r = Locate(path, at)) return r;
  if (!at.Exists()) return at.Missing();
  at.node->undeletable = undeletable;
  return 0;
}

uint32_t TQXFakeFileSystem::SetAccessError(const char* path, uint32_t error) {
  TQXLocated at;
  if (uint32_t r = Locate(path, at)) return r;
  if (!at.Exists()) return at.Missing();
  at.node->accessError = error;
  return 0;
}

uint32_t TQXFakeFileSystem::Tick(Op op) {
  const uint32_t i = uint32_t(op);
  ++calls_[i];
  TQXScript& s = scripts_[i];
  if (s.firing) return s.error;
  if (s.countdown == 0) return 0;
  if (--s.countdown != 0) return 0;
  s.firing = s.andAfter;
  return s.error;
}

// --- Internals -------------------------------------------------------------------------------

uint32_t TQXFakeFileSystem::Locate(const char* text, TQXLocated& at) {
  at = TQXLocated();
  if (!text) return kQXSysInvalidParameter;
  TQXPath parsed;
  if (uint32_t r = QXParsePath(text, &current_, lead_, parsed)) return r;
  at.isRoot = parsed.IsRoot();
  at.path = parsed;
  if (!parsed.drive) {
    const TQXShare* found = nullptr;
    for (const TQXShare& s : shares_)
      if (EqualNoCaseAscii(s.server, parsed.server) && EqualNoCaseAscii(s.share, parsed.share))
        found = &s;
    if (!found) return kQXSysBadNetPath;
    at.path = found->folder;
    at.path.names.insert(at.path.names.end(), parsed.names.begin(), parsed.names.end());
    at.path.trailingSeparator = parsed.trailingSeparator;
  }
  TQXNodePtr node = drives_[at.path.drive - 'A'];
  if (!node) return kQXSysPathNotFound;
  const std::vector<std::string>& names = at.path.names;
  for (size_t i = 0; i + 1 < names.size(); ++i) {
    if (names[i].size() > kMaxName) {
      at.wayError = kQXSysFilenameTooLong;
      return 0;
    }
    auto it = node->children.find(names[i]);
    if (it == node->children.end() || !it->second->folder) {
      at.wayError = kQXSysPathNotFound;
      return 0;
    }
    node = it->second;
  }
  if (names.empty()) {
    at.node = node;
    return 0;
  }
  at.parent = node;
  if (names.back().size() > kMaxName) {
    at.lastTooLong = true;
    return 0;
  }
  auto it = node->children.find(names.back());
  if (it != node->children.end()) at.node = it->second;
  at.trailingOnFile = at.node && !at.node->folder && at.path.trailingSeparator;
  return 0;
}

TQXFakeFileSystem::TQXHandle* TQXFakeFileSystem::Lookup(TQXFileHandle handle) {
  auto it = handles_.find(handle);
  return it == handles_.end() ? nullptr : &it->second;
}

TQXFakeFileSystem::TQXNodePtr TQXFakeFileSystem::NewNode(bool folder) {
  TQXNodePtr n = std::make_shared<TQXNode>();
  n->folder = folder;
  n->creation = n->modification = now_;
  return n;
}

void TQXFakeFileSystem::Attach(TQXLocated& at, const TQXNodePtr& node) {
  at.parent->children[at.Name()] = node;
  at.parent->modification = now_;
  at.node = node;
}

void TQXFakeFileSystem::Detach(TQXLocated& at) {
  at.parent->children.erase(at.Name());
  at.parent->modification = now_;
}

bool TQXFakeFileSystem::Grow(char drive, uint64_t from, uint64_t to) {
  if (to <= from) {
    Shrink(drive, from, to);
    return true;
  }
  uint64_t& space = free_[drive - 'A'];
  if (space == UINT64_MAX) return true;
  if (to - from > space) return false;
  space -= to - from;
  return true;
}

void TQXFakeFileSystem::Shrink(char drive, uint64_t from, uint64_t to) {
  uint64_t& space = free_[drive - 'A'];
  if (space == UINT64_MAX || to >= from) return;
  space = from - to > UINT64_MAX - 1 - space ? UINT64_MAX - 1 : space + (from - to);
}

void TQXFakeFileSystem::FreeTree(char drive, const TQXNode& node) {
  Shrink(drive, node.data.size(), 0);
  for (const auto& [name, child] : node.children)
    FreeTree(drive, *child);
}

bool TQXFakeFileSystem::MayOpen(const TQXNode& node, bool writes) const {
  return node.opens == 0 || (!writes && node.writers == 0);
}

bool TQXFakeFileSystem::IsHidden(const std::string& name, const TQXNode& node) const {
  return (!name.empty() && name[0] == '.') || node.hiddenMark;
}

void TQXFakeFileSystem::Describe(const std::string& name, const TQXNode& node,
                                 TQXFileAttributes& a) const {
  a = TQXFileAttributes();
  a.isFolder = node.folder;
  a.isReadOnly = node.readOnly;
  a.isHidden = IsHidden(name, node);
  a.size = node.folder ? 0 : node.data.size();
  a.creationTime = node.creation;
  a.modificationTime = node.modification;
}

// --- Open files ------------------------------------------------------------------------------

uint32_t TQXFakeFileSystem::Open(const char* path, TQXFileAccess access, TQXFileHandle& handle) {
  handle = kQXInvalidFileHandle;
  if (uint32_t e = Tick(Op::kOpen)) return e;
  if (!Reads(access) && !Writes(access)) return kQXSysInvalidParameter;
  TQXLocated at;
  if (uint32_t r = Locate(path, at)) return r;
  if (!at.Exists()) return at.Missing();
  TQXNode& node = *at.node;
  if (node.accessError) return node.accessError;
  if (node.folder) return kQXSysAccessDenied;
  if (Writes(access) && node.readOnly) return kQXSysAccessDenied;
  if (!MayOpen(node, Writes(access))) return kQXSysSharingViolation;
  handle = Register(at, access);
  return 0;
}

TQXFileHandle TQXFakeFileSystem::Register(const TQXLocated& at, TQXFileAccess access) {
  TQXFileHandle handle = NextNumber(nextHandle_, handles_);
  ++at.node->opens;
  if (Writes(access)) ++at.node->writers;
  handles_[handle] = {at.node, access, at.path.drive, 0};
  return handle;
}

uint32_t TQXFakeFileSystem::CreateNewFile(const char* path, TQXFileHandle* handle) {
  if (handle) *handle = kQXInvalidFileHandle;
  if (uint32_t e = Tick(Op::kCreateNewFile)) return e;
  TQXLocated at;
  if (uint32_t r = Locate(path, at)) return r;
  if (at.isRoot) return kQXSysFileExists;
  if (at.path.trailingSeparator) return kQXSysInvalidName;
  if (at.wayError || at.lastTooLong) return at.Missing();
  if (at.node) return kQXSysFileExists;
  Attach(at, NewNode(false));
  // Shared with nobody: a writer, so any other open is refused.
  if (handle) *handle = Register(at, TQXFileAccess::kReadWrite);
  return 0;
}

uint32_t TQXFakeFileSystem::Close(TQXFileHandle handle) {
  if (uint32_t e = Tick(Op::kClose)) return e;
  TQXHandle* h = Lookup(handle);
  if (!h) return kQXSysInvalidHandle;
  --h->node->opens;
  if (Writes(h->access)) --h->node->writers;
  handles_.erase(handle);
  return 0;
}

uint32_t TQXFakeFileSystem::Read(TQXFileHandle handle, void* buffer, uint32_t count,
                                 uint32_t& done) {
  done = 0;
  if (uint32_t e = Tick(Op::kRead)) return e;
  TQXHandle* h = Lookup(handle);
  if (!h) return kQXSysInvalidHandle;
  if (!Reads(h->access)) return kQXSysAccessDenied;
  if (count == 0) return 0;
  if (!buffer) return kQXSysInvalidParameter;
  const std::string& data = h->node->data;
  if (h->position < data.size()) {
    done = uint32_t(std::min<uint64_t>(count, data.size() - h->position));
    std::memcpy(buffer, data.data() + h->position, done);
    h->position += done;
  }
  return done < count ? kQXSysHandleEOF : 0;
}

uint32_t TQXFakeFileSystem::Write(TQXFileHandle handle, const void* buffer, uint32_t count,
                                  uint32_t& done) {
  done = 0;
  if (uint32_t e = Tick(Op::kWrite)) return e;
  TQXHandle* h = Lookup(handle);
  if (!h) return kQXSysInvalidHandle;
  if (!Writes(h->access)) return kQXSysAccessDenied;
  if (count == 0) return 0;
  if (!buffer) return kQXSysInvalidParameter;
  std::string& data = h->node->data;
  const uint64_t size = data.size();
  // Bytes that fit: the file may grow by the free space, and a fake file is bounded.
  uint64_t limit = kMaxFile;
  const uint64_t space = free_[h->drive - 'A'];
  if (space < kMaxFile && size + space < limit) limit = size + space;  // no wrap: both small
  if (limit < size) limit = size;
  const uint64_t fit = h->position >= limit ? 0 : std::min<uint64_t>(count, limit - h->position);
  if (fit > 0) {
    const uint64_t end = h->position + fit;
    if (end > size) {
      Grow(h->drive, size, end);
      data.resize(size_t(end), '\0');
    }
    std::memcpy(data.data() + h->position, buffer, size_t(fit));
    h->position = end;
    h->node->modification = now_;
  }
  done = uint32_t(fit);
  return done < count ? kQXSysDiskFull : 0;
}

uint32_t TQXFakeFileSystem::Seek(TQXFileHandle handle, int64_t offset, TQXSeekOrigin origin,
                                 uint64_t& position) {
  if (uint32_t e = Tick(Op::kSeek)) return e;
  TQXHandle* h = Lookup(handle);
  if (!h) return kQXSysInvalidHandle;
  int64_t base;
  switch (origin) {
    case TQXSeekOrigin::kBegin:
      base = 0;
      break;
    case TQXSeekOrigin::kCurrent:
      base = int64_t(h->position);
      break;
    case TQXSeekOrigin::kEnd:
      base = int64_t(h->node->data.size());
      break;
    default:
      return kQXSysInvalidParameter;
  }
  int64_t target;
  if (__builtin_add_overflow(base, offset, &target))
    return offset < 0 ? kQXSysNegativeSeek : kQXSysInvalidParameter;
  if (target < 0) return kQXSysNegativeSeek;
  h->position = uint64_t(target);
  position = h->position;
  return 0;
}

uint32_t TQXFakeFileSystem::GetPosition(TQXFileHandle handle, uint64_t& position) {
  if (uint32_t e = Tick(Op::kGetPosition)) return e;
  TQXHandle* h = Lookup(handle);
  if (!h) return kQXSysInvalidHandle;
  position = h->position;
  return 0;
}

uint32_t TQXFakeFileSystem::GetLength(TQXFileHandle handle, uint64_t& length) {
  if (uint32_t e = Tick(Op::kGetLength)) return e;
  TQXHandle* h = Lookup(handle);
  if (!h) return kQXSysInvalidHandle;
  length = h->node->data.size();
  return 0;
}

uint32_t TQXFakeFileSystem::SetLength(TQXFileHandle handle, uint64_t length) {
  if (uint32_t e = Tick(Op::kSetLength)) return e;
  TQXHandle* h = Lookup(handle);
  if (!h) return kQXSysInvalidHandle;
  if (!Writes(h->access)) return kQXSysAccessDenied;
  if (length > uint64_t(INT64_MAX)) return kQXSysInvalidParameter;
  std::string& data = h->node->data;
  if (length > kMaxFile || !Grow(h->drive, data.size(), length)) return kQXSysDiskFull;
  data.resize(size_t(length), '\0');
  h->node->modification = now_;
  return 0;
}

uint32_t TQXFakeFileSystem::SetTimes(TQXFileHandle handle, const uint64_t* creation,
                                     const uint64_t* modification) {
  if (uint32_t e = Tick(Op::kSetTimes)) return e;
  TQXHandle* h = Lookup(handle);
  if (!h) return kQXSysInvalidHandle;
  if (!Writes(h->access)) return kQXSysAccessDenied;
  if (creation && keepsCreation_) h->node->creation = *creation;
  if (modification) h->node->modification = *modification;
  return 0;
}

// --- Queries ---------------------------------------------------------------------------------

uint32_t TQXFakeFileSystem::GetAttributes(const char* path, TQXFileAttributes& attributes) {
  if (uint32_t e = Tick(Op::kGetAttributes)) return e;
  TQXLocated at;
  if (uint32_t r = Locate(path, at)) return r;
  if (!at.Exists()) return at.Missing();
  if (at.node->accessError) return at.node->accessError;
  Describe(at.isRoot ? std::string() : at.Name(), *at.node, attributes);
  return 0;
}

uint32_t TQXFakeFileSystem::TestAccess(const char* path, TQXFileAccess access) {
  if (uint32_t e = Tick(Op::kTestAccess)) return e;
  if (!Reads(access) && !Writes(access)) return kQXSysInvalidParameter;
  TQXLocated at;
  if (uint32_t r = Locate(path, at)) return r == kQXSysPathNotFound ? kQXSysFileNotFound : r;
  if (!at.Exists()) {
    const uint32_t r = at.Missing();
    return r == kQXSysFilenameTooLong ? r : kQXSysFileNotFound;
  }
  if (at.node->accessError) return at.node->accessError;
  if (Writes(access) && at.node->readOnly) return kQXSysAccessDenied;
  return 0;
}

// --- Changes ---------------------------------------------------------------------------------

uint32_t TQXFakeFileSystem::CreateFolder(const char* path) {
  if (uint32_t e = Tick(Op::kCreateFolder)) return e;
  TQXLocated at;
  if (uint32_t r = Locate(path, at)) return r;
  if (at.isRoot) return kQXSysAlreadyExists;
  if (at.wayError || at.lastTooLong) return at.Missing();
  if (at.node) return kQXSysAlreadyExists;
  Attach(at, NewNode(true));
  return 0;
}

uint32_t TQXFakeFileSystem::DeleteFile(const char* path) {
  if (uint32_t e = Tick(Op::kDeleteFile)) return e;
  TQXLocated at;
  if (uint32_t r = Locate(path, at)) return r;
  if (at.isRoot) return kQXSysAccessDenied;
  if (!at.Exists()) return at.Missing();
  TQXNode& node = *at.node;
  if (node.accessError) return node.accessError;
  if (node.folder || node.readOnly || node.undeletable) return kQXSysAccessDenied;
  if (node.opens) return kQXSysSharingViolation;
  Shrink(at.path.drive, node.data.size(), 0);
  Detach(at);
  return 0;
}

uint32_t TQXFakeFileSystem::RemoveFolder(const char* path) {
  if (uint32_t e = Tick(Op::kRemoveFolder)) return e;
  TQXLocated at;
  if (uint32_t r = Locate(path, at)) return r;
  if (at.isRoot) return kQXSysAccessDenied;
  if (!at.Exists()) return at.Missing();
  TQXNode& node = *at.node;
  if (node.accessError) return node.accessError;
  if (!node.folder) return kQXSysDirectory;
  if (node.readOnly || node.undeletable) return kQXSysAccessDenied;
  if (!node.children.empty()) return kQXSysDirNotEmpty;
  Detach(at);
  return 0;
}

uint32_t TQXFakeFileSystem::Move(const char* fromText, const char* toText, bool replaceExisting) {
  if (uint32_t e = Tick(Op::kMove)) return e;
  TQXLocated from, to;
  if (uint32_t r = Locate(fromText, from)) return r;
  if (uint32_t r = Locate(toText, to)) return r;
  if (from.isRoot) return kQXSysAccessDenied;
  if (!from.Exists()) return from.Missing();
  TQXNodePtr node = from.node;
  if (node->accessError) return node->accessError;
  const bool fromFolder = node->folder;
  if (to.isRoot) return replaceExisting ? kQXSysAccessDenied : kQXSysAlreadyExists;
  if (to.wayError || !to.parent) return kQXSysPathNotFound;
  if (to.path.trailingSeparator && !fromFolder) return kQXSysInvalidName;
  if (fromFolder && IsBelow(to.path, from.path)) return kQXSysInvalidParameter;
  if (to.Exists()) {
    const TQXNode& old = *to.node;
    if (!replaceExisting) return kQXSysAlreadyExists;
    if (old.accessError) return old.accessError;
    if (fromFolder || old.folder || old.readOnly || old.undeletable) return kQXSysAccessDenied;
    if (old.opens) return kQXSysSharingViolation;
  }
  if (!fromFolder && node->opens) return kQXSysSharingViolation;
  if (to.Exists() && to.node == node) return 0;
  if (node->undeletable) return kQXSysAccessDenied;
  if (to.trailingOnFile) return kQXSysPathNotFound;
  if (to.lastTooLong) return kQXSysFilenameTooLong;
  const char fromDrive = from.path.drive, toDrive = to.path.drive;
  if (fromDrive != toDrive) {
    // Another device: a file is carried over, a folder is not.
    if (fromFolder) return kQXSysNotSameDevice;
    const uint64_t replaced = to.Exists() ? to.node->data.size() : 0;
    if (!Grow(toDrive, replaced, node->data.size())) return kQXSysDiskFull;
    Shrink(fromDrive, node->data.size(), 0);
  } else if (to.Exists()) {
    Shrink(toDrive, to.node->data.size(), 0);
  }
  Detach(from);
  Attach(to, node);
  return 0;
}

uint32_t TQXFakeFileSystem::CopyFile(const char* fromText, const char* toText) {
  if (uint32_t e = Tick(Op::kCopyFile)) return e;
  TQXLocated from, to;
  if (uint32_t r = Locate(fromText, from)) return r;
  if (uint32_t r = Locate(toText, to)) return r;
  if (from.isRoot) return kQXSysAccessDenied;
  if (!from.Exists()) return from.Missing();
  const TQXNode& source = *from.node;
  if (source.accessError) return source.accessError;
  if (source.folder) return kQXSysAccessDenied;
  if (source.writers) return kQXSysSharingViolation;
  if (to.isRoot) return kQXSysAccessDenied;
  if (to.path.trailingSeparator) return kQXSysInvalidName;
  if (to.wayError || to.lastTooLong) return to.Missing();
  if (to.node) {
    const TQXNode& old = *to.node;
    if (old.accessError) return old.accessError;
    if (old.folder) return kQXSysAccessDenied;
    if (to.node == from.node) return kQXSysSharingViolation;
    if (old.readOnly) return kQXSysAccessDenied;
    if (old.opens) return kQXSysSharingViolation;
  }
  const uint64_t replaced = to.node ? to.node->data.size() : 0;
  if (!Grow(to.path.drive, replaced, source.data.size())) return kQXSysDiskFull;
  if (!to.node) Attach(to, NewNode(false));
  TQXNode& copy = *to.node;
  copy.data = source.data;
  copy.modification = source.modification;
  copy.readOnly = false;
  copy.hiddenMark = false;
  return 0;
}

uint32_t TQXFakeFileSystem::SetAttributes(const char* path, bool readOnly, bool hidden) {
  if (uint32_t e = Tick(Op::kSetAttributes)) return e;
  TQXLocated at;
  if (uint32_t r = Locate(path, at)) return r;
  if (!at.Exists()) return at.Missing();
  TQXNode& node = *at.node;
  if (node.accessError) return node.accessError;
  const bool dotName = !at.isRoot && at.Name()[0] == '.';
  const bool wantMark = hidden && !dotName;
  if (wantMark && !node.hiddenMark && !hiddenStorable_) return kQXSysNotSupported;
  node.hiddenMark = wantMark;
  node.readOnly = readOnly;
  return 0;
}

// --- Enumeration -----------------------------------------------------------------------------

bool TQXFakeFileSystem::NextMatch(TQXFind& find, TQXFindEntry& entry) {
  while (find.next < find.names.size()) {
    const std::string& name = find.names[find.next++];
    auto it = find.folder->children.find(name);
    if (it == find.folder->children.end()) continue;  // deleted since the find began
    entry.name = name;
    Describe(name, *it->second, entry.attributes);
    return true;
  }
  return false;
}

uint32_t TQXFakeFileSystem::FindFirst(const char* pattern, TQXFindHandle& find,
                                      TQXFindEntry& entry) {
  find = kQXInvalidFileHandle;
  if (uint32_t e = Tick(Op::kFindFirst)) return e;
  TQXLocated at;
  if (uint32_t r = Locate(pattern, at)) return r;
  if (at.isRoot || at.path.trailingSeparator) return kQXSysFileNotFound;
  TQXFind f;
  const std::string& last = at.Name();
  if (!HasWildcard(last)) {
    if (!at.Exists()) return at.Missing();
    if (at.node->accessError) return at.node->accessError;
    entry.name = last;
    Describe(last, *at.node, entry.attributes);
  } else {
    if (at.wayError) return at.wayError;
    // The folder is the parent: reaching it failed if there is none.
    if (!at.parent) return kQXSysPathNotFound;
    for (const auto& [name, child] : at.parent->children)
      if (QXMatchFindPattern(last.c_str(), name.c_str(), lead_)) f.names.push_back(name);
    f.folder = at.parent;
    if (!NextMatch(f, entry)) return kQXSysFileNotFound;
  }
  find = NextNumber(nextFind_, finds_);
  finds_[find] = std::move(f);
  return 0;
}

uint32_t TQXFakeFileSystem::FindNext(TQXFindHandle find, TQXFindEntry& entry) {
  if (uint32_t e = Tick(Op::kFindNext)) return e;
  auto it = finds_.find(find);
  if (it == finds_.end()) return kQXSysInvalidHandle;
  return NextMatch(it->second, entry) ? 0 : kQXSysNoMoreFiles;
}

uint32_t TQXFakeFileSystem::FindClose(TQXFindHandle find) {
  if (uint32_t e = Tick(Op::kFindClose)) return e;
  return finds_.erase(find) ? 0 : kQXSysInvalidHandle;
}

// --- Paths of the process --------------------------------------------------------------------

uint32_t TQXFakeFileSystem::FullPath(const char* path, std::string& full) {
  if (uint32_t e = Tick(Op::kFullPath)) return e;
  if (!path) return kQXSysInvalidParameter;
  TQXPath parsed;
  if (uint32_t r = QXParsePath(path, &current_, lead_, parsed)) return r;
  full = QXJoinPath(parsed);
  return 0;
}

uint32_t TQXFakeFileSystem::CurrentDirectory(std::string& path) {
  path = QXJoinPath(current_);
  return 0;
}

uint32_t TQXFakeFileSystem::ApplicationPath(std::string& path) {
  path = application_;
  return 0;
}
