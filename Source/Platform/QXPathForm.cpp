// The library's path form and the drive map. See QXPathForm.h for the rules.
//
// The map is a process-wide table: 26 letter slots and a short list of shares, each holding a
// POSIX directory in normal form ("/" or "/a/b": absolute, no empty names, no "." or "..", no
// trailing '/'). It lives in never-destroyed storage so that a path used during another unit's
// exit-time destruction still resolves.
#include "Platform/QXPathForm.h"

#include <cstring>

#include "Platform/QXPlatform.h"
#include "Platform/QXPlatformFileSystem.h"
#include "Platform/QXPlatformText.h"
#include "QXDriveMap.h"
#include "QXException.h"

namespace {

bool IsSeparator(char c) {
  return c == '\\' || c == '/';
}

bool IsAsciiLetter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

char UpperAscii(char c) {
  return (c >= 'a' && c <= 'z') ? char(c - 'a' + 'A') : c;
}

// Bytes of the character at s: 2 for a lead byte followed by a byte other than the terminator.
size_t CharLength(const char* s, TQXLeadByteTest lead) {
  return (lead && lead(uint8_t(s[0])) && s[1] != 0) ? 2 : 1;
}

// Applies one name to a list of names: empty and "." do nothing, ".." drops the last name and
// stops at the root.
void ApplyName(std::string& name, std::vector<std::string>& names) {
  if (name.empty() || name == ".") {
  } else if (name == "..") {
    if (!names.empty()) names.pop_back();
  } else {
    names.push_back(std::move(name));
  }
  name.clear();
}

// Reads the names of `p` onto `names`. Returns whether the text ended with a separator.
bool AppendNames(const char* p, TQXLeadByteTest lead, std::vector<std::string>& names) {
  std::string name;
  bool endedWithSeparator = false;
  while (*p) {
    if (IsSeparator(*p)) {
      ApplyName(name, names);
      endedWithSeparator = true;
      ++p;
      continue;
    }
    const size_t n = CharLength(p, lead);
    name.append(p, n);
    p += n;
    endedWithSeparator = false;
  }
  ApplyName(name, names);
  return endedWithSeparator;
}

// Reads one name of a network root (server or share) up to the next separator.
const char* ReadRootName(const char* p, TQXLeadByteTest lead, std::string& name) {
  while (*p && !IsSeparator(*p)) {
    const size_t n = CharLength(p, lead);
    name.append(p, n);
    p += n;
  }
  return p;
}

bool EqualNoCaseAscii(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (UpperAscii(a[i]) != UpperAscii(b[i])) return false;
  return true;
}

// Splits a POSIX path on '/' and normalises it. False when it is not absolute.
bool SplitPosix(const char* posix, std::vector<std::string>& names, bool& trailingSlash) {
  if (posix[0] != '/') return false;
  names.clear();
  std::string name;
  trailingSlash = false;
  for (const char* p = posix; *p; ++p) {
    if (*p == '/') {
      ApplyName(name, names);
      trailingSlash = true;
    } else {
      name.push_back(*p);
      trailingSlash = false;
    }
  }
  ApplyName(name, names);
  return true;
}

std::string JoinPosix(const std::vector<std::string>& names) {
  std::string out;
  for (const std::string& n : names) {
    out += '/';
    out += n;
  }
  return out.empty() ? "/" : out;
}

struct TQXShareEntry {
  std::string server;
  std::string share;
  std::string directory;
};

struct TQXDriveTable {
  TQXDriveTable() { Reset(); }
  void Reset() {
    for (auto& d : drives)
      d.clear();
    drives['C' - 'A'].assign(1, '/');  // not = "/": g++ 12 warns falsely (-Wrestrict) at -O3
    shares.clear();
  }
  std::string drives[26];  // empty: not mapped
  std::vector<TQXShareEntry> shares;
  TQXLeadByteTest lead = nullptr;
};

TQXDriveTable& Table() {
  static QXPlatform::NoDestructor<TQXDriveTable> table;
  return table.get();
}

// Normal form of a directory given to the map; false when it is not absolute.
bool NormalDirectory(const char* posix, std::string& out) {
  std::vector<std::string> names;
  bool trailing;
  if (!SplitPosix(posix, names, trailing)) return false;
  out = JoinPosix(names);
  return true;
}

// Parses "\\server\share" with nothing or one separator behind it.
bool ParseShareRoot(const char* text, std::string& server, std::string& share) {
  if (QXClassifyPath(text) != TQXPathKind::kNetwork) return false;
  const char* p = ReadRootName(text + 2, nullptr, server);
  if (server.empty() || !IsSeparator(*p)) return false;
  p = ReadRootName(p + 1, nullptr, share);
  if (share.empty()) return false;
  if (IsSeparator(*p)) ++p;
  return *p == 0;
}

}  // namespace

