// TQXException: fields, ownership of attached data, the not-implemented routine, assert/notify.
#include <gtest/gtest.h>

#include <cstring>

#include "QXException.h"

namespace {

struct CountedData : TQXExceptionData {
  explicit CountedData(int* deletions) : deletions_(deletions) {}
  ~CountedData() override { ++*deletions_; }
  int* deletions_;
};

TEST(Exception, FieldsAsGiven) {
  TQXException e(kQXErrIO, 7, ".\\Source\\Common\\QXToken", 123);
  EXPECT_EQ(e.code, 0x80010024u);
  EXPECT_EQ(e.detail, 7u);
  EXPECT_STREQ(e.GetFile(), ".\\Source\\Common\\QXToken");
  EXPECT_EQ(e.line, 123);
  EXPECT_EQ(e.owned, nullptr);
}

TEST(Exception, OwnsAttachedDataAndMovesIt) {
  int deletions = 0;
  {
    TQXException e(kQXErrFailed, new CountedData(&deletions), 0, "", 0);
    TQXException moved(std::move(e));
    EXPECT_EQ(e.owned, nullptr);
    EXPECT_NE(moved.owned, nullptr);
  }
  EXPECT_EQ(deletions, 1);
}

TEST(Exception, CopySharesTheAttachedPointer) {
  int deletions = 0;
  auto* data = new CountedData(&deletions);
  TQXException e(kQXErrFailed, data, 0, "", 0);
  {
    TQXException copy(e);
    EXPECT_EQ(copy.owned, data);  // not cloned
    copy.owned = nullptr;         // only one of the two may delete it
  }
  EXPECT_EQ(deletions, 0);
}

TEST(Exception, NotImplementedHasEmptyPositionNotNull) {
  try {
    QXThrowNotImplemented();
    FAIL() << "no throw";
  } catch (const TQXException& e) {
    EXPECT_EQ(e.code, kQXErrNotImplemented);
    EXPECT_EQ(e.detail, 0u);
    ASSERT_NE(e.GetFile(), nullptr);
    EXPECT_STREQ(e.GetFile(), "");
    EXPECT_EQ(e.line, 0);
  }
}

TEST(Exception, AssertAndNotifyReturnTheirValueAndDoNothing) {
  EXPECT_EQ(QX_CallAssert_("x", 1, 0), 0);
  EXPECT_EQ(QX_CallAssert_("x", 1, 7), 7);
  EXPECT_EQ(QX_CallNotify_("x", 2, "message", -3), -3);
  QX_CallAssert_("x", 1);
  QX_CallNotify_("x", 2, "message");
}

TEST(Exception, ErrorCodesKeepTheirValues) {
  EXPECT_EQ(kQXErrTableFull, 0x80010001u);
  EXPECT_EQ(kQXErrNoMemory, 0x8001006Cu);
  EXPECT_EQ(kQXErrResourceMissing, 0x800100C6u);
  EXPECT_EQ(kQXErrNoInterface, 0x80014002u);
}

}  // namespace
