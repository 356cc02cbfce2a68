// TQXException, the assert and notify entry points, and the fault handlers.
#include "QXException.h"

#include "Platform/QXPlatform.h"
#include "Platform/QXPlatformFaults.h"

namespace {

// The source path that fault reports name, and their two lines: 43 for a processor fault, 49 for
// a terminate call. They are the values the host sees, kept as they are.
constexpr const char kThisFile[] = ".\\Source\\Common\\QXException";
constexpr int32_t kFaultLine = 43;
constexpr int32_t kTerminateLine = 49;

// The translator that the last QXInstallFailureHandlers(true) replaced. Plain memory, like the
// rest of the library's process-wide state.
TQXPlatformFaults::Translator gKeptTranslator = nullptr;

void TranslateFault(uint32_t faultCode) {
  if (faultCode == kQXFaultBreakpoint) return;  // breakpoints take their own course
  throw TQXException(kQXErrUnhandled, 0, kThisFile, kFaultLine);
}

// The terminate handler throws. Called directly, the exception reaches the caller. Called by
// the C++ runtime's std::terminate, the runtime catches what the handler throws and aborts, so a
// terminate handler can never make std::terminate return.
void OnTerminate() {
  throw TQXException(kQXErrUnhandled, 0, kThisFile, kTerminateLine);
}

}  // namespace

TQXExceptionData::~TQXExceptionData() = default;

TQXException::TQXException(uint32_t code_, uint32_t detail_, const char* file_, int32_t line_)
    : code(code_), detail(detail_), file(file_), line(line_), owned(nullptr) {}

TQXException::TQXException(uint32_t code_, TQXExceptionData* owned_, uint32_t detail_,
                           const char* file_, int32_t line_)
    : code(code_), detail(detail_), file(file_), line(line_), owned(owned_) {}

TQXException::TQXException(const TQXException& other)
    : code(other.code),
      detail(other.detail),
      file(other.file),
      line(other.line),
      owned(other.owned) {}

TQXException::TQXException(TQXException&& other) noexcept
    : code(other.code),
      detail(other.detail),
      file(other.file),
      line(other.line),
      owned(other.owned) {
  other.owned = nullptr;
}

TQXException::~TQXException() {
  delete owned;
}

const char* TQXException::GetFile() const {
  return file ? file : "";
}

int QX_CallAssert_(const char*, uint32_t, int value) {
  return value;
}
void QX_CallAssert_(const char*, uint32_t) {}
int QX_CallNotify_(const char*, uint32_t, const char*, int value) {
  return value;
}
void QX_CallNotify_(const char*, uint32_t, const char*) {}

void QXThrowNotImplemented() {
  throw TQXException(kQXErrNotImplemented, 0, "", 0);
}

void QXInstallFailureHandlers(bool on) {
  TQXPlatformFaults& faults = QXPlatform::Get<TQXPlatformFaults>();
  if (!on) {
    faults.SetTranslator(gKeptTranslator);
    return;
  }
  gKeptTranslator = faults.SetTranslator(TranslateFault);
  faults.SetErrorMode(kQXErrorModeFailCriticalErrors | kQXErrorModeNoOpenFileErrorBox);
  faults.SetTerminateHandler(OnTerminate);
}