TQXPathKind QXClassifyPath(const char* t) {
  if (!t || t[0] == 0) return TQXPathKind::kEmpty;
  if (IsSeparator(t[0])) return IsSeparator(t[1]) ? TQXPathKind::kNetwork : TQXPathKind::kRooted;
  if (IsAsciiLetter(t[0]) && t[1] == ':')
    return IsSeparator(t[2]) ? TQXPathKind::kAbsolute : TQXPathKind::kDriveRelative;
  return TQXPathKind::kRelative;
}

uint32_t QXParsePath(const char* text, const TQXPath* current, TQXLeadByteTest lead, TQXPath& out) {
  if (!text) return kQXSysInvalidParameter;
  TQXPath result;
  const char* rest = text;
  switch (QXClassifyPath(text)) {
    case TQXPathKind::kEmpty:
      return kQXSysInvalidName;
    case TQXPathKind::kNetwork: {
      rest = ReadRootName(text + 2, lead, result.server);
      if (IsSeparator(*rest)) rest = ReadRootName(rest + 1, lead, result.share);
      for (const std::string* n : {&result.server, &result.share})
        if (n->empty() || *n == "." || *n == "..") return kQXSysBadPathname;
      break;
    }
    case TQXPathKind::kRooted:
      result.drive = 'C';
      break;
    case TQXPathKind::kAbsolute:
      result.drive = UpperAscii(text[0]);
      rest = text + 2;
      break;
    case TQXPathKind::kDriveRelative:
      result.drive = UpperAscii(text[0]);
      rest = text + 2;
      if (current && current->drive == result.drive) {
        result.names = current->names;
      }
      break;
    case TQXPathKind::kRelative:
      if (!current) return kQXSysPathNotFound;
      result = *current;
      result.trailingSeparator = false;
      break;
  }
  const bool ended = AppendNames(rest, lead, result.names);
  result.trailingSeparator = ended && !result.names.empty();
  out = std::move(result);
  return 0;
}

std::string QXJoinPath(const TQXPath& path) {
  std::string out;
  if (path.drive) {
    out += path.drive;
    out += ':';
  } else {
    out += "\\\\";
    out += path.server;
    out += '\\';
    out += path.share;
  }
  if (path.names.empty()) return out + '\\';
  for (const std::string& n : path.names) {
    out += '\\';
    out += n;
  }
  if (path.trailingSeparator) out += '\\';
  return out;
}

namespace {

bool MatchFrom(const char* pattern, size_t plen, const char* name, TQXLeadByteTest lead) {
  // The usual linear matcher: on a mismatch, go back to the last '*' and let it take one more
  // character of the name. Steps are whole characters, so a '?' takes both bytes of a two-byte
  // character and a trail byte never matches a pattern byte on its own.
  size_t p = 0, n = 0;
  size_t starP = SIZE_MAX, starN = 0;
  const size_t nlen = std::strlen(name);
  while (n < nlen) {
    if (p < plen && pattern[p] == '*') {
      starP = p++;
      starN = n;
      continue;
    }
    if (p < plen) {
      const size_t pl = p + 1 < plen ? CharLength(pattern + p, lead) : 1;
      const size_t nl = CharLength(name + n, lead);
      bool same = pattern[p] == '?';
      if (!same && pl == nl) {
        same = pl == 1 ? UpperAscii(pattern[p]) == UpperAscii(name[n])
                       : std::memcmp(pattern + p, name + n, 2) == 0;
      }
      if (same) {
        p += pattern[p] == '?' ? 1 : pl;
        n += nl;
        continue;
      }
    }
    if (starP == SIZE_MAX) return false;
    p = starP + 1;
    starN += CharLength(name + starN, lead);
    n = starN;
  }
  while (p < plen && pattern[p] == '*')
    ++p;
  return p == plen;
}

}  // namespace

bool QXMatchFindPattern(const char* pattern, const char* name, TQXLeadByteTest lead) {
  if (!pattern || !name) return false;
  const size_t plen = std::strlen(pattern);
  if (MatchFrom(pattern, plen, name, lead)) return true;
  // "a.*" also matches "a", "*.*" every name: the dot and the star may stand for nothing when
  // the name has no dot. Neither '.' nor '*' can be a trail byte (trail bytes start at 0x40).
  if (plen >= 2 && pattern[plen - 1] == '*' && pattern[plen - 2] == '.' &&
      std::strchr(name, '.') == nullptr)
    return MatchFrom(pattern, plen - 2, name, lead);
  return false;
}

