#include "Platform/Fake/QXFakeUtilities.h"

#include <algorithm>
#include <cstring>

void TQXFakeServices::Beep(uint32_t frequency, uint32_t duration) {
  beeps.emplace_back(frequency, duration);
}

uint32_t TQXFakeServices::LoadString(int16_t id, char* out, uint32_t capacity, uint32_t* error) {
  auto it = strings.find(id);
  // An empty entry counts as absent, as in a compiled string table.
  if (it == strings.end() || it->second.empty() || capacity == 0) {
    if (error) *error = missingStringError;
    return 0;
  }
  const size_t n = std::min<size_t>(it->second.size(), capacity - 1);
  std::memcpy(out, it->second.data(), n);
  out[n] = 0;
  return uint32_t(n);
}

uint32_t TQXFakeServices::PlatformId() {
  ++platformIdQueries;
  return platformId;
}

bool TQXFakeServices::SetClipboardText(const char* text) {
  if (clipboardBusy) return false;
  clipboard = text ? text : "";
  return true;
}

bool TQXFakeServices::GetClipboardText(std::string& out) {
  if (clipboardBusy || !clipboard) return false;
  out = *clipboard;
  return true;
}

bool TQXFakeServices::UserName(std::string& out) {
  if (!userName) return false;
  out = *userName;
  return true;
}

void TQXFakeServices::MemoryStatus(uint64_t& physical, uint64_t& available) {
  physical = totalPhysical;
  available = availableVirtual;
}

bool TQXFakeServices::ChooseColor(uint32_t& rgb) {
  colourRequests.push_back(rgb);
  if (!colourChoice) return false;
  rgb = *colourChoice;
  return true;
}

bool TQXFakeServices::OpenDocument(const char* target) {
  opened.emplace_back(target ? target : "");
  return !openerMissing && target && *target;
}

bool TQXFakeServices::AppVersionText(std::string& out) {
  if (!versionText) return false;
  out = *versionText;
  return true;
}
