// QXException.h: how the library reports failure.
//
// Each layer keeps to one way:
//  - a 32-bit result, 0 for success or one of the kQXErr codes below (files, fonts, tablet,
//    resources);
//  - a thrown TQXException carrying a code and the source position of the throw (the token
//    reader, and every operation that has no result to carry a code in);
//  - sticky state read later: the allocator's error word, a stream's fail bit.
// Assertions and notifications are calls that do nothing.
#ifndef QXEXCEPTION_H
#define QXEXCEPTION_H

#include "QXBase.h"

// The complete table of error codes. Success is 0.
enum : uint32_t {
  kQXErrTableFull = 0x80010001,        // a fixed table has no room (the pool table)
  kQXErrFailed = 0x80010002,           // general failure: allocation, bad block, bad argument
  kQXErrNotImplemented = 0x80010003,   // an operation with no implementation was called
  kQXErrUnhandled = 0x80010004,        // a processor fault or a terminate call
  kQXErrDoubleFree = 0x80010009,       // a block was freed twice
  kQXErrIO = 0x80010024,               // a file read or write failed
  kQXErrEndOfFile = 0x80010027,        // a read ran into the end of the file
  kQXErrNotFound = 0x8001002B,         // file or external item not found
  kQXErrOpenFailed = 0x8001002D,       // a file could not be opened, though it exists
  kQXErrBadPath = 0x80010032,          // a path cannot be built or split
  kQXErrVolume = 0x80010035,           // a volume or network drive operation failed
  kQXErrBadOutline = 0x80010042,       // a font outline of an unsupported kind
  kQXErrNoMemory = 0x8001006C,         // the heap could not deliver
  kQXErrResource = 0x800100C0,         // general resource file failure
  kQXErrResourceExists = 0x800100C2,   // a resource of this identity is already present
  kQXErrResourceLocked = 0x800100C4,   // a resource's protection bit forbids the change
  kQXErrResourceMissing = 0x800100C6,  // a resource or type is not there
  kQXErrNoInterface = 0x80014002,      // a counted object was asked for an interface
};

// Status numbers that stream classes hand to their fail routine. The routine only sets the
// stream's fail bit; the numbers document the cause at the call site.
enum : int32_t {
  kQXStreamBadNumber = 17001,    // bad text in a number
  kQXStreamOutOfRange = 17002,   // position out of range, or nothing to read
  kQXStreamFileEmpty = 17003,    // a read with nothing left in a file stream
  kQXStreamModeForbids = 17004,  // the stream's mode forbids the operation
  kQXStreamNullBuffer = 17005,   // a null buffer with a non-zero size
};

// Data that a thrower attaches to an exception. The exception deletes it through this
// virtual destructor.
class QX_EXPORT TQXExceptionData {
 public:
  virtual ~TQXExceptionData();
};

// The library's one exception class.
//
// Ownership: the exception owns `owned`. A copy shares the pointer without cloning or counting,
// so of an exception and its copies only one may be destroyed while attached data is present;
// catch by reference. Moving transfers the pointer and leaves the source empty.
class QX_EXPORT TQXException {
 public:
  TQXException(uint32_t code, uint32_t detail, const char* file, int32_t line);
  TQXException(uint32_t code, TQXExceptionData* owned, uint32_t detail, const char* file,
               int32_t line);
  TQXException(const TQXException& other);
  TQXException(TQXException&& other) noexcept;
  TQXException& operator=(const TQXException&) = delete;
  virtual ~TQXException();

  // The source path given at the throw; an empty string, never null, when there was none.
  virtual const char* GetFile() const;

  uint32_t code;            // the error code
  uint32_t detail;          // a second value for the thrower's use, 0 as a rule
  const char* file;         // not owned: a string literal of the throw site
  int32_t line;             // 0 when file is empty
  TQXExceptionData* owned;  // attached data, may be null; deleted by the destructor
};

// Assertions and notifications: they neither check nor report. The overloads with a value
// return it, so they can stand inside an expression.
QX_EXPORT int QX_CallAssert_(const char* file, uint32_t line, int value);
QX_EXPORT void QX_CallAssert_(const char* file, uint32_t line);
QX_EXPORT int QX_CallNotify_(const char* file, uint32_t line, const char* message, int value);
QX_EXPORT void QX_CallNotify_(const char* file, uint32_t line, const char* message);

// Throws TQXException(kQXErrNotImplemented, 0, "", 0). Every slot that an abstract class of
// the library leaves without a body calls this.
[[noreturn]] void QXThrowNotImplemented();

// true: on the calling thread, processor faults in library code (a null access, an integer
// division by zero, ...) become TQXException(kQXErrUnhandled, 0, ".\Source\Common\QXException",
// 43); a terminate call becomes the same exception with line 49; critical-error boxes are off.
// Breakpoints are never translated. false: puts back the fault translator that the last `true`
// replaced, and nothing else.
QX_EXPORT void QXInstallFailureHandlers(bool on);

#endif  // QXEXCEPTION_H
