// Bulk memory: every length and alignment against a byte-by-byte reference, on both paths.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "QXGlobals.h"
#include "QXMemory.h"

namespace {

TEST(BulkMemory, FillPhaseRule) {
  for (bool wide : {false, true}) {
    TWIN_QXGlobals::gMMX = wide;
    alignas(16) unsigned char buf[16];
    std::memset(buf, 0xEE, sizeof buf);
    QXmemfill(0x04030201, buf, 6);
    const unsigned char expected[] = {1, 2, 3, 4, 1, 1, 0xEE};
    EXPECT_EQ(std::memcmp(buf, expected, 7), 0);
    std::memset(buf, 0xEE, sizeof buf);
    QXmemfill(0, buf + 1, 7);
    EXPECT_EQ(buf[0], 0xEE);
    EXPECT_EQ(buf[8], 0xEE);
    for (int i = 1; i < 8; ++i)
      EXPECT_EQ(buf[i], 0);
  }
  TWIN_QXGlobals::gMMX = false;
}

}  // namespace
