#include <cstdint>
#include <cstdio>
#include <exception>
#include <vector>

#include "host/options.h"
#include "host/rawvideo.h"
#include "host/y4m.h"

// The vstabilize command without an engine: it only reads and writes the frames, whose cost can then be
// subtracted.

namespace {

void CopyRaw(FrameSize size) {
  const FrameGeometry frame(size.width, size.height);
  std::vector<std::uint8_t> buffer(static_cast<std::size_t>(frame.SizeBytes()));
  RawVideoReader reader(stdin, size);
  RawVideoWriter writer(stdout, size);
  while (reader.Read(buffer.data())) writer.Write(buffer.data(), frame.strideBytes);
}

void CopyY4m() {
  Y4mReader reader(stdin);
  const precise::PictureFormat& format = reader.Facts().format;
  Y4mFrame frame(FrameBytes(format));
  Y4mWriter writer(stdout, reader.Head(), format);
  while (reader.Read(frame)) writer.Write(frame.parameters, {frame.samples.get(), frame.bytes});
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Options options = ParseOptions({argv + 1, argv + argc});
    if (options.engine == Engine::Precise)
      CopyY4m();
    else
      CopyRaw(options.size);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "copy_clip: %s\n", error.what());
    return 1;
  }
}
