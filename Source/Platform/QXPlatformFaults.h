// QXPlatformFaults.h: the role that turns processor faults into calls of a translator.
//
// A translator is installed per thread. When a synchronous fault (invalid access, integer
// division by zero, illegal instruction, bus error) happens on a thread that has one, the
// translator is called on that thread, at the faulting instruction, with the system's fault
// code (the values below). A translator that throws unwinds from the faulting instruction; one
// that returns lets the fault take its previous course. On a thread without a translator a fault
// keeps its previous course. Breakpoints are never handed to a translator.
//
// The role also carries the two process-wide settings that go with the translator: the error
// mode (whether the system shows boxes for critical errors) and the terminate handler.
#ifndef QXPLATFORMFAULTS_H
#define QXPLATFORMFAULTS_H

#include <cstdint>

// Fault codes handed to a translator.
enum : uint32_t {
  kQXFaultAccessViolation = 0xC0000005,
  kQXFaultIllegalInstruction = 0xC000001D,
  kQXFaultIntDivideByZero = 0xC0000094,
  kQXFaultIntOverflow = 0xC0000095,
  kQXFaultFloat = 0xC0000090,
  kQXFaultMisalignment = 0x80000002,
  kQXFaultBreakpoint = 0x80000003,
  kQXFaultStackOverflow = 0xC00000FD,
};

// Error mode bits.
enum : uint32_t {
  kQXErrorModeFailCriticalErrors = 0x0001,
  kQXErrorModeNoOpenFileErrorBox = 0x8000,
};

class TQXPlatformFaults {
 public:
  using Translator = void (*)(uint32_t faultCode);
  using TerminateHandler = void (*)();

  virtual ~TQXPlatformFaults() = default;

  // Installs `t` (null: none) as the calling thread's translator; returns the one it replaces.
  virtual Translator SetTranslator(Translator t) = 0;
  // Sets the process's error mode; returns the previous one.
  virtual uint32_t SetErrorMode(uint32_t mode) = 0;
  // Installs the process's terminate handler; returns the previous one.
  virtual TerminateHandler SetTerminateHandler(TerminateHandler h) = 0;

  // The Linux implementation: signal handlers on an alternate stack (see QXLinuxFaults.cpp).
  static TQXPlatformFaults& System();
};

#endif  // QXPLATFORMFAULTS_H
