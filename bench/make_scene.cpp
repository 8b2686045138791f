// Films a made-up scene whose camera path is known:
//
//   make_scene                            lists the scenes' names
//   make_scene NAME [PATH.csv] > NAME.y4m
//   make_scene NAME_1280x720@80           another size and number of frames
//
// The path has a line a frame: where the camera points (pixels, x to the right, y upward; degrees
// counterclockwise), and the shot's number. The content moves the other way, and vstabilize's motion log
// tells of the content. The clip's chroma is the same everywhere, so that a background of any other colour
// gives itself away.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "scenes.h"

namespace {

/// How much of a pixel something in front covers: a rounded box around the object's centre.
double ObjectCover(const Scene& scene, double fromX, double fromY) {
  // The area of |x|^4 + |y|^4 < 1.
  const double half = std::sqrt(scene.objectShare / 3.708);
  const double x = fromX / (half * scene.width), y = fromY / (half * scene.height);
  const double radius = std::sqrt(std::sqrt(x * x * x * x + y * y * y * y));
  return std::clamp((1 - radius) * half * scene.height + 0.5, 0.0, 1.0);
}

class Camera {
 public:
  explicit Camera(const Scene& scene) : m_scene(scene) {
    if (scene.objectShare > 0) {
      const Area area{-scene.width / 2.0, -scene.height / 2.0, scene.width / 2.0, scene.height / 2.0};
      m_object = std::make_unique<View>(PaintCanvas(area, 999));
    }
  }

  /// The luma plane of a frame.
  std::vector<unsigned char> Shoot(std::size_t number) {
    const SceneFrame& frame = m_scene.frames[number];
    if (frame.shot != m_shot) LookAt(frame.shot);
    std::mt19937 engine(static_cast<std::uint32_t>(number));
    std::normal_distribution<double> noise(0, std::max(m_scene.noise, 1e-9));
    const Movement toCanvas = frame.camera.ToCanvas();
    std::vector<unsigned char> luma;
    luma.reserve(static_cast<std::size_t>(m_scene.width) * static_cast<std::size_t>(m_scene.height));
    for (int y = 0; y < m_scene.height; ++y) {
      for (int x = 0; x < m_scene.width; ++x) {
        const double light =
            Light(frame, toCanvas.Of(x - (m_scene.width - 1) / 2.0, y - (m_scene.height - 1) / 2.0));
        const double seen = 128 + m_scene.contrast * frame.gain * light + frame.bias;
        const double grey = m_scene.noise > 0 ? seen + noise(engine) : seen;
        luma.push_back(static_cast<unsigned char>(std::lround(std::clamp(grey, 16.0, 235.0))));
      }
    }
    return luma;
  }

 private:
  void LookAt(int shot) {
    m_view = std::make_unique<View>(PaintShot(m_scene, shot));
    m_shot = shot;
  }

  double Light(const SceneFrame& frame, Point point) const {
    if (!m_object) return m_view->At(point.x, point.y);
    const double x = point.x - frame.object.x, y = point.y - frame.object.y;
    const double cover = ObjectCover(m_scene, x, y);
    const double behind = cover < 1 ? m_view->At(point.x, point.y) : 0;
    return cover > 0 ? std::lerp(behind, static_cast<double>(m_object->At(x, y)), cover) : behind;
  }

  const Scene& m_scene;
  std::unique_ptr<View> m_object, m_view;
  int m_shot = -1;
};

bool WritePath(const Scene& scene, const char* file) {
  std::FILE* out = std::fopen(file, "w");
  if (out == nullptr) return false;
  std::fputs("frame,x,y,theta,shot\n", out);
  for (std::size_t i = 0; i < scene.frames.size(); ++i) {
    const auto& [camera, object, shot, gain, bias] = scene.frames[i];
    std::fprintf(out, "%zu,%.6f,%.6f,%.6f,%d\n", i, camera.x, -camera.y, camera.degrees, shot);
  }
  return std::fclose(out) == 0;
}

bool Film(const Scene& scene) {
  Camera camera(scene);
  const auto chromaSamples =
      static_cast<std::size_t>(scene.width / 2) * static_cast<std::size_t>(scene.height / 2);
  const std::vector<unsigned char> u(chromaSamples, SceneU), v(chromaSamples, SceneV);
  std::printf("YUV4MPEG2 W%d H%d F30:1 Ip A1:1 C420jpeg\n", scene.width, scene.height);
  for (std::size_t i = 0; i < scene.frames.size(); ++i) {
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
    for (const std::string_view name : SceneNames()) std::printf("%s\n", std::string(name).c_str());
    return 0;
  }
  if (argc > 3) {
    std::fputs("usage: make_scene [NAME [PATH.csv]]\n", stderr);
    return 2;
  }
  try {
    const Scene scene = FindScene(argv[1]);
    if ((argc == 2 || WritePath(scene, argv[2])) && Film(scene)) return 0;
    std::perror("make_scene: cannot write");
    return 1;
  } catch (const std::invalid_argument& error) {
    std::fprintf(stderr, "make_scene: %s\n", error.what());
    return 2;
  }
}
