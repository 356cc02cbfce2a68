// Clipboard text on Linux: the X11 CLIPBOARD selection, or a text held in the process.
//
// Connections. Every Display here is used by one thread only: the helper thread's own, or the
// short-lived one of a Get on the caller's thread. A thread-local pointer names the connection
// the thread works on, so that the process-wide Xlib error handlers, which the clipboard chains
// in front of whatever was installed before, can tell the clipboard's connections from the
// host's:
//  - a protocol error on a clipboard connection (a requestor window that is gone, a property
//    the server cannot hold) fails that one request and is otherwise ignored; Xlib's default
//    would end the process;
//  - a lost connection (the X server went away) marks the connection broken and returns, so
//    that Xlib does not end the process either; the helper thread then ends, and Get and Has
//    answer false. Where it can, the clipboard notices the loss on the socket itself, before
//    Xlib reads (see ~Connection for why).
// Errors on the host's own connections go to the handlers the host had. A host that installs
// its own handlers afterwards takes the clipboard's errors too.
//
// The helper thread sleeps in poll on its connection and on a pipe through which callers wake
// it (a new text, or the order to stop). The text it serves is an immutable snapshot, swapped
// under a mutex, so a long transfer never holds up a Set.
//
// Limits. The owner sends a text in one property, which BIG-REQUESTS makes up to 16 MB; a longer
// text is refused to the requestor rather than sent in increments. Get takes increments (INCR)
// from other owners, up to kMaxText bytes.
#include "Platform/Linux/QXLinuxClipboard.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <errno.h>
#include <fcntl.h>
#include <iconv.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "Platform/QXPlatform.h"
#include "Platform/QXPlatformText.h"

