// qxres: lists, dumps, extracts and edits the resources of a resource file from the shell, and
// checks a file's structure. Every read and write of the file goes through the library
// (TQXResourceFile, TQXResource); the tool only parses its arguments, reads and writes the plain
// files named by IN and OUT, and formats what the library gives back.
//
// Arguments:
//   TYPE  four bytes. "\xNN" (two hex digits) stands for one byte, so that type codes with bytes
//         above 0x7F can be written ("d\xEBsc"); "\\" is one backslash. Printed the same way.
//   ID    a signed 16-bit decimal number, -32768 to 32767.
//   N     an attribute byte, 0 to 255, decimal or 0x hex.
//   FILE  a POSIX path (see LibraryPath for how the library is given it).
//
// Edits (add, remove, attrs, compact) are made to the map in memory and then written with one
// full rewrite of the file, which the library builds beside the file and renames into place:
// the file is either the old one or the new one, never a mixture.
//
// Exit status: 0 success, 1 the operation failed or the file is not sound, 2 a usage error.
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "QXCore.h"

namespace {

constexpr int kExitOK = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

constexpr uint32_t kStringListType = QX_FOURCC('S', 'T', 'R', '#');

// --- Commands and their usage -------------------------------------------------------------------

struct Command {
  const char* name;
  const char* synopsis;
  const char* help;
};

const Command kCommands[] = {
    {"list", "list FILE",
     "One line per resource, in the order of the file's map (type by type, then as the type\n"
     "lists them): type, id, attribute byte, size of the data, and the name if it has one."},
    {"dump", "dump FILE TYPE ID [--hex|--text]",
     "Shows the data of one resource: a hex dump, or for \"STR#\" its numbered strings.\n"
     "--hex always dumps hex; --text shows the bytes as text (printable ASCII as is, CR as a\n"
     "line end, other bytes as \\xNN; for \"STR#\" the numbered strings)."},
    {"extract", "extract FILE TYPE ID OUT",
     "Writes the data of one resource to the file OUT (\"-\" for standard output)."},
    {"add", "add FILE TYPE ID IN [--name NAME] [--attrs N] [--strings]",
     "Adds a resource whose data are the bytes of the file IN (\"-\" for standard input), and\n"
     "rewrites FILE. With --strings, IN is text and each line becomes one string of a string\n"
     "list (a 16-bit count, then length-prefixed strings of at most 255 bytes), the form of\n"
     "\"STR#\". An id that the type already holds is refused."},
    {"remove", "remove FILE TYPE ID",
     "Removes a resource and rewrites FILE. A protected resource (attribute 0x08) is refused:\n"
     "clear the bit with attrs first."},
    {"attrs", "attrs FILE TYPE ID [N]",
     "Shows the attribute byte of a resource, or sets it to N and rewrites FILE. Bits: 0x08\n"
     "protected, 0x04 preload; 0x02 (changed) is the engine's own and never stays on disk."},
    {"compact", "compact FILE",
     "Rewrites the whole file: data blocks packed in map order, dead bytes dropped."},
    {"create", "create FILE", "Creates an empty resource file. An existing FILE is refused."},
    {"check", "check FILE",
     "Validates the structure of FILE (header, map, lists, names, data blocks) and says what is\n"
     "wrong, if anything. Exit status 0 when the file is sound."},
};

const Command* FindCommand(const char* name) {
  for (const Command& c : kCommands)
    if (std::strcmp(c.name, name) == 0) return &c;
  return nullptr;
}

void PrintHelp(FILE* out) {
  std::fprintf(out,
               "usage: qxres COMMAND ARGUMENTS...\n"
               "       qxres --help | qxres COMMAND --help\n\n"
               "Commands:\n");
  for (const Command& c : kCommands)
    std::fprintf(out, "  qxres %s\n", c.synopsis);
  std::fprintf(out,
               "\nTYPE is four characters; \\xNN stands for one byte (\"d\\xEBsc\"), \\\\ for a "
               "backslash.\nID is a signed 16-bit number. N is 0 to 255, decimal or 0x hex.\n"
               "Exit status: 0 success, 1 failure or unsound file, 2 usage error.\n");
}

void PrintCommandHelp(const Command& c, FILE* out) {
  std::fprintf(out, "usage: qxres %s\n\n%s\n", c.synopsis, c.help);
}

int UsageError(const Command* c, const char* fmt, const char* detail) {
  std::fprintf(stderr, "qxres: ");
  std::fprintf(stderr, fmt, detail);
  std::fprintf(stderr, "\n");
  if (c)
    std::fprintf(stderr, "usage: qxres %s\n", c->synopsis);
  else
    std::fprintf(stderr, "Try 'qxres --help'.\n");
  return kExitUsage;
}

// --- Arguments ----------------------------------------------------------------------------------

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Four bytes, with "\xNN" and "\\" escapes.
bool ParseType(const char* text, uint32_t& type) {
  uint32_t value = 0;
  int count = 0;
  for (const char* p = text; *p; ++count) {
    if (count == 4) return false;
    uint8_t byte;
    if (*p == '\\') {
      if (p[1] == '\\') {
        byte = '\\';
        p += 2;
      } else if (p[1] == 'x' || p[1] == 'X') {
        const int hi = HexDigit(p[2]);
        const int lo = hi < 0 ? -1 : HexDigit(p[3]);
        if (lo < 0) return false;
        byte = uint8_t(hi << 4 | lo);
        p += 4;
      } else {
        return false;
      }
    } else {
      byte = uint8_t(*p++);
    }
    value = value << 8 | byte;
  }
  if (count != 4) return false;
  type = value;
  return true;
}

// Bytes as printable ASCII; quotes and everything outside 0x20 to 0x7E as \xNN, a backslash
// as two backslashes, so that a type printed here reads back through ParseType.
std::string Escape(const uint8_t* bytes, size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) {
    const uint8_t b = bytes[i];
    if (b == '\\') {
      s += "\\\\";
    } else if (b < 0x20 || b > 0x7E || b == '"' || b == '\'') {
      char hex[5];
      std::snprintf(hex, sizeof hex, "\\x%02X", b);
      s += hex;
    } else {
      s += char(b);
    }
  }
  return s;
}

