#pragma once

#include <memory>
#include <string>
#include <vector>

#include "video/av.h"

class Input;
class Output;

/// A stream beside the picture that is written to the output.
class SideStream {
 public:
  virtual ~SideStream() = default;

  /// Takes the packet's content. Throws WorkError.
  virtual void Take(AVPacket& packet) = 0;

  /// Ends the stream. Throws WorkError.
  virtual void End() {}
};

/// All streams beside the picture: copied where the output takes them, else converted, else left out.
class SideStreams {
 public:
  /// Adds the streams to the output. Throws WorkError.
  SideStreams(Input& input, Output& output);

  void Take(AVPacket& packet);
  void End();

  /// What the output cannot hold, each in words.
  const std::vector<std::string>& LeftOut() const { return m_leftOut; }

 private:
  std::vector<std::unique_ptr<SideStream>> m_streams;  // by index in the input; null: takes no packets
  std::vector<std::string> m_leftOut;
};
