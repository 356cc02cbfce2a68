// QXResourceFile.h: resource files, and the chain of those that are open.
//
// A resource file holds typed (four-character code), numbered (signed 16-bit id), optionally
// named blobs. On disk, every integer big-endian, nothing aligned or padded:
//
//   0    256-byte file header: data offset, map offset, data length, map length (4 bytes
//        each), then 240 reserved bytes (zero when written, ignored when read)
//   256  data area: per resource a 4-byte length and the blob
//   ...  resource map:
//          0  16-byte copy of the header's first 16 bytes (ignored when read)
//         16  reserved word, reserved half 1, reserved half 2 (carried through unchanged)
//         24  type list offset (from the map; 28 when written), name list offset (from the map)
//         28  type list: stored type count (count - 1; -1: no types), then per type 8 bytes:
//             type code, stored reference count (count - 1), reference list offset (from the
//             type list)
//             reference lists: per resource 12 bytes: id, name offset (from the name list; -1:
//             no name), attribute byte << 24 | data position (from the data offset; 0xFFFFFF: no
//             block on disk yet), object slot (zero on disk)
//             name list: length-prefixed names (one length byte, up to 255 bytes)
//
// The open file keeps the whole map in memory as the map image: the map's bytes with every
// integer in host order, and its first four 32-bit words replaced by the file header's values
// (the fourth, map length, is also the image's size). An entry's object slot holds, in memory,
// the 32-bit handle of the live TQXResource loaded for it (0: none): handles index a process-wide
// table of live resources, so that the image keeps the bytes of the format.
//
// Every offset and count read from a file is checked against the map before use: a map whose
// structure leaves its bounds (or whose reference lists overlap the type list or each other) is
// refused at open with 0x80010024, like a map length below 28.
//
// Writing. Changes to the map (added, removed, renamed entries) live in the image until
// UpdateResFile, which writes the whole file afresh to a temporary file in the same folder and
// then puts it in the real file's place with one atomic rename. If any step fails the real file
// is untouched, the temporary file is gone, and the image and its changed bits are as before.
// TQXResource::Write changes one block in place without a rewrite.
//
// The chain. Every file that opens successfully stands at the head of one process-wide chain;
// GetAnyResource and the chained lookups walk it from the file opened last. The known-files
// table remembers each path ever opened, so that OpenKnownFile reopens it by index.
//
// Results: 0 or a code of QXException.h; nothing here throws. All of this belongs to one thread
// at a time.
#ifndef QXRESOURCEFILE_H
#define QXRESOURCEFILE_H

#include "QXBase.h"
#include "QXFile.h"
#include "QXFileType.h"
#include "QXResource.h"
#include "QXString.h"

// Format constants.
constexpr uint32_t kQXResHeaderSize = 256;     // the file header
constexpr uint32_t kQXResMapHeaderSize = 28;   // the smallest map the reader accepts
constexpr uint32_t kQXResEmptyMapSize = 30;    // map header and a type count of -1
constexpr uint32_t kQXResNoData = 0x00FFFFFF;  // data position: no block on disk yet
constexpr uint32_t kQXResTypeStringList = QX_FOURCC('S', 'T', 'R', '#');

// Bits of the attribute byte that mean something to the engine; all others are kept as given.
enum : uint32_t {
  kQXResAttrChanged = 0x02,    // the entry or its data differ from the disk
  kQXResAttrPreload = 0x04,    // loaded at open when the file is opened with preloading
  kQXResAttrProtected = 0x08,  // may not be written, renamed, renumbered, removed or changed
};

// The host's progress display, given to UpdateResFile. The library calls Start once with the
// text "Writing resource file" and the range 100, then Report with whole values up to 100.
class TQXProgress {
 public:
  virtual ~TQXProgress() = default;
  virtual void Start(const TQXString& text, int32_t range) = 0;
  // Not called by the library.
  virtual void SetText(const TQXString&) {}
  virtual void Report(int32_t value) = 0;
};

class TQXResourceFile;

// One path of the known-files table, with the open file for it (or null).
class QX_EXPORT TQXResourceFileEntry : public TQXDynamicString {
 public:
  QX_CLASS_ALLOCATION
  TQXResourceFileEntry(const TQXString& path, TQXResourceFile* openFile);
  ~TQXResourceFileEntry() override;

  TQXResourceFile* file;
};