namespace {

// The longest wait for the server or another client: an owner that does not answer by then is
// taken as having no text.
constexpr int kWaitMs = 3000;
// The longest text taken from another owner.
constexpr size_t kMaxText = size_t(256) << 20;

// ---------------------------------------------------------------------------------------------
// Text conversion
// ---------------------------------------------------------------------------------------------

// The length (1 to 4) of the well-formed UTF-8 sequence at p[0..n), with its value; 0 when the
// bytes there do not form one (overlong forms, surrogates and values above U+10FFFF included).
int DecodeUtf8(const unsigned char* p, size_t n, uint32_t* value) {
  const unsigned char b = p[0];
  if (b < 0x80) {
    *value = b;
    return 1;
  }
  int len;
  uint32_t v, min;
  if (b >= 0xC2 && b <= 0xDF) {
    len = 2, v = b & 0x1Fu, min = 0x80;
  } else if (b >= 0xE0 && b <= 0xEF) {
    len = 3, v = b & 0x0Fu, min = 0x800;
  } else if (b >= 0xF0 && b <= 0xF4) {
    len = 4, v = b & 0x07u, min = 0x10000;
  } else {
    return 0;
  }
  if (n < size_t(len)) return 0;
  for (int i = 1; i < len; ++i) {
    if ((p[i] & 0xC0) != 0x80) return 0;
    v = (v << 6) | (p[i] & 0x3Fu);
  }
  if (v < min || v > 0x10FFFF || (v >= 0xD800 && v <= 0xDFFF)) return 0;
  *value = v;
  return len;
}

void AppendUtf8(std::string& out, uint32_t v) {
  if (v < 0x80) {
    out += char(v);
  } else if (v < 0x800) {
    out += char(0xC0 | (v >> 6));
    out += char(0x80 | (v & 0x3F));
  } else if (v < 0x10000) {
    out += char(0xE0 | (v >> 12));
    out += char(0x80 | ((v >> 6) & 0x3F));
    out += char(0x80 | (v & 0x3F));
  } else {
    out += char(0xF0 | (v >> 18));
    out += char(0x80 | ((v >> 12) & 0x3F));
    out += char(0x80 | ((v >> 6) & 0x3F));
    out += char(0x80 | (v & 0x3F));
  }
}

// The converter's name of the code pages that need one; null for the others.
const char* ConverterName(uint32_t codePage) {
  switch (codePage) {
    case kQXCodePageJapanese:
      return "CP932";
    case kQXCodePageChineseSimplified:
      return "GBK";
    case kQXCodePageKorean:
      return "UHC";
    case kQXCodePageChineseTraditional:
      return "BIG5";
    case kQXCodePageLatin1:
      return "CP1252";
    case 28591:
      return "ISO-8859-1";
    case 28605:
      return "ISO-8859-15";
    default:
      return nullptr;
  }
}

// Converts `in` from `from` to `to`. At a sequence the converter rejects, `bad` is written and
// `skip(p, n)` bytes of the input are passed over. False when there is no such converter.
template <class Skip>
bool Convert(const char* to, const char* from, const std::string& in, const char* bad, Skip skip,
             std::string& out) {
  iconv_t cd = iconv_open(to, from);
  if (cd == iconv_t(-1)) return false;
  out.clear();
  std::vector<char> buffer(4096 + in.size() * 2);
  char* src = const_cast<char*>(in.data());  // iconv's interface; it does not write there
  size_t srcLeft = in.size();
  while (srcLeft > 0) {
    char* dst = buffer.data();
    size_t dstLeft = buffer.size();
    const bool failed = iconv(cd, &src, &srcLeft, &dst, &dstLeft) == size_t(-1);
    const int error = failed ? errno : 0;
    out.append(buffer.data(), size_t(dst - buffer.data()));
    if (error == EILSEQ || error == EINVAL) {
      const size_t n = std::max<size_t>(1, std::min(srcLeft, skip(src, srcLeft)));
      out += bad;
      src += n;
      srcLeft -= n;
      iconv(cd, nullptr, nullptr, nullptr, nullptr);
    } else if (failed && error != E2BIG) {
      break;  // not a fault of the text: keep what was converted
    }
  }
  char* dst = buffer.data();
  size_t dstLeft = buffer.size();
  iconv(cd, nullptr, nullptr, &dst, &dstLeft);  // the closing shift of a stateful code set
  out.append(buffer.data(), size_t(dst - buffer.data()));
  iconv_close(cd);
  return true;
}

// Well-formed UTF-8 kept, every other byte taken as a Latin-1 character.
std::string Utf8OrLatin1(const std::string& in) {
  std::string out;
  out.reserve(in.size());
  const auto* p = reinterpret_cast<const unsigned char*>(in.data());
  for (size_t i = 0; i < in.size();) {
    uint32_t v;
    const int len = DecodeUtf8(p + i, in.size() - i, &v);
    if (len > 0) {
      out.append(in, i, size_t(len));
      i += size_t(len);
    } else {
      AppendUtf8(out, p[i++]);
    }
  }
  return out;
}

uint32_t CodePage() {
  return QXPlatform::Get<TQXPlatformText>().CodePage();
}

// ---------------------------------------------------------------------------------------------
// Connections and the error handlers
// ---------------------------------------------------------------------------------------------

// The clipboard connection this thread works on; null when none.
thread_local Display* tClipboardDisplay = nullptr;

std::atomic<XErrorHandler> gPreviousErrorHandler{nullptr};
std::atomic<XIOErrorHandler> gPreviousIOErrorHandler{nullptr};

int OnXError(Display* display, XErrorEvent* event) {
  if (display == tClipboardDisplay) return 0;  // that request fails; the connection goes on
  XErrorHandler previous = gPreviousErrorHandler.load();
  return previous ? previous(display, event) : 0;
}

int OnXIOError(Display* display) {
  // Returning lets Xlib call the connection's exit handler, which marks it broken.
  if (display == tClipboardDisplay) return 0;
  XIOErrorHandler previous = gPreviousIOErrorHandler.load();
  return previous ? previous(display) : 0;
}

void OnConnectionLost(Display*, void* broken) {
  *static_cast<bool*>(broken) = true;
}

void PrepareXlib() {
  static std::once_flag once;
  std::call_once(once, [] {
    XInitThreads();
    gPreviousErrorHandler = XSetErrorHandler(OnXError);
    gPreviousIOErrorHandler = XSetIOErrorHandler(OnXIOError);
  });
}

enum AtomIndex { kClipboard, kTargets, kUtf8, kText, kIncr, kProperty, kAtomCount };

// Connections whose server went away (see ~Connection).
struct AbandonedDisplays {
  std::mutex m;
  std::vector<Display*> displays;
};
AbandonedDisplays& Abandoned() {
  static QXPlatform::NoDestructor<AbandonedDisplays> abandoned;
  return abandoned.get();
}

// One connection of the clipboard, with the atoms it uses. Opened on any thread; used, and
// closed, on one thread at a time, which names it in tClipboardDisplay while it does.
class Connection {
 public:
  explicit Connection(const std::string& name) {
    PrepareXlib();
    display_ = XOpenDisplay(name.c_str());
    if (display_) XSetIOErrorExitHandler(display_, OnConnectionLost, &broken_);
  }
  ~Connection() {
    if (!display_) return;
    if (broken_) {
      // Closing would have Xlib report the loss once more, and its locking does not come
      // through that path cleanly (it unlocks the display twice). A connection whose server
      // went away is set aside instead, never to be used again, with its socket closed: a few
      // kilobytes for each time a server ends under the clipboard.
      close(ConnectionNumber(display_));
      std::lock_guard<std::mutex> l(Abandoned().m);
      Abandoned().displays.push_back(display_);
      return;
    }
    Display* const previous = std::exchange(tClipboardDisplay, display_);
    XCloseDisplay(display_);
    tClipboardDisplay = previous;
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool Opened() const { return display_ != nullptr; }
  bool Broken() const { return broken_; }

  // Whether the server has closed the connection, asked of the socket before Xlib reads, so
  // that a server that ends between requests is noticed without going through Xlib's loss
  // path. (It can still end in the instant between this and Xlib's read.)
  bool ServerGone() {
    if (broken_) return true;
    char b;
    const ssize_t n = recv(ConnectionNumber(display_), &b, 1, MSG_PEEK | MSG_DONTWAIT);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR))
      broken_ = true;
    return broken_;
  }
  Display* get() const { return display_; }
  Atom atom(AtomIndex i) const { return atoms_[i]; }

