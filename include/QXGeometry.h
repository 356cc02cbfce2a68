// QXGeometry.h: integer plane geometry.
//
// TQXPoint and TQXRect are plain values: no virtual operations, no heap. Rectangles are
// half-open: left and top belong to the rectangle, right and bottom do not. All comparisons are
// signed 32-bit; sums, differences and areas wrap at 2^32.
//
// Some rules look odd and are kept because the host depends on them:
//  - SetInvalid writes right and bottom as 0x80000001, one above kInvalid's 0x80000000, so a
//    rectangle after SetInvalid is not equal to kInvalid, though Invalid() is true for both;
//  - GetCenter shifts (rounds towards minus infinity), the *Center edge points divide (round
//    towards zero);
//  - Empty() is also true of an invalid rectangle;
//  - RectInRect does not test emptiness; RectInside does.
#ifndef QXGEOMETRY_H
#define QXGEOMETRY_H

#include "QXBase.h"

class QX_EXPORT TQXPoint {
 public:
  TQXPoint() = default;  // no initialisation
  constexpr TQXPoint(int32_t h_, int32_t v_) : h(h_), v(v_) {}
  bool operator==(const TQXPoint& p) const { return h == p.h && v == p.v; }
  bool operator!=(const TQXPoint& p) const { return !(*this == p); }

  int32_t h;  // horizontal
  int32_t v;  // vertical
};

class QX_EXPORT TQXRect {
 public:
  TQXRect() = default;  // no initialisation
  constexpr TQXRect(int32_t l, int32_t t, int32_t r, int32_t b)
      : left(l), top(t), right(r), bottom(b) {}
  TQXRect(const TQXPoint& p1, const TQXPoint& p2);  // no ordering of the corners

  void Set(int32_t l, int32_t t, int32_t r, int32_t b);
  int32_t L() const { return left; }
  int32_t T() const { return top; }
  int32_t R() const { return right; }
  int32_t B() const { return bottom; }

  int32_t GetWidth() const;
  int32_t GetHeight() const;
  TQXPoint GetSize() const;
  int32_t GetArea() const;     // 32-bit product, wrapping
  TQXPoint GetCenter() const;  // (a + b) >> 1: rounds towards minus infinity
  TQXPoint TopCenter() const;  // (a + b) / 2: rounds towards zero, as the three below
  TQXPoint BottomCenter() const;
  TQXPoint LeftCenter() const;
  TQXPoint RightCenter() const;
  TQXPoint TopLeft() const;
  TQXPoint TopRight() const;
  TQXPoint BottomLeft() const;
  TQXPoint BottomRight() const;

  bool Valid() const;    // left <= right and top <= bottom
  bool Invalid() const;  // the exact opposite of Valid
  bool Empty() const;    // top >= bottom or left >= right
  void SetEmpty();
  void SetInvalid();  // 0x7FFFFFFF, 0x7FFFFFFF, 0x80000001, 0x80000001

  bool operator==(const TQXRect& r) const;
  bool operator!=(const TQXRect& r) const;
  bool Equal(const TQXRect& r) const;
  bool EqualDimensions(const TQXRect& r) const;
  TQXRect& operator+=(const TQXPoint& p);
  TQXRect& operator-=(const TQXPoint& p);
  void Offset(int32_t dh, int32_t dv);
  void Inset(int32_t dh, int32_t dv);

  bool PtInside(const TQXPoint& p) const;  // half-open
  void PinPoint(const TQXPoint& p, TQXPoint& out) const;
  TQXPoint PinPoint(const TQXPoint& p) const;
  void PtToRect(const TQXPoint& p1, const TQXPoint& p2);  // orders the corners
  bool RectInside(const TQXRect& r) const;    // r lies wholly in this; false if either is empty
  bool RectInRect(const TQXRect& r) const;    // the two overlap; no emptiness test
  bool RectOverRect(const TQXRect& r) const;  // the same relation, written from the other side

  void Union(const TQXRect& r);
  void SafeUnion(const TQXRect& r);  // an empty side does not count
  void UnionPt(const TQXPoint& p);   // p ends on the edge, not inside
  // Intersects with r. On an empty result: all zeros if emptyOnFail, else SetInvalid; false.
  bool Intersect(const TQXRect& r, bool emptyOnFail);
  // r's aspect ratio, scaled to this rectangle's larger side and centred in a box of this
  // rectangle's size at the origin.
  void Proportion(const TQXRect& r);
  // Keeps this size and centres this rectangle on r.
  void CenterInside(const TQXRect& r);
  // Each field becomes floor(field * factor + 0.5), in double precision.
  void Scale(float factor);

  int32_t left;
  int32_t top;
  int32_t right;
  int32_t bottom;

  static const TQXRect kZero;
  static const TQXRect kEmpty;
  static const TQXRect kInvalid;
  static const TQXRect kBiggest;
};

#endif  // QXGEOMETRY_H