std::string FormatType(uint32_t type) {
  const uint8_t bytes[4] = {uint8_t(type >> 24), uint8_t(type >> 16), uint8_t(type >> 8),
                            uint8_t(type)};
  return Escape(bytes, 4);
}

bool ParseLong(const char* text, int base, long lo, long hi, long& out) {
  if (!*text || std::isspace(static_cast<unsigned char>(*text)) || *text == '+') return false;
  errno = 0;
  char* end = nullptr;
  const long v = std::strtol(text, &end, base);
  if (errno != 0 || *end != '\0' || v < lo || v > hi) return false;
  out = v;
  return true;
}

bool ParseId(const char* text, int16_t& id) {
  long v;
  if (!ParseLong(text, 10, INT16_MIN, INT16_MAX, v)) return false;
  id = int16_t(v);
  return true;
}

bool ParseAttributes(const char* text, uint8_t& attrs) {
  long v;
  const bool hex = text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  if (!ParseLong(hex ? text + 2 : text, hex ? 16 : 10, 0, 255, v)) return false;
  attrs = uint8_t(v);
  return true;
}

// The library's name for a POSIX path. The file's folder is mapped to a drive letter of the
// tool's own, and the file is named on that drive: "R:\name". The folder's path may then hold
// anything and be of any length; only the file's own name must have a form in the library's
// paths. Paths are resolved with realpath first, so that ".." and links mean what the shell
// meant: an existing file that is a symbolic link stands for its target, which a rewrite then
// replaces (the link stays a link).
constexpr char kToolDrive = 'R';

