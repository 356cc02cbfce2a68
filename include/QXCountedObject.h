// QXCountedObject.h: objects that live by reference count.
//
// Every object that crosses the library's boundary through an abstract interface (IQXFile,
// IQXFont, IQXFontList) derives from IQXUnknown and is counted, not deleted: it starts with a
// count of 1 for its creator, AddRef adds a holder, Release removes one and destroys the object
// when the count reaches 0. The counting is plain, non-atomic arithmetic: an object is counted
// from one thread at a time, like all of the library's state.
//
// Memory: the objects are allocated through the library's allocator (QX_CLASS_ALLOCATION), and
// `delete` gives them back to it, so a Release that reaches 0 frees through the allocator.
#ifndef QXCOUNTEDOBJECT_H
#define QXCOUNTEDOBJECT_H

#include "QXBase.h"
#include "QXMemory.h"

// The root of the counted interfaces. Its three operations have no body here: called on a bare
// interface they throw TQXException(kQXErrNotImplemented). Derived interfaces append their own
// operations behind these.
class IQXUnknown {
 public:
  QX_CLASS_ALLOCATION

  virtual ~IQXUnknown();
  // Asks for another interface of the object. `result` receives it on success.
  virtual uint32_t QueryInterface(uint32_t id, void** result);
  // Adds a holder; returns the new count.
  virtual int32_t AddRef();
  // Removes a holder; destroys the object when the count reaches 0. Returns the new count.
  virtual int32_t Release();

 protected:
  IQXUnknown() = default;
  IQXUnknown(const IQXUnknown&) = default;
  IQXUnknown& operator=(const IQXUnknown&) = default;
};

// The counted base of the library's objects.
//
// QueryInterface ignores its arguments and answers kQXErrNoInterface: the library has no
// interface discovery, the static type is what counts. Release on an object whose count is
// already 0 takes it to -1 and deletes nothing; nothing guards against it.
class TQXCountedObject : public IQXUnknown {
 public:
  TQXCountedObject() : refCount(1) {}
  ~TQXCountedObject() override;

  uint32_t QueryInterface(uint32_t id, void** result) override;
  int32_t AddRef() override;
  int32_t Release() override;

  // Replaces the object in `*slot` by a new TQXCountedObject: releases and clears what the slot
  // holds, allocates and constructs the new object (count 1), and stores it, or null when the
  // allocation failed. A null `slot` does nothing.
  static void Create(IQXUnknown** slot);

  int32_t RefCount() const { return refCount; }

 protected:
  int32_t refCount;  // 1 at construction, for the creator
};

// The counted base of objects meant for use on more than one processor. It is a type of its own
// (its own virtual table and type identity), but its counting is exactly that of
// TQXCountedObject: plain, with no locked or atomic operation. Making it stronger would change
// the whole library's threading contract, so it stays as it is.
class TQXSMPCountedObject : public IQXUnknown {
 public:
  TQXSMPCountedObject() : refCount(1) {}
  ~TQXSMPCountedObject() override;

  uint32_t QueryInterface(uint32_t id, void** result) override;
  int32_t AddRef() override;
  int32_t Release() override;

  // As TQXCountedObject::Create, with a new TQXSMPCountedObject.
  static void Create(IQXUnknown** slot);

  int32_t RefCount() const { return refCount; }

 protected:
  int32_t refCount;
};

// A holder of one counted object. It counts what it holds: assigning AddRefs the new target
// before it Releases the old one (so assigning an object to the holder that already holds it,
// or that holds its last owner, is safe), Clear Releases and empties.
//
// A function that hands out an object takes the address of such a holder; it clears it first,
// then stores and AddRefs (Set does both). So the caller's old object is released before the new
// one is filled in, and an allocation failure leaves the holder empty.
template <class T>
class TQXCountedPtr {
 public:
  TQXCountedPtr() = default;
  explicit TQXCountedPtr(T* p) { Set(p); }
  TQXCountedPtr(const TQXCountedPtr& other) { Set(other.fPtr); }
  TQXCountedPtr(TQXCountedPtr&& other) noexcept : fPtr(other.fPtr) { other.fPtr = nullptr; }
  ~TQXCountedPtr() { Clear(); }

  TQXCountedPtr& operator=(T* p) {
    Set(p);
    return *this;
  }
  TQXCountedPtr& operator=(const TQXCountedPtr& other) {
    Set(other.fPtr);
    return *this;
  }
  TQXCountedPtr& operator=(TQXCountedPtr&& other) noexcept {
    if (this != &other) {
      Clear();
      fPtr = other.fPtr;
      other.fPtr = nullptr;
    }
    return *this;
  }

  // Holds `p`: nothing happens if it is already held; otherwise AddRef `p`, Release the old one.
  void Set(T* p) {
    if (p == fPtr) return;
    if (p) p->AddRef();
    T* old = fPtr;
    fPtr = p;
    if (old) old->Release();
  }

  // Releases what is held and empties the holder.
  void Clear() {
    T* old = fPtr;
    fPtr = nullptr;
    if (old) old->Release();
  }

  // Takes over `p` without counting: for an object whose creator's count is handed to the holder.
  void Adopt(T* p) {
    Clear();
    fPtr = p;
  }

  T* Get() const { return fPtr; }
  T* operator->() const { return fPtr; }
  T& operator*() const { return *fPtr; }
  explicit operator bool() const { return fPtr != nullptr; }

 private:
  T* fPtr = nullptr;
};

#endif  // QXCOUNTEDOBJECT_H
