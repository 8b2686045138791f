#include "scenes/film.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <numbers>
#include <stdexcept>

#include "scenes/random.h"

namespace {

constexpr double Pi = std::numbers::pi;

enum class Pan { none, drift, startAndStop, whip };
enum class Light { steady, flicker, flash, fade };

struct Recipe {
  std::string_view name;
  int width = 640, height = 480;
  int frames = 150;
  Pan pan = Pan::drift;
  double shake = 1, roll = 1;  // factors of the usual amplitudes
  double contrast = 1, noise = 0;
  double objectShare = 0;
  Light light = Light::steady;
  int shots = 1;
};

constexpr std::array Recipes = {
    Recipe{.name = "plain"},
    Recipe{.name = "plain-240", .width = 320, .height = 240},
    Recipe{.name = "plain-720", .width = 1280, .height = 720},
    Recipe{.name = "plain-1080", .width = 1920, .height = 1080},
    Recipe{.name = "shift", .roll = 0},
    Recipe{.name = "foreground", .objectShare = 1.0 / 3},
    Recipe{.name = "noise", .noise = 10},
    Recipe{.name = "exposure", .light = Light::flicker},
    Recipe{.name = "faint", .contrast = 0.18},
    Recipe{.name = "faint-noise", .contrast = 0.18, .noise = 5},
    Recipe{.name = "still", .pan = Pan::none, .shake = 0, .roll = 0, .noise = 2, .objectShare = 0.25},
    Recipe{.name = "cuts", .frames = 21 * 32, .shots = 21},
    Recipe{.name = "pan", .frames = 200, .pan = Pan::startAndStop},
    Recipe{.name = "whip", .frames = 200, .pan = Pan::whip},
    Recipe{.name = "flash", .light = Light::flash},
    Recipe{.name = "fade", .light = Light::fade},
};

/// The tremble of a hand: a sum of waves of 0.2 to 10 Hz at 30 frames a second, with amplitudes that fall
/// with frequency.
class Tremble {
 public:
  explicit Tremble(std::uint32_t seed) {
    Random random(seed);
    for (std::size_t i = 0; i < m_waves.size(); ++i) {
      const double octaves =
          (static_cast<double>(i) + random.Between(0, 1)) / static_cast<double>(m_waves.size()) * 5.6;
      const double cyclesAFrame = 0.2 / 30 * std::exp2(octaves);
      m_waves[i] = {2 * Pi * cyclesAFrame, random.Between(0, 2 * Pi), std::exp2(-0.6 * octaves)};
    }
  }

  double At(double frame) const {
    double sum = 0;
    for (const Wave& wave : m_waves) sum += wave.height * std::sin(wave.speed * frame + wave.phase);
    return sum;
  }

 private:
  struct Wave {
    double speed, phase, height;
  };
  std::array<Wave, 28> m_waves{};
};

/// The distance covered by a movement of one pixel a frame. It speeds up within `ramp` frames from `start` on
/// and slows down within `ramp` frames from `stop` on, each along half a cosine wave.
double Moved(double frame, double start, double stop, double ramp) {
  const auto since = [=](double begin) {
    const double t = std::clamp(frame - begin, 0.0, ramp);
    const double rising = t / 2 - ramp / (2 * Pi) * std::sin(Pi * t / ramp);
    return rising + std::max(frame - begin - ramp, 0.0);
  };
  return since(start) - since(stop);
}

/// The pose that the camera operator intends, free of tremble.
Pose Aim(Pan pan, double frame) {
  switch (pan) {
    case Pan::drift:
      return {0.8 * frame + 12 * std::sin(frame / 40), 0.3 * frame + 8 * std::cos(frame / 33), 0};
    case Pan::startAndStop:
      return {6 * Moved(frame, 50, 115, 20), 0, 0};
    case Pan::whip:
      return {60 * Moved(frame, 30, 108, 62), 0, 0};
    case Pan::none:
      break;
  }
  return {};
}

void Expose(Light light, std::size_t number, std::size_t count, Random& random, FilmFrame& frame) {
  const std::size_t middle = count / 2;
  const auto away = static_cast<double>(number > middle ? number - middle : middle - number);
  switch (light) {
    case Light::flicker:
      frame.gain = random.Between(0.8, 1.2);
      frame.bias = random.Between(-12, 12);
      break;
    case Light::flash:
      if (number == middle) {
        frame.gain = 1.4;
        frame.bias = 85;
      }
      break;
    case Light::fade:
      frame.gain = std::clamp((away - 4) / 20, 0.0, 1.0);
      frame.bias = -112 * (1 - frame.gain);
      break;
    case Light::steady:
      break;
  }
}

/// Several shots have 24 to 40 frames each.
int ShotFrames(const Recipe& recipe, int shot) {
  const int mean = recipe.frames / recipe.shots;
  return recipe.shots == 1 ? mean : mean + (shot * 7 % 5 - 2) * 4;
}

/// A shot's frames, with a constant exposure.
std::vector<FilmFrame> Shoot(const Recipe& recipe, int shot) {
  const std::uint32_t seed = 10 * static_cast<std::uint32_t>(shot);
  const Tremble right(seed + 1), down(seed + 2), roll(seed + 3);
  std::vector<FilmFrame> frames;
  for (int number = 0; number < ShotFrames(recipe, shot); ++number) {
    FilmFrame frame;
    const Pose aim = Aim(recipe.pan, number);
    frame.camera = {aim.x + recipe.shake * 1.5 * right.At(number),
                    aim.y + recipe.shake * 1.5 * down.At(number), recipe.roll * 0.1 * roll.At(number)};
    frame.object = {aim.x + 0.12 * recipe.width * std::sin(number / 13.0),
                    aim.y + 10 * std::sin(number / 9.0), 0};
    frame.shot = shot;
    // Every other cut leads to a shot of the same brightness.
    frame.bias = recipe.shots > 1 ? 12 * (shot / 2 % 3 - 1) : 0;
    frames.push_back(frame);
  }
  return frames;
}

/// The area that pictures of this size show at these poses, and a margin on each side.
Area Surroundings(const std::vector<FilmFrame>& frames, double width, double height) {
  constexpr double margin = 96;
  const auto [left, right] = std::ranges::minmax(frames, {}, [](const FilmFrame& f) { return f.camera.x; });
  const auto [top, bottom] = std::ranges::minmax(frames, {}, [](const FilmFrame& f) { return f.camera.y; });
  const double across = width / 2 + margin, down = height / 2 + margin;
  return {left.camera.x - across, top.camera.y - down, right.camera.x + across, bottom.camera.y + down};
}

/// Removes `sign` and the number behind it from the front of `text`. False when `text` does not begin so.
bool ParseNumber(std::string_view& text, char sign, int& number) {
  if (!text.starts_with(sign)) return false;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data() + 1, end, number);
  text = {rest, end};
  return error == std::errc();
}

