#pragma once

#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <string>

#include "kernel/kernelparams.h"

/// Throws WorkError when the name is that of the stream's input or output, whatever way it is spelt, or of
/// another file that is not to be overwritten.
void CheckMotionFile(const std::string& fileName, bool overwrite, std::FILE* input, std::FILE* output);

/// Writes a CSV line for each delivered frame: its number from 0, its motion against the frame before, and
/// its correction. x in pixels to the right, y in pixels upward, theta in degrees.
class MotionLog {
 public:
  /// Throws WorkError when the file cannot be made.
  explicit MotionLog(const std::string& fileName);

  /// The motion of the next frame that came in.
  void AddMotion(const MotionRecord& motion) { m_pending.push_back(motion); }

  /// The correction of the next frame that went out. Throws WorkError.
  void AddCorrection(const MotionRecord& correction);

  /// Writes what is still buffered. Throws WorkError.
  void Close();

 private:
  struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };

  [[noreturn]] void Fail() const;

  std::string m_fileName;
  std::unique_ptr<std::FILE, FileCloser> m_pFile;
  std::deque<MotionRecord> m_pending;
  std::int64_t m_frame = 0;
};
