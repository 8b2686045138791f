#pragma once

#include <stdexcept>

/// Reading, stabilizing or writing failed; the message says where.
class WorkError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};
