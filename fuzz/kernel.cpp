// Takes one kernel for each table of loops through the same calls, also where memory runs out, and compares
// them.

#include <memory>
#include <tuple>

#include "fuzz/target.h"
#include "kernel/frame.h"
#include "kernel/stabilizevideokernel.h"
#include "scenes/scene.h"
#include "support/memory.h"
#include "support/params.h"

namespace {

/// Any settings, of which one may be spoilt.
KernelParams ChooseAnyParams(Choices& choices) {
  const std::int32_t most = choices.OneOf({30, 200, 30, 4, 400});
  KernelParams params = ChooseParams(choices, choices.Number(1, most), choices.Number(1, most));
  if (choices.Once(4))
    *choices.OneOf({&params.cropMarginX, &params.cropMarginY, &params.windowLength, &params.roi.left,
                    &params.roi.top, &params.roi.right, &params.roi.bottom}) = choices.Number(-1, most);
  if (choices.Once(16)) params.clippingOption = 3;
  return params;
}

struct Life {
  /// Runs a step of each kernel, within so much memory, and compares the kernels.
  template <class Step>
  void InStep(std::int64_t memory, const Step& step) {
    std::vector<bool> successes;
    for (const auto& kernel : kernels)
      successes.push_back([&] {
        const LimitedMemory limited(memory);
        return step(*kernel);
      }());
    const auto facts = [](const CStabilizeVideoKernel& kernel) {
      const MotionRecord motion = kernel.LatestMotion(), correction = kernel.LatestCorrection();
      return std::tuple(kernel.IsInitialized(), motion.dx, motion.dy, motion.theta, correction.dx,
                        correction.dy, correction.theta);
    };
    for (std::size_t i = 1; i < kernels.size(); ++i)
      Require(successes[i] == successes[0] && facts(*kernels[i]) == facts(*kernels[0]), "kernels agree");
  }

  void ShowFrame(Choices& choices, std::int64_t memory) {
    const FrameGeometry frame(params.width, params.height);
    std::vector<std::uint8_t> picture(static_cast<std::size_t>(frame.SizeBytes()),
                                      static_cast<std::uint8_t>(choices.Byte()));
    if (choices.Once(4)) choices.Fill(picture);
    if (choices.Once(2))
      picture = Scene(frame, 20, choices.Once(5) ? 2 : 1)
                    .Shoot({choices.Number(-99, 99) / 10.0, choices.Number(-99, 99) / 10.0,
                            choices.Number(-30, 30) / 10.0});
    const bool repeat = choices.Once(6);
    std::vector<std::vector<std::uint8_t>> pictures(kernels.size(), picture);
    std::size_t next = 0, delivered = 0;
    InStep(memory, [&](CStabilizeVideoKernel& kernel) {
      bool noOutput = false;
      const bool success = kernel.ProcessFrame(pictures[next++].data(), repeat, &noOutput);
      delivered += success && !noOutput;
      return success;
    });
    Require(delivered % kernels.size() == 0, "kernels deliver at the same time");
    for (const auto& other : pictures) Require(other == pictures[0], "pictures are equal");
  }

  std::vector<std::unique_ptr<CStabilizeVideoKernel>> kernels;
  KernelParams params = {};
};

}  // namespace

void Live(Choices& choices) {
  Life life;
  for (const KernelOps* const ops : AvailableOps())
    life.kernels.push_back(std::make_unique<CStabilizeVideoKernel>(*ops));
  for (bool isFirst = true; choices.AreLeft(); isFirst = false) {
    const std::uint32_t what = isFirst ? 0 : choices.Byte() % 32;
    const std::int64_t memory = choices.Once(4) ? choices.Number(0, 65535) * 16 : 1 << 30;
    if (what == 0) {
      life.params = ChooseAnyParams(choices);
      life.InStep(memory, [&](CStabilizeVideoKernel& kernel) { return kernel.Initialize(life.params); });
    } else if (what < 3) {
      life.InStep(memory, [&](CStabilizeVideoKernel& kernel) {
        what == 1 ? kernel.Reset() : kernel.Release();
        return true;
      });
    } else {
      life.ShowFrame(choices, memory);
    }
  }
}
