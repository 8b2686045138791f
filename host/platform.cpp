#include "host/platform.h"

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>

bool IsTerminal(std::FILE* stream) { return _isatty(_fileno(stream)) != 0; }

void PrepareStandardStreams() {
  _setmode(_fileno(stdin), _O_BINARY);
  _setmode(_fileno(stdout), _O_BINARY);
}
#else
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

bool IsTerminal(std::FILE* stream) { return isatty(fileno(stream)) != 0; }

void PrepareStandardStreams() {
  std::signal(SIGPIPE, SIG_IGN);
  // The lowest free number is given out first. Read only: a write to what was closed fails.
  int descriptor = open("/dev/null", O_RDONLY);
  while (descriptor >= 0 && descriptor <= STDERR_FILENO) descriptor = open("/dev/null", O_RDONLY);
  if (descriptor >= 0) close(descriptor);
}
#endif
