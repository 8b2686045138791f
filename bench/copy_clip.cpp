#include <cstdint>
#include <cstdio>
#include <exception>
#include <vector>

#include "host/options.h"
#include "host/rawvideo.h"

// The vstabilize command with the stabilization taken out: what reading and writing the frames costs.

int main(int argc, char** argv) {
  try {
    const FrameSize size = ParseOptions({argv + 1, argv + argc}).size;
    const FrameGeometry frame(size.width, size.height);
    std::vector<std::uint8_t> buffer(static_cast<std::size_t>(frame.SizeBytes()));
    RawVideoReader reader(stdin, size);
    RawVideoWriter writer(stdout, size);
    while (reader.Read(buffer.data())) writer.Write(buffer.data(), frame.strideBytes);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "copy_clip: %s\n", error.what());
    return 1;
  }
}
