// The desktop services on Linux. What Linux has is used for real: the user database for the
// name, sysinfo and the resource limits for memory, xdg-open for URLs and documents. What a
// library cannot have without a desktop toolkit gets the fixed answers of the role's contract:
// no beep, no colour dialog (cancelled), no mouse capture. The clipboard is the X display's
// CLIPBOARD selection, or a text held in the process when there is no display
// (QXLinuxClipboard.h); the module's string table and version text are what the host registers,
// since a Linux module has no resource section.
#include <errno.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/sysinfo.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Linux/QXLinuxClipboard.h"
#include "Platform/QXPlatform.h"
#include "Platform/QXPlatformUtilities.h"
#include "QXPlatformUtilities.h"

extern char** environ;

namespace {

class TQXLinuxServices final : public TQXPlatformServices {
 public:
  void Beep(uint32_t, uint32_t) override {}

  uint32_t LoadString(int16_t id, char* out, uint32_t capacity, uint32_t* error) override {
    auto it = strings_.find(id);
    if (it == strings_.end() || capacity == 0) {
      if (error) *error = kErrorResourceNameNotFound;
      return 0;
    }
    const size_t n = std::min<size_t>(it->second.size(), capacity - 1);
    std::memcpy(out, it->second.data(), n);
    out[n] = 0;
    return uint32_t(n);
  }

  uint32_t PlatformId() override { return kPlatformNT; }

  // The clipboard allocates (texts, a connection, a thread): running out of memory there is "the
  // clipboard could not be had", since the role's operations never throw.
  bool SetClipboardText(const char* text) override {
    try {
      return TQXLinuxClipboard::System().Set(text);
    } catch (...) {
      return false;
    }
  }
  bool GetClipboardText(std::string& out) override {
    try {
      return TQXLinuxClipboard::System().Get(out);
    } catch (...) {
      return false;
    }
  }
  bool HasClipboardText() override {
    try {
      return TQXLinuxClipboard::System().Has();
    } catch (...) {
      return false;
    }
  }

  bool UserName(std::string& out) override {
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? size_t(size) : 16384);
    passwd entry;
    passwd* found = nullptr;
    for (;;) {
      const int rc = getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found);
      if (rc == ERANGE && buffer.size() < (1u << 20)) {
        buffer.resize(buffer.size() * 2);
        continue;
      }
      if (rc != 0 || !found || !found->pw_name) return false;
      out = found->pw_name;
      return true;
    }
  }

  void MemoryStatus(uint64_t& totalPhysical, uint64_t& availableVirtual) override {
    struct sysinfo info;
    totalPhysical = sysinfo(&info) == 0 ? uint64_t(info.totalram) * info.mem_unit : 0;
    // The address space open to the process: its limit, or the user half of a 48-bit space.
    uint64_t limit = uint64_t(1) << 47;
    rlimit as;
    if (getrlimit(RLIMIT_AS, &as) == 0 && as.rlim_cur != RLIM_INFINITY && as.rlim_cur < limit)
      limit = as.rlim_cur;
    const uint64_t used = ProcessSize();
    availableVirtual = limit > used ? limit - used : 0;
  }

  bool ChooseColor(uint32_t&) override { return false; }

  void CaptureMouse(bool) override {}

  bool OpenDocument(const char* target) override {
    if (!target || !*target || target[0] == '-') return false;
    char program[] = "xdg-open";
    std::string argument(target);
    char* argv[] = {program, argument.data(), nullptr};
    pid_t pid = 0;
    if (posix_spawnp(&pid, program, nullptr, nullptr, argv, environ) != 0) return false;
    // xdg-open may wait for the application it starts; the caller does not. A thread of its own
    // collects the exit status so that no zombie is left behind.
    try {
      std::thread([pid] {
        int status;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
      }).detach();
    } catch (...) {
      // No thread to spare: the child is collected by whoever reaps the process's children.
    }
    return true;
  }

  bool AppVersionText(std::string& out) override {
    if (!hasVersion_) return false;
    out = version_;
    return true;
  }

  void RegisterString(int16_t id, const char* text) {
    if (!text || !*text)
      strings_.erase(id);
    else
      strings_[id] = text;
  }
  void SetVersionText(const char* text) {
    hasVersion_ = text != nullptr;
    version_.assign(text ? text : "");
  }

 private:
  // The process's current virtual size in bytes (first figure of /proc/self/statm, in pages).
  static uint64_t ProcessSize() {
    FILE* f = std::fopen("/proc/self/statm", "r");
    if (!f) return 0;
    unsigned long long pages = 0;
    if (std::fscanf(f, "%llu", &pages) != 1) pages = 0;
    std::fclose(f);
    const long page = sysconf(_SC_PAGESIZE);
    return pages * uint64_t(page > 0 ? page : 4096);
  }

  std::map<int16_t, std::string> strings_;
  std::string version_;
  bool hasVersion_ = false;
};

TQXLinuxServices& Linux() {
  static QXPlatform::NoDestructor<TQXLinuxServices> services;
  return services.get();
}

}  // namespace

TQXPlatformServices& TQXPlatformServices::System() {
  return Linux();
}

void QXRegisterStringResource(int16_t id, const char* text) {
  Linux().RegisterString(id, text);
}

void QXSetAppVersionText(const char* text) {
  Linux().SetVersionText(text);
}
