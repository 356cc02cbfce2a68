// The engine and the resource objects: the chain, the known-files table, lookups, string lists,
// the life of resource objects, in-place writes, and a randomized run against a plain model.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

#include "QXMemory.h"
#include "resources/ResourceTestSupport.h"
#include "support/QXFailureInjection.h"

using namespace qxrestest;

namespace {

constexpr uint32_t kText = QX_FOURCC('T', 'E', 'X', 'T');
constexpr uint32_t kList = kQXResTypeStringList;

std::string StringList(const std::vector<std::string>& strings) {
  std::string s;
  Be16(s, uint16_t(strings.size()));
  for (const auto& t : strings)
    s += char(t.size()) + t;
  return s;
}

std::string Text(const TQXResource* r) {
  return r && r->GetData() ? std::string(static_cast<const char*>(r->GetData()), r->GetSize())
                           : std::string();
}

// The bytes of what a lookup with `result` found, given back at once; "error N" if it failed.
std::string Got(uint32_t result, TQXResource*& r) {
  if (result) return "error " + std::to_string(result);
  const std::string s = Text(r);
  r->ReleaseResource();
  return s;
}

using Engine = OnDisk<QXFakeBackend>;

// --- The chain, the table, the handler -----------------------------------------------------------

class RecordingHandler : public TQXLostResourceHandler {
 public:
  uint32_t HandleLostResource(uint32_t, int16_t id, TQXResource*& out, bool) override {
    ++calls;
    lastID = id;
    out = answer;
    return answer ? 0u : uint32_t(kQXErrResource);
  }
  int calls = 0;
  int16_t lastID = 0;
  TQXResource* answer = nullptr;
};

TEST_F(Engine, ChainLastOpenedWinsAndHandlerIsTheLastResort) {
  RecordingHandler handler;
  TQXResourceFile::SetLostResourceHandler(&handler);
  TQXResource* out = reinterpret_cast<TQXResource*>(&handler);  // must be cleared
  EXPECT_EQ(TQXResourceFile::GetAnyResource(kText, 1, out, true), kQXErrResource);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(handler.calls, 1);

  Build("T:\\a.rsrc", {{kText, 1, false, "", 0, "from a"}, {kText, 2, false, "", 0, "only a"}});
  Build("T:\\b.rsrc", {{kText, 1, false, "", 0, "from b"}});
  TQXResourceFile* a = Open("T:\\a.rsrc", false);
  TQXResourceFile* b = Open("T:\\b.rsrc");
  EXPECT_EQ(TQXResourceFile::GetCurrentFile(), b);
  EXPECT_EQ(b->GetNext(), a);
  EXPECT_EQ(Got(TQXResourceFile::GetAnyResource(kText, 1, out, true), out), "from b");
  EXPECT_EQ(Got(TQXResourceFile::GetAnyResource(kText, 2, out, true), out), "only a");
  EXPECT_EQ(TQXResourceFile::GetCurrentResource(kText, 2, out, true), kQXErrResource);
  EXPECT_EQ(out, nullptr);

  TQXResource lost(nullptr, 0, 9, kText, TQXString255("lost"));
  handler.answer = &lost;
  EXPECT_EQ(TQXResourceFile::GetAnyResource(kText, 9, out, false), 0u);
  EXPECT_EQ(out, &lost);
  EXPECT_EQ(handler.lastID, 9);
  handler.answer = nullptr;

  // The same path again (both only read, as two opens of one file must): one table entry.
  // Closing the head hands the chain on; closing the middle relinks it.
  TQXResourceFile* c = Open("T:\\a.rsrc", false);
  EXPECT_EQ(TQXResourceFile::CountKnownFiles(), 2u);
  EXPECT_EQ(c->GetKnownIndex(), a->GetKnownIndex());
  EXPECT_EQ(TQXResourceFile::GetKnownFile(a->GetKnownIndex())->file, a);
  delete b;
  EXPECT_EQ(c->GetNext(), a);
  delete c;
  EXPECT_EQ(TQXResourceFile::GetCurrentFile(), a);
  EXPECT_EQ(a->GetNext(), nullptr);
  delete a;
  EXPECT_EQ(TQXResourceFile::GetCurrentFile(), nullptr);

  // The table reopens a closed file by index, and only once; an index past the table is ignored.
  bool wasOpen = true;
  EXPECT_EQ(TQXResourceFile::OpenKnownFile(0, wasOpen), 0u);
  EXPECT_FALSE(wasOpen);
  TQXResourceFile* reopened = TQXResourceFile::GetKnownFile(0)->file;
  ASSERT_NE(reopened, nullptr);
  EXPECT_TRUE(reopened->IsLinked());
  EXPECT_EQ(TQXResourceFile::OpenKnownFile(0, wasOpen), 0u);
  EXPECT_TRUE(wasOpen);
  EXPECT_EQ(TQXResourceFile::OpenKnownFile(7, wasOpen), 0u);
  EXPECT_EQ(Got(reopened->GetResource(kText, 2, out, true), out), "only a");
  delete reopened;
  EXPECT_EQ(TQXResourceFile::GetKnownFile(0)->file, nullptr);
  EXPECT_EQ(fake().OpenHandles(), 0u);
}

TEST_F(Engine, LookupsByIdNameIndexAndType) {
  Build("T:\\l.rsrc", {{kText, 5, true, "five", 0, "5"},
                       {kText, 5, true, "second five", 0, "5b"},
                       {kText, -7, false, "", 0, ""},
                       {kList, 1, true, "", 0, "x"}});
  TQXResourceFile* rf = Open("T:\\l.rsrc");
  TQXResource* out = nullptr;
  EXPECT_EQ(Got(rf->GetResource(kText, 5, out, true), out), "5");  // the first of two
  ASSERT_EQ(rf->GetNamedResource(kText, TQXString255("second five"), out, true), 0u);
  EXPECT_EQ(out->GetName(), TQXString255("second five"));
  EXPECT_EQ(Got(0, out), "5b");
  EXPECT_EQ(rf->GetNamedResource(kText, TQXString255("Five"), out, true), kQXErrResource);
  // Entries without a name are passed over, also by an empty name.
  EXPECT_EQ(rf->GetNamedResource(kText, TQXString255(""), out, true), kQXErrResource);
  // A zero-length blob: a 4-byte block, no data.
  ASSERT_EQ(rf->GetIndexedResource(kText, 3, out, true), 0u);
  EXPECT_EQ(out->GetID(), -7);
  EXPECT_EQ(out->GetSize(), 0u);
  EXPECT_EQ(out->GetData(), nullptr);
  int32_t disk = -1;
  EXPECT_EQ(rf->GetResourceDiskSize(out, disk), 0u);
  EXPECT_EQ(disk, 0);
  out->ReleaseResource();
  EXPECT_EQ(rf->GetIndexedResource(kText, 0, out, true), kQXErrResource);
  EXPECT_EQ(rf->GetIndexedResource(kText, 4, out, true), kQXErrResource);
  EXPECT_EQ(rf->CountResources(kText), 3);
  EXPECT_EQ(rf->CountResources(QX_FOURCC('n', 'o', 'n', 'e')), 0);
  uint32_t type = 1;
  EXPECT_EQ(rf->GetIndexedType(type, 0), kQXErrResource);
  EXPECT_EQ(type, 0u);
  EXPECT_EQ(rf->GetIndexedType(type, 2), 0u);
  EXPECT_EQ(type, kList);
  EXPECT_EQ(rf->GetIndexedType(type, 3), kQXErrResource);

  // A lookup without reading makes an empty object; reading it later fills in the data and
  // keeps the size field as it was.
  ASSERT_EQ(rf->GetResource(kText, -7, out, false), 0u);
  out->ReleaseResource();
  TQXResource* shell = nullptr;
  ASSERT_EQ(rf->GetNamedResource(kText, TQXString255("five"), shell, false), 0u);
  EXPECT_EQ(shell->GetSize(), 0u);
  TQXResource* again = nullptr;
  ASSERT_EQ(rf->GetResource(kText, 5, again, true), 0u);
  EXPECT_EQ(again, shell);
  EXPECT_EQ(again->GetUseCount(), 2);
  EXPECT_EQ(again->GetSize(), 0u);
  ASSERT_NE(again->GetData(), nullptr);
  EXPECT_EQ(*static_cast<char*>(again->GetData()), '5');
  again->ReleaseResource();
  shell->ReleaseResource();

  // UniqueResourceID counts up past the ids in use from its random start.
  std::srand(77);
  const int32_t start = std::rand() & 0x3FFF;
  for (int16_t k = 0; k < 3; ++k)
    Add(*rf, {kText, int16_t(start + k), false, "", 0, ""});
  std::srand(77);
  EXPECT_EQ(rf->UniqueResourceID(kText), start + 3);
  std::srand(77);
  EXPECT_EQ(rf->UniqueResourceID(QX_FOURCC('n', 'o', 'n', 'e')), start);
  delete rf;
}

TEST_F(Engine, StringLists) {
  Build("T:\\s.rsrc", {{kList, 1, false, "", 0, StringList({"alpha", "", "gamma"})},
                       {kList, 2, false, "", 0, std::string("\0\5\3ab", 5)},  // short
                       {kList, 3, false, "", 0, "\x01"}});                    // no count
  Build("T:\\t.rsrc", {{kList, 9, false, "", 0, StringList({"nine"})}});
  TQXString255 s;
  uint16_t count = 0;
  EXPECT_EQ(TQXResourceFile::GetIndString(s, 1, 1), kQXErrResource);  // no file open
  TQXResourceFile* first = Open("T:\\s.rsrc");
  TQXResourceFile* second = Open("T:\\t.rsrc");
  ASSERT_EQ(TQXResourceFile::GetIndString(s, 1, 3), 0u);  // found along the chain
  EXPECT_STREQ(s.StrGet(), "gamma");
  ASSERT_EQ(TQXResourceFile::GetIndString(s, 1, 2), 0u);
  EXPECT_STREQ(s.StrGet(), "");
  ASSERT_EQ(TQXResourceFile::CountIndStrings(count, 1), 0u);
  EXPECT_EQ(count, 3);
  s = TQXString255("kept");
  EXPECT_EQ(TQXResourceFile::GetIndString(s, 1, 0), kQXErrResource);
  EXPECT_EQ(TQXResourceFile::GetIndString(s, 1, 4), kQXErrResource);
  EXPECT_EQ(TQXResourceFile::GetIndString(s, 2, 1), kQXErrResource);  // the list ends early
  EXPECT_EQ(TQXResourceFile::CountIndStrings(count, 3), kQXErrResource);
  EXPECT_STREQ(s.StrGet(), "kept");
  EXPECT_EQ(second->GetIndString(s, 1, 1, true), kQXErrResource);  // stopped at this file
  EXPECT_EQ(second->GetIndString(s, 9, 1, true), 0u);
  EXPECT_STREQ(s.StrGet(), "nine");
  // No use count is left behind: every list can go.
  TQXResource* r = nullptr;
  ASSERT_EQ(first->GetResource(kList, 1, r, false), 0u);
  EXPECT_EQ(r->GetUseCount(), 1);
  r->ReleaseResource();
  delete second;
  delete first;
}

// --- Resource objects ----------------------------------------------------------------------------

// What the randomized run covers is left to it: a protected entry refusing a change or a new
// name, a changed entry keeping its object, renames in place or out of the name list's reach.
TEST_F(Engine, ObjectLifecycle) {
  // Free-standing: one release destroys, with its data (the allocator gets every block back).
  const uint32_t live = QXMemLiveBlocks();
  TQXResource* free = Make(kText, 1, "f", "data");
  EXPECT_TRUE(free->IsFreeStanding());
  EXPECT_EQ(free->GetUseCount(), 1);
  EXPECT_EQ(free->Write(), kQXErrResource);
  EXPECT_EQ(free->MarkChanged(), 0u);
  EXPECT_EQ(free->Remove(), 0u);
  uint32_t attributes = 9;
  EXPECT_EQ(free->SetAttributes(0x40), 0u);
  EXPECT_EQ(free->GetAttributes(attributes), 0u);
  EXPECT_EQ(attributes, 0x40u);
  EXPECT_EQ(free->ReleaseResource(), 0u);
  EXPECT_EQ(QXMemLiveBlocks(), live);

  Build("T:\\o.rsrc",
        {{kText, 1, false, "", 0x08, "protected"}, {kText, 2, false, "", 0, "plain"}});
  TQXResourceFile* rf = Open("T:\\o.rsrc");
  // Added: a second add of the same object is refused; a changed entry refuses to forget.
  TQXResource* added = Make(kText, 3, "new", "added");
  ASSERT_EQ(rf->AddResource(*added), 0u);
  EXPECT_EQ(rf->AddResource(*added), kQXErrResourceExists);
  EXPECT_FALSE(added->IsFreeStanding());
  EXPECT_EQ(added->GetUseCount(), 1);
  EXPECT_EQ(added->ReleaseResource(), kQXErrResourceMissing);
  EXPECT_EQ(added->GetUseCount(), 0);
  TQXResource* found = nullptr;
  ASSERT_EQ(rf->GetResource(kText, 3, found, true), 0u);
  EXPECT_EQ(found, added);
  EXPECT_EQ(found->Forget(), kQXErrResourceMissing);
  found->ReleaseResource();
  ASSERT_EQ(rf->UpdateResFile(nullptr), 0u);

  // Remove refuses a protected entry but cuts the object loose anyway.
  TQXResource* prot = nullptr;
  ASSERT_EQ(rf->GetResource(kText, 1, prot, true), 0u);
  EXPECT_EQ(prot->GetAttributes(attributes), 0u);
  EXPECT_EQ(attributes, 0x08u);
  EXPECT_EQ(prot->Remove(), kQXErrResourceLocked);
  EXPECT_TRUE(prot->IsFreeStanding());
  EXPECT_EQ(prot->GetFile(), nullptr);
  EXPECT_EQ(prot->ReleaseResource(), 0u);  // destroyed; the entry's handle now leads nowhere
  EXPECT_EQ(rf->CountResources(kText), 3);
  TQXString1023 message;
  EXPECT_EQ(rf->CheckMap(message), 0u) << message.StrGet();
  EXPECT_EQ(Got(rf->GetResource(kText, 1, prot, true), prot), "protected");  // back from disk

  // A plain entry: forgotten, its object lives on unattached to the entry.
  TQXResource* plain = nullptr;
  ASSERT_EQ(rf->GetResource(kText, 2, plain, true), 0u);
  EXPECT_EQ(plain->Forget(), 0u);
  TQXResource* fresh = nullptr;
  ASSERT_EQ(rf->GetResource(kText, 2, fresh, true), 0u);
  EXPECT_NE(fresh, plain);
  EXPECT_EQ(plain->ReleaseResource(), kQXErrResource);  // its entry no longer knows it
  EXPECT_EQ(plain->ReleaseResource(), 0u);              // now free-standing: destroyed
  fresh->ReleaseResource();

  // The stream reads big-endian values from position 0 over the size at its making.
  TQXResource* numbers = Make(kText, 20, "", std::string("\x12\x34\xAB\xCD\xEF\x01", 6));
  TQXResource* empty = Make(kText, 21, "", "");
  {
    TQXResourceStream stream(*numbers), emptyStream(*empty);
    uint16_t a = 0, e = 7;
    int32_t b = 0;
    EXPECT_EQ(stream.Tell(), 0);
    stream >> a >> b;
    EXPECT_EQ(a, 0x1234);
    EXPECT_EQ(uint32_t(b), 0xABCDEF01u);
    stream >> a;
    EXPECT_EQ(stream.lastCount, 0);  // nothing left
    EXPECT_EQ(a, 0x1234);
    emptyStream >> e;
    EXPECT_EQ(emptyStream.lastCount, 0);
    EXPECT_EQ(e, 7);
  }
  empty->ReleaseResource();
  numbers->ReleaseResource();

  // Closing the file destroys what it still holds, whatever the use counts.
  ASSERT_EQ(rf->GetResource(kText, 2, plain, true), 0u);
  ASSERT_EQ(rf->GetResource(kText, 2, plain, true), 0u);
  delete rf;
}

TEST_F(Engine, InPlaceWriteAndEdgeCasesOfTheMapImage) {
  Build("T:\\w.rsrc", {{kText, 1, true, "one", 0, "12345"}, {kText, 2, false, "", 0, "x"}});
  TQXResourceFile* rf = Open("T:\\w.rsrc");
  TQXResource* r = nullptr;
  ASSERT_EQ(rf->GetResource(kText, 1, r, true), 0u);
  EXPECT_EQ(r->Write(), kQXErrResourceMissing);  // not changed
  std::memcpy(r->GetData(), "ABC", 3);
  const std::string before = ReadAll("T:\\w.rsrc");
  // Shorter: in its old place. Longer: behind the end of the file.
  struct {
    std::string bytes;
    size_t at, size;
  } writes[] = {{"abc", 256, before.size()}, {"0123456789", before.size(), before.size() + 14}};
  for (const auto& w : writes) {
    SCOPED_TRACE(w.bytes);
    r->AdoptData(QXmalloc(uint32_t(w.bytes.size())), uint32_t(w.bytes.size()));
    std::memcpy(r->GetData(), w.bytes.data(), w.bytes.size());
    ASSERT_EQ(r->MarkChanged(), 0u);
    ASSERT_EQ(r->Write(), 0u);
    EXPECT_TRUE(rf->IsDirty());
    const std::string after = ReadAll("T:\\w.rsrc");
    EXPECT_EQ(after.size(), w.size);
    EXPECT_EQ(after.substr(w.at, 4 + w.bytes.size()),
              std::string("\0\0\0", 3) + char(w.bytes.size()) + w.bytes);
  }
  int32_t disk = 0;
  EXPECT_EQ(rf->GetResourceDiskSize(r, disk), 0u);
  EXPECT_EQ(disk, 10);
  r->ReleaseResource();  // not changed any more: destroyed, to come back from the new block
  EXPECT_EQ(Got(rf->GetResource(kText, 1, r, true), r), "0123456789");

  // Two entries of a new type added and removed: the type list is as before, the image keeps
  // the freed bytes until the next rewrite.
  const int32_t types = rf->CountTypes();
  const uint32_t size = rf->GetMapImageSize();
  TQXResource* a = Make(QX_FOURCC('n', 'e', 'w', ' '), 1, "a", "A");
  TQXResource* b = Make(QX_FOURCC('n', 'e', 'w', ' '), 2, "", "B");
  ASSERT_EQ(rf->AddResource(*a), 0u);
  ASSERT_EQ(rf->AddResource(*b), 0u);
  EXPECT_EQ(rf->CountTypes(), types + 1);
  EXPECT_EQ(a->Remove(), 0u);
  EXPECT_EQ(b->Remove(), 0u);
  a->ReleaseResource();
  b->ReleaseResource();
  EXPECT_EQ(rf->CountTypes(), types);
  EXPECT_EQ(rf->GetMapImageSize(), size + 8 + 24 + 2);
  TQXString1023 message;
  EXPECT_EQ(rf->CheckMap(message), 0u) << message.StrGet();
  delete rf;
}

TEST_F(Engine, ProgressAndPreload) {
  struct Recorder : TQXProgress {
    void Start(const TQXString& text, int32_t range) override {
      events.push_back(std::string(text.StrGet()) + "/" + std::to_string(range));
    }
    void Report(int32_t value) override { events.push_back(std::to_string(value)); }
    std::vector<std::string> events;
  } progress;
  Build("T:\\p.rsrc",
        {{kText, 1, false, "", kQXResAttrPreload, "pre"}, {kList, 1, false, "", 0, "lazy"}});
  TQXResourceFile* rf = Open("T:\\p.rsrc", true, true);
  ASSERT_TRUE(rf->IsLinked());
  TQXResourceEntryInfo info;
  ASSERT_EQ(rf->GetIndexedEntryInfo(kText, 1, info), 0u);
  EXPECT_TRUE(info.loaded);
  ASSERT_EQ(rf->GetIndexedEntryInfo(kList, 1, info), 0u);
  EXPECT_FALSE(info.loaded);
  EXPECT_EQ(rf->UpdateResFile(&progress), 0u);  // nothing changed: nothing done
  EXPECT_TRUE(progress.events.empty());
  TQXResource* r = nullptr;
  ASSERT_EQ(rf->GetResource(kText, 1, r, true), 0u);
  r->MarkChanged();
  r->ReleaseResource();
  ASSERT_EQ(rf->UpdateResFile(&progress), 0u);
  EXPECT_EQ(progress.events, (std::vector<std::string>{"Writing resource file/100", "25", "50",
                                                       "62", "75", "87", "100"}));
  delete rf;
}

// Every allocation of open, add, rewrite and close fails in turn: nothing leaks, and whatever
// fails does so with a result.
TEST_F(Engine, AllocationFailuresLeakNothing) {
  Build("T:\\m.rsrc",
        {{kText, 1, true, "one", 0, "111"}, {kList, 2, false, "", 0, StringList({"s"})}});
  const std::string original = ReadAll("T:\\m.rsrc");
  auto op = [&] {
    WriteAll("T:\\m.rsrc", original);
    TQXResourceFile* rf = Open("T:\\m.rsrc");
    if (rf && rf->IsLinked()) {
      if (TQXResource* r = Make(kText, 9, "nine", "999")) {
        rf->AddResource(*r);
        r->ReleaseResource();
      }
      TQXString255 s;
      TQXResourceFile::GetIndString(s, 2, 1);
      rf->UpdateResFile(nullptr);
    }
    delete rf;
    TQXResourceFile::ShutDown();
  };
  op();  // once through first: the handle table, which is never given back, is made here
  const QXFailureSweep sweep = QXSweepAllocationFailures(op);
  EXPECT_GT(sweep.allocations, 5u);
  TQXResourceFile* rf = Open("T:\\m.rsrc");
  EXPECT_TRUE(rf->IsLinked());
  delete rf;
}

// --- The randomized run ------------------------------------------------------------------------

// The model: the entries of the image in map order, and what was last written to disk.
struct Model {
  Listing image, disk;
  bool dirty = false;

