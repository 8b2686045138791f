#include "video/interruption.h"

#include <csignal>
#include <initializer_list>

namespace {

volatile std::sig_atomic_t g_isInterrupted = 0;

}  // namespace

void CatchSignals() {
  struct sigaction action = {};
  action.sa_handler = [](int) { g_isInterrupted = 1; };
  sigemptyset(&action.sa_mask);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    // A signal that the parent process has set to be ignored, as nohup does, stays ignored.
    struct sigaction before = {};
    sigaction(signal, nullptr, &before);
    if (before.sa_handler != SIG_IGN) sigaction(signal, &action, nullptr);
  }
}

bool IsInterrupted() { return g_isInterrupted != 0; }

void CheckInterruption() {
  if (IsInterrupted()) throw Interruption();
}
