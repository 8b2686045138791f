#include "host/motionlog.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "host/platform.h"
#include "host/workerror.h"

namespace {

std::string Columns(const MotionRecord& motion) {
  // The shortest digits that read back as the same number; adding zero turns -0 into 0.
  std::array<char, 32> theta = {};
  const auto [end, error] = std::to_chars(theta.data(), theta.data() + theta.size(), motion.theta + 0.0);
  return ',' + std::to_string(motion.dx) + ',' + std::to_string(motion.dy) + ',' +
         std::string(theta.data(), end);
}

}  // namespace

void CheckMotionFile(const std::string& fileName, bool overwrite, std::FILE* input, std::FILE* output) {
  std::error_code ignored;
  if (IsFileOf(fileName, input) || IsFileOf(fileName, output))
    throw WorkError("the motion file is the input or the output: " + fileName);
  if (!overwrite && std::filesystem::is_regular_file(fileName, ignored))
    throw WorkError("the motion file exists already, --force overwrites it: " + fileName);
}

MotionLog::MotionLog(const std::string& fileName)
    : m_fileName(fileName), m_pFile(std::fopen(fileName.c_str(), "w")) {
  if (!m_pFile) Fail();
  std::fputs("frame,motion_x,motion_y,motion_theta,correction_x,correction_y,correction_theta\n",
             m_pFile.get());
}

void MotionLog::AddCorrection(const MotionRecord& correction) {
  const std::string line =
      std::to_string(m_frame++) + Columns(m_pending.front()) + Columns(correction) + '\n';
  m_pending.pop_front();
  if (std::fputs(line.c_str(), m_pFile.get()) < 0) Fail();
}

void MotionLog::Close() {
  if (std::fflush(m_pFile.get()) != 0) Fail();
}

void MotionLog::Fail() const {
  throw WorkError("cannot write the motion file " + m_fileName + ": " + std::strerror(errno));
}
