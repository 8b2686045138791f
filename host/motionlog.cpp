#include "host/motionlog.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <numbers>
#include <system_error>

#include "host/platform.h"
#include "host/workerror.h"

void CheckMotionFile(const std::string& fileName, bool overwrite, std::FILE* input, std::FILE* output) {
  std::error_code ignored;
  if (IsFileOf(fileName, input) || IsFileOf(fileName, output))
    throw WorkError("the motion file is the input or the output: " + fileName);
  if (!overwrite && std::filesystem::is_regular_file(fileName, ignored))
    throw WorkError("the motion file exists already, --force overwrites it: " + fileName);
}

MotionLog::MotionLog(const std::string& fileName, std::string_view moreColumns)
    : m_fileName(fileName), m_pFile(std::fopen(fileName.c_str(), "w")) {
  if (!m_pFile) Fail();
  Write("frame,motion_x,motion_y,motion_theta,correction_x,correction_y,correction_theta");
  Write(moreColumns);
  Write("\n");
}

void MotionLog::Write(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), m_pFile.get()) != text.size()) Fail();
}

void MotionLog::Close() {
  if (std::fflush(m_pFile.get()) != 0) Fail();
}

void MotionLog::Fail() const {
  throw WorkError("cannot write the motion file " + m_fileName + ": " + std::strerror(errno));
}

precise::FrameReport AsLogged(const precise::FrameReport& report) {
  constexpr double kDegreesPerRadian = 180 / std::numbers::pi;
  precise::FrameReport logged = report;
  logged.motion = {report.motion.x, -report.motion.y, -report.motion.roll * kDegreesPerRadian};
  logged.correction = {report.correction.x, -report.correction.y, report.correction.roll * kDegreesPerRadian};
  return logged;
}

void WriteReport(MotionLog& log, const precise::FrameReport& report) {
  const auto& [frame, shot, motion, zoom, correction] = AsLogged(report);
  log.WriteLine(frame, motion.x, motion.y, motion.roll, correction.x, correction.y, correction.roll, shot,
                zoom);
}
