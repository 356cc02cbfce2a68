// QXPathForm.h: the library's path form, parsed and normalised, and the drive map that carries
// it to POSIX paths and back.
//
// The library form. A path is bytes in the library's code page. Its separator is '\'; a '/' is
// read as one too, since the library makes its separators uniform anyway. It begins with
//   - "X:\" (a drive letter, either case, then a separator): absolute on drive X;
//   - "\\server\share" (two separators): a network path; "\\server" alone is no path;
//   - one separator: rooted, taken from the root of C: (a POSIX path "/tmp/a" reads as "\tmp\a",
//     so it lands where POSIX puts it while C: is "/"); the current directory's drive does not
//     matter;
//   - "X:" and no separator: drive-relative, resolved against the current directory when that
//     is on X, else from the root of X (the library keeps no current directory per drive);
//   - anything else: relative to the current directory.
// Names are split at separators, except that a lead byte and the byte after it are one
// character: in code page 932 the character 0x83 0x5C holds a '\' byte that separates nothing.
// Empty names and "." are dropped; ".." drops the name before it and stops at the root, as the
// system's own path handling does. Names keep their case, trailing dots and spaces: "..." and
// "a." are plain names.
//
// TQXPath is the result: a root (drive letter, or server and share) and the names below it, none
// empty, "." or "..". `trailingSeparator` records a text that ended with a separator below the
// root, which makes it name a folder ("C:\a\" is the folder a, "C:\a" may be a file).
//
// The drive map: a table letter -> POSIX directory (C: is "/" by default) and share -> POSIX
// directory, filled by the host through QXMapDrive and QXMapShare (include/QXDriveMap.h). Going
// to POSIX, the root is replaced by its directory and the names are joined with '/'. Coming back,
// a POSIX path takes the letter whose directory is its longest prefix by whole names
// ("/tmp/qx-testing" is not under "/tmp/qx-test"), ties going to the earlier letter.
//
// Results are 0 or a system error number of QXPlatformFileSystem.h: 3 (path not found) for an
// unmapped letter or an unknown current directory, 53 (bad network path) for an unknown share,
// 161 (bad path name) for a malformed network root, 123 (invalid name) for an empty text or a
// POSIX name that has no library form.
#ifndef QXPATHFORM_H
#define QXPATHFORM_H

#include <cstdint>
#include <string>
#include <vector>

// Tells whether a byte begins a two-byte character in the library's code page. Null means a
// single-byte code page (UTF-8 included: its bytes never look like separators).
using TQXLeadByteTest = bool (*)(uint8_t byte);

struct TQXPath {
  char drive = 0;      // 'A' to 'Z'; 0 for a network path
  std::string server;  // of a network path, as written
  std::string share;
  std::vector<std::string> names;
  bool trailingSeparator = false;  // only with at least one name

  bool IsRoot() const { return names.empty(); }
  bool operator==(const TQXPath&) const = default;
};

// What a text needs besides itself to become absolute.
enum class TQXPathKind { kAbsolute, kNetwork, kRooted, kDriveRelative, kRelative, kEmpty };

TQXPathKind QXClassifyPath(const char* text);

// Parses `text` into `out` (a null text gives 87). `current` is the absolute current directory,
// needed for relative and drive-relative texts only; null means none is known (a relative text then
// gives 3, a drive-relative one starts at the root of its drive).
uint32_t QXParsePath(const char* text, const TQXPath* current, TQXLeadByteTest lead, TQXPath& out);

// The library form of a parsed path: "X:\a\b", "X:\" for a root, "\\server\share\a"; a
// trailing separator when `trailingSeparator`.
std::string QXJoinPath(const TQXPath& path);

// Whether the name `name` matches the find pattern `pattern`, as the system's find does: '*'
// stands for any run of characters, '?' for one character, ASCII letters match either case; a
// pattern ending in ".*" also matches a name without any dot ("*.*" matches every name). A null
// pattern or name matches nothing.
bool QXMatchFindPattern(const char* pattern, const char* name, TQXLeadByteTest lead);

// Whether a POSIX name can be shown in the library's form: it holds no '\' outside a two-byte
// character, and no '/'.
bool QXNameHasLibraryForm(const char* name, TQXLeadByteTest lead);

// --- The drive map ---------------------------------------------------------------------------

// The test that the paths of the system's file-system role use: the one set here, or while none
// is set (null), that of the text role in force (TQXPlatformText::IsLeadByte), so that paths
// follow the code page of the library's strings.
TQXLeadByteTest QXPathLeadByteTest();
void QXSetPathLeadByteTest(TQXLeadByteTest lead);

// Bit 0 for A to bit 25 for Z: the letters that have a directory.
uint32_t QXMappedDrives();
// The directory of a letter (either case); false when it has none.
bool QXDriveDirectory(char letter, std::string& directory);
// The directory of a share "\\server\share" (case ignored); false when it has none.
bool QXShareDirectory(const std::string& server, const std::string& share, std::string& directory);
// Puts the map back to its start: C: is "/", nothing else.
void QXResetDriveMap();

// The POSIX path of a parsed path: the root's directory and the names, '/' between them, and a
// trailing '/' when the path has `trailingSeparator`.
uint32_t QXPathToSystem(const TQXPath& path, std::string& posix);

// The parsed library path of an absolute POSIX path (normalised lexically first). 3 when no
// letter's directory holds it, 123 when a name has no library form, 87 for a relative text.
uint32_t QXPathFromSystem(const char* posix, TQXLeadByteTest lead, TQXPath& out);

#endif  // QXPATHFORM_H
