// The last line of a program under Wine. A crash in a destructor or in a function for the program's end comes
// before it.

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
