// Desktop services in memory: a scripted string table, platform id, clipboard, user, memory
// figures, colour dialog answer, version text, and a record of every beep, capture and opened
// document. Each failure the system could give is a switch.
#ifndef QXFAKEUTILITIES_H
#define QXFAKEUTILITIES_H

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/QXPlatformUtilities.h"

class TQXFakeServices final : public TQXPlatformServices {
 public:
  void Beep(uint32_t frequency, uint32_t duration) override;
  uint32_t LoadString(int16_t id, char* out, uint32_t capacity, uint32_t* error) override;
  uint32_t PlatformId() override;
  bool SetClipboardText(const char* text) override;
  bool GetClipboardText(std::string& out) override;
  bool HasClipboardText() override { return clipboard.has_value(); }
  bool UserName(std::string& out) override;
  void MemoryStatus(uint64_t& totalPhysical, uint64_t& availableVirtual) override;
  bool ChooseColor(uint32_t& rgb) override;
  void CaptureMouse(bool capture) override { captures.push_back(capture); }
  bool OpenDocument(const char* target) override;
  bool AppVersionText(std::string& out) override;

  std::map<int16_t, std::string> strings;  // the module's table
  uint32_t missingStringError = kErrorResourceNameNotFound;
  uint32_t platformId = kPlatformNT;
  uint32_t platformIdQueries = 0;

  std::optional<std::string> clipboard;  // empty: no text on the clipboard
  bool clipboardBusy = false;            // another application holds it open: Set and Get fail

  std::optional<std::string> userName;  // empty: the system does not know the user
  uint64_t totalPhysical = 0;
  uint64_t availableVirtual = 0;

  std::optional<uint32_t> colourChoice;  // empty: the user cancels
  std::vector<uint32_t> colourRequests;  // the starting colour of each dialog

  std::vector<std::pair<uint32_t, uint32_t>> beeps;  // frequency, duration
  std::vector<bool> captures;
  std::vector<std::string> opened;  // every target handed over, refused or not
  bool openerMissing = false;       // no opener: every hand-over fails

  std::optional<std::string> versionText;
};

#endif  // QXFAKEUTILITIES_H
