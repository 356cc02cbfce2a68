// The strings under allocation failure: every allocation of an operation made to fail in turn.
// Nothing crashes, nothing leaks, and a dynamic string that cannot grow reads as empty.
#include <string>

#include "QXStringUTF8.h"
#include "TextTestSupport.h"
#include "memory/QXAllocatorInternal.h"
#include "support/QXFailureInjection.h"

namespace {

std::string Text(const TQXString& s) {
  return std::string(s.StrGet(), s.ByteLength());
}

// A dynamic string edited step by step beside a std::string model (which does not use the
// library's allocator). A step that met a failure must leave the string empty, a step that met
// none must give the model's text.
void EditUnderFailure(bool doubleByte) {
  TQXDynamicString d;
  std::string model;
  auto step = [&](auto edit, auto modelEdit) {
    uint32_t before = QXMemFailuresDelivered();
    edit();
    if (QXMemFailuresDelivered() != before) {
      EXPECT_EQ(d.Length(), 0u);
      EXPECT_EQ(d.ByteLength(), 0u);
      EXPECT_STREQ(d.StrGet(), "");
      model.clear();
    } else {
      modelEdit();
      EXPECT_EQ(Text(d), model);
    }
  };
  const std::string piece = doubleByte ? std::string("ab") + kHiraganaA : std::string("abc");
  for (int i = 0; i < 12; ++i) {
    step([&] { d += TQXString15(piece.c_str()); }, [&] { model += piece; });
    step([&] { d += 'x'; }, [&] { model += 'x'; });
    step([&] { d += uint32_t(0x41424344); }, [&] { model += 'D'; });
    step([&] { d.InsertStr(TQXString15("<>"), 1); },
         [&] { model.insert(model.empty() ? 0 : 1, model.empty() ? "" : "<>"); });
    step([&] { d.FromCPtr("reset-and-grow-longer-than-before"); },
         [&] { model = "reset-and-grow-longer-than-before"; });
    step([&] { d.EraseStr(0, 3); }, [&] { model.erase(0, 3); });
  }
  step([&] { d += d; }, [&] { model += model; });
  // The string works again after a failure: it grows afresh from nothing.
  QXMemFailAllocation(0, false);
  d.FromCPtr("alive");
  EXPECT_EQ(Text(d), "alive");
}

using StringFailure = TextModeTest;
QX_INSTANTIATE_TEXT_MODES(StringFailure);

TEST_P(StringFailure, DynamicStringEditsReadAsEmptyAfterAFailure) {
  QXFailureSweep once = QXSweepAllocationFailures([&] { EditUnderFailure(DoubleByte()); });
  EXPECT_GT(once.failingRuns, 10u);
  QXSweepAllocationFailures([&] { EditUnderFailure(DoubleByte()); }, true);
}

TEST_P(StringFailure, OperationsWithTemporariesNeverCrash) {
  QXFailureSweep sweep = QXSweepAllocationFailures([&] {
    // The constructors: a failed block gives an empty string.
    TQXDynamicString big(std::string(5000, 'b'));
    EXPECT_TRUE(big.ByteLength() == 5000u || big.ByteLength() == 0u);
    TQXDynamicString copy(big), range(big, 10, 20);
    EXPECT_TRUE(copy.ByteLength() == big.ByteLength() || copy.ByteLength() == 0u);
    // Commas make ToInt32 work on a heap copy: the answer or, without memory, 0.
    int32_t v = TQXString31("1,234").ToInt32();
    EXPECT_TRUE(v == 1234 || v == 0);
    // Inserting a fixed string into itself goes through a heap copy.
    TQXString31 self("abc");
    self.InsertStr(self, 1);
    EXPECT_TRUE(Text(self) == "aabcbc" || Text(self) == "abc");
    // Translation keeps the source in a heap copy.
    TQXString31 out, source("text");
    source.TranslateToStored(out);
    TQXStringUTF8 path(std::string("C:\\dir")), name(std::string("file"));
    TQXStringUTF8 sum = path + TQXStringUTF8('\\') + name;
    std::string s = sum;
    EXPECT_TRUE(s == "C:\\dir\\file" || s.size() < 11u);
    sum.IsFolderNameCompliant();
    sum.Replace('\\', '/', 0);
    TQXDynamicString d(big);
    d.InsertStr(copy, 2);
    d.SubString(3, 4000);
    d.IncrementDigits();
    d.ReplaceParam(TQXString15("value"));
  });
  EXPECT_GT(sweep.allocations, 8u);
}

TEST_P(StringFailure, TranslationTableInstallation) {
  // The record and its two lists: without memory for the record no table is installed; without
  // memory for a list, that list is absent.
  std::vector<unsigned char> table(512);
  for (int i = 0; i < 512; ++i)
    table[size_t(i)] = uint8_t(i);
  const unsigned char lists[] = {4, 'q', 'a', 'b', 3, 'z', 'y', 0};
  table.insert(table.end(), lists, lists + sizeof lists);
  QXSweepAllocationFailures([&] {
    InitAsciiTranslationTable(table.data(), uint32_t(table.size()));
    if (gQXAsciiTranslation) {
      EXPECT_EQ(TQXString::TranslateCharacter(0x12, false), 0x21);  // stored by columns
    } else {
      EXPECT_EQ(TQXString::TranslateCharacter(0x12, false), 0x12);
    }
    QXRemoveAsciiTranslationTable();
  });
}

}  // namespace