/// Applies an optional _WxH and an optional @FRAMES to a recipe. False for any other text.
bool Vary(std::string_view text, Recipe& recipe, int& frames) {
  const auto isUsable = [](int side) { return side % 2 == 0 && side >= 64 && side <= 8192; };
  if (text.starts_with('_') &&
      !(ParseNumber(text, '_', recipe.width) && ParseNumber(text, 'x', recipe.height)))
    return false;
  if (text.starts_with('@') && !ParseNumber(text, '@', frames)) return false;
  if (recipe.shots == 1) recipe.frames = std::max(recipe.frames, frames);
  return text.empty() && isUsable(recipe.width) && isUsable(recipe.height) && frames > 0 && frames <= 10000;
}

Film Prepare(const Recipe& recipe) {
  Film film{recipe.name, recipe.width, recipe.height, recipe.contrast, recipe.noise, recipe.objectShare, {},
            {}};
  for (int shot = 0; shot < recipe.shots; ++shot) {
    const std::vector<FilmFrame> frames = Shoot(recipe, shot);
    film.frames.insert(film.frames.end(), frames.begin(), frames.end());
    film.shots.push_back(Surroundings(frames, recipe.width, recipe.height));
  }
  Random random(7);
  for (std::size_t i = 0; i < film.frames.size(); ++i) {
    Expose(recipe.light, i, film.frames.size(), random, film.frames[i]);
  }
  return film;
}

}  // namespace

RigidMap Pose::ToCanvas() const { return {std::cos(degrees * Pi / 180), std::sin(degrees * Pi / 180), x, y}; }

RigidMap Pose::ToPicture() const {
  const auto [cosine, sine, right, down] = ToCanvas();
  return {cosine, -sine, sine * down - cosine * right, -sine * right - cosine * down};
}

std::vector<std::string_view> FilmNames() {
  std::vector<std::string_view> names;
  for (const Recipe& recipe : Recipes) names.push_back(recipe.name);
  return names;
}

Film FindFilm(const std::string& name) {
  const std::string base = name.substr(0, name.find_first_of("_@"));
  const auto* const known = std::ranges::find(Recipes, base, &Recipe::name);
  Recipe recipe = known == Recipes.end() ? Recipe{} : *known;
  int frames = recipe.frames;
  if (known == Recipes.end() || !Vary(std::string_view(name).substr(base.size()), recipe, frames)) {
    std::string names;
    for (const std::string_view each : FilmNames()) names += ' ' + std::string(each);
    throw std::invalid_argument("no scene '" + name +
                                "'; scenes are NAME[_WxH][@FRAMES], W and H even and 64 to 8192, up to 10000 "
                                "frames, with a name of" +
                                names);
  }
  Film film = Prepare(recipe);
  film.frames.resize(std::min(static_cast<std::size_t>(frames), film.frames.size()));
  return film;
}

Canvas PaintShot(const Film& film, int shot) {
  return PaintCanvas(film.shots[static_cast<std::size_t>(shot)], 1000 + static_cast<std::uint32_t>(shot));
}