bool LibraryPath(const std::string& posix, std::string& out) {
  std::string full;
  if (char* real = realpath(posix.c_str(), nullptr)) {  // an existing file
    full = real;
    std::free(real);
    struct stat st;
    if (stat(full.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
      std::fprintf(stderr, "qxres: %s is a folder\n", posix.c_str());
      return false;
    }
  } else {
    const size_t slash = posix.find_last_of('/');
    const std::string folder = slash == std::string::npos ? std::string(".")
                               : slash == 0               ? std::string("/")
                                                          : posix.substr(0, slash);
    real = realpath(folder.c_str(), nullptr);
    if (!real) {
      std::fprintf(stderr, "qxres: %s: %s\n", folder.c_str(), std::strerror(errno));
      return false;
    }
    full = std::string(real) + "/" + (slash == std::string::npos ? posix : posix.substr(slash + 1));
    std::free(real);
  }
  const size_t slash = full.find_last_of('/');
  const std::string folder = slash == 0 ? std::string("/") : full.substr(0, slash);
  const std::string name = full.substr(slash + 1);
  if (name.empty() || name == "." || name == "..") {
    std::fprintf(stderr, "qxres: %s does not name a file\n", posix.c_str());
    return false;
  }
  if (name.find_first_of("\\:") != std::string::npos) {
    std::fprintf(stderr,
                 "qxres: %s: a file name holding '\\' or ':' has no form in the library's paths\n",
                 posix.c_str());
    return false;
  }
  if (name.size() > 250) {
    std::fprintf(stderr, "qxres: %s: the file name is longer than 250 bytes\n", posix.c_str());
    return false;
  }
  if (const uint32_t mapped = QXMapDrive(kToolDrive, folder.c_str())) {
    std::fprintf(stderr,
                 "qxres: %s: the folder cannot be mapped for the library (0x%08" PRIX32 ")\n",
                 folder.c_str(), mapped);
    return false;
  }
  out = std::string(1, kToolDrive) + ":\\" + name;
  return true;
}

// --- Plain files (IN and OUT) -------------------------------------------------------------------

bool ReadAll(const std::string& path, std::vector<uint8_t>& out) {
  FILE* f = path == "-" ? stdin : std::fopen(path.c_str(), "rb");
  if (!f) {
    std::fprintf(stderr, "qxres: cannot open %s: %s\n", path.c_str(), std::strerror(errno));
    return false;
  }
  out.clear();
  uint8_t piece[65536];
  size_t n;
  while ((n = std::fread(piece, 1, sizeof piece, f)) > 0)
    out.insert(out.end(), piece, piece + n);
  const bool ok = !std::ferror(f);
  if (!ok) std::fprintf(stderr, "qxres: cannot read %s: %s\n", path.c_str(), std::strerror(errno));
  if (f != stdin) std::fclose(f);
  return ok;
}

bool WriteAll(const std::string& path, const uint8_t* data, size_t n) {
  FILE* f = path == "-" ? stdout : std::fopen(path.c_str(), "wb");
  if (!f) {
    std::fprintf(stderr, "qxres: cannot create %s: %s\n", path.c_str(), std::strerror(errno));
    return false;
  }
  bool ok = (n == 0 || std::fwrite(data, 1, n, f) == n) && std::fflush(f) == 0;
  if (f != stdout) ok = std::fclose(f) == 0 && ok;
  if (!ok) std::fprintf(stderr, "qxres: cannot write %s: %s\n", path.c_str(), std::strerror(errno));
  return ok;
}

// A string list from lines of text: a big-endian 16-bit count, then each line as a
// length-prefixed string. A final line end is optional; a CR before a line feed is dropped.
bool BuildStringList(const std::vector<uint8_t>& text, std::vector<uint8_t>& out) {
  std::vector<std::pair<size_t, size_t>> lines;  // start, length
  size_t start = 0;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i < text.size() && text[i] != '\n') continue;
    if (i == text.size() && start == i) break;  // nothing after the last line end
    size_t len = i - start;
    if (len > 0 && text[start + len - 1] == '\r') --len;
    if (len > 255) {
      std::fprintf(stderr, "qxres: line %zu has %zu bytes; a string holds at most 255\n",
                   lines.size() + 1, len);
      return false;
    }
    lines.emplace_back(start, len);
    start = i + 1;
  }
  if (lines.size() > 32767) {
    std::fprintf(stderr, "qxres: %zu lines; a string list holds at most 32767\n", lines.size());
    return false;
  }
  out.clear();
  out.push_back(uint8_t(lines.size() >> 8));
  out.push_back(uint8_t(lines.size()));
  for (const auto& [s, n] : lines) {
    out.push_back(uint8_t(n));
    out.insert(out.end(), text.begin() + ptrdiff_t(s), text.begin() + ptrdiff_t(s + n));
  }
  return true;
}