// What a listing shows of one entry, read from the map image (and, for diskSize, the file).
struct TQXResourceEntryInfo {
  uint32_t type = 0;
  int16_t id = 0;
  uint8_t attributes = 0;     // the attribute byte
  bool named = false;         // false: the entry has no name (name is then empty)
  TQXString255 name;          //
  uint32_t dataPosition = 0;  // from the data offset; kQXResNoData: none on disk
  bool onDisk = false;        // a length word was read for diskSize
  uint32_t diskSize = 0;      // the stored length word of the data block
  bool loaded = false;        // a live TQXResource hangs from the entry
};

class QX_EXPORT TQXResourceFile {
 public:
  QX_CLASS_ALLOCATION

  // Opens `file` (mode 3 if writable, else 1) and reads its map; on success the file stands at
  // the head of the chain and in the known-files table. Takes one reference to `file`. Failure
  // is visible only as IsLinked() false; OpenResult() tells why.
  TQXResourceFile(IQXFile* file, bool writable, bool preload);
  // Rewrites the file when something changed (the result is lost: call UpdateResFile first to
  // see it), leaves the chain, destroys every live resource of the file whatever its use count,
  // closes the file and releases it.
  ~TQXResourceFile();
  TQXResourceFile(const TQXResourceFile&) = delete;
  TQXResourceFile& operator=(const TQXResourceFile&) = delete;

  // --- Adding and writing ----------------------------------------------------------------------
  // Adds a resource, normally free-standing, as a new entry with the changed bit and no block on
  // disk; the resource becomes attached. 0x800100C2 if it is in this file already; 0x8001006C
  // without memory; 0x800100C0 when the map would outgrow its 16-bit offsets or counts, or its
  // lists are not laid out in the order every writer uses (type list, reference lists in type
  // order, name list). Ids are not checked for duplicates.
  uint32_t AddResource(TQXResource& resource);
  // Rewrites the file if an entry was removed, a block written in place, or an entry carries the
  // changed bit; otherwise 0 with nothing done. `progress` may be null.
  uint32_t UpdateResFile(TQXProgress* progress);

  // --- Lookups: every success hands out one use count --------------------------------------------
  // `read` false makes the object without reading its data (size 0, no data).
  // The first entry of the type with the id, in this file alone.
  uint32_t GetResource(uint32_t type, int16_t id, TQXResource*& out, bool read);
  // GetResource on this file, then on each next one in the chain, while out stays null.
  uint32_t GetChainedResource(uint32_t type, int16_t id, TQXResource*& out, bool read);
  // GetResource on the current file (the head of the chain); 0x800100C0 if none is open.
  static uint32_t GetCurrentResource(uint32_t type, int16_t id, TQXResource*& out, bool read);
  // The chained lookup from the current file, then the lost handler.
  static uint32_t GetAnyResource(uint32_t type, int16_t id, TQXResource*& out, bool read);
  // The first entry of the type whose name equals `name` exactly, in this file alone.
  uint32_t GetNamedResource(uint32_t type, const TQXString& name, TQXResource*& out, bool read);
  // The index-th entry (1-based) of the type.
  uint32_t GetIndexedResource(uint32_t type, int32_t index, TQXResource*& out, bool read);

  // --- Counting and listing --------------------------------------------------------------------
  // Entries of the type; 0 when absent.
  int32_t CountResources(uint32_t type) const;
  // Types in the type list.
  int32_t CountTypes() const;
  // The index-th type (1-based); out = 0 and 0x800100C0 on a bad index.
  uint32_t GetIndexedType(uint32_t& out, int32_t index) const;
  // The index-th entry (1-based) of the type as a listing shows it, without loading it.
  uint32_t GetIndexedEntryInfo(uint32_t type, int32_t index, TQXResourceEntryInfo& out);
  // An id that no entry of the type holds (a random start, masked with 0x3FFF, counted up).
  int32_t UniqueResourceID(uint32_t type) const;
  // The stored length word of the resource's block on disk; out = 0 on an error.
  uint32_t GetResourceDiskSize(TQXResource* resource, int32_t& out);

  // --- String lists ("STR#": a 16-bit count, then length-prefixed strings) -----------------------
  // The index-th string (1-based) of list `id`, searched from the current file along the chain.
  static uint32_t GetIndString(TQXString& out, int16_t id, int16_t index);
  // The same from this file; with `stop` the search does not go on along the chain.
  uint32_t GetIndString(TQXString& out, int16_t id, int16_t index, bool stop);
  static uint32_t CountIndStrings(uint16_t& out, int16_t id);
  uint32_t CountIndStrings(uint16_t& out, int16_t id, bool stop);

