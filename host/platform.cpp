#include "host/platform.h"

#ifdef _WIN32
#include <windows.h>

#include <algorithm>
#include <fcntl.h>
#include <io.h>

namespace {

bool Identify(HANDLE file, BY_HANDLE_FILE_INFORMATION& identity) {
  return GetFileType(file) == FILE_TYPE_DISK && GetFileInformationByHandle(file, &identity) != 0;
}

}  // namespace

bool IsTerminal(std::FILE* stream) { return _isatty(_fileno(stream)) != 0; }

std::size_t TerminalColumns(std::FILE* terminal) {
  CONSOLE_SCREEN_BUFFER_INFO info = {};
  const auto console = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(terminal)));
  if (GetConsoleScreenBufferInfo(console, &info) == 0) return 0;
  return static_cast<std::size_t>(std::max(0, info.srWindow.Right - info.srWindow.Left + 1));
}

bool IsFileOf(const std::string& path, std::FILE* stream) {
  const HANDLE file = CreateFileA(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                  nullptr, OPEN_EXISTING, 0, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  BY_HANDLE_FILE_INFORMATION named = {}, open = {};
  const bool areFiles =
      Identify(file, named) && Identify(reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream))), open);
  CloseHandle(file);
  return areFiles && named.dwVolumeSerialNumber == open.dwVolumeSerialNumber &&
         named.nFileIndexHigh == open.nFileIndexHigh && named.nFileIndexLow == open.nFileIndexLow;
}

bool AwaitTransfer(std::FILE*, Transfer) { return false; }

void PrepareStandardStreams() {
  _setmode(_fileno(stdin), _O_BINARY);
  _setmode(_fileno(stdout), _O_BINARY);
}
#else
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

bool IsTerminal(std::FILE* stream) { return isatty(fileno(stream)) != 0; }

std::size_t TerminalColumns(std::FILE* terminal) {
  winsize size = {};
  return ioctl(fileno(terminal), TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

bool IsFileOf(const std::string& path, std::FILE* stream) {
  struct stat named = {}, open = {};
  return stat(path.c_str(), &named) == 0 && fstat(fileno(stream), &open) == 0 && !S_ISCHR(named.st_mode) &&
         named.st_dev == open.st_dev && named.st_ino == open.st_ino;
}

bool AwaitTransfer(std::FILE* stream, Transfer transfer) {
  if (errno != EAGAIN) return false;
  pollfd wanted = {fileno(stream), static_cast<short>(transfer == Transfer::Read ? POLLIN : POLLOUT), 0};
  int ready = 0;
  do ready = poll(&wanted, 1, -1);
  while (ready < 0 && errno == EINTR);
  std::clearerr(stream);
  return ready > 0;
}

void PrepareStandardStreams() {
  for (const int signal : {SIGPIPE, SIGXFSZ}) std::signal(signal, SIG_IGN);
  // `open` returns the lowest free descriptor, so the loop opens those of 0 to 2 that are closed. They are
  // read-only: writing to a closed stream must still fail.
  int descriptor = open("/dev/null", O_RDONLY);
  while (descriptor >= 0 && descriptor <= STDERR_FILENO) descriptor = open("/dev/null", O_RDONLY);
  if (descriptor >= 0) close(descriptor);
}
#endif
