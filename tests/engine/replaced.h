#pragma once

#include <functional>
#include <type_traits>
#include <utility>

/// While the object lives, this program's calls of a system function reach a replacement. `slot` is the
/// pointer through which the program calls the function; the linker names it __imp_ and the function's name.
template <auto& slot, class Function = std::remove_reference_t<decltype(slot)>>
class Replaced;

template <auto& slot, class Result, class... Parameters>
class Replaced<slot, Result (*)(Parameters...)> {
 public:
  explicit Replaced(std::function<Result(Parameters...)> replacement) {
    s_replacement = std::move(replacement);
    s_original =
        std::exchange(slot, [](Parameters... parameters) -> Result { return s_replacement(parameters...); });
  }
  /// Counts calls down from `*successes`: so many succeed, the next one fails.
  Replaced(int* successes, Result failure)
      : Replaced([=](Parameters... parameters) {
          return (*successes)-- == 0 ? failure : s_original(parameters...);
        }) {}
  ~Replaced() {
    slot = s_original;
    s_replacement = nullptr;
  }

 private:
  static inline std::function<Result(Parameters...)> s_replacement;
  static inline Result (*s_original)(Parameters...) = nullptr;
};