  // Interns the atoms; false when the connection broke. Called on the thread that uses it.
  bool Intern() {
    static const char* const kNames[kAtomCount] = {"CLIPBOARD", "TARGETS", "UTF8_STRING",
                                                   "TEXT",      "INCR",    "QX_CLIPBOARD_TEXT"};
    char* names[kAtomCount];
    for (int i = 0; i < kAtomCount; ++i)
      names[i] = const_cast<char*>(kNames[i]);  // Xlib's interface; it does not write there
    return XInternAtoms(display_, names, kAtomCount, False, atoms_) != 0 && !broken_;
  }

  // An unmapped 1x1 window that reports its property changes.
  Window MakeWindow() {
    Window w = XCreateSimpleWindow(display_, DefaultRootWindow(display_), 0, 0, 1, 1, 0, 0, 0);
    XSelectInput(display_, w, PropertyChangeMask);
    return w;
  }

  // The most bytes one property change can carry.
  size_t MaxPropertyBytes() const {
    long words = XExtendedMaxRequestSize(display_);
    if (words <= 0) words = XMaxRequestSize(display_);
    return words > 64 ? size_t(words) * 4 - 256 : 0;
  }

  // Flushes, reads what the server has sent, and tells whether an event is queued.
  bool Pending() { return !ServerGone() && XPending(display_) > 0; }

