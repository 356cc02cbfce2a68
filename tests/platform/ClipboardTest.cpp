// The clipboard on a real X server: a private Xvfb, with xclip as the other client in both
// directions. Skipped, saying so, when Xvfb or xclip is not installed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "Platform/Fake/QXFakeText.h"
#include "Platform/Linux/QXLinuxClipboard.h"
#include "Platform/QXPlatform.h"
#include "QXPlatformUtilities.h"
#include "QXString.h"

extern char** environ;

#if defined(__SANITIZE_THREAD__)
// libX11's loss path unlocks the display twice when the exit handler returns (_XIOError unlocks,
// then the call that met the loss). The clipboard notices a server that ends on the socket
// first, but an end in the instant before Xlib's read still goes that way.
extern "C" const char* __tsan_default_suppressions() {
  return "mutex:libX11.so.6\n";
}
#endif

namespace {

using U = TQXPlatformUtilities;

// Starts `args` from PATH with fd 0 from `in`, fd 1 to `out` and fd 3 to `fd3` (each when not
// -1; fd 1 and 2 go to /dev/null otherwise). The child's pid, or 0.
pid_t Spawn(std::vector<std::string> args, int in, int out, int fd3 = -1) {
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  if (in >= 0) posix_spawn_file_actions_adddup2(&fa, in, 0);
  if (out >= 0) posix_spawn_file_actions_adddup2(&fa, out, 1);
  if (fd3 >= 0) posix_spawn_file_actions_adddup2(&fa, fd3, 3);
  for (int fd = out >= 0 ? 2 : 1; fd <= 2; ++fd)  // xclip's daemon says farewell on fd 2
    posix_spawn_file_actions_addopen(&fa, fd, "/dev/null", O_WRONLY, 0);
  std::vector<char*> argv;
  for (std::string& a : args)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawnp(&pid, argv[0], &fa, nullptr, argv.data(), environ) != 0) pid = 0;
  posix_spawn_file_actions_destroy(&fa);
  return pid;
}

// Runs xclip with `input`, collecting its output when `output` is given. Its exit status.
int Xclip(std::vector<std::string> args, const std::string& input, std::string* output) {
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return -1;
  args.insert(args.begin(), {"xclip", "-selection", "clipboard"});
  const pid_t pid = Spawn(args, in[0], output ? out[1] : -1);
  close(in[0]);
  close(out[1]);
  for (size_t done = 0; pid && done < input.size();) {
    const ssize_t n = write(in[1], input.data() + done, input.size() - done);
    if (n <= 0) break;
    done += size_t(n);
  }
  close(in[1]);
  char buffer[65536];
  for (ssize_t n; pid && output && (n = read(out[0], buffer, sizeof buffer)) > 0;)
    output->append(buffer, size_t(n));
  close(out[0]);
  int status = 0;
  if (!pid || waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string XclipOut(const char* target = "UTF8_STRING") {
  std::string text;
  EXPECT_EQ(Xclip({"-o", "-t", target}, "", &text), 0);
  return text;
}
std::string OurText(bool expectText = true) {
  TQXDynamicString text("none");
  EXPECT_TRUE(U::GetClipboardText(text) || !expectText);
  return text.StrGet();
}
// xclip -i returns before its daemon owns the selection (and for a moment there may be no
// owner): waits, a bounded while, until ours shows `expected`.
std::string XclipIn(const std::string& text, const std::string& expected) {
  EXPECT_EQ(Xclip({"-i"}, text, nullptr), 0);
  std::string got;
  for (int i = 0; i < 500 && (got = OurText(false)) != expected; ++i)
    usleep(10000);
  return got;
}

class ClipboardOnX : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // A free display of 90..99: Xvfb writes its number to fd 3 once it accepts connections,
    // and ends at once when the display is taken. It ends too when a write to fd 3 fails, so
    // the pipe stays open while it runs, and it is told not to reset (which writes again).
    for (int n = 90; n < 100 && xvfb == 0; ++n) {
      int ready[2];
      if (pipe2(ready, O_CLOEXEC) != 0) return;
      const std::string d = ":" + std::to_string(n);
      const pid_t pid =
          Spawn({"Xvfb", d, "-nolisten", "tcp", "-noreset", "-displayfd", "3"}, -1, -1, ready[1]);
      close(ready[1]);
      char number[16];
      pollfd p{ready[0], POLLIN, 0};
      if (pid && poll(&p, 1, 20000) == 1 && read(ready[0], number, sizeof number) > 0) {
        xvfb = pid;
        xvfbReady = ready[0];
        setenv("DISPLAY", d.c_str(), 1);
        return;
      }
      if (pid && kill(pid, SIGTERM) == 0) waitpid(pid, nullptr, 0);
      close(ready[0]);
      if (!pid) return;  // no Xvfb
    }
  }
  static void TearDownTestSuite() {
    EndServer();
    TQXLinuxClipboard::System().Stop();
    unsetenv("DISPLAY");
  }
  static void EndServer() {
    if (xvfb == 0) return;
    kill(xvfb, SIGTERM);
    waitpid(xvfb, nullptr, 0);  // xclip's daemons end with the server
    close(xvfbReady);
    xvfb = 0;
  }
  void SetUp() override {
    if (xvfb == 0 || Xclip({"-version"}, "", nullptr) != 0)
      GTEST_SKIP() << "Xvfb and xclip are needed (packages xvfb, xclip)";
  }
  static inline pid_t xvfb = 0;
  static inline int xvfbReady = -1;
  TQXFakeText utf8{kQXCodePageUTF8};
  QXPlatform::ScopedRole<TQXPlatformText> role{utf8};
};

