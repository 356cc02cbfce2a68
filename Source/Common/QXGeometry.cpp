// TQXPoint and TQXRect. All sums and products are taken in 32 bits and wrap, as the host's
// arithmetic does; double-to-integer conversions give 0x80000000 where the value has no 32-bit
// form (see QXTruncToInt32).
#include "QXGeometry.h"

#include <algorithm>
#include <cmath>

#include "QXInternal.h"

// Constant-initialised: valid before any code of the library or the host runs.
constinit const TQXRect TQXRect::kZero(0, 0, 0, 0);
constinit const TQXRect TQXRect::kEmpty(0, 0, 0, 0);
constinit const TQXRect TQXRect::kInvalid(INT32_MAX, INT32_MAX, INT32_MIN, INT32_MIN);
constinit const TQXRect TQXRect::kBiggest(INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX);

namespace {
// (a + b) / 2 with the sum wrapping in 32 bits and the division truncating towards zero.
int32_t HalfSumTruncated(int32_t a, int32_t b) {
  return QXWrapAdd(a, b) / 2;
}
// (a + b) >> 1: an arithmetic shift, rounding towards minus infinity.
int32_t HalfSumShifted(int32_t a, int32_t b) {
  return QXWrapAdd(a, b) >> 1;
}
}  // namespace

TQXRect::TQXRect(const TQXPoint& p1, const TQXPoint& p2)
    : left(p1.h), top(p1.v), right(p2.h), bottom(p2.v) {}

void TQXRect::Set(int32_t l, int32_t t, int32_t r, int32_t b) {
  left = l;
  top = t;
  right = r;
  bottom = b;
}

int32_t TQXRect::GetWidth() const {
  return QXWrapSub(right, left);
}
int32_t TQXRect::GetHeight() const {
  return QXWrapSub(bottom, top);
}
TQXPoint TQXRect::GetSize() const {
  return TQXPoint(GetWidth(), GetHeight());
}
int32_t TQXRect::GetArea() const {
  return QXWrapMul(GetWidth(), GetHeight());
}

TQXPoint TQXRect::GetCenter() const {
  return TQXPoint(HalfSumShifted(left, right), HalfSumShifted(top, bottom));
}
TQXPoint TQXRect::TopCenter() const {
  return TQXPoint(HalfSumTruncated(left, right), top);
}
TQXPoint TQXRect::BottomCenter() const {
  return TQXPoint(HalfSumTruncated(left, right), bottom);
}
TQXPoint TQXRect::LeftCenter() const {
  return TQXPoint(left, HalfSumTruncated(top, bottom));
}
TQXPoint TQXRect::RightCenter() const {
  return TQXPoint(right, HalfSumTruncated(top, bottom));
}
TQXPoint TQXRect::TopLeft() const {
  return TQXPoint(left, top);
}
TQXPoint TQXRect::TopRight() const {
  return TQXPoint(right, top);
}
TQXPoint TQXRect::BottomLeft() const {
  return TQXPoint(left, bottom);
}
TQXPoint TQXRect::BottomRight() const {
  return TQXPoint(right, bottom);
}

bool TQXRect::Valid() const {
  return left <= right && top <= bottom;
}
bool TQXRect::Invalid() const {
  return left > right || top > bottom;
}
bool TQXRect::Empty() const {
  return top >= bottom || left >= right;
}
void TQXRect::SetEmpty() {
  Set(0, 0, 0, 0);
}
void TQXRect::SetInvalid() {
  Set(INT32_MAX, INT32_MAX, INT32_MIN + 1, INT32_MIN + 1);
}

bool TQXRect::operator==(const TQXRect& r) const {
  return Equal(r);
}
bool TQXRect::operator!=(const TQXRect& r) const {
  return !Equal(r);
}
bool TQXRect::Equal(const TQXRect& r) const {
  return left == r.left && top == r.top && right == r.right && bottom == r.bottom;
}
bool TQXRect::EqualDimensions(const TQXRect& r) const {
  return GetWidth() == r.GetWidth() && GetHeight() == r.GetHeight();
}

TQXRect& TQXRect::operator+=(const TQXPoint& p) {
  Offset(p.h, p.v);
  return *this;
}
TQXRect& TQXRect::operator-=(const TQXPoint& p) {
  Offset(QXWrapNeg(p.h), QXWrapNeg(p.v));
  return *this;
}
void TQXRect::Offset(int32_t dh, int32_t dv) {
  left = QXWrapAdd(left, dh);
  right = QXWrapAdd(right, dh);
  top = QXWrapAdd(top, dv);
  bottom = QXWrapAdd(bottom, dv);
}
void TQXRect::Inset(int32_t dh, int32_t dv) {
  left = QXWrapAdd(left, dh);
  top = QXWrapAdd(top, dv);
  right = QXWrapSub(right, dh);
  bottom = QXWrapSub(bottom, dv);
}