// --- Showing data -------------------------------------------------------------------------------

void HexDump(const uint8_t* data, size_t n) {
  for (size_t row = 0; row < n; row += 16) {
    std::printf("%08zX ", row);
    for (size_t i = row; i < row + 16; ++i) {
      if (i % 8 == 0) std::printf(" ");
      if (i < n)
        std::printf("%02X ", data[i]);
      else
        std::printf("   ");
    }
    std::printf(" |");
    for (size_t i = row; i < row + 16 && i < n; ++i)
      std::printf("%c", data[i] >= 0x20 && data[i] < 0x7F ? char(data[i]) : '.');
    std::printf("|\n");
  }
  std::printf("%08zX\n", n);
}

void TextDump(const uint8_t* data, size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) {
    const uint8_t b = data[i];
    if (b == '\r' || b == '\n')
      s += '\n';
    else if (b == '\t' || (b >= 0x20 && b < 0x7F))
      s += char(b);
    else
      s += Escape(&b, 1);
  }
  if (!s.empty() && s.back() != '\n') s += '\n';
  std::fputs(s.c_str(), stdout);
}

// The numbered strings of a string list, read with bounds checks: a list shorter than its count
// says is reported and fails.
bool StringListDump(const uint8_t* data, size_t n) {
  if (n < 2) {
    std::fprintf(stderr, "qxres: a string list needs a 2-byte count; this one has %zu bytes\n", n);
    return false;
  }
  const int count = int16_t(uint16_t(data[0] << 8 | data[1]));
  std::printf("%d strings\n", count < 0 ? 0 : count);
  size_t at = 2;
  for (int i = 1; i <= count; ++i) {
    if (at >= n || n - at - 1 < data[at]) {
      std::fprintf(stderr, "qxres: the list ends inside string %d of %d\n", i, count);
      return false;
    }
    std::printf("%5d \"%s\"\n", i, Escape(data + at + 1, data[at]).c_str());
    at += 1 + size_t(data[at]);
  }
  if (at < n) std::printf("(%zu bytes after the last string)\n", n - at);
  return true;
}

// --- The library --------------------------------------------------------------------------------

std::string Hex(uint32_t code) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08" PRIX32, code);
  return text;
}

// A result of the library in words. File operations give the system's error numbers.
std::string Describe(uint32_t code) {
  static const struct {
    uint32_t code;
    const char* text;
  } kTexts[] = {
      {kQXErrFailed, "out of memory"},
      {kQXErrIO, "the file could not be read or written, or its map is damaged"},
      {kQXErrEndOfFile, "the file ends too soon"},
      {kQXErrNotFound, "not found"},
      {kQXErrNoMemory, "out of memory"},
      {kQXErrResource, "not found, or the map cannot take it"},
      {kQXErrResourceExists, "the resource is in the file already"},
      {kQXErrResourceLocked, "the resource is protected"},
      {kQXErrResourceMissing, "refused by the resource's changed or protected bit"},
      {2, "no such file"},
      {3, "no such folder"},
      {5, "permission denied"},
      {19, "the medium is write-protected"},
      {32, "the file is in use"},
      {80, "the file exists"},
      {112, "the disk is full"},
      {183, "the file exists"},
  };
  for (const auto& t : kTexts)
    if (t.code == code) return std::string(t.text) + " (" + Hex(code) + ")";
  return "error " + Hex(code);
}

std::string Identity(uint32_t type, int16_t id) {
  return "'" + FormatType(type) + "' " + std::to_string(id);
}

