// Films a synthetic scene with a known camera path:
//
//   make_scene                            lists the scenes' names
//   make_scene NAME [PATH.csv] > NAME.y4m
//   make_scene NAME_1280x720@80           another size and number of frames
//
// The path has a line a frame: the camera's pose (x to the right and y upward in pixels, degrees
// counterclockwise) and the number of the shot. vstabilize's motion log has the opposite signs, as it tells
// how the content moves. All chroma samples of the clip are equal, so a background of another colour is
// recognised by its chroma.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "scenes/film.h"

namespace {

/// The share of a pixel that the foreground object covers. The object is a superellipse around its centre.
double ObjectCover(const Film& film, double fromX, double fromY) {
  constexpr double unitArea = 3.708;  // of |x|^4 + |y|^4 < 1
  const double half = std::sqrt(film.objectShare / unitArea);
  const double x = fromX / (half * film.width), y = fromY / (half * film.height);
  const double radius = std::sqrt(std::sqrt(x * x * x * x + y * y * y * y));
  return std::clamp((1 - radius) * half * film.height + 0.5, 0.0, 1.0);
}

class Camera {
 public:
  explicit Camera(const Film& film) : m_film(film) {
    if (film.objectShare > 0) {
      const Area area{-film.width / 2.0, -film.height / 2.0, film.width / 2.0, film.height / 2.0};
      m_object = std::make_unique<View>(PaintCanvas(area, 999));
    }
  }

  /// The luma plane of a frame.
  std::vector<unsigned char> Shoot(std::size_t number) {
    const FilmFrame& frame = m_film.frames[number];
    if (frame.shot != m_shot) LookAt(frame.shot);
    std::mt19937 engine(static_cast<std::uint32_t>(number));
    std::normal_distribution<double> noise(0, std::max(m_film.noise, 1e-9));
    const RigidMap toCanvas = frame.camera.ToCanvas();
    std::vector<unsigned char> luma;
    luma.reserve(static_cast<std::size_t>(m_film.width) * static_cast<std::size_t>(m_film.height));
    for (int y = 0; y < m_film.height; ++y) {
      for (int x = 0; x < m_film.width; ++x) {
        const double light =
            Light(frame, toCanvas.Of(x - (m_film.width - 1) / 2.0, y - (m_film.height - 1) / 2.0));
        const double seen = 128 + m_film.contrast * frame.gain * light + frame.bias;
        const double grey = m_film.noise > 0 ? seen + noise(engine) : seen;
        luma.push_back(static_cast<unsigned char>(std::lround(std::clamp(grey, 16.0, 235.0))));
      }
    }
    return luma;
  }

 private:
  void LookAt(int shot) {
    m_view = std::make_unique<View>(PaintShot(m_film, shot));
    m_shot = shot;
  }

  double Light(const FilmFrame& frame, Point point) const {
    if (!m_object) return m_view->At(point.x, point.y);
    const double x = point.x - frame.object.x, y = point.y - frame.object.y;
    const double cover = ObjectCover(m_film, x, y);
    const double behind = cover < 1 ? m_view->At(point.x, point.y) : 0;
    return cover > 0 ? std::lerp(behind, static_cast<double>(m_object->At(x, y)), cover) : behind;
  }

  const Film& m_film;
  std::unique_ptr<View> m_object, m_view;
  int m_shot = -1;
};

bool WritePath(const Film& film, const char* file) {
  std::FILE* out = std::fopen(file, "w");
  if (out == nullptr) return false;
  std::fputs("frame,x,y,theta,shot\n", out);
  for (std::size_t i = 0; i < film.frames.size(); ++i) {
    const auto& [camera, object, shot, gain, bias] = film.frames[i];
    std::fprintf(out, "%zu,%.6f,%.6f,%.6f,%d\n", i, camera.x, -camera.y, camera.degrees, shot);
  }
  return std::fclose(out) == 0;
}

bool WriteClip(const Film& film) {
  Camera camera(film);
  const auto chromaSamples =
      static_cast<std::size_t>(film.width / 2) * static_cast<std::size_t>(film.height / 2);
  const std::vector<unsigned char> u(chromaSamples, kFilmU), v(chromaSamples, kFilmV);
  std::printf("YUV4MPEG2 W%d H%d F30:1 Ip A1:1 C420jpeg\n", film.width, film.height);
  for (std::size_t i = 0; i < film.frames.size(); ++i) {
    std::fputs("FRAME\n", stdout);
    for (const auto& plane : {camera.Shoot(i), u, v}) {
      if (std::fwrite(plane.data(), 1, plane.size(), stdout) != plane.size()) return false;
    }
  }
  return std::fflush(stdout) == 0;
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc == 1) {
    for (const std::string_view name : FilmNames()) std::printf("%s\n", std::string(name).c_str());
    return 0;
  }
  if (argc > 3) {
    std::fputs("usage: make_scene [NAME [PATH.csv]]\n", stderr);
    return 2;
  }
  try {
    const Film film = FindFilm(argv[1]);
    if ((argc == 2 || WritePath(film, argv[2])) && WriteClip(film)) return 0;
    std::perror("make_scene: cannot write");
    return 1;
  } catch (const std::invalid_argument& error) {
    std::fprintf(stderr, "make_scene: %s\n", error.what());
    return 2;
  }
}
