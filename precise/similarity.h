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

/// The same direction with length 1; {1, 0} for no direction.
Complex Unit(Complex a);

/// Radians clockwise from `re`, the same bits on every platform, within 1e-15.
double Angle(Complex a);

/// 1 / a for a that is not 0.
Complex Reciprocal(Complex a);

/// The map p → turn·p + shift. Points stand in pixels as they are shown, with the picture's centre as origin:
/// where pixels are not square, x is counted in pixel heights. The length of `turn` is the zoom.
struct Similarity {
  Complex turn = {1, 0};
  Complex shift;

  constexpr Complex operator()(Complex point) const { return turn * point + shift; }
};

/// First `inner`, then `outer`.
constexpr Similarity Compose(const Similarity& outer, const Similarity& inner) {
  return {outer.turn * inner.turn, outer(inner.shift)};
}

Similarity Inverse(const Similarity& map);

/// The map without its zoom.
Similarity Rigid(const Similarity& map);

/// The map that gives `map` when it is applied twice.
Similarity Half(const Similarity& map);

}  // namespace precise