// One resource file, open through the library for the length of a command.
class Session {
 public:
  explicit Session(std::string posixPath) : path(std::move(posixPath)) {}
  ~Session() { Close(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Makes the file object for the path. With `mustExist`, a missing file is an error.
  bool Prepare(bool mustExist) {
    std::string libraryPath;
    if (!LibraryPath(path, libraryPath)) return false;
    TQXFile::Create(&file);
    if (!file) return Fail("out of memory");
    file->SetFullPath(TQXStringUTF8(libraryPath), false);
    if (mustExist && !file->Exists()) return Fail("no such file");
    return true;
  }

  // Validates the file, then opens it. A file that the validator refuses is not opened: the
  // tool works only on sound files, and says what is wrong with the others.
  bool Open(bool writable) {
    if (!Prepare(true)) return false;
    TQXDynamicString message;
    if (const uint32_t code = TQXResourceFile::Validate(file, message))
      return Fail("not a sound resource file: " + std::string(message.StrGet()) + " (" + Hex(code) +
                  ")");
    res = new TQXResourceFile(file, writable, false);
    if (!res) return Fail("out of memory");
    if (!res->IsLinked()) return Fail("cannot open: " + Describe(res->OpenResult()));
    return true;
  }

  // Writes the changes made to the map; false, with a message, when the rewrite fails (the
  // file on disk is then as it was).
  bool Update() {
    const uint32_t code = res->UpdateResFile(nullptr);
    return code == 0 || Fail("cannot rewrite: " + Describe(code));
  }

  void Close() {
    delete res;  // rewrites again only what a failed Update left changed, result unseen
    res = nullptr;
    if (file) file->Release();
    file = nullptr;
  }

  // Prints "qxres: PATH: WHAT" and gives false.
  bool Fail(const std::string& what) const {
    std::fprintf(stderr, "qxres: %s: %s\n", path.c_str(), what.c_str());
    return false;
  }

  // The resource, or null after a message.
  TQXResource* Get(uint32_t type, int16_t id, bool read) {
    TQXResource* out = nullptr;
    const uint32_t code = res->GetResource(type, id, out, read);
    if (code == kQXErrResource) {
      Fail("no resource " + Identity(type, id));
      return nullptr;
    }
    if (code != 0 || !out) {
      Fail("cannot read " + Identity(type, id) + ": " + Describe(code));
      return nullptr;
    }
    return out;
  }

  std::string path;
  TQXFile* file = nullptr;
  TQXResourceFile* res = nullptr;
};

// Visits every entry in map order: type list order, then each type's list.
template <typename Visit>
bool ForEachEntry(TQXResourceFile& res, Visit visit) {
  const int32_t types = res.CountTypes();
  for (int32_t t = 1; t <= types; ++t) {
    uint32_t type = 0;
    if (res.GetIndexedType(type, t) != 0) return false;
    const int32_t count = res.CountResources(type);
    for (int32_t i = 1; i <= count; ++i) {
      TQXResourceEntryInfo info;
      if (res.GetIndexedEntryInfo(type, i, info) != 0) return false;
      visit(info);
    }
  }
  return true;
}

// Whether a rewrite can place a new block of `size` bytes at the end of the list of `type`.
// Data positions are 24 bits: a block starting at 16 MiB - 1 or later would be stored at a wrong
// position without any error, so the tool refuses such an addition. The file's positions are
// 32-bit signed as well, which bounds the whole data area.
bool FitsDataArea(TQXResourceFile& res, uint32_t type, uint64_t size, std::string& why) {
  uint64_t position = 0, lastStart = 0;
  bool inType = false, placed = false;
  auto place = [&](uint64_t blob) {
    lastStart = position;
    position += 4 + blob;
  };
  ForEachEntry(res, [&](const TQXResourceEntryInfo& info) {
    if (inType && info.type != type && !placed) {
      place(size);
      placed = true;
    }
    inType = info.type == type;
    place(info.onDisk ? info.diskSize : 0);
  });
  if (!placed) place(size);
  if (lastStart >= kQXResNoData) {
    why = "a data block would start at byte " + std::to_string(lastStart) +
          " of the data area, past the last position a map can store (16 MiB - 2)";
    return false;
  }
  if (position + kQXResHeaderSize + (1u << 20) > uint64_t(INT32_MAX)) {
    why = "the file would pass 2 GiB";
    return false;
  }
  return true;
}

// --- Commands -----------------------------------------------------------------------------------

// A command line after the command's name: its positional arguments and options.
struct Arguments {
  std::vector<std::string> args;
  bool hex = false, text = false, strings = false;
  std::string name;
  int attrs = -1;  // -1: not given
};

int List(Session& s) {
  if (!s.Open(false)) return kExitFailed;
  const bool ok = ForEachEntry(*s.res, [](const TQXResourceEntryInfo& info) {
    const std::string size = info.onDisk ? std::to_string(info.diskSize) : "-";
    std::printf("'%s' %6d  0x%02X %8s", FormatType(info.type).c_str(), info.id, info.attributes,
                size.c_str());
    if (info.named)
      std::printf("  \"%s\"", Escape(reinterpret_cast<const uint8_t*>(info.name.StrGet()),
                                     info.name.ByteLength())
                                  .c_str());
    std::printf("\n");
  });
  return ok ? kExitOK : (s.Fail("the map cannot be listed"), kExitFailed);
}

int Dump(Session& s, uint32_t type, int16_t id, const Arguments& a) {
  if (!s.Open(false)) return kExitFailed;
  TQXResource* r = s.Get(type, id, true);
  if (!r) return kExitFailed;
  const auto* data = static_cast<const uint8_t*>(r->GetData());
  const size_t size = data ? r->GetSize() : 0;
  bool ok = true;
  if (a.hex || (!a.text && type != kQXResTypeStringList))
    HexDump(data, size);
  else if (type == kQXResTypeStringList)
    ok = StringListDump(data, size);
  else
    TextDump(data, size);
  r->ReleaseResource();
  return ok ? kExitOK : kExitFailed;
}

int Extract(Session& s, uint32_t type, int16_t id, const std::string& out) {
  if (!s.Open(false)) return kExitFailed;
  TQXResource* r = s.Get(type, id, true);
  if (!r) return kExitFailed;
  const auto* data = static_cast<const uint8_t*>(r->GetData());
  const bool ok = WriteAll(out, data, data ? r->GetSize() : 0);
  r->ReleaseResource();
  return ok ? kExitOK : kExitFailed;
}

int Add(Session& s, uint32_t type, int16_t id, const std::string& in, const Arguments& a) {
  std::vector<uint8_t> bytes;
  if (!ReadAll(in, bytes)) return kExitFailed;
  if (a.strings) {
    std::vector<uint8_t> list;
    if (!BuildStringList(bytes, list)) return kExitFailed;
    bytes.swap(list);
  }
  if (!s.Open(true)) return kExitFailed;
  TQXResource* existing = nullptr;
  if (s.res->GetResource(type, id, existing, false) == 0 && existing) {
    existing->ReleaseResource();
    s.Fail("already holds " + Identity(type, id) + "; remove it first");
    return kExitFailed;
  }
  std::string why;
  if (!FitsDataArea(*s.res, type, bytes.size(), why)) {
    s.Fail("cannot add " + Identity(type, id) + ": " + why);
    return kExitFailed;
  }
  const TQXString255 name(a.name.c_str(), uint32_t(a.name.size()));
  auto* r = new TQXResource(nullptr, uint32_t(bytes.size()), id, type, name);
  if (!r || (!bytes.empty() && !r->GetData())) {
    if (r) r->ReleaseResource();
    s.Fail("out of memory");
    return kExitFailed;
  }
  if (!bytes.empty()) std::memcpy(r->GetData(), bytes.data(), bytes.size());
  if (const uint32_t code = s.res->AddResource(*r)) {
    r->ReleaseResource();  // still free-standing: destroyed
    s.Fail("cannot add " + Identity(type, id) + ": " +
           (code == kQXErrResource ? "the map would outgrow its 16-bit offsets" : Describe(code)));
    return kExitFailed;
  }
  // The changed bit stays with the given attributes, so that the rewrite writes the entry.
  if (a.attrs >= 0) r->SetAttributes(uint32_t(a.attrs) | kQXResAttrChanged);
  const bool ok = s.Update();
  r->ReleaseResource();
  return ok ? kExitOK : kExitFailed;
}

int Remove(Session& s, uint32_t type, int16_t id) {
  if (!s.Open(true)) return kExitFailed;
  TQXResource* r = s.Get(type, id, false);
  if (!r) return kExitFailed;
  // Checked here rather than left to Remove: a refused Remove cuts the object loose while its
  // entry still refers to it.
  uint32_t attrs = 0;
  r->GetAttributes(attrs);
  if (attrs & kQXResAttrProtected) {
    r->ReleaseResource();
    s.Fail(Identity(type, id) + " is protected (attribute 0x08); clear the bit with attrs first");
    return kExitFailed;
  }
  const uint32_t code = r->Remove();
  r->ReleaseResource();  // free-standing after Remove: destroyed
  if (code != 0)
    return s.Fail("cannot remove " + Identity(type, id) + ": " + Describe(code)), kExitFailed;
  return s.Update() ? kExitOK : kExitFailed;
}

int Attributes(Session& s, uint32_t type, int16_t id, int value) {
  if (!s.Open(value >= 0)) return kExitFailed;
  // Setting rewrites the file from the live object, so its data must be read.
  TQXResource* r = s.Get(type, id, value >= 0);
  if (!r) return kExitFailed;
  bool ok = true;
  if (value < 0) {
    uint32_t attrs = 0;
    r->GetAttributes(attrs);
    std::printf("0x%02" PRIX32 "\n", attrs & 0xFF);
  } else {
    // Stored with the changed bit, which makes the rewrite happen (and which it clears).
    r->SetAttributes(uint32_t(value) | kQXResAttrChanged);
    ok = s.Update();
  }
  r->ReleaseResource();
  return ok ? kExitOK : kExitFailed;
}

int Compact(Session& s) {
  if (!s.Open(true)) return kExitFailed;
  // UpdateResFile rewrites only a file whose map changed. Adding an entry and removing it again
  // marks the map as changed without changing its content, whatever the file holds (even
  // nothing), and the rewrite then packs everything afresh.
  auto* scratch = new TQXResource(nullptr, 0, 0, 0, TQXString15());
  if (!scratch) return s.Fail("out of memory"), kExitFailed;
  uint32_t code = s.res->AddResource(*scratch);
  if (code == 0) code = scratch->Remove();
  scratch->ReleaseResource();
  if (code != 0) return s.Fail("cannot compact: " + Describe(code)), kExitFailed;
  return s.Update() ? kExitOK : kExitFailed;
}

int Create(Session& s) {
  if (!s.Prepare(false)) return kExitFailed;
  if (s.file->Exists()) return s.Fail("exists already; not overwritten"), kExitFailed;
  const uint32_t code = TQXResourceFile::CreateEmpty(s.file);
  return code == 0 ? kExitOK : (s.Fail("cannot create: " + Describe(code)), kExitFailed);
}

int Check(Session& s) {
  if (!s.Open(false)) return kExitFailed;
  TQXDynamicString message;
  if (const uint32_t code = s.res->CheckMap(message))
    return s.Fail("the map is not sound: " + std::string(message.StrGet()) + " (" + Hex(code) +
                  ")"),
           kExitFailed;
  uint64_t resources = 0, bytes = 0;
  ForEachEntry(*s.res, [&](const TQXResourceEntryInfo& info) {
    ++resources;
    bytes += info.diskSize;
  });
  std::printf("%s: sound: %d types, %" PRIu64 " resources, %" PRIu64 " bytes of data\n",
              s.path.c_str(), s.res->CountTypes(), resources, bytes);
  return kExitOK;
}

// Parses the arguments of `c` and runs it.
int Run(const Command& c, int argc, char** argv) {
  Arguments a;
  const std::string cmd = c.name;
  bool optionsEnd = false;
  for (int i = 0; i < argc; ++i) {
    const std::string arg = argv[i];
    if (optionsEnd || arg.size() < 3 || arg.compare(0, 2, "--") != 0) {
      a.args.push_back(arg);
    } else if (arg == "--") {
      optionsEnd = true;
    } else if (cmd == "dump" && (arg == "--hex" || arg == "--text")) {
      (arg == "--hex" ? a.hex : a.text) = true;
      if (a.hex && a.text) return UsageError(&c, "%s", "--hex and --text exclude each other");
    } else if (cmd == "add" && arg == "--strings") {
      a.strings = true;
    } else if (cmd == "add" && (arg == "--name" || arg == "--attrs")) {
      if (i + 1 == argc) return UsageError(&c, "%s needs a value", arg.c_str());
      const char* value = argv[++i];
      if (arg == "--name") {
        a.name = value;
        if (a.name.size() > 255)
          return UsageError(&c, "a name holds at most 255 bytes, not %s",
                            std::to_string(a.name.size()).c_str());
      } else {
        uint8_t attrs;
        if (!ParseAttributes(value, attrs))
          return UsageError(&c, "bad attribute byte '%s' (0 to 255, decimal or 0x hex)", value);
        a.attrs = attrs;
      }
    } else {
      return UsageError(&c, "unknown option '%s'", arg.c_str());
    }
  }

  size_t least = 1, most = 1;
  if (cmd == "dump" || cmd == "remove") least = most = 3;
  if (cmd == "extract" || cmd == "add") least = most = 4;
  if (cmd == "attrs") least = 3, most = 4;
  if (a.args.size() < least) return UsageError(&c, "%s", "missing arguments");
  if (a.args.size() > most) return UsageError(&c, "unexpected argument '%s'", a.args[most].c_str());

  uint32_t type = 0;
  int16_t id = 0;
  if (least >= 3) {
    if (!ParseType(a.args[1].c_str(), type))
      return UsageError(&c, "bad TYPE '%s': four characters, \\xNN for one byte",
                        a.args[1].c_str());
    if (!ParseId(a.args[2].c_str(), id))
      return UsageError(&c, "bad ID '%s': a number from -32768 to 32767", a.args[2].c_str());
  }
  int value = -1;
  if (cmd == "attrs" && a.args.size() == 4) {
    uint8_t attrs;
    if (!ParseAttributes(a.args[3].c_str(), attrs))
      return UsageError(&c, "bad attribute byte '%s' (0 to 255, decimal or 0x hex)",
                        a.args[3].c_str());
    value = attrs;
  }

  Session s(a.args[0]);
  if (cmd == "list") return List(s);
  if (cmd == "dump") return Dump(s, type, id, a);
  if (cmd == "extract") return Extract(s, type, id, a.args[3]);
  if (cmd == "add") return Add(s, type, id, a.args[3], a);
  if (cmd == "remove") return Remove(s, type, id);
  if (cmd == "attrs") return Attributes(s, type, id, value);
  if (cmd == "compact") return Compact(s);
  if (cmd == "create") return Create(s);
  return Check(s);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return UsageError(nullptr, "%s", "no command given");
  const std::string first = argv[1];
  if (first == "--help" || first == "-h" || first == "help") {
    const Command* c = argc > 2 ? FindCommand(argv[2]) : nullptr;
    if (c)
      PrintCommandHelp(*c, stdout);
    else
      PrintHelp(stdout);
    return kExitOK;
  }
  const Command* c = FindCommand(argv[1]);
  if (!c) return UsageError(nullptr, "unknown command '%s'", argv[1]);
  for (int i = 2; i < argc; ++i) {
    if (std::strcmp(argv[i], "--") == 0) break;
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      PrintCommandHelp(*c, stdout);
      return kExitOK;
    }
  }
  TQXResourceFile::InitCurrentRessourceFile();
  const int result = Run(*c, argc - 2, argv + 2);
  TQXResourceFile::ShutDown();
  QXMapDrive(kToolDrive, nullptr);
  return result;
}
