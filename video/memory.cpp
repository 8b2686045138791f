#include "video/memory.h"

#include <algorithm>
#include <fstream>
#include <limits>
#include <string>
#include <sys/resource.h>

namespace {

constexpr std::int64_t kUnknown = std::numeric_limits<std::int64_t>::max();

std::int64_t AvailableOnMachine() {
  std::ifstream file("/proc/meminfo");
  std::string name;
  std::int64_t kilobytes = 0;
  for (std::string rest; file >> name >> kilobytes; std::getline(file, rest))
    if (name == "MemAvailable:") return kilobytes * 1024;
  return kUnknown;
}

std::int64_t LimitOfContainer() {
  std::ifstream file("/sys/fs/cgroup/memory.max");
  std::int64_t bytes = 0;
  return file >> bytes ? bytes : kUnknown;
}

std::int64_t LimitOfProcess() {
  rlimit limit = {};
  const bool isLimited = getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur < static_cast<rlim_t>(kUnknown);
  return isLimited ? static_cast<std::int64_t>(limit.rlim_cur) : kUnknown;
}

}  // namespace

std::int64_t AvailableMemory() {
  return std::min({AvailableOnMachine(), LimitOfContainer(), LimitOfProcess()});
}
