// QXPlatformUtilities.h: the role of the small desktop services behind TQXPlatformUtilities:
// the beep, the module's string table, the platform id, clipboard text, the user's name, memory
// figures, the colour dialog, mouse capture, handing a URL or a document to the desktop, and the
// application's version text. (The millisecond clock is its own role, TQXPlatformClock.)
//
// Contract: every operation runs on the caller's thread and answers at once; none of them
// throws. Texts cross the role zero-terminated, in the library's single-byte or double-byte text.
// Where the system has no counterpart the Linux side gives a fixed, documented answer, stated on
// each operation below.
#ifndef QXPLATFORM_UTILITIES_ROLE_H
#define QXPLATFORM_UTILITIES_ROLE_H

#include <cstdint>
#include <string>

class TQXPlatformServices {
 public:
  virtual ~TQXPlatformServices() = default;

  // The platform id of the original system: 2 for the NT family. Linux answers 2.
  static constexpr uint32_t kPlatformNT = 2;
  // The system error of a string id that the module's table does not hold.
  static constexpr uint32_t kErrorResourceNameNotFound = 1814;

  // A tone of `frequency` hertz for `duration` milliseconds. Linux: nothing (no sound device is
  // assumed, and ringing the terminal bell would write to the host's own terminal).
  virtual void Beep(uint32_t frequency, uint32_t duration) = 0;

  // The string `id` of the module's table, cut to capacity - 1 bytes and terminated (capacity
  // >= 1). Returns its length; 0 when there is none, with the reason in *error. Linux: the table
  // that the host fills with QXRegisterStringResource.
  virtual uint32_t LoadString(int16_t id, char* out, uint32_t capacity, uint32_t* error) = 0;

  virtual uint32_t PlatformId() = 0;

  // Clipboard text. Set replaces the clipboard's text with `text` (false: the clipboard could
  // not be had). Get copies the text out (false: no text on the clipboard, or it could not be
  // had). Has tells whether text is there. Linux: the X display's CLIPBOARD selection, or a text
  // held in the process when no display opens (Linux/QXLinuxClipboard.h).
  virtual bool SetClipboardText(const char* text) = 0;
  virtual bool GetClipboardText(std::string& out) = 0;
  virtual bool HasClipboardText() = 0;

  // The login name of the user running the process; false when the system does not know it.
  // Linux: the user database entry of the real user id.
  virtual bool UserName(std::string& out) = 0;

  // Bytes of physical memory, and bytes of address space the process can still reserve.
  // Linux: sysinfo's total RAM; the address-space limit (RLIMIT_AS, or the 47-bit user space
  // of x86-64 when unlimited) less the process's current size.
  virtual void MemoryStatus(uint64_t& totalPhysical, uint64_t& availableVirtual) = 0;

  // Shows the colour dialog starting at `rgb` (red in the low byte, green next, blue in the
  // third) and returns true with the chosen colour in `rgb`, or false, leaving it, when the user
  // cancels. Linux: no dialog is available to a library, so the answer is always "cancelled".
  virtual bool ChooseColor(uint32_t& rgb) = 0;

  // Sends all mouse input to the application (true) or gives it back (false). Linux: nothing;
  // the library has no window of its own to grab for.
  virtual void CaptureMouse(bool capture) = 0;

  // Hands a URL or a document's system path to the desktop's opener. True when the opener was
  // started. Linux: `xdg-open` with the text as its one argument, spawned from PATH with an
  // argument vector (never through a shell) and reaped in the background; a text that is empty
  // or starts with '-' (it would read as an option) is refused.
  virtual bool OpenDocument(const char* target) = 0;

  // The product version text of the application; false when it has none. Linux: the text the
  // host registers with QXSetAppVersionText.
  virtual bool AppVersionText(std::string& out) = 0;

  // The Linux implementation.
  static TQXPlatformServices& System();
};

#endif  // QXPLATFORM_UTILITIES_ROLE_H