  // Waits for the next event that `match` accepts, dropping the others; false when the time is
  // up or the connection broke.
  template <class Match>
  bool WaitFor(XEvent& event, Match match) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    for (;;) {
      while (Pending()) {
        XNextEvent(display_, &event);
        if (match(event)) return true;
      }
      if (broken_) return false;
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                            deadline - std::chrono::steady_clock::now())
                            .count();
      if (left <= 0) return false;
      pollfd p{ConnectionNumber(display_), POLLIN, 0};
      if (poll(&p, 1, int(left)) < 0 && errno != EINTR) return false;
      if (p.revents != 0 && ServerGone()) return false;
    }
  }

 private:
  Display* display_ = nullptr;
  bool broken_ = false;
  Atom atoms_[kAtomCount] = {};
};

// Names `display` as this thread's clipboard connection for the life of the object.
class ThisThreadUses {
 public:
  explicit ThisThreadUses(Display* display)
      : previous_(std::exchange(tClipboardDisplay, display)) {}
  ~ThisThreadUses() { tClipboardDisplay = previous_; }
  ThisThreadUses(const ThisThreadUses&) = delete;
  ThisThreadUses& operator=(const ThisThreadUses&) = delete;

 private:
  Display* previous_;
};

// Reads the whole of `property` on `w` and deletes it. False when it is not there or is not a
// text of 8-bit units (INCR's size hint, 32-bit, is let through).
bool TakeProperty(Connection& c, Window w, Atom property, std::string& bytes, Atom& type) {
  Atom actualType = None;
  int format = 0;
  unsigned long count = 0, after = 0;
  unsigned char* data = nullptr;
  const int rc = XGetWindowProperty(c.get(), w, property, 0, 0x1FFFFFFF, True, AnyPropertyType,
                                    &actualType, &format, &count, &after, &data);
  bool ok = rc == Success && !c.Broken() && actualType != None && after == 0;
  if (ok && actualType == c.atom(kIncr)) {
    bytes.clear();
  } else if (ok && format == 8) {
    bytes.assign(reinterpret_cast<const char*>(data), count);
  } else {
    ok = false;
  }
  if (data) XFree(data);
  type = actualType;
  return ok;
}

// Asks the owner of the clipboard for its text as `target` and waits for it on `w`. The
// answer's bytes and type; false when the owner refuses or does not answer in time.
bool Transfer(Connection& c, Window w, Atom target, std::string& bytes, Atom& type) {
  const Atom property = c.atom(kProperty);
  XConvertSelection(c.get(), c.atom(kClipboard), target, property, w, CurrentTime);
  XEvent e;
  if (!c.WaitFor(e, [w](XEvent& ev) {
        return ev.type == SelectionNotify && ev.xselection.requestor == w;
      }))
    return false;
  if (e.xselection.property == None) return false;
  if (!TakeProperty(c, w, property, bytes, type)) return false;
  if (type != c.atom(kIncr)) return true;
  // Increments: each time the owner writes a piece the property gets a new value, which is read
  // and deleted; an empty piece ends the text.
  bytes.clear();
  for (;;) {
    if (!c.WaitFor(e, [w, property](XEvent& ev) {
          return ev.type == PropertyNotify && ev.xproperty.window == w &&
                 ev.xproperty.atom == property && ev.xproperty.state == PropertyNewValue;
        }))
      return false;
    std::string piece;
    if (!TakeProperty(c, w, property, piece, type) || type == c.atom(kIncr)) return false;
    if (piece.empty()) return true;
    if (bytes.size() + piece.size() > kMaxText) return false;
    bytes += piece;
  }
}

// A thread running run(argument). Its closure type belongs to this file alone, and with it the
// standard library's thread instantiations, which stay out of the library's dynamic symbols.
std::thread StartThread(void (*run)(void*), void* argument) {
  return std::thread([run, argument] { run(argument); });
}