TEST_F(ClipboardOnX, OursReadByXclip) {
  ASSERT_TRUE(U::SetClipboardText(TQXDynamicString("plain text")));
  EXPECT_EQ(XclipOut(), "plain text");
  const std::string utf8 = "Gr\u00fc\u00dfe \u2026 \u00e9";
  ASSERT_TRUE(U::SetClipboardText(TQXDynamicString(utf8 + "\r\nx")));
  EXPECT_EQ(XclipOut(), utf8 + "\nx");
  EXPECT_EQ(XclipOut("TEXT"), utf8 + "\nx");
  EXPECT_EQ(XclipOut("STRING"), "Gr\xFC\xDF\x65 ? \xE9\nx");
  EXPECT_EQ(XclipOut("TARGETS"), "TARGETS\nUTF8_STRING\nSTRING\nTEXT\n");
  // Our own text comes back as it was set, line ends and all.
  ASSERT_TRUE(U::SetClipboardText(TQXDynamicString("a\nb\r\n")));
  EXPECT_EQ(OurText(), "a\nb\r\n");
  // A Latin code page goes out as UTF-8.
  TQXFakeText latin(kQXCodePageLatin1);
  QXPlatform::ScopedRole<TQXPlatformText> scope(latin);
  ASSERT_TRUE(U::SetClipboardText(TQXDynamicString("caf\xE9 \x80")));
  EXPECT_EQ(XclipOut(), "caf\xC3\xA9 \xE2\x82\xAC");
  std::string big(1 << 20, 'x');
  std::mt19937 rng(3);
  for (char& c : big)
    c = char(' ' + rng() % 95);
  ASSERT_TRUE(U::SetClipboardText(TQXDynamicString(big)));
  EXPECT_TRUE(XclipOut() == big);
}

