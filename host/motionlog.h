#pragma once

#include <charconv>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "precise/stabilizer.h"

/// Throws WorkError when `fileName`, in whatever spelling, names the file of the input or of the output, or
/// another existing regular file while `overwrite` is false.
void CheckMotionFile(const std::string& fileName, bool overwrite, std::FILE* input, std::FILE* output);

/// A CSV file with a line for each delivered frame: its number from 0, the motion of its content since the
/// frame before, and the correction. x and y are in pixels, positive to the right and upward. theta is in
/// degrees, positive counterclockwise in the motion and clockwise in the correction.
class MotionLog {
 public:
  /// `moreColumns` is empty or begins with a comma. Throws WorkError when the file cannot be made.
  explicit MotionLog(const std::string& fileName, std::string_view moreColumns = "");

  /// Writes each number with the fewest digits that read back as the same number. Throws WorkError.
  template <class... Number>
  void WriteLine(Number... numbers) {
    m_line.clear();
    (Append(numbers), ...);
    m_line.back() = '\n';
    Write(m_line);
  }

  /// Writes the rest of the buffered lines. Throws WorkError.
  void Close();

 private:
  struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };

  /// Adds the number and a comma to the line.
  template <class Number>
  void Append(Number number) {
    char digits[32];
    // Adding 0 turns -0 into 0, which is written without a sign.
    m_line.append(digits, std::to_chars(digits, digits + sizeof digits, number + Number{}).ptr);
    m_line += ',';
  }

  void Write(std::string_view text);
  [[noreturn]] void Fail() const;

  std::string m_fileName;
  std::unique_ptr<std::FILE, FileCloser> m_pFile;
  std::string m_line;
};

/// The columns that the precise engine adds.
inline constexpr std::string_view kPreciseColumns = ",shot,zoom";

/// Converts a report to the units and signs of `MotionLog`, which are the classic engine's.
precise::FrameReport AsLogged(const precise::FrameReport& report);

/// Converts a report of the precise engine and writes it as a line. Throws WorkError.
void WriteReport(MotionLog& log, const precise::FrameReport& report);
