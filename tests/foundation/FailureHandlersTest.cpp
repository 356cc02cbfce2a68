// QXInstallFailureHandlers: the translation rules through the fake role (breakpoints, the kept
// translator, the error mode, the terminate handler), and real faults on Linux.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>
#include <thread>

#include "Platform/Fake/QXFakeFaults.h"
#include "Platform/QXPlatform.h"
#include "QXException.h"

namespace {

void ExpectUnhandledAt(const TQXException& e, int32_t line) {
  EXPECT_EQ(e.code, kQXErrUnhandled);
  EXPECT_EQ(e.detail, 0u);
  EXPECT_STREQ(e.GetFile(), ".\\Source\\Common\\QXException");
  EXPECT_EQ(e.line, line);
}

TEST(FailureHandlersFake, InstallSetsTranslatorErrorModeAndTerminateHandler) {
  TQXFakeFaults fake;
  QXPlatform::ScopedRole<TQXPlatformFaults> scope(fake);
  QXInstallFailureHandlers(true);
  EXPECT_NE(fake.translator, nullptr);
  EXPECT_EQ(fake.errorMode, 0x8001u);
  ASSERT_NE(fake.terminateHandler, nullptr);
  try {
    fake.Raise(0xC0000005);
    FAIL() << "access violation not translated";
  } catch (const TQXException& e) {
    ExpectUnhandledAt(e, 43);
  }
  try {
    fake.Terminate();
    FAIL() << "terminate handler did not throw";
  } catch (const TQXException& e) {
    ExpectUnhandledAt(e, 49);
  }
  QXInstallFailureHandlers(false);
}

TEST(FailureHandlersFake, BreakpointPassesThrough) {
  TQXFakeFaults fake;
  QXPlatform::ScopedRole<TQXPlatformFaults> scope(fake);
  QXInstallFailureHandlers(true);
  EXPECT_TRUE(fake.Raise(0x80000003));  // the translator returned: no exception
  QXInstallFailureHandlers(false);
}

TEST(FailureHandlersFake, FalsePutsBackOnlyTheKeptTranslator) {
  TQXFakeFaults fake;
  QXPlatform::ScopedRole<TQXPlatformFaults> scope(fake);
  QXInstallFailureHandlers(true);
  QXInstallFailureHandlers(false);
  EXPECT_EQ(fake.translator, nullptr);
  EXPECT_EQ(fake.errorMode, 0x8001u);         // stays
  EXPECT_NE(fake.terminateHandler, nullptr);  // stays

  // Installed twice: the second call keeps the library's own translator, so false leaves one.
  QXInstallFailureHandlers(true);
  QXInstallFailureHandlers(true);
  QXInstallFailureHandlers(false);
  EXPECT_NE(fake.translator, nullptr);
  fake.translator = nullptr;
}

// Real faults. The faulting instruction sits in this file, built with -fnon-call-exceptions.
// The sanitizers check null accesses and divisions themselves, so these helpers are left
// unchecked: the point is what the processor does.
#if defined(__clang__)
#define QX_NO_SANITIZE __attribute__((no_sanitize("undefined", "address")))
#else
#define QX_NO_SANITIZE __attribute__((no_sanitize_undefined, no_sanitize_address))
#endif

// The operands pass through volatile locals so that the compiler cannot see them.
QX_NO_SANITIZE __attribute__((noipa)) int ReadThrough(const int* p) {
  const int* volatile q = p;
  return *q;
}
QX_NO_SANITIZE __attribute__((noipa)) void WriteThrough(int* p) {
  int* volatile q = p;
  *q = 1;
}
QX_NO_SANITIZE __attribute__((noipa)) int Divide(int a, int b) {
  volatile int d = b;
  return a / d;
}

// ThreadSanitizer takes fault signals over and delivers them at its own times, so real faults are
// tested in the plain and the address-sanitizer builds.
#if defined(__SANITIZE_THREAD__)
#define SKIP_UNDER_TSAN() GTEST_SKIP() << "ThreadSanitizer handles fault signals itself"
#else
#define SKIP_UNDER_TSAN() (void)0
#endif

template <class F>
bool ThrowsUnhandled(F f) {
  try {
    f();
  } catch (const TQXException& e) {
    ExpectUnhandledAt(e, 43);
    return true;
  }
  return false;
}

TEST(FailureHandlersLinux, NullAccessAndDivisionByZeroBecomeExceptions) {
  SKIP_UNDER_TSAN();
  QXInstallFailureHandlers(true);
  struct Witness {
    bool* ran;
    ~Witness() { *ran = true; }
  };
  bool unwound = false;
  EXPECT_TRUE(ThrowsUnhandled([&] {
    Witness w{&unwound};
    ReadThrough(nullptr);
  }));
  EXPECT_TRUE(unwound) << "destructors between the fault and the handler run";
  EXPECT_TRUE(ThrowsUnhandled([] { WriteThrough(nullptr); }));
  EXPECT_TRUE(ThrowsUnhandled([] { Divide(1, 0); }));
  // Again: the signal is not left blocked after the first throw.
  EXPECT_TRUE(ThrowsUnhandled([] { ReadThrough(nullptr); }));
  QXInstallFailureHandlers(false);
}

TEST(FailureHandlersLinux, BreakpointSignalIsLeftAlone) {
  struct sigaction before, after;
  sigaction(SIGTRAP, nullptr, &before);
  QXInstallFailureHandlers(true);
  sigaction(SIGTRAP, nullptr, &after);
  QXInstallFailureHandlers(false);
  EXPECT_EQ(before.sa_handler, after.sa_handler);
}

TEST(FailureHandlersLinux, RemovingRestoresThePreviousActions) {
  struct sigaction before, during, after;
  sigaction(SIGSEGV, nullptr, &before);
  QXInstallFailureHandlers(true);
  sigaction(SIGSEGV, nullptr, &during);
  QXInstallFailureHandlers(false);
  sigaction(SIGSEGV, nullptr, &after);
  EXPECT_NE(during.sa_sigaction, before.sa_sigaction);
  EXPECT_EQ(after.sa_sigaction, before.sa_sigaction);
}

TEST(FailureHandlersLinux, TranslatorIsPerThread) {
  SKIP_UNDER_TSAN();
  QXInstallFailureHandlers(true);
  bool otherThreadCaught = false;
  std::thread t([&] {
    QXInstallFailureHandlers(true);
    otherThreadCaught = ThrowsUnhandled([] { ReadThrough(nullptr); });
    QXInstallFailureHandlers(false);
  });
  t.join();
  EXPECT_TRUE(otherThreadCaught);
  // The other thread's removal leaves this thread's translator in force.
  EXPECT_TRUE(ThrowsUnhandled([] { ReadThrough(nullptr); }));
  QXInstallFailureHandlers(false);
}

TEST(FailureHandlersLinuxDeathTest, ThreadWithoutTranslatorKeepsTheDefault) {
  SKIP_UNDER_TSAN();
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        QXInstallFailureHandlers(true);
        std::thread([] { ReadThrough(nullptr); }).join();
      },
      "");
}

}  // namespace