// The live clipboards with a helper thread, which process exit stops.
struct LiveClipboards {
  std::mutex m;
  std::set<TQXLinuxClipboard*> live;
};
LiveClipboards& Live() {
  static QXPlatform::NoDestructor<LiveClipboards> live;
  return live.get();
}
// Set once process exit has stopped the helper threads: from then on no new one starts (nothing
// would join it), and the clipboard is the in-process text.
std::atomic<bool> gExiting{false};

// Built at the first helper thread's start, so that its destructor runs at process exit before
// those of the objects built earlier.
struct ExitHook {
  ~ExitHook() {
    gExiting = true;
    std::set<TQXLinuxClipboard*> live;
    {
      std::lock_guard<std::mutex> l(Live().m);
      live.swap(Live().live);
    }
    for (TQXLinuxClipboard* c : live)
      c->Stop();
  }
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Conversions
// ---------------------------------------------------------------------------------------------

std::string QXClipboardTextToX(const std::string& text, uint32_t codePage) {
  // CR LF pairs become LF. CR and LF are never the trail byte of a double-byte character.
  std::string lf;
  lf.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') continue;
    lf += text[i];
  }
  std::string out;
  if (const char* name = ConverterName(codePage)) {
    // An undecodable byte is passed over alone, so that the text after it keeps its form.
    if (Convert(
            "UTF-8", name, lf, "\xEF\xBF\xBD", [](const char*, size_t) { return size_t(1); }, out))
      return out;
  }
  return Utf8OrLatin1(lf);
}

std::string QXClipboardTextFromX(const std::string& utf8, uint32_t codePage) {
  std::string text;
  const char* name = ConverterName(codePage);
  auto oneCharacter = [](const char* p, size_t n) {
    uint32_t v;
    const int len = DecodeUtf8(reinterpret_cast<const unsigned char*>(p), n, &v);
    return size_t(len > 0 ? len : 1);
  };
  if (!name || !Convert(name, "UTF-8", utf8, "?", oneCharacter, text)) text = utf8;
  std::string out;
  out.reserve(text.size() + text.size() / 32);
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) out += '\r';
    out += text[i];
  }
  return out;
}

std::string QXClipboardUtf8ToLatin1(const std::string& utf8) {
  std::string out;
  out.reserve(utf8.size());
  const auto* p = reinterpret_cast<const unsigned char*>(utf8.data());
  for (size_t i = 0; i < utf8.size();) {
    uint32_t v;
    const int len = DecodeUtf8(p + i, utf8.size() - i, &v);
    out += len > 0 && v <= 0xFF ? char(v) : '?';
    i += size_t(len > 0 ? len : 1);
  }
  return out;
}

std::string QXClipboardLatin1ToUtf8(const std::string& latin1) {
  std::string out;
  out.reserve(latin1.size() + latin1.size() / 8);
  for (char c : latin1)
    AppendUtf8(out, uint8_t(c));
  return out;
}

// ---------------------------------------------------------------------------------------------
// The helper thread
// ---------------------------------------------------------------------------------------------

struct TQXLinuxClipboard::Owner {
  // A text as it was set, and its two forms for other clients.
  struct Texts {
    std::string library, utf8, latin1;
  };

  Owner(const std::string& name, std::unique_ptr<Connection> connection)
      : display(name), x(std::move(connection)) {}
  ~Owner() { Stop(); }
  Owner(const Owner&) = delete;
  Owner& operator=(const Owner&) = delete;

  // Starts the thread; false when it could not be (no pipe, no thread).
  bool Start() {
    if (pipe2(wake, O_CLOEXEC | O_NONBLOCK) != 0) {
      wake[0] = wake[1] = -1;
      return false;
    }
    try {
      thread = StartThread([](void* self) { static_cast<Owner*>(self)->Run(); }, this);
    } catch (...) {
      return false;
    }
    std::unique_lock<std::mutex> l(m);
    cv.wait(l, [this] { return started; });
    return running;
  }

