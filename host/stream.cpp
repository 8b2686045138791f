#include "host/stream.h"

#include <cerrno>
#include <cstring>

#include "host/platform.h"

void DisableBuffering(std::FILE* stream) { std::setvbuf(stream, nullptr, _IONBF, 0); }

std::size_t ReadBytes(std::FILE* stream, std::span<std::uint8_t> bytes) {
  std::size_t count = 0;
  do {
    errno = 0;
    count += std::fread(bytes.data() + count, 1, bytes.size() - count, stream);
  } while (count < bytes.size() && std::ferror(stream) && AwaitTransfer(stream, Transfer::Read));
  return count;
}

bool WriteBytes(std::FILE* stream, std::span<const std::byte> bytes) {
  std::size_t count = 0;
  do {
    errno = 0;
    count += std::fwrite(bytes.data() + count, 1, bytes.size() - count, stream);
  } while (count < bytes.size() && AwaitTransfer(stream, Transfer::Write));
  return count == bytes.size();
}

std::string SystemReason(int error) { return error != 0 ? std::strerror(error) : "unknown error"; }
