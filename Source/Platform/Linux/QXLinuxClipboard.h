// QXLinuxClipboard.h: clipboard text on Linux, for the services role.
//
// With an X display (DISPLAY names one and it opens) the clipboard is the display's CLIPBOARD
// selection, shared with every other X client; without one it is a text held in the process,
// which keeps Set/Get round trips working for the application itself.
//
// Owning the selection. X has no clipboard store: the owner of a selection must answer every
// request for its text while it owns it. A helper thread, started by the first Set, does that on
// a Display of its own with an unmapped 1x1 window. It answers TARGETS, UTF8_STRING, TEXT (as
// UTF-8) and STRING (Latin-1), refuses every other target, and notes when another client takes
// the selection over (SelectionClear). Set hands the text to the thread and waits until the
// server confirms the ownership. The thread is stopped and joined at process exit, or when the
// clipboard object goes away.
//
// Reading. Get opens a short-lived Display of its own on the caller's thread. While the helper
// thread owns the selection, Get gives back the very text that was set, byte for byte. Otherwise
// it asks the owner for UTF8_STRING (then STRING) and waits for the answer with a time limit,
// taking texts that come in increments (INCR) as well. Has asks the server whether the selection
// has an owner.
//
// Texts. Library text is in the process code page; X text is UTF-8 with LF line ends. Going out,
// CR LF becomes LF and the code page is converted to UTF-8; coming in, a LF alone becomes CR LF
// and UTF-8 is converted to the code page, with '?' for what it cannot hold. Conversion runs on
// the caller's thread, through the text role in force.
//
// Every operation is safe to call from any thread; calls are serialized.
#ifndef QXLINUXCLIPBOARD_H
#define QXLINUXCLIPBOARD_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

class TQXLinuxClipboard {
 public:
  // `display` names the X display to use; null reads DISPLAY at each call; "" means none.
  explicit TQXLinuxClipboard(const char* display = nullptr);
  // Stops the helper thread, if one runs.
  ~TQXLinuxClipboard();
  TQXLinuxClipboard(const TQXLinuxClipboard&) = delete;
  TQXLinuxClipboard& operator=(const TQXLinuxClipboard&) = delete;

  // Replaces the clipboard's text with `text` (null: empty). False when the display's selection
  // could not be had.
  bool Set(const char* text);
  // The clipboard's text; false when there is none or it could not be had.
  bool Get(std::string& out);
  bool Has();

  // Stops the helper thread and lets go of the selection; later calls start a new one.
  void Stop();

  // The clipboard of the services role.
  static TQXLinuxClipboard& System();

 private:
  struct Owner;  // the helper thread and what it shares with the callers

  // The display to use now: its name, or false for none.
  bool DisplayName(std::string& name) const;
  // The helper thread for `display`, started if need be; null when the display does not open.
  Owner* OwnerFor(const std::string& display);
  void StopLocked();

  std::mutex api_;  // serializes the public operations
  bool fromEnvironment_;
  std::string display_;
  std::unique_ptr<Owner> owner_;
  // The in-process clipboard, used without a display.
  std::string local_;
  bool hasLocal_ = false;
};

// Conversions between library text in `codePage` and X text (UTF-8, LF line ends).
// ToX: CR LF becomes LF; a code page that has a converter goes through it (a byte it cannot
// decode becomes U+FFFD); any other (UTF-8, ASCII, unknown) keeps well-formed UTF-8 and takes
// each byte outside a well-formed sequence as a Latin-1 character.
std::string QXClipboardTextToX(const std::string& text, uint32_t codePage);
// FromX: UTF-8 to the code page ('?' for a character it cannot hold; UTF-8 and code pages
// without a converter keep the bytes), then a LF that has no CR before it becomes CR LF.
std::string QXClipboardTextFromX(const std::string& utf8, uint32_t codePage);
// UTF-8 to Latin-1 ('?' for characters above U+00FF and for malformed bytes), and back.
std::string QXClipboardUtf8ToLatin1(const std::string& utf8);
std::string QXClipboardLatin1ToUtf8(const std::string& latin1);

#endif  // QXLINUXCLIPBOARD_H
