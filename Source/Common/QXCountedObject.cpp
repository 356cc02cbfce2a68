// IQXUnknown and the two counted bases.
#include "QXCountedObject.h"

#include "QXException.h"

namespace {

// The creation routine shared by both bases: the steps and their order are those every Create of
// the library follows.
template <class T>
void CreateInto(IQXUnknown** slot) {
  if (!slot) return;
  if (*slot) {
    (*slot)->Release();
    *slot = nullptr;
  }
  T* object = new T;  // null, constructing nothing, when the allocator has no memory
  // Only a constructor that wrote into the slot could make it non-null here; what it put there
  // is released like any earlier occupant.
  if (*slot) (*slot)->Release();
  *slot = object;
}

}  // namespace

// The bare interface: every slot but the destructor throws.
IQXUnknown::~IQXUnknown() = default;

uint32_t IQXUnknown::QueryInterface(uint32_t, void**) {
  QXThrowNotImplemented();
}

int32_t IQXUnknown::AddRef() {
  QXThrowNotImplemented();
}

int32_t IQXUnknown::Release() {
  QXThrowNotImplemented();
}

namespace {
// The counting of both counted classes: one code, plain (not atomic) stores, wrapping as 32-bit
// arithmetic does instead of overflowing.
int32_t CountUp(int32_t& refCount) {
  refCount = int32_t(uint32_t(refCount) + 1u);
  return refCount;
}

template <class T>
int32_t CountDown(int32_t& refCount, T* object) {
  refCount = int32_t(uint32_t(refCount) - 1u);
  const int32_t count = refCount;
  if (count == 0) delete object;
  return count;
}
}  // namespace

// TQXCountedObject.
TQXCountedObject::~TQXCountedObject() = default;

uint32_t TQXCountedObject::QueryInterface(uint32_t, void**) {
  return kQXErrNoInterface;
}

int32_t TQXCountedObject::AddRef() {
  return CountUp(refCount);
}

int32_t TQXCountedObject::Release() {
  return CountDown(refCount, this);
}

void TQXCountedObject::Create(IQXUnknown** slot) {
  CreateInto<TQXCountedObject>(slot);
}

// TQXSMPCountedObject: the same code, deliberately not atomic.
TQXSMPCountedObject::~TQXSMPCountedObject() = default;

uint32_t TQXSMPCountedObject::QueryInterface(uint32_t, void**) {
  return kQXErrNoInterface;
}

int32_t TQXSMPCountedObject::AddRef() {
  return CountUp(refCount);
}

int32_t TQXSMPCountedObject::Release() {
  return CountDown(refCount, this);
}

void TQXSMPCountedObject::Create(IQXUnknown** slot) {
  CreateInto<TQXSMPCountedObject>(slot);
}
