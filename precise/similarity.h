#pragma once

namespace precise {

/// A point or direction of the picture plane as a complex number: `re` to the right, `im` downward.
struct Complex {
  double re = 0, im = 0;
};

constexpr Complex operator+(Complex a, Complex b) { return {a.re + b.re, a.im + b.im}; }
constexpr Complex operator-(Complex a, Complex b) { return {a.re - b.re, a.im - b.im}; }
constexpr Complex operator-(Complex a) { return {-a.re, -a.im}; }
constexpr Complex operator*(Complex a, Complex b) {
  return {a.re * b.re - a.im * b.im, a.re * b.im + a.im * b.re};
}
constexpr Complex operator*(double a, Complex b) { return {a * b.re, a * b.im}; }
constexpr Complex Conjugate(Complex a) { return {a.re, -a.im}; }
constexpr double SquaredLength(Complex a) { return a.re * a.re + a.im * a.im; }

double Length(Complex a);

/// `a` scaled to length 1; {1, 0} where `a` is 0.
Complex Unit(Complex a);

/// The angle of `a` from the `re` axis: radians clockwise, -π to π; 0 where `a` is 0. The error is below
/// 1e-15, and all platforms give the same bits.
double Angle(Complex a);

/// 1 / a; `a` is not 0.
Complex Reciprocal(Complex a);

/// The map p → turn·p + shift. The length of `turn` is the zoom, its angle the roll.
///
/// Points are in display coordinates: measured from the picture's centre, in pixel heights on both axes. So
/// roll is a rotation for any pixel aspect. With square pixels the unit is a luma sample.
struct Similarity {
  Complex turn = {1, 0};
  Complex shift;

  constexpr Complex operator()(Complex point) const { return turn * point + shift; }
};

/// First `inner`, then `outer`.
constexpr Similarity Compose(const Similarity& outer, const Similarity& inner) {
  return {outer.turn * inner.turn, outer(inner.shift)};
}

/// The map that undoes `map`, whose turn is not 0.
Similarity Inverse(const Similarity& map);

/// The map with a zoom of 1: same roll, same shift.
Similarity Rigid(const Similarity& map);

/// The map that gives `map` when it is applied twice. The roll of `map` is less than half a turn.
Similarity Half(const Similarity& map);

}  // namespace precise
