// TQXPlatformUtilities: each operation is one call to the platform roles (the millisecond clock
// and the desktop services), plus the packing of values and texts between the library's types
// and the role's. The only state is the cached platform id.
#include "QXPlatformUtilities.h"

#include <string>

#include "Platform/QXPathForm.h"
#include "Platform/QXPlatform.h"
#include "Platform/QXPlatformClock.h"
#include "Platform/QXPlatformUtilities.h"
#include "QXException.h"
#include "QXFile.h"
#include "QXString.h"
#include "QXStringUTF8.h"

namespace {

// The platform id, asked once; 0 until then. A plain store: the library is used by one thread
// at a time.
uint32_t gPlatformId = 0;

TQXPlatformServices& Services() {
  return QXPlatform::Get<TQXPlatformServices>();
}

uint32_t Cap32(uint64_t v) {
  return v > 0xFFFFFFFFu ? 0xFFFFFFFFu : uint32_t(v);
}

// One decimal number as the C scanner's %d reads it: white space, an optional sign, at least
// one digit. The value wraps at 2^32 instead of overflowing (the C scanner leaves an
// out-of-range number undefined). Advances `p` past it; false if no number is there.
bool ScanDecimal(const char*& p, int32_t& value) {
  const char* s = p;
  while (*s == ' ' || (*s >= '\t' && *s <= '\r'))
    ++s;
  bool negative = false;
  if (*s == '+' || *s == '-') negative = *s++ == '-';
  if (*s < '0' || *s > '9') return false;
  uint32_t v = 0;
  for (; *s >= '0' && *s <= '9'; ++s)
    v = v * 10u + uint32_t(*s - '0');
  if (negative) v = 0u - v;
  value = int32_t(v);
  p = s;
  return true;
}

}  // namespace

uint32_t TQXPlatformUtilities::TickCount() {
  return QXPlatform::Get<TQXPlatformClock>().Milliseconds() >> 4;
}

uint32_t TQXPlatformUtilities::GetMilliseconds() {
  return QXPlatform::Get<TQXPlatformClock>().Milliseconds();
}

uint32_t TQXPlatformUtilities::TicksPerSecond() {
  return 1000;
}

void TQXPlatformUtilities::Beep(uint32_t duration) {
  Services().Beep(1000, duration);
}

int32_t TQXPlatformUtilities::GetStringResource(int16_t id, TQXString& out) {
  char buffer[1024];
  uint32_t error = 0;
  const uint32_t n = Services().LoadString(id, buffer, sizeof buffer, &error);
  if (n == 0) return int32_t(error);
  out.FromCPtr(buffer);
  return 0;
}

bool TQXPlatformUtilities::IsNT() {
  if (gPlatformId == 0) gPlatformId = Services().PlatformId();
  return gPlatformId == TQXPlatformServices::kPlatformNT;
}

void TQXPlatformUtilities::ForgetPlatformId() {
  gPlatformId = 0;
}

bool TQXPlatformUtilities::SetClipboardText(const TQXString& text) {
  return Services().SetClipboardText(text.StrGet());
}

bool TQXPlatformUtilities::GetClipboardText(TQXString& text) {
  std::string held;
  if (!Services().GetClipboardText(held)) return false;
  // The clipboard's text ends at its first zero byte.
  text.FromCPtr(held.c_str());
  return true;
}

bool TQXPlatformUtilities::HasClipboardText() {
  return Services().HasClipboardText();
}

bool TQXPlatformUtilities::GetUserName(TQXString& name) {
  std::string user;
  // The name is read into a 256-byte buffer: a longer one does not fit and fails.
  if (!Services().UserName(user) || user.size() > 255) return false;
  name.FromCPtr(user.c_str());
  return true;
}

void TQXPlatformUtilities::GetMemoryStatus(uint32_t& totalPhysical, uint32_t& availableVirtual) {
  uint64_t physical = 0, available = 0;
  Services().MemoryStatus(physical, available);
  totalPhysical = Cap32(physical);
  availableVirtual = Cap32(available);
}

bool TQXPlatformUtilities::ChooseColor(uint16_t& red, uint16_t& green, uint16_t& blue) {
  // The dialog works on 8-bit components: red in the low byte, then green, then blue.
  uint32_t rgb = uint32_t(red >> 8) | uint32_t(green & 0xFF00u) | (uint32_t(blue >> 8) << 16);
  if (!Services().ChooseColor(rgb)) return false;
  red = uint16_t((rgb & 0xFFu) << 8);
  green = uint16_t(rgb & 0xFF00u);
  blue = uint16_t(((rgb >> 16) & 0xFFu) << 8);
  return true;
}

void TQXPlatformUtilities::CaptureMouse(bool capture) {
  Services().CaptureMouse(capture);
}

int32_t TQXPlatformUtilities::OpenURLInBrowser(const TQXString& url) {
  return Services().OpenDocument(url.StrGet()) ? 0 : int32_t(kQXErrNotFound);
}

int32_t TQXPlatformUtilities::OpenFile(IQXFile* file) {
  // A null file is taken as one that does not exist (the original would have faulted on it).
  if (!file || !file->Exists()) return 0;
  // The opener wants the system's path: the library's form is mapped through the drive map.
  TQXStringUTF8 path;
  TQXPath parsed;
  std::string system;
  if (file->GetPath(path) != 0 ||
      QXParsePath(path.StrGet(), nullptr, QXPathLeadByteTest(), parsed) != 0 ||
      QXPathToSystem(parsed, system) != 0)
    return int32_t(kQXErrNotFound);
  return Services().OpenDocument(system.c_str()) ? 0 : int32_t(kQXErrNotFound);
}

void TQXPlatformUtilities::GetAppVersion(int32_t& major, int32_t& minor, int32_t& sub,
                                         int32_t& stage, int32_t& build) {
  std::string text;
  if (!Services().AppVersionText(text)) return;
  ParseVersionText(text.c_str(), major, minor, sub, stage, build);
}

void TQXPlatformUtilities::ParseVersionText(const char* text, int32_t& major, int32_t& minor,
                                            int32_t& sub, int32_t& stage, int32_t& build) {
  if (!text) return;
  // Scanning "%d.%d.%d.%d", then the shorter forms down to "%d", until one reads all of its
  // numbers, stores exactly the numbers that the longest form reads in a row from the start.
  int32_t values[4] = {1, 0, 0, 0};
  const char* p = text;
  for (int i = 0; i < 4; ++i) {
    if (i > 0 && *p++ != '.') break;
    if (!ScanDecimal(p, values[i])) break;
  }
  major = values[0];
  minor = values[1];
  sub = values[2];
  build = values[3];
  stage = build != 0 ? 'b' : 0;
}
