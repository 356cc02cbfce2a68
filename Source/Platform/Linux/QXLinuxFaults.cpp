// Processor faults as calls of a per-thread translator, on Linux.
//
// Signal actions are process-wide, while translators are per thread, so:
//  - one handler serves SIGSEGV, SIGBUS, SIGFPE and SIGILL (SIGTRAP, the breakpoint, is left
//    alone). It is installed with SA_SIGINFO | SA_ONSTACK | SA_NODEFER when the first thread
//    installs a translator, and the previous actions are put back when the last one removes it;
//  - a thread_local slot holds the thread's translator, and each such thread gets its own
//    alternate signal stack, so that a stack overflow can still be reported;
//  - the handler calls the translator on the faulting thread. It throws: the library is built
//    with -fnon-call-exceptions, so the unwinder can leave the signal frame and the faulting
//    instruction. SA_NODEFER keeps the signal unblocked after such an exit, so the next fault is
//    caught too.
// Only synchronous faults are translated (si_code > 0): a signal sent by kill() or raise() is
// handed to the previous action, since throwing at an arbitrary point is not safe.
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <exception>

#include "Platform/QXPlatform.h"
#include "Platform/QXPlatformFaults.h"

namespace {

constexpr int kFaultSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};
constexpr size_t kAltStackSize = 64 * 1024;

thread_local TQXPlatformFaults::Translator tTranslator = nullptr;

struct sigaction gPreviousActions[4];
std::atomic<int> gThreadsWithTranslator{0};

// The alternate signal stack of a thread with a translator; given back when the thread ends.
struct AltStack {
  void* base = nullptr;
  ~AltStack() {
    if (!base) return;
    stack_t off = {};
    off.ss_flags = SS_DISABLE;
    sigaltstack(&off, nullptr);
    munmap(base, kAltStackSize);
  }
  void Ensure() {
    if (base) return;
    void* p =
        mmap(nullptr, kAltStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) return;  // faults are still translated, only not a stack overflow
    stack_t ss = {};
    ss.ss_sp = p;
    ss.ss_size = kAltStackSize;
    if (sigaltstack(&ss, nullptr) != 0) {
      munmap(p, kAltStackSize);
      return;
    }
    base = p;
  }
};
thread_local AltStack tAltStack;

int IndexOf(int sig) {
  for (int i = 0; i < 4; ++i)
    if (kFaultSignals[i] == sig) return i;
  return -1;
}

uint32_t FaultCode(int sig, const siginfo_t* info) {
  switch (sig) {
    case SIGFPE:
      if (info->si_code == FPE_INTDIV) return kQXFaultIntDivideByZero;
      if (info->si_code == FPE_INTOVF) return kQXFaultIntOverflow;
      return kQXFaultFloat;
    case SIGILL:
      return kQXFaultIllegalInstruction;
    case SIGBUS:
      return kQXFaultMisalignment;
    default:  // SIGSEGV, also for an exhausted stack
      return kQXFaultAccessViolation;
  }
}

void RestorePrevious(int sig) {
  int i = IndexOf(sig);
  if (i >= 0) sigaction(sig, &gPreviousActions[i], nullptr);
}

void OnFault(int sig, siginfo_t* info, void*) {
  TQXPlatformFaults::Translator t = tTranslator;
  if (t && info->si_code > 0) {
    t(FaultCode(sig, info));  // throws, as a rule
  }
  // No translator here, a signal sent by a process, or a translator that lets the fault pass:
  // give the signal its previous course. A synchronous fault recurs when this handler returns;
  // a sent signal must be sent again.
  RestorePrevious(sig);
  if (info->si_code <= 0) raise(sig);
}

void InstallHandlers() {
  struct sigaction action = {};
  action.sa_sigaction = OnFault;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
  sigemptyset(&action.sa_mask);
  for (int i = 0; i < 4; ++i)
    sigaction(kFaultSignals[i], &action, &gPreviousActions[i]);
}

void RemoveHandlers() {
  for (int i = 0; i < 4; ++i)
    sigaction(kFaultSignals[i], &gPreviousActions[i], nullptr);
}

class TQXLinuxFaults final : public TQXPlatformFaults {
 public:
  Translator SetTranslator(Translator t) override {
    Translator previous = tTranslator;
    if (t && !previous) {
      tAltStack.Ensure();
      if (gThreadsWithTranslator.fetch_add(1) == 0) InstallHandlers();
    } else if (!t && previous) {
      if (gThreadsWithTranslator.fetch_sub(1) == 1) RemoveHandlers();
    }
    tTranslator = t;
    return previous;
  }

  // Linux shows no boxes for critical errors; the mode is kept so that it reads back.
  uint32_t SetErrorMode(uint32_t mode) override { return errorMode_.exchange(mode); }

  TerminateHandler SetTerminateHandler(TerminateHandler h) override {
    return std::set_terminate(h);
  }

 private:
  std::atomic<uint32_t> errorMode_{0};
};

}  // namespace

TQXPlatformFaults& TQXPlatformFaults::System() {
  static QXPlatform::NoDestructor<TQXLinuxFaults> faults;
  return faults.get();
}