bool QXNameHasLibraryForm(const char* name, TQXLeadByteTest lead) {
  if (!name) return false;
  for (const char* p = name; *p;) {
    const size_t n = CharLength(p, lead);
    if (n == 1 && IsSeparator(*p)) return false;
    p += n;
  }
  return true;
}

namespace {
// The lead bytes of the text role in force: the code page of the library's strings.
bool TextRoleLeadByte(uint8_t b) {
  return QXPlatform::Get<TQXPlatformText>().IsLeadByte(b);
}
}  // namespace

TQXLeadByteTest QXPathLeadByteTest() {
  return Table().lead ? Table().lead : TextRoleLeadByte;
}

void QXSetPathLeadByteTest(TQXLeadByteTest lead) {
  Table().lead = lead;
}

uint32_t QXMappedDrives() {
  uint32_t bits = 0;
  for (int i = 0; i < 26; ++i)
    if (!Table().drives[i].empty()) bits |= 1u << i;
  return bits;
}

bool QXDriveDirectory(char letter, std::string& directory) {
  if (!IsAsciiLetter(letter)) return false;
  const std::string& d = Table().drives[UpperAscii(letter) - 'A'];
  if (d.empty()) return false;
  directory = d;
  return true;
}

bool QXShareDirectory(const std::string& server, const std::string& share, std::string& directory) {
  for (const TQXShareEntry& e : Table().shares) {
    if (EqualNoCaseAscii(e.server, server) && EqualNoCaseAscii(e.share, share)) {
      directory = e.directory;
      return true;
    }
  }
  return false;
}

void QXResetDriveMap() {
  Table().Reset();
}

uint32_t QXPathToSystem(const TQXPath& path, std::string& posix) {
  std::string root;
  if (path.drive) {
    if (!QXDriveDirectory(path.drive, root)) return kQXSysPathNotFound;
  } else if (!QXShareDirectory(path.server, path.share, root)) {
    return kQXSysBadNetPath;
  }
  if (root == "/") root.clear();
  std::string out = std::move(root);
  for (const std::string& n : path.names) {
    out += '/';
    out += n;
  }
  if (path.names.empty() || path.trailingSeparator) out += '/';
  posix = std::move(out);
  return 0;
}

uint32_t QXPathFromSystem(const char* posix, TQXLeadByteTest lead, TQXPath& out) {
  std::vector<std::string> names;
  bool trailing;
  if (!posix || !SplitPosix(posix, names, trailing)) return kQXSysInvalidParameter;
  int best = -1;
  size_t bestLength = 0;
  for (int i = 0; i < 26; ++i) {
    const std::string& d = Table().drives[i];
    if (d.empty()) continue;
    std::vector<std::string> root;
    bool unused;
    SplitPosix(d.c_str(), root, unused);
    if (root.size() > names.size() || (best >= 0 && root.size() <= bestLength)) continue;
    bool prefix = true;
    for (size_t k = 0; k < root.size() && prefix; ++k)
      prefix = root[k] == names[k];
    if (prefix) {
      best = i;
      bestLength = root.size();
    }
  }
  if (best < 0) return kQXSysPathNotFound;
  TQXPath result;
  result.drive = char('A' + best);
  result.names.assign(names.begin() + std::ptrdiff_t(bestLength), names.end());
  for (const std::string& n : result.names)
    if (!QXNameHasLibraryForm(n.c_str(), lead)) return kQXSysInvalidName;
  result.trailingSeparator = trailing && !result.names.empty();
  out = std::move(result);
  return 0;
}

uint32_t QXMapDrive(char letter, const char* posixDirectory) {
  if (!IsAsciiLetter(letter)) return kQXErrBadPath;
  std::string& slot = Table().drives[UpperAscii(letter) - 'A'];
  if (!posixDirectory || !*posixDirectory) {
    slot.clear();
    return 0;
  }
  std::string normal;
  if (!NormalDirectory(posixDirectory, normal)) return kQXErrBadPath;
  slot = std::move(normal);
  return 0;
}

uint32_t QXMapShare(const char* shareText, const char* posixDirectory) {
  std::string server, share;
  if (!shareText || !ParseShareRoot(shareText, server, share)) return kQXErrBadPath;
  std::vector<TQXShareEntry>& shares = Table().shares;
  std::string normal;
  const bool unmap = !posixDirectory || !*posixDirectory;
  if (!unmap && !NormalDirectory(posixDirectory, normal)) return kQXErrBadPath;
  for (auto it = shares.begin(); it != shares.end(); ++it) {
    if (EqualNoCaseAscii(it->server, server) && EqualNoCaseAscii(it->share, share)) {
      if (unmap)
        shares.erase(it);
      else
        it->directory = std::move(normal);
      return 0;
    }
  }
  if (!unmap) shares.push_back({std::move(server), std::move(share), std::move(normal)});
  return 0;
}