  // Asks the thread to end and waits for it. Once stopped, stays stopped; may be called again.
  void Stop() {
    {
      std::lock_guard<std::mutex> l(m);
      quit = true;
    }
    Wake();
    if (thread.joinable()) {
      // At process exit the thread that ends the process may be this one only if Xlib ended it
      // from here, which the error handlers prevent; never join oneself all the same.
      if (thread.get_id() == std::this_thread::get_id())
        thread.detach();
      else
        thread.join();
    }
    for (int& fd : wake) {
      if (fd >= 0) close(fd);
      fd = -1;
    }
  }

  bool Alive() {
    std::lock_guard<std::mutex> l(m);
    return running;
  }

  Window OwnerWindow() {
    std::lock_guard<std::mutex> l(m);
    return running ? window : Window(None);
  }

  bool HeldText(std::string& out) {
    std::lock_guard<std::mutex> l(m);
    if (!texts) return false;
    out = texts->library;
    return true;
  }

  // Makes `t` the text served and waits until the thread has taken the selection for it.
  bool Publish(std::shared_ptr<const Texts> t) {
    std::unique_lock<std::mutex> l(m);
    if (!running) return false;
    texts = std::move(t);
    const uint64_t number = ++wanted;
    l.unlock();
    Wake();
    l.lock();
    cv.wait_for(l, std::chrono::milliseconds(kWaitMs),
                [&] { return confirmed >= number || !running; });
    return confirmed >= number && confirmedOk;
  }

  void Wake() {
    if (wake[1] >= 0) {
      const char b = 1;
      // A full pipe already holds a wake-up.
      while (write(wake[1], &b, 1) < 0 && errno == EINTR) {
      }
    }
  }

  void Run() {
    Display* const d = x->get();
    ThisThreadUses uses(d);
    Window w = None;
    if (x->Intern()) {
      w = x->MakeWindow();
      XFlush(d);
    }
    {
      std::lock_guard<std::mutex> l(m);
      started = true;
      running = w != None && !x->Broken();
      window = w;
    }
    cv.notify_all();
    if (w != None) Serve(w);
    if (w != None && !x->Broken()) XDestroyWindow(d, w);
    x.reset();  // closes the connection, on this thread; the selection goes with it
    {
      std::lock_guard<std::mutex> l(m);
      running = false;
      owns = false;
    }
    cv.notify_all();
  }

  // The event loop: until told to stop or the connection breaks.
  void Serve(Window w) {
    Display* const d = x->get();
    uint64_t stamped = 0;  // the last Set for which a time stamp was asked
    for (;;) {
      while (x->Pending()) {
        XEvent e;
        XNextEvent(d, &e);
        if (e.type == SelectionRequest)
          Answer(e.xselectionrequest);
        else if (e.type == SelectionClear && e.xselectionclear.selection == x->atom(kClipboard))
          Lost();
        else if (e.type == PropertyNotify && e.xproperty.window == w &&
                 e.xproperty.atom == x->atom(kProperty) && e.xproperty.state == PropertyNewValue)
          TakeSelection(w, e.xproperty.time, stamped);
      }
      if (x->Broken()) return;
      uint64_t want;
      {
        std::lock_guard<std::mutex> l(m);
        if (quit) return;
        want = wanted;
      }
      if (want > stamped) {
        // The selection is taken at a server time, never at CurrentTime: a zero-length append
        // to a property of the window gives one in the PropertyNotify it causes.
        XChangeProperty(d, w, x->atom(kProperty), XA_STRING, 8, PropModeAppend, nullptr, 0);
        stamped = want;
      }
      // Sending may have read events into Xlib's queue, where poll would not see them.
      if (x->Pending()) continue;
      if (x->Broken()) return;
      pollfd p[2] = {{ConnectionNumber(d), POLLIN, 0}, {wake[0], POLLIN, 0}};
      if (poll(p, 2, -1) < 0 && errno != EINTR) return;
      if (p[0].revents != 0 && x->ServerGone()) return;
      if (p[1].revents & POLLIN) {
        char drain[64];
        while (read(wake[0], drain, sizeof drain) > 0) {
        }
      }
    }
  }

