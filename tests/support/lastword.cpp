// Prints the last line of a program under Wine. A program that crashes in a global destructor does not get
// there.

#include <cstdio>

namespace {

/// Made before all other global objects, and so destroyed after them.
struct LastWord {
  ~LastWord() {
    std::puts("[  ENDED   ]");
    std::fflush(stdout);
  }
};
[[gnu::init_priority(101)]] const LastWord g_lastWord;

}  // namespace
