// TQXRect: the edge rules, each pinned, and randomized checks against 64-bit reference formulas.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "QXGeometry.h"

namespace {

void ExpectRect(const TQXRect& r, int32_t l, int32_t t, int32_t rr, int32_t b) {
  EXPECT_EQ(r.left, l);
  EXPECT_EQ(r.top, t);
  EXPECT_EQ(r.right, rr);
  EXPECT_EQ(r.bottom, b);
}

TEST(Geometry, ConstantsHoldTheirValues) {
  ExpectRect(TQXRect::kZero, 0, 0, 0, 0);
  ExpectRect(TQXRect::kEmpty, 0, 0, 0, 0);
  ExpectRect(TQXRect::kInvalid, INT32_MAX, INT32_MAX, INT32_MIN, INT32_MIN);
  ExpectRect(TQXRect::kBiggest, INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX);
}

TEST(Geometry, ValidInvalidEmpty) {
  TQXRect zero(0, 0, 0, 0), inverted(5, 5, 1, 1), wide(0, 0, 10, 0);
  EXPECT_TRUE(zero.Valid());
  EXPECT_FALSE(zero.Invalid());
  EXPECT_TRUE(zero.Empty());
  EXPECT_FALSE(inverted.Valid());
  EXPECT_TRUE(inverted.Invalid());
  EXPECT_TRUE(inverted.Empty());
  EXPECT_TRUE(wide.Valid() && wide.Empty());
}

TEST(Geometry, SetInvalidIsOneAboveTheConstant) {
  TQXRect r(1, 2, 3, 4);
  r.SetInvalid();
  ExpectRect(r, INT32_MAX, INT32_MAX, INT32_MIN + 1, INT32_MIN + 1);
  EXPECT_FALSE(r == TQXRect::kInvalid);
  EXPECT_TRUE(r != TQXRect::kInvalid);
  EXPECT_TRUE(r.Invalid() && TQXRect::kInvalid.Invalid());
}

TEST(Geometry, CentersRoundDifferently) {
  TQXRect r(-3, -3, 0, 0);
  EXPECT_EQ(r.GetCenter(), TQXPoint(-2, -2));  // shift: towards minus infinity
  EXPECT_EQ(r.TopCenter(), TQXPoint(-1, -3));  // division: towards zero
  EXPECT_EQ(r.BottomCenter(), TQXPoint(-1, 0));
  EXPECT_EQ(r.LeftCenter(), TQXPoint(-3, -1));
  EXPECT_EQ(r.RightCenter(), TQXPoint(0, -1));
  // The sum wraps in 32 bits before halving.
  EXPECT_EQ(TQXRect::kBiggest.GetCenter(), TQXPoint(-1, -1));
  EXPECT_EQ(TQXRect::kBiggest.GetWidth(), -1);
}

TEST(Geometry, PointsInsideArePinnedHalfOpen) {
  TQXRect r(10, 20, 30, 40);
  EXPECT_TRUE(r.PtInside(r.TopLeft()));
  EXPECT_FALSE(r.PtInside(r.BottomRight()));
  EXPECT_EQ(r.PinPoint(TQXPoint(1000, 1000)), TQXPoint(29, 39));
  EXPECT_EQ(r.PinPoint(TQXPoint(-5, 25)), TQXPoint(10, 25));
  TQXRect flat(5, 5, 5, 9);  // left == right: one left of the rectangle
  EXPECT_EQ(flat.PinPoint(TQXPoint(0, 6)), TQXPoint(4, 6));
  TQXRect ordered;
  ordered.PtToRect(TQXPoint(7, -1), TQXPoint(2, 8));
  ExpectRect(ordered, 2, -1, 7, 8);
}

TEST(Geometry, IntersectFailureLeavesEmptyOrInvalid) {
  TQXRect a(0, 0, 10, 10), b(20, 20, 30, 30);
  TQXRect r = a;
  EXPECT_FALSE(r.Intersect(b, false));
  ExpectRect(r, INT32_MAX, INT32_MAX, INT32_MIN + 1, INT32_MIN + 1);
  r = a;
  EXPECT_FALSE(r.Intersect(b, true));
  ExpectRect(r, 0, 0, 0, 0);
  r = TQXRect(0, 0, 0, 5);  // empty this: fails without looking at r
  EXPECT_FALSE(r.Intersect(a, true));
  r = a;
  EXPECT_TRUE(r.Intersect(TQXRect(5, -5, 15, 5), false));
  ExpectRect(r, 5, 0, 10, 5);
}

TEST(Geometry, UnionStretchesToEmptyRectanglesSafeUnionDoesNot) {
  TQXRect r(10, 10, 20, 20);
  r.Union(TQXRect(0, 0, 0, 0));
  ExpectRect(r, 0, 0, 20, 20);
  r = TQXRect(10, 10, 20, 20);
  r.SafeUnion(TQXRect(0, 0, 0, 0));
  ExpectRect(r, 10, 10, 20, 20);
  TQXRect empty(0, 0, 0, 0);
  empty.SafeUnion(TQXRect(3, 4, 5, 6));
  ExpectRect(empty, 3, 4, 5, 6);
  r.UnionPt(TQXPoint(25, 5));
  ExpectRect(r, 10, 5, 25, 20);
  EXPECT_FALSE(r.PtInside(TQXPoint(25, 5)));  // on the edge, not inside
}

TEST(Geometry, ScaleRoundsHalvesUp) {
  TQXRect r(3, -3, 3, -3);
  r.Scale(0.5f);
  ExpectRect(r, 2, -1, 2, -1);
  TQXRect same(-7, 1, 123456, 99);
  same.Scale(1.0f);
  ExpectRect(same, -7, 1, 123456, 99);
  TQXRect huge(INT32_MAX, 0, 0, 0);
  huge.Scale(4.0f);  // out of the 32-bit range: the processor's 0x80000000
  EXPECT_EQ(huge.left, INT32_MIN);
}

TEST(Geometry, ProportionAndCenterInside) {
  TQXRect box(100, 100, 300, 200);         // 200 x 100, position ignored
  box.Proportion(TQXRect(0, 0, 50, 100));  // a tall 1:2 shape scaled to the larger side, 200
  ExpectRect(box, 50, -50, 150, 150);
  TQXRect wide(0, 0, 40, 20);
  wide.Proportion(TQXRect(0, 0, 4, 1));
  ExpectRect(wide, 0, 5, 40, 15);

  TQXRect c(0, 0, 10, 6);
  c.CenterInside(TQXRect(0, 0, 21, 21));
  ExpectRect(c, 5, 7, 15, 13);
  EXPECT_EQ(c.GetWidth(), 10);
  EXPECT_EQ(c.GetHeight(), 6);

  TQXRect anything(0, 0, 10, 10);
  anything.Proportion(TQXRect(5, 5, 5, 5));  // divides by zero: defined, no trap
  EXPECT_EQ(anything.left, INT32_MIN);
}

TEST(Geometry, OffsetInsetAndArithmeticWrap) {
  TQXRect r(1, 2, 3, 4);
  r += TQXPoint(10, 20);
  ExpectRect(r, 11, 22, 13, 24);
  r -= TQXPoint(10, 20);
  r.Inset(1, -1);
  ExpectRect(r, 2, 1, 2, 5);
  TQXRect big(0, 0, 65536, 65536);
  EXPECT_EQ(big.GetArea(), 0);  // 2^32 wraps
  TQXRect edge(INT32_MAX, 0, INT32_MAX, 0);
  edge.Offset(1, 0);
  EXPECT_EQ(edge.left, INT32_MIN);
}

// Randomized relations against plain 64-bit formulas.
TEST(Geometry, RandomizedAgainstReference) {
  std::mt19937 rng(20261122);
  std::uniform_int_distribution<int32_t> small(-8, 8);
  for (int i = 0; i < 20000; ++i) {
    TQXRect a(small(rng), small(rng), small(rng), small(rng));
    TQXRect b(small(rng), small(rng), small(rng), small(rng));
    ASSERT_EQ(a.RectInRect(b), a.RectOverRect(b));
    // Two rectangles that only touch never overlap.
    TQXRect touching(a.right, a.top, a.right + 3, a.bottom);
    ASSERT_FALSE(a.RectInRect(touching));
    if (!a.Empty()) {
      ASSERT_TRUE(a.RectInside(a));
    }

    // Intersect against the area of common points on a small grid.
    TQXRect r = a;
    bool hit = r.Intersect(b, true);
    bool reference = false;
    for (int v = -8; v <= 8; ++v)
      for (int h = -8; h <= 8; ++h) {
        TQXPoint p(h, v);
        bool both = !a.Empty() && a.PtInside(p) && b.PtInside(p);
        reference = reference || both;
        if (hit) {
          ASSERT_EQ(r.PtInside(p), both);
        }
      }
    ASSERT_EQ(hit, reference);

    int64_t cx = (int64_t(a.left) + a.right);
    ASSERT_EQ(a.GetCenter().h, int32_t(cx >= 0 ? cx / 2 : -((-cx + 1) / 2)));
    ASSERT_EQ(a.TopCenter().h, int32_t(cx / 2));
    float f = float(small(rng)) / 4.0f;
    TQXRect s = a;
    s.Scale(f);
    ASSERT_EQ(s.left, int32_t(std::floor(double(a.left) * f + 0.5)));
  }
}

}  // namespace
