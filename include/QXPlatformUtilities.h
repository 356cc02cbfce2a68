// QXPlatformUtilities.h: the small platform services, as static operations of one class: the
// library's time stamps, the beep, strings of the module's table, the clipboard's text, the
// user's name, memory figures, the colour dialog, mouse capture, the browser, and the
// application's version.
//
// Return conventions. Operations that give a bool answer false on failure and leave their outs
// as they were. GetStringResource gives 0 or the system's error number. OpenURLInBrowser and
// OpenFile give 0 or kQXErrNotFound. Nothing here throws of itself.
//
// On Linux, where the desktop has no counterpart, the answers are fixed: IsNT is true (the
// system has the security and Unicode features that the NT answer selects); ChooseColor answers
// "cancelled"; CaptureMouse and Beep do nothing. The string table and the version text are what
// the host registers with QXRegisterStringResource and QXSetAppVersionText, since a shared
// library on Linux carries no resource section.
#ifndef QXPLATFORMUTILITIES_H
#define QXPLATFORMUTILITIES_H

#include "QXBase.h"

class IQXFile;
class TQXString;

class TQXPlatformUtilities {
 public:
  // The library's time stamp: milliseconds >> 4, about 62.5 counts a second, wrapping at 2^28.
  QX_EXPORT static uint32_t TickCount();
  // Milliseconds of the system's monotonic clock, wrapping at 2^32.
  QX_EXPORT static uint32_t GetMilliseconds();
  // Always 1000: the unit of GetMilliseconds.
  QX_EXPORT static uint32_t TicksPerSecond();
  // A 1000-hertz tone of `duration` milliseconds.
  QX_EXPORT static void Beep(uint32_t duration);
  // String `id` of the module's table, cut at 1023 bytes. 0 and the text set, or the system's
  // error with `out` untouched.
  QX_EXPORT static int32_t GetStringResource(int16_t id, TQXString& out);
  // True on the NT family of the system; asked once, then cached.
  QX_EXPORT static bool IsNT();
  QX_EXPORT static bool SetClipboardText(const TQXString& text);
  QX_EXPORT static bool GetClipboardText(TQXString& text);
  QX_EXPORT static bool HasClipboardText();
  // The user's login name; false (and `name` untouched) when unknown or longer than 255 bytes.
  QX_EXPORT static bool GetUserName(TQXString& name);
  // Physical memory in bytes, and address space still free to the process, each in 32-bit
  // terms: a figure of 4 GiB or more reads 0xFFFFFFFF, as the 32-bit interface always did.
  QX_EXPORT static void GetMemoryStatus(uint32_t& totalPhysical, uint32_t& availableVirtual);
  // The colour dialog on 16-bit red, green and blue (only their top bytes reach the dialog).
  // True and the chosen colour (each byte << 8), or false with the values unchanged.
  QX_EXPORT static bool ChooseColor(uint16_t& red, uint16_t& green, uint16_t& blue);
  QX_EXPORT static void CaptureMouse(bool capture);
  // Opens the URL in the user's browser: 0, or kQXErrNotFound when it cannot be handed over.
  QX_EXPORT static int32_t OpenURLInBrowser(const TQXString& url);
  // Opens the file with the application the desktop gives its type: 0, or kQXErrNotFound when
  // it cannot be handed over. A file that does not exist (or a null one) gives 0 and opens
  // nothing.
  QX_EXPORT static int32_t OpenFile(IQXFile* file);
  // The application's version from its registered version text (see ParseVersionText). With no
  // text the outs are left as they were.
  QX_EXPORT static void GetAppVersion(int32_t& major, int32_t& minor, int32_t& sub, int32_t& stage,
                                      int32_t& build);

  // Internal to the library. The version text parser: outs start at 1, 0, 0, stage 0, build 0;
  // the text gives up to four decimal numbers "major.minor.sub.build", each after optional white
  // space and sign; as many as are read in a row from the start replace their defaults. A build
  // other than 0 makes stage 'b'. A null text leaves every out as it was.
  QX_HIDDEN static void ParseVersionText(const char* text, int32_t& major, int32_t& minor,
                                         int32_t& sub, int32_t& stage, int32_t& build);
  // Forgets the cached platform id, so that the next IsNT asks again (for tests).
  QX_HIDDEN static void ForgetPlatformId();
};

// The host's string table and version text, which a Linux module cannot carry as resources.
// Registers `text` (copied) as string `id`; null or empty removes it.
QX_EXPORT void QXRegisterStringResource(int16_t id, const char* text);
// Registers the application's product version text ("2.1.3.7"); null removes it.
QX_EXPORT void QXSetAppVersionText(const char* text);

#endif  // QXPLATFORMUTILITIES_H