  // --- Per-entry operations, for TQXResource. Each finds the entry that holds the resource
  //     (0x800100C0 when none does). -----------------------------------------------------------
  // Changed: 0x800100C6. Otherwise the slot is emptied (after destroying the object if asked).
  uint32_t DropEntry(TQXResource* resource, bool destroy);
  uint32_t MarkChanged(TQXResource* resource);  // protected: 0x800100C6
  uint32_t ForgetEntry(TQXResource* resource);  // changed: 0x800100C6; the object lives on
  uint32_t RemoveEntry(TQXResource* resource);  // protected: 0x800100C4
  uint32_t WriteEntry(TQXResource* resource);   // the in-place write of TQXResource::Write
  uint32_t GetEntryAttributes(TQXResource* resource, uint32_t& out);
  uint32_t SetEntryAttributes(TQXResource* resource, uint32_t value);  // low 8 bits, unchecked
  uint32_t SetEntryInfo(TQXResource* resource);                        // protected: 0x800100C6

  // --- Files ---------------------------------------------------------------------------------
  // Makes `file` (a path set, not open) a new, empty resource file on disk: a 256-byte header
  // and a 30-byte map without types. An existing file is overwritten. The file is closed after.
  static uint32_t CreateEmpty(IQXFile* file);
  // Checks the structure of a resource file as the reader would, and also that every data block
  // lies inside the file. 0 and "ok", or the reader's result (0x80010024 for a bad structure, the
  // file's error when it cannot be read) and a one-line explanation in `message`. Opens and
  // closes the file if it is not open.
  static uint32_t Validate(IQXFile* file, TQXString& message);
  // Checks the open file's map image: every offset in bounds, every live object consistent with
  // its entry. 0, or 0x80010024 and the first problem in `message`.
  uint32_t CheckMap(TQXString& message) const;
  // Opens the known file at `index` if it is not open (read only, no preloading). 0 always.
  static uint32_t OpenKnownFile(uint32_t index, bool& wasOpen);

  // --- The chain, the table and the handler --------------------------------------------------
  // Forgets the current file (to be called before resources are used).
  static void InitCurrentRessourceFile();
  // Destroys every known-files entry; open files stay open.
  static void ShutDown();
  static TQXResourceFile* GetCurrentFile();
  static uint32_t CountKnownFiles();
  // Null past the end.
  static TQXResourceFileEntry* GetKnownFile(uint32_t index);
  // The handler of GetAnyResource; null (the start) for none. The host keeps it alive.
  static void SetLostResourceHandler(TQXLostResourceHandler* handler);
  static TQXLostResourceHandler* GetLostResourceHandler();

  bool IsLinked() const { return linked; }
  bool IsDirty() const { return dirty; }
  // 0, or why the constructor failed.
  uint32_t OpenResult() const { return openResult; }
  IQXFile* GetFile() const { return file; }
  TQXResourceFile* GetNext() const { return next; }
  uint32_t GetKnownIndex() const { return knownIndex; }
  // The map image and its size (its map length word); null and 0 when no map is held.
  const uint8_t* GetMapImage() const { return map; }
  uint32_t GetMapImageSize() const;

  // The implementation's own operations on the image and the format; defined only inside the
  // library.
  struct Access;

 private:
  friend class TQXResource;

  IQXFile* file;        // one counted reference
  uint8_t* map;         // the map image, from QXmalloc
  bool dirty;           // the disk's map no longer matches
  bool preload;         // load entries with the preload bit at open
  bool linked;          // in the chain
  uint32_t knownIndex;  // in the known-files table; 0xFFFFFFFF until registered
  TQXResourceFile* next;
  uint32_t openResult;

  QX_HIDDEN static TQXResourceFile* fgCurrent;
  QX_HIDDEN static TQXArray<TQXResourceFileEntry*> fgKnownFiles;  // flags 0xB0008000
  QX_HIDDEN static TQXLostResourceHandler* fgLostHandler;
  QX_HIDDEN static void* fgSecond;  // cleared by InitCurrentRessourceFile, read by nothing
};

#endif  // QXRESOURCEFILE_H
