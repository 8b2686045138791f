#include "host/stabilizer.h"

#include <algorithm>

#include "kernel/frame.h"

OutputLayout::OutputLayout(const StabilizerSettings& settings, FrameSize frame)
    : size(GetOutputSize(settings, frame)), m_background(settings.BkFillColor) {
  const FrameGeometry input(frame.width, frame.height);
  const bool isCropped =
      MakeKernelParams(settings, frame).clippingOption == static_cast<std::uint32_t>(ClippingOption::Crop);
  pitchBytes = isCropped ? PackedCropPitch(size.width) : input.strideBytes;
  inputBytes = input.SizeBytes();
  bufferBytes = std::max(inputBytes, pitchBytes * size.height);
}

void OutputLayout::FillTail(std::uint8_t* buffer) const {
  for (std::ptrdiff_t i = inputBytes; i < bufferBytes; ++i)
    buffer[i] = m_background[static_cast<std::size_t>(i % pitchBytes % kBytesPerPixel)];
}
