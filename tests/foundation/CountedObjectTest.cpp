// Counted objects: the count's life, Create's order of steps, the holder's discipline.
#include <gtest/gtest.h>

#include <random>
#include <typeinfo>
#include <vector>

#include "QXCountedObject.h"
#include "QXException.h"

namespace {

// Counts destructions, to see when Release frees.
template <class Base>
struct Watched : Base {
  explicit Watched(int* deaths) : deaths_(deaths) {}
  ~Watched() override { ++*deaths_; }
  int* deaths_;
};

template <class T>
class CountedBase : public ::testing::Test {};
using Bases = ::testing::Types<TQXCountedObject, TQXSMPCountedObject>;
TYPED_TEST_SUITE(CountedBase, Bases);

TYPED_TEST(CountedBase, CountStartsAtOneAndReleaseFreesAtZero) {
  int deaths = 0;
  auto* o = new Watched<TypeParam>(&deaths);
  ASSERT_NE(o, nullptr);
  EXPECT_EQ(o->RefCount(), 1);
  EXPECT_EQ(o->AddRef(), 2);
  EXPECT_EQ(o->Release(), 1);
  EXPECT_EQ(deaths, 0);
  EXPECT_EQ(o->Release(), 0);
  EXPECT_EQ(deaths, 1);
}

TYPED_TEST(CountedBase, QueryInterfaceAnswersNoInterfaceAndLeavesTheResult) {
  TypeParam* o = new TypeParam;
  void* result = &result;
  EXPECT_EQ(o->QueryInterface(0x12345678, &result), kQXErrNoInterface);
  EXPECT_EQ(result, &result);
  EXPECT_EQ(o->Release(), 0);
}

TYPED_TEST(CountedBase, ReleaseAtZeroGoesToMinusOneWithoutFreeing) {
  // An object on the stack, so that the count may pass 0 without a deletion being asked for:
  // the count at 1 is brought to 0 by hand first.
  struct Local : TypeParam {
    void Zero() { this->refCount = 0; }
  } o;
  o.Zero();
  EXPECT_EQ(o.Release(), -1);
  EXPECT_EQ(o.RefCount(), -1);
}

TYPED_TEST(CountedBase, CreateReleasesWhatTheSlotHeld) {
  int deaths = 0;
  IQXUnknown* slot = new Watched<TypeParam>(&deaths);
  TypeParam::Create(&slot);
  EXPECT_EQ(deaths, 1);  // the old occupant had count 1
  ASSERT_NE(slot, nullptr);
  EXPECT_EQ(typeid(*slot), typeid(TypeParam));
  EXPECT_EQ(slot->AddRef(), 2);
  EXPECT_EQ(slot->Release(), 1);
  // A second holder keeps the old object alive through the next Create.
  IQXUnknown* kept = slot;
  kept->AddRef();
  TypeParam::Create(&slot);
  EXPECT_NE(slot, kept);
  EXPECT_EQ(kept->Release(), 0);
  EXPECT_EQ(slot->Release(), 0);
  TypeParam::Create(nullptr);  // nothing at all
}

TEST(CountedObject, TheTwoBasesAreDistinctTypes) {
  IQXUnknown* a = nullptr;
  IQXUnknown* b = nullptr;
  TQXCountedObject::Create(&a);
  TQXSMPCountedObject::Create(&b);
  EXPECT_NE(typeid(*a), typeid(*b));
  EXPECT_EQ(dynamic_cast<TQXCountedObject*>(b), nullptr);
  a->Release();
  b->Release();
}

TEST(CountedObject, BareInterfaceSlotsThrowNotImplemented) {
  struct Bare : IQXUnknown {};
  Bare bare;
  void* r = nullptr;
  for (int slot = 0; slot < 3; ++slot) {
    try {
      if (slot == 0) bare.QueryInterface(1, &r);
      if (slot == 1) bare.AddRef();
      if (slot == 2) bare.Release();
      ADD_FAILURE() << "slot " << slot << " did not throw";
    } catch (const TQXException& e) {
      EXPECT_EQ(e.code, kQXErrNotImplemented);
      EXPECT_EQ(e.line, 0);
    }
  }
}

// The holder against a model of counts: random assignments, copies, moves and clears over a
// few objects; each object's count must equal the number of holders plus the test's own
// reference, and objects die exactly when the last reference goes.
TEST(CountedPtr, RandomHoldingMatchesACountModel) {
  constexpr int kObjects = 4, kHolders = 6;
  std::mt19937 rng(3);
  int deaths = 0;
  std::vector<Watched<TQXCountedObject>*> objects;
  for (int i = 0; i < kObjects; ++i)
    objects.push_back(new Watched<TQXCountedObject>(&deaths));
  {
    std::vector<TQXCountedPtr<Watched<TQXCountedObject>>> holders(kHolders);
    std::vector<int> held(kHolders, -1);  // the model: which object each holder has
    for (int step = 0; step < 3000; ++step) {
      int h = int(rng() % kHolders), other = int(rng() % kHolders);
      switch (rng() % 5) {
        case 0:
        case 1: {
          int o = int(rng() % kObjects);
          holders[h] = objects[o];
          held[h] = o;
          break;
        }
        case 2:
          holders[h] = holders[other];
          held[h] = held[other];
          break;
        case 3:
          holders[h] = std::move(holders[other]);
          if (h != other) {
            held[h] = held[other];
            held[other] = -1;
          }
          break;
        default:
          holders[h].Clear();
          held[h] = -1;
      }
      for (int o = 0; o < kObjects; ++o) {
        int expected = 1;  // the test's own reference
        for (int k = 0; k < kHolders; ++k)
          expected += held[k] == o;
        ASSERT_EQ(objects[o]->RefCount(), expected) << "step " << step;
      }
      for (int k = 0; k < kHolders; ++k) {
        ASSERT_EQ(holders[k].Get(), held[k] < 0 ? nullptr : objects[held[k]]);
      }
    }
    for (auto* o : objects)
      o->Release();  // the holders keep some of them alive
  }
  EXPECT_EQ(deaths, kObjects);
}

}  // namespace