  void TakeSelection(Window w, Time time, uint64_t stamped) {
    Display* const d = x->get();
    XSetSelectionOwner(d, x->atom(kClipboard), w, time);
    const bool ok = XGetSelectionOwner(d, x->atom(kClipboard)) == w && !x->Broken();
    {
      std::lock_guard<std::mutex> l(m);
      confirmed = stamped;
      confirmedOk = ok;
      owns = ok;
    }
    cv.notify_all();
  }

  // Another client owns the selection now.
  void Lost() {
    std::lock_guard<std::mutex> l(m);
    owns = false;
  }

  void Answer(const XSelectionRequestEvent& r) {
    Display* const d = x->get();
    XSelectionEvent n{};
    n.type = SelectionNotify;
    n.display = d;
    n.requestor = r.requestor;
    n.selection = r.selection;
    n.target = r.target;
    n.time = r.time;
    n.property = None;
    // Clients of the oldest conventions name no property: the target's name serves.
    const Atom property = r.property != None ? r.property : r.target;
    std::shared_ptr<const Texts> t;
    bool owned;
    {
      std::lock_guard<std::mutex> l(m);
      t = texts;
      owned = owns;
    }
    if (r.selection == x->atom(kClipboard) && owned && t) {
      const Atom utf8 = x->atom(kUtf8);
      auto put = [&](const std::string& bytes, Atom type) {
        if (bytes.size() > x->MaxPropertyBytes()) return;  // too long for one property
        XChangeProperty(d, r.requestor, property, type, 8, PropModeReplace,
                        reinterpret_cast<const unsigned char*>(bytes.data()), int(bytes.size()));
        n.property = property;
      };
      if (r.target == x->atom(kTargets)) {
        const Atom targets[] = {x->atom(kTargets), utf8, XA_STRING, x->atom(kText)};
        XChangeProperty(d, r.requestor, property, XA_ATOM, 32, PropModeReplace,
                        reinterpret_cast<const unsigned char*>(targets), 4);
        n.property = property;
      } else if (r.target == utf8 || r.target == x->atom(kText)) {
        put(t->utf8, utf8);
      } else if (r.target == XA_STRING) {
        put(t->latin1, XA_STRING);
      }
    }
    XEvent e;
    e.xselection = n;
    XSendEvent(d, r.requestor, False, NoEventMask, &e);
  }

  const std::string display;
  std::unique_ptr<Connection> x;  // used by the thread only, once it runs
  std::thread thread;
  int wake[2] = {-1, -1};

  std::mutex m;
  std::condition_variable cv;
  // Under m.
  bool started = false;  // the thread has said whether it serves
  bool running = false;  // it serves
  bool quit = false;
  bool owns = false;         // it owns the selection, as far as it has heard
  uint64_t wanted = 0;       // the number of the last Set
  uint64_t confirmed = 0;    // the number of the last Set the thread has answered
  bool confirmedOk = false;  // ... and whether it took the selection for it
  Window window = None;      // its window, while it runs
  std::shared_ptr<const Texts> texts;
};

// ---------------------------------------------------------------------------------------------
// The clipboard
// ---------------------------------------------------------------------------------------------

TQXLinuxClipboard::TQXLinuxClipboard(const char* display)
    : fromEnvironment_(display == nullptr), display_(display ? display : "") {}

TQXLinuxClipboard::~TQXLinuxClipboard() {
  Stop();
}

TQXLinuxClipboard& TQXLinuxClipboard::System() {
  static QXPlatform::NoDestructor<TQXLinuxClipboard> clipboard(nullptr);
  return clipboard.get();
}

