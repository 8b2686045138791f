#pragma once

#include <charconv>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "precise/stabilizer.h"

/// Throws WorkError when the name is that of the stream's input or output, whatever way it is spelt, or of
/// another file that is not to be overwritten.
void CheckMotionFile(const std::string& fileName, bool overwrite, std::FILE* input, std::FILE* output);

/// A CSV file with a line for each delivered frame: its number from 0, how the content moved against the
/// frame before, and how it was moved to correct that. x in pixels to the right, y in pixels upward, theta in
/// degrees, counterclockwise in the motion and clockwise in the correction.
class MotionLog {
 public:
  /// `moreColumns` begins with a comma where it is not empty. Throws WorkError when the file cannot be made.
  explicit MotionLog(const std::string& fileName, std::string_view moreColumns = "");

  /// Numbers get the shortest digits that read back as the same. Throws WorkError.
  template <class... Number>
  void WriteLine(Number... numbers) {
    m_line.clear();
    (Append(numbers), ...);
    m_line.back() = '\n';
    Write(m_line);
  }

  /// Writes what is still buffered. Throws WorkError.
  void Close();

 private:
  struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };

  /// The number and a comma.
  template <class Number>
  void Append(Number number) {
    char digits[32];
    // Adding zero turns -0 into 0.
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

/// The report with the classic engine's units and signs: y upward, degrees, roll of the motion against the
/// clock, and that of the correction with it.
precise::FrameReport AsLogged(const precise::FrameReport& report);

/// A line of the precise engine, as logged. Throws WorkError.
void WriteReport(MotionLog& log, const precise::FrameReport& report);
