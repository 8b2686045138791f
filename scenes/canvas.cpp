#include "scenes/canvas.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "scenes/random.h"

namespace {

constexpr double Pitch = 0.5;
constexpr double SmallestLeaf = 4, LargestLeaf = 160;  // half widths in picture pixels

/// A turned ellipse or rectangle with its own shading and texture.
struct Leaf {
  double x, y, halfWidth, halfHeight, cosine, sine;
  bool round;
  double grey, shade, roughness;
  std::uint32_t texture;
};

/// Leaves of each octave of sizes cover about the same area.
Leaf GrowLeaf(Random& random, Area area) {
  const double inverse = random.Between(1 / (LargestLeaf * LargestLeaf), 1 / (SmallestLeaf * SmallestLeaf));
  const double size = 1 / std::sqrt(inverse), slimness = random.Between(0.4, 1),
               angle = random.Between(0, 6.2832);
  Leaf leaf{};
  leaf.x = random.Between(area.left - size, area.right + size);
  leaf.y = random.Between(area.top - size, area.bottom + size);
  leaf.halfWidth = size;
  leaf.halfHeight = size * slimness;
  leaf.cosine = std::cos(angle);
  leaf.sine = std::sin(angle);
  leaf.round = random.Between(0, 1) < 0.5;
  leaf.grey = random.Between(-70, 70);
  leaf.shade = random.Between(-15, 15);
  leaf.roughness = random.Between(2, 16);
  leaf.texture = random.Number();
  return leaf;
}

std::uint32_t Hash(std::uint32_t x, std::uint32_t y, std::uint32_t seed) {
  std::uint32_t h = x * 0x9E3779B1U ^ y * 0x85EBCA77U ^ seed;
  h = (h ^ (h >> 15)) * 0x2C1B3C6DU;
  h = (h ^ (h >> 12)) * 0x297A2D39U;
  return h ^ (h >> 15);
}

double Smoothstep(double t) { return t * t * (3 - 2 * t); }

/// Value noise: random values in -1 ... 1 on a grid, interpolated smoothly.
double ValueNoise(double x, double y, std::uint32_t seed) {
  const double left = std::floor(x), top = std::floor(y);
  const auto column = static_cast<std::uint32_t>(static_cast<std::int32_t>(left));
  const auto row = static_cast<std::uint32_t>(static_cast<std::int32_t>(top));
  const auto corner = [&](std::uint32_t i, std::uint32_t j) {
    return Hash(column + i, row + j, seed) * 0x1p-31 - 1;
  };
  const double across = Smoothstep(x - left), down = Smoothstep(y - top);
  return std::lerp(std::lerp(corner(0, 0), corner(1, 0), across),
                   std::lerp(corner(0, 1), corner(1, 1), across), down);
}

/// Noise with periods of two pixels and more. u and v are picture pixels along the leaf's axes.
double Grain(const Leaf& leaf, double u, double v) {
  double sum = 0;
  std::uint32_t seed = leaf.texture;
  for (const double period : {2.0, 4.0, 9.0, 21.0}) sum += ValueNoise(u / period, 1.6 * v / period, seed++);
  return leaf.roughness * sum;
}

/// Paints the leaf where no other lies; returns the number of samples painted.
std::size_t Paint(const Leaf& leaf, Area area, FloatPlane& samples, std::vector<char>& covered) {
  const double reach = std::hypot(leaf.halfWidth, leaf.halfHeight);
  const auto first = [](double from) { return std::max(0, static_cast<int>(std::ceil(from / Pitch))); };
  const auto end = [](double to, int limit) {
    return std::min(limit, static_cast<int>(std::ceil(to / Pitch)));
  };
  std::size_t painted = 0;
  for (int y = first(leaf.y - reach - area.top); y < end(leaf.y + reach - area.top, samples.Height()); ++y) {
    for (int x = first(leaf.x - reach - area.left); x < end(leaf.x + reach - area.left, samples.Width());
         ++x) {
      char& taken = covered[static_cast<std::size_t>(samples.Row(y) + x - samples.Row(0))];
      if (taken != 0) continue;
      const double fromX = area.left + x * Pitch - leaf.x, fromY = area.top + y * Pitch - leaf.y;
      const double u = leaf.cosine * fromX + leaf.sine * fromY, v = leaf.cosine * fromY - leaf.sine * fromX;
      const double across = u / leaf.halfWidth, down = v / leaf.halfHeight;
      const bool inside =
          leaf.round ? across * across + down * down < 1 : std::abs(across) < 1 && std::abs(down) < 1;
      if (!inside) continue;
      taken = 1;
      ++painted;
      samples.Row(y)[x] = static_cast<float>(leaf.grey + leaf.shade * across + Grain(leaf, u, v));
    }
  }
  return painted;
}

}  // namespace

Canvas PaintCanvas(Area area, std::uint32_t seed) {
  const auto count = [](double length) { return static_cast<int>(std::ceil(length / Pitch)) + 1; };
  FloatPlane samples(count(area.right - area.left), count(area.bottom - area.top));
  std::vector<char> covered(static_cast<std::size_t>(samples.Width()) *
                            static_cast<std::size_t>(samples.Height()));
  std::fill_n(samples.Row(0), covered.size(), 0.0F);
  Random random(seed);
  // Half a percent stays uncovered, at zero: each further leaf would cover hardly any of it.
  std::size_t bare = covered.size();
  while (bare > covered.size() / 200) bare -= Paint(GrowLeaf(random, area), area, samples, covered);
  // The lens: it removes nearly all detail that is too fine for pixels.
  return {Blurred(Blurred(samples)), area.left, area.top, Pitch};
}
