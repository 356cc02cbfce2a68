// File types, the type list and the name registry.
#include "QXFileType.h"

#include "QXFile.h"

namespace {

// A pair of the name registry.
struct TQXTypeName {
  uint32_t id = 0;
  TQXString31 name;
};

// Growth by a fifth: 32768 codes of 4 bytes, 1820 types, 2520 names; each limit keeps one step
// near 128 KB.
constexpr uint32_t kPlatformTypeFlags = 0xB0008000u;
constexpr uint32_t kTypeListFlags = 0xA0000000u | 1820u;
constexpr uint32_t kTypeNameFlags = 0xA0000000u | 2520u;

TQXArray<TQXTypeName>* gFileTypeNames = nullptr;

}  // namespace

TQXFileTypeList* gFileTypeList = nullptr;

TQXFileType::TQXFileType() : platformTypes(kPlatformTypeFlags), id(0), group(0) {}

TQXFileType::TQXFileType(const TQXFileType& other)
    : platformTypes(kPlatformTypeFlags), id(other.id), name(other.name), group(other.group) {
  for (uint32_t i = 0; i < other.platformTypes.Count(); ++i)
    platformTypes.Append(other.platformTypes[i]);
}

TQXFileType::~TQXFileType() = default;

void TQXFileType::SetID(uint32_t newID) {
  id = newID;
}

void TQXFileType::AddPlatformType(const uint32_t& code) {
  if (!HasPlatformType(code)) platformTypes.Append(code);
}

bool TQXFileType::HasPlatformType(const uint32_t& code) const {
  for (uint32_t i = 0; i < platformTypes.Count(); ++i)
    if (platformTypes[i] == code) return true;
  return false;
}

TQXFileTypeList::TQXFileTypeList() : types(kTypeListFlags) {}

TQXFileTypeList::~TQXFileTypeList() = default;

void TQXFileTypeList::Add(const TQXFileType& type) {
  types.Append(type);
}

TQXFileType* TQXFileTypeList::FindQXFileType(const TQXFile& file) {
  uint32_t code = 0;
  // The query is const in meaning; the interface declares it without const.
  const_cast<TQXFile&>(file).GetPlatformType(&code);
  return FindByPlatformType(code);
}

TQXFileType* TQXFileTypeList::FindByID(uint32_t id) {
  for (uint32_t i = 0; i < types.Count(); ++i)
    if (types[i].GetID() == id) return &types[i];
  return nullptr;
}

TQXFileType* TQXFileTypeList::FindByPlatformType(const uint32_t& code) {
  for (uint32_t i = 0; i < types.Count(); ++i)
    if (types[i].HasPlatformType(code)) return &types[i];
  return nullptr;
}

uint32_t TQXFileTypeList::GetTypeID(const TQXFile& file) {
  const TQXFileType* type = FindQXFileType(file);
  return type ? type->GetID() : 0;
}

bool TQXFileTypeList::AllSameGroup() const {
  for (uint32_t i = 1; i < types.Count(); ++i)
    if (types[i].Group() != types[0].Group()) return false;
  return true;
}

void RegisterTypeName(uint32_t id, const TQXString& name) {
  if (!gFileTypeNames) {
    gFileTypeNames = new (std::nothrow) TQXArray<TQXTypeName>(kTypeNameFlags);
    if (!gFileTypeNames) return;
  }
  TQXTypeName pair;
  pair.id = id;
  pair.name = name;
  gFileTypeNames->Append(pair);
}

bool IsRegisteredTypeName(uint32_t id) {
  if (!gFileTypeNames) return false;
  for (uint32_t i = 0; i < gFileTypeNames->Count(); ++i)
    if ((*gFileTypeNames)[i].id == id) return true;
  return false;
}

void FreeFileTypes() {
  delete gFileTypeList;
  gFileTypeList = nullptr;
  delete gFileTypeNames;
  gFileTypeNames = nullptr;
}