bool TQXLinuxClipboard::DisplayName(std::string& name) const {
  if (fromEnvironment_) {
    const char* env = std::getenv("DISPLAY");
    name.assign(env ? env : "");
  } else {
    name = display_;
  }
  return !name.empty();
}

void TQXLinuxClipboard::Stop() {
  std::lock_guard<std::mutex> api(api_);
  StopLocked();
}

void TQXLinuxClipboard::StopLocked() {
  if (!owner_) return;
  owner_->Stop();
  owner_.reset();
  std::lock_guard<std::mutex> l(Live().m);
  Live().live.erase(this);
}

TQXLinuxClipboard::Owner* TQXLinuxClipboard::OwnerFor(const std::string& display) {
  if (owner_ && owner_->display == display && owner_->Alive()) return owner_.get();
  // A thread that lost its display, or serves another one, gives way.
  StopLocked();
  if (gExiting) return nullptr;
  auto connection = std::make_unique<Connection>(display);
  if (!connection->Opened()) return nullptr;
  auto owner = std::make_unique<Owner>(display, std::move(connection));
  if (!owner->Start()) {
    owner->Stop();
    return nullptr;
  }
  static ExitHook hook;
  owner_ = std::move(owner);
  std::lock_guard<std::mutex> l(Live().m);
  Live().live.insert(this);
  return owner_.get();
}

bool TQXLinuxClipboard::Set(const char* text) {
  std::string library(text ? text : "");
  std::lock_guard<std::mutex> api(api_);
  std::string name;
  if (DisplayName(name)) {
    if (Owner* owner = OwnerFor(name)) {
      auto texts = std::make_shared<Owner::Texts>();
      texts->utf8 = QXClipboardTextToX(library, CodePage());
      texts->latin1 = QXClipboardUtf8ToLatin1(texts->utf8);
      texts->library = std::move(library);
      return owner->Publish(std::move(texts));
    }
  }
  local_ = std::move(library);
  hasLocal_ = true;
  return true;
}

bool TQXLinuxClipboard::Get(std::string& out) {
  const uint32_t codePage = CodePage();
  std::lock_guard<std::mutex> api(api_);
  std::string name;
  std::unique_ptr<Connection> c;
  if (DisplayName(name)) c = std::make_unique<Connection>(name);
  if (!c || !c->Opened()) {
    if (!hasLocal_) return false;
    out = local_;
    return true;
  }
  ThisThreadUses uses(c->get());
  if (!c->Intern()) return false;
  const Window owner = XGetSelectionOwner(c->get(), c->atom(kClipboard));
  if (owner == None || c->Broken()) return false;
  // Our own text comes back as it was set.
  if (owner_ && owner_->display == name && owner == owner_->OwnerWindow() && owner_->HeldText(out))
    return true;
  const Window w = c->MakeWindow();
  std::string bytes;
  Atom type = None;
  bool ok = false;
  for (Atom target : {c->atom(kUtf8), Atom(XA_STRING)}) {
    ok = Transfer(*c, w, target, bytes, type);
    if (ok && type == c->atom(kUtf8)) break;
    if (ok && type == XA_STRING) {
      bytes = QXClipboardLatin1ToUtf8(bytes);
      break;
    }
    ok = false;  // refused, or a type that is not text
    if (c->Broken()) break;
  }
  if (!c->Broken()) XDestroyWindow(c->get(), w);
  if (!ok) return false;
  out = QXClipboardTextFromX(bytes, codePage);
  return true;
}

bool TQXLinuxClipboard::Has() {
  std::lock_guard<std::mutex> api(api_);
  std::string name;
  std::unique_ptr<Connection> c;
  if (DisplayName(name)) c = std::make_unique<Connection>(name);
  if (!c || !c->Opened()) return hasLocal_;
  ThisThreadUses uses(c->get());
  if (!c->Intern()) return false;
  return XGetSelectionOwner(c->get(), c->atom(kClipboard)) != None && !c->Broken();
}