bool TQXRect::PtInside(const TQXPoint& p) const {
  return p.v >= top && p.h >= left && p.v < bottom && p.h < right;
}

void TQXRect::PinPoint(const TQXPoint& p, TQXPoint& out) const {
  // Clamp to the lower edge, then pull back inside the upper (open) edge, in this order, so an
  // empty rectangle with left == right gives right - 1.
  int32_t h = std::max(p.h, left);
  if (h >= right) h = QXWrapSub(right, 1);
  int32_t v = std::max(p.v, top);
  if (v >= bottom) v = QXWrapSub(bottom, 1);
  out = TQXPoint(h, v);
}
TQXPoint TQXRect::PinPoint(const TQXPoint& p) const {
  TQXPoint out;
  PinPoint(p, out);
  return out;
}

void TQXRect::PtToRect(const TQXPoint& p1, const TQXPoint& p2) {
  left = std::min(p1.h, p2.h);
  right = std::max(p1.h, p2.h);
  top = std::min(p1.v, p2.v);
  bottom = std::max(p1.v, p2.v);
}

bool TQXRect::RectInside(const TQXRect& r) const {
  if (Empty() || r.Empty()) return false;
  return r.top >= top && r.left >= left && r.bottom <= bottom && r.right <= right;
}
bool TQXRect::RectInRect(const TQXRect& r) const {
  return r.left < right && r.right > left && r.top < bottom && r.bottom > top;
}
bool TQXRect::RectOverRect(const TQXRect& r) const {
  return left < r.right && right > r.left && top < r.bottom && bottom > r.top;
}

void TQXRect::Union(const TQXRect& r) {
  left = std::min(left, r.left);
  top = std::min(top, r.top);
  right = std::max(right, r.right);
  bottom = std::max(bottom, r.bottom);
}
void TQXRect::SafeUnion(const TQXRect& r) {
  if (Empty())
    *this = r;
  else if (!r.Empty())
    Union(r);
}
void TQXRect::UnionPt(const TQXPoint& p) {
  left = std::min(left, p.h);
  right = std::max(right, p.h);
  top = std::min(top, p.v);
  bottom = std::max(bottom, p.v);
}

bool TQXRect::Intersect(const TQXRect& r, bool emptyOnFail) {
  if (top < bottom && left < right) {
    left = std::max(left, r.left);
    top = std::max(top, r.top);
    right = std::min(right, r.right);
    bottom = std::min(bottom, r.bottom);
    if (top < bottom && left < right) return true;
  }
  if (emptyOnFail)
    SetEmpty();
  else
    SetInvalid();
  return false;
}

void TQXRect::Proportion(const TQXRect& r) {
  const double rw = double(r.GetWidth()), rh = double(r.GetHeight());
  const double w = double(GetWidth()), h = double(GetHeight());
  const double big = w > h ? w : h;
  // An empty r divides by zero; the conversions below then give 0x80000000, not a trap.
  const double k = rw > rh ? big / rw : big / rh;
  const double nw = rw * k, nh = rh * k;
  top = QXTruncToInt32((h - nh) * 0.5);
  left = QXTruncToInt32((w - nw) * 0.5);
  bottom = QXTruncToInt32(double(top) + nh);
  right = QXTruncToInt32(double(left) + nw);
}

void TQXRect::CenterInside(const TQXRect& r) {
  const int32_t w = GetWidth(), h = GetHeight();
  // left and bottom are computed, right and top follow, so the size is kept exactly.
  left = QXTruncToInt32(double(QXWrapAdd(r.right, r.left)) * 0.5 - double(w) * 0.5);
  bottom = QXTruncToInt32(double(QXWrapAdd(r.bottom, r.top)) * 0.5 + double(h) * 0.5);
  right = QXWrapAdd(left, w);
  top = QXWrapSub(bottom, h);
}

void TQXRect::Scale(float factor) {
  const double f = double(factor);
  auto scaled = [f](int32_t v) { return QXTruncToInt32(std::floor(double(v) * f + 0.5)); };
  top = scaled(top);
  left = scaled(left);
  bottom = scaled(bottom);
  right = scaled(right);
}
