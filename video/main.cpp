#include <cstdio>

#include "host/platform.h"
#include "video/command.h"

int main(int argc, char** argv) {
  PrepareStandardStreams();
  return RunStabilize({argv + 1, argv + argc}, stdout, stderr);
}