  Item* Find(uint32_t type, int16_t id) {
    for (auto& t : image)
      if (t.front().type == type)
        for (auto& i : t)
          if (i.id == id) return &i;
    return nullptr;
  }
  bool NeedsRewrite() const {
    if (dirty) return true;
    for (const auto& t : image)
      for (const auto& i : t)
        if (i.attributes & kQXResAttrChanged) return true;
    return false;
  }
  // What a rewrite does to the model.
  void Update() {
    if (!NeedsRewrite()) return;
    for (auto& t : image)
      for (auto& i : t)
        i.attributes &= uint8_t(~kQXResAttrChanged);
    disk = image;
    dirty = false;
  }
};

std::string RandomBytes(std::mt19937& rng, size_t max) {
  std::string s(rng() % (max + 1), '\0');
  for (char& c : s)
    c = char(rng());
  return s;
}

std::string RandomName(std::mt19937& rng) {
  static const char* names[] = {"", "", "a", "bb", "name", "longer name", "x y z"};
  return names[rng() % 7];
}

void RunRandomized(uint32_t seed, int steps, const std::string& path) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  const uint32_t types[] = {kText, kList, QX_FOURCC('P', 'I', 'C', 'T'), 0x80FF0001u};
  const uint8_t attributeChoices[] = {0, 0, 0, kQXResAttrPreload, kQXResAttrProtected, 0x20, 0x48};
  ASSERT_EQ(CreateEmpty(path), 0u);
  TQXResourceFile* rf = Open(path);
  Model model;
  auto pick = [&]() -> Item* {
    size_t total = 0;
    for (auto& t : model.image)
      total += t.size();
    if (!total) return nullptr;
    size_t k = rng() % total;
    for (auto& t : model.image)
      for (auto& i : t)
        if (k-- == 0) return &i;
    return nullptr;
  };
  auto unusedID = [&](uint32_t type) {
    int16_t id;
    do {
      id = int16_t(int32_t(rng() % 200) - 100);
    } while (model.Find(type, id));
    return id;
  };
  auto get = [&](const Item& i) {
    TQXResource* r = nullptr;
    EXPECT_EQ(rf->GetResource(i.type, i.id, r, true), 0u) << Describe({{i}});
    return r;
  };
  for (int step = 0; step < steps; ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    const uint32_t op = rng() % 100;
    Item* target = pick();
    if (std::getenv("QX_RES_TRACE"))
      std::fprintf(stderr, "step %d op %u target %s\n", step, op,
                   target ? Describe({{*target}}).c_str() : "-");
    if (op < 30 || !target) {  // add
      Item i;
      i.type = types[rng() % 4];
      i.id = unusedID(i.type);
      i.name = RandomName(rng);
      i.named = !i.name.empty();
      i.bytes = RandomBytes(rng, rng() % 8 ? 40 : 3000);
      i.attributes = kQXResAttrChanged;
      Add(*rf, i);
      bool placed = false;
      for (auto& t : model.image)
        if (t.front().type == i.type) t.push_back(i), placed = true;
      if (!placed) model.image.push_back({i});
    } else if (op >= 80) {
      const std::string old = ReadAll(path);
      const bool reopen = op >= 90, rewrote = model.NeedsRewrite();
      if (reopen)
        delete rf;
      else
        ASSERT_EQ(rf->UpdateResFile(nullptr), 0u);
      model.Update();
      EXPECT_EQ(ReadAll(path), rewrote || reopen ? Assemble(model.disk) : old);
      if (reopen) {
        model.image = model.disk;
        rf = Open(path, true, rng() % 2);
        ASSERT_TRUE(rf->IsLinked());
        const Listing loaded = List(*rf, true);
        EXPECT_EQ(loaded, model.image) << "file:\n"
                                       << Describe(loaded) << "model:\n"
                                       << Describe(model.image);
      }
    } else {  // an operation on the object of an entry
      const bool locked = target->attributes & kQXResAttrProtected;
      const bool changed = target->attributes & kQXResAttrChanged;
      // Cutting loose the live object of a protected, changed entry leaves the entry without
      // its only copy of the data: not a state the model follows.
      if (op < 42 && locked && changed) continue;
      TQXResource* r = get(*target);
      ASSERT_NE(r, nullptr);
      const uint32_t refused = locked ? uint32_t(kQXErrResourceMissing) : 0u;
      if (op < 42) {  // remove
        EXPECT_EQ(r->Remove(), locked ? uint32_t(kQXErrResourceLocked) : 0u);
        if (!locked) {
          model.dirty = true;
          for (auto& t : model.image)
            std::erase_if(t, [target](const Item& i) { return &i == target; });
          std::erase_if(model.image, [](const auto& t) { return t.empty(); });
        }
      } else if (op < 54) {  // set info: a new id, maybe a new name
        const int16_t id = unusedID(target->type);
        const std::string name = RandomName(rng);
        const bool withName = rng() % 2;
        TQXString255 text(name.c_str());
        EXPECT_EQ(r->SetInfo(id, withName ? &text : nullptr), refused);
        EXPECT_EQ(r->MarkChanged(), refused);
        if (!locked) {
          target->id = id;
          target->attributes |= kQXResAttrChanged;
          const std::string& wanted = withName ? name : target->name;
          // In place when it fits the old name; otherwise out of the name list's reach.
          if (target->named && wanted.size() <= target->name.size())
            target->name = wanted;
          else
            target->named = false, target->name.clear();
        }
      } else if (op < 64) {  // attributes
        const uint8_t value =
            attributeChoices[rng() % 7] | (target->attributes & kQXResAttrChanged);
        EXPECT_EQ(r->SetAttributes(value), 0u);
        target->attributes = value;
        if (!(value & kQXResAttrProtected)) {
          EXPECT_EQ(r->MarkChanged(), 0u);
          target->attributes |= kQXResAttrChanged;
        }
      } else {  // new data, marked changed, maybe written in place
        const std::string bytes = RandomBytes(rng, rng() % 8 ? 60 : 2000);
        void* block = QXmalloc(uint32_t(bytes.size()));
        if (!bytes.empty()) std::memcpy(block, bytes.data(), bytes.size());
        r->AdoptData(block, uint32_t(bytes.size()));
        EXPECT_EQ(r->MarkChanged(), refused);
        // A changed entry keeps its object alive, so new data in it reaches the next rewrite
        // even when the entry is protected.
        if (!locked || changed) target->bytes = bytes;
        if (!locked) {
          target->attributes |= kQXResAttrChanged;
          if (rng() % 2) {
            EXPECT_EQ(r->Write(), 0u);
            target->attributes &= uint8_t(~kQXResAttrChanged);
            model.dirty = true;
          }
        }
      }
      r->ReleaseResource();
    }
    TQXString1023 message;
    ASSERT_EQ(rf->CheckMap(message), 0u) << message.StrGet();
    const Listing seen = List(*rf, false), want = Stripped(model.image);
    ASSERT_EQ(seen, want) << "file:\n" << Describe(seen) << "model:\n" << Describe(want);
  }
  delete rf;
  model.Update();
  EXPECT_EQ(ReadAll(path), Assemble(model.disk));
}

TEST_F(Engine, RandomizedAgainstAModel) {
#ifdef QX_SANITIZED_BUILD
  const int steps = 150;
#else
  const int steps = 600;
#endif
  // QX_RES_SEED=n (with QX_RES_STEPS, and QX_RES_TRACE for the steps) replays one seed alone.
  if (const char* one = std::getenv("QX_RES_SEED")) {
    const char* count = std::getenv("QX_RES_STEPS");
    RunRandomized(uint32_t(std::atoi(one)), count ? std::atoi(count) : steps, "T:\\r.rsrc");
    return;
  }
  for (uint32_t seed = 1; seed <= 6; ++seed)
    RunRandomized(seed, steps, "T:\\r.rsrc");
  EXPECT_EQ(CountTemporaries("T:"), 0);
}

using RealEngine = OnDisk<QXLinuxBackend>;

TEST_F(RealEngine, RandomizedOnARealDisk) {
  RunRandomized(99, 200, "T:\\real.rsrc");
  EXPECT_EQ(CountTemporaries("T:"), 0);
}

}  // namespace
