#include <cstdio>

#include "host/command.h"
#include "host/platform.h"

int main(int argc, char** argv) {
  PrepareStandardStreams();
  return RunCommand({argv + 1, argv + argc}, stdin, stdout, stderr);
}