TEST_F(ClipboardOnX, XclipReadByUs) {
  // Random texts against the model: LF alone becomes CR LF, UTF-8 passes in a UTF-8 code page.
  const char* pieces[] = {
      "a", "Z", " ", "\n", "\r\n", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"};
  std::mt19937 rng(11);
  for (int round = 0; round < 12; ++round) {
    std::string text, expected;
    for (int i = int(rng() % 40); i > 0; --i) {
      const std::string piece = pieces[rng() % 8];
      text += piece;
      expected += piece == "\n" ? "\r\n" : piece;
    }
    EXPECT_EQ(XclipIn(text, expected), expected) << round;
    EXPECT_TRUE(U::HasClipboardText());
  }
  // xclip takes the selection from us, and gives it back.
  ASSERT_TRUE(U::SetClipboardText(TQXDynamicString("ours")));
  EXPECT_EQ(XclipIn("theirs", "theirs"), "theirs");
  ASSERT_TRUE(U::SetClipboardText(TQXDynamicString("ours again")));
  EXPECT_EQ(XclipOut(), "ours again");
  // A text too long for one property arrives in increments.
  std::string big(3 << 20, 'y');
  big[12345] = 'z';
  EXPECT_TRUE(XclipIn(big, big) == big);
  // Into a Latin code page, with '?' for what it cannot hold.
  TQXFakeText latin(kQXCodePageLatin1);
  QXPlatform::ScopedRole<TQXPlatformText> scope(latin);
  EXPECT_EQ(XclipIn("caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", "caf\xE9 \x80 ?"),
            "caf\xE9 \x80 ?");
}

// Last of the suite: the server goes away under the helper thread. The process goes on, and
// with no display to open the clipboard is the in-process text.
TEST_F(ClipboardOnX, ServerGoingAway) {
  ASSERT_TRUE(U::SetClipboardText(TQXDynamicString("before")));
  EndServer();
  TQXDynamicString text;
  bool roundTrip = false;
  for (int i = 0; i < 500 && !roundTrip; ++i) {  // until the thread has seen its connection end
    roundTrip = U::SetClipboardText(TQXDynamicString("after")) && U::GetClipboardText(text) &&
                std::string(text.StrGet()) == "after";
    if (!roundTrip) usleep(10000);
  }
  EXPECT_TRUE(roundTrip);
}

TEST(ClipboardWithoutDisplay, KeepsTheTextInProcess) {
  for (const char* display : {"", ":1999"}) {  // none named; named but not there
    TQXLinuxClipboard clipboard(display);
    std::string out = "kept";
    EXPECT_FALSE(clipboard.Has());
    EXPECT_FALSE(clipboard.Get(out));
    EXPECT_EQ(out, "kept");
    ASSERT_TRUE(clipboard.Set("a\nb\xE9"));
    EXPECT_TRUE(clipboard.Has());
    ASSERT_TRUE(clipboard.Get(out));
    EXPECT_EQ(out, "a\nb\xE9");
  }
}

TEST(ClipboardText, ConversionsRoundTrip) {
  std::mt19937 rng(7);
  for (int round = 0; round < 300; ++round) {
    std::string text;  // bytes CP1252 defines, CR LF pairs only
    for (int i = int(rng() % 60); i > 0; --i) {
      const uint8_t b = uint8_t(1 + rng() % 255);
      if (b == 0x81 || b == 0x8D || b == 0x8F || b == 0x90 || b == 0x9D || b == '\r') continue;
      text += b == '\n' ? std::string("\r\n") : std::string(1, char(b));
    }
    const std::string x = QXClipboardTextToX(text, kQXCodePageLatin1);
    EXPECT_EQ(QXClipboardTextFromX(x, kQXCodePageLatin1), text) << round;
    EXPECT_EQ(x.find('\r'), std::string::npos);
    EXPECT_EQ(QXClipboardTextToX(x, kQXCodePageUTF8), x);  // well-formed UTF-8 as it is
    const std::string latin = QXClipboardUtf8ToLatin1(QXClipboardLatin1ToUtf8(text));
    EXPECT_EQ(latin, text);
  }
  // Outside a converted code page, malformed UTF-8 bytes are read as Latin-1.
  EXPECT_EQ(QXClipboardTextToX("\xC3\xA9\xE9\xC3", kQXCodePageUTF8), "\xC3\xA9\xC3\xA9\xC3\x83");
  // Shift-JIS both ways; an undecodable byte becomes U+FFFD.
  EXPECT_EQ(QXClipboardTextToX("\x93\xFA\x96\x7B\xFF", kQXCodePageJapanese),
            "\xE6\x97\xA5\xE6\x9C\xAC\xEF\xBF\xBD");
  EXPECT_EQ(QXClipboardTextFromX("\xE6\x97\xA5\xE6\x9C\xAC\xC3\xA9", kQXCodePageJapanese),
            "\x93\xFA\x96\x7B?");
}

}  // namespace
