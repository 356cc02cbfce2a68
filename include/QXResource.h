// QXResource.h: one resource in memory, the stream over its bytes, and the host's last resort
// for a failed lookup.
//
// A TQXResource is one blob: its data, size, id, type code, name and its tie to the
// TQXResourceFile that holds it. It is either
//   - free-standing: made by the host with the first constructor, owning its buffer, use count
//     1, not in any file; one ReleaseResource destroys it; or
//   - attached: made by a file when one of its entries is loaded, or handed to AddResource. Its
//     life is then the file's business: the last ReleaseResource gives it back to its entry,
//     which destroys it unless its data has changed since the file was last written.
// Every lookup that succeeds hands out one hold (a use count) that the caller gives back with
// ReleaseResource. The resource does not notice changes written through its data pointer:
// MarkChanged tells the file.
//
// Results: 0 or a code of QXException.h. Nothing here throws.
#ifndef QXRESOURCE_H
#define QXRESOURCE_H

#include "QXBase.h"
#include "QXMemory.h"
#include "QXStrStream.h"
#include "QXString.h"

class TQXResourceFile;

class QX_EXPORT TQXResource {
 public:
  QX_CLASS_ALLOCATION

  // Free-standing. A null `data` is replaced by a fresh QXmalloc(size) block (left null when
  // size is 0, or when the allocation fails: then size is still as given and the data pointer
  // null); a given block must come from QXmalloc and is adopted: the resource frees it.
  // file null, attributes 0, use count 1.
  TQXResource(void* data, uint32_t size, int16_t id, uint32_t type, const TQXString& name);
  // Attached to `file`, use count 0. Only a file's loader makes these.
  TQXResource(void* data, uint32_t size, int16_t id, uint32_t type, const TQXString& name,
              TQXResourceFile* file);
  // Frees the data. An attached resource first leaves its entry, unless the entry carries the
  // changed bit (the entry then holds a handle that leads nowhere, and reads as not loaded).
  ~TQXResource();
  TQXResource(const TQXResource&) = delete;
  TQXResource& operator=(const TQXResource&) = delete;

  // Gives back one hold. At zero: an attached resource detaches from its entry and dies, unless
  // its entry carries the changed bit (0x800100C6: it then stays alive in its entry, now
  // free-standing with use count 0, and each later last release asks the entry again); a
  // free-standing one that no entry holds dies. 0, or the file's result.
  uint32_t ReleaseResource();
  // Takes the entry out of the file (0x800100C4 for a protected entry); whatever the file says,
  // the object is cut loose and free-standing afterwards, and the caller releases it. 0 when not
  // in a file.
  uint32_t Remove();
  // Writes the data over the entry's block in the file, or behind the file's end when it grew.
  // Only for an entry with the changed bit and without the protected bit (else 0x800100C6).
  // 0x800100C0 when not in a file.
  uint32_t Write();
  // Sets the entry's changed bit (0x800100C6 when protected). 0 when not in a file.
  uint32_t MarkChanged();
  // The entry lets go of this object, which stays alive (0x800100C6 when changed). 0 when not in
  // a file.
  uint32_t Forget();
  // The attribute byte: read from the entry first when in a file. Always 0 when not in a file.
  uint32_t GetAttributes(uint32_t& out);
  // Stores the value; when in a file, its low 8 bits become the entry's attribute byte.
  uint32_t SetAttributes(uint32_t value);
  // Stores the id, and the name when `name` is not null; when in a file the entry takes both
  // (0x800100C6 when protected).
  uint32_t SetInfo(int16_t newID, const TQXString* newName);

  // Replaces the data block by `block` (from QXmalloc, adopted; may be null with size 0) and
  // frees the old one. The file is not told: call MarkChanged.
  void AdoptData(void* block, uint32_t newSize);

  void* GetData() const { return data; }
  uint32_t GetSize() const { return size; }
  int16_t GetID() const { return id; }
  uint32_t GetType() const { return type; }
  const TQXString& GetName() const { return name; }
  TQXResourceFile* GetFile() const { return file; }
  int32_t GetUseCount() const { return useCount; }
  bool IsFreeStanding() const { return freeStanding; }

 private:
  friend class TQXResourceFile;

  TQXResourceFile* file;  // owner, null when free-standing
  uint32_t size;          // bytes of data
  void* data;             // from QXmalloc; owned
  int16_t id;
  uint32_t type;
  uint32_t attributes;  // last value given to SetAttributes, or read by GetAttributes
  int32_t useCount;     // outstanding holds
  TQXString255 name;
  bool freeStanding;  // true: the destructor frees the data
  // The 32-bit handle that stands for this object in a map image's object slot (0: none yet).
  // See QXResourceFile.h.
  uint32_t handle;
};

// The host's last resort: GetAnyResource calls HandleLostResource when no open file has the
// resource. Derive from it and install it with TQXResourceFile::SetLostResourceHandler.
class QX_EXPORT TQXLostResourceHandler {
 public:
  QX_CLASS_ALLOCATION
  TQXLostResourceHandler() = default;
  virtual ~TQXLostResourceHandler();
  // Sets `out` and returns 0 to answer the lookup. The base answers 0x800100C0.
  virtual uint32_t HandleLostResource(uint32_t type, int16_t id, TQXResource*& out, bool read);
};

// Big-endian reading and writing over a resource's bytes (the stream of QXStrStream.h). The
// stream sees the data pointer and size as they are when it is made, from position 0; it holds
// no use count, so the caller keeps the resource alive while the stream is used. Writes stay
// inside the blob (a stream on caller memory cannot grow).
class QX_EXPORT TQXResourceStream : public TQXByteSwapStream {
 public:
  explicit TQXResourceStream(TQXResource& resource, uint32_t mode = kQXStreamReadable);
  ~TQXResourceStream() override;

  TQXResource* resource;
};

#endif  // QXRESOURCE_H
