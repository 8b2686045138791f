#include "video/orientation.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace {

/// Shown x = xx * x + xy * y and shown y = yx * x + yy * y, both from the pictures' centres.
struct Turn {
  int xx, yx, xy, yy;
};

/// The matrix, rounded to quarter turns and mirroring.
Turn NearestTurn(const DisplayMatrix& matrix) {
  const auto sign = [](std::int32_t value) { return value < 0 ? -1 : 1; };
  if (SwapsSides(matrix)) return {0, sign(matrix[1]), sign(matrix[3]), 0};
  return {sign(matrix[0]), 0, 0, sign(matrix[4])};
}

}  // namespace

bool SwapsSides(const DisplayMatrix& matrix) {
  return std::abs(std::int64_t{matrix[1]}) > std::abs(std::int64_t{matrix[0]});
}

std::string TurnFilters(const DisplayMatrix& matrix) {
  const Turn turn = NearestTurn(matrix);
  if (SwapsSides(matrix)) {
    if (turn.xy < 0) return turn.yx < 0 ? "transpose=clock_flip" : "transpose=clock";
    return turn.yx < 0 ? "transpose=cclock" : "transpose=cclock_flip";
  }
  std::string filters = turn.xx < 0 ? "hflip" : "";
  if (turn.yy < 0) filters += filters.empty() ? "vflip" : ",vflip";
  return filters;
}

Options AsStored(Options options, const DisplayMatrix& matrix, int storedWidth, int storedHeight) {
  const Turn turn = NearestTurn(matrix);
  const bool isSwapped = SwapsSides(matrix);
  if (isSwapped && options.margins) std::swap(options.margins->x, options.margins->y);
  if (!options.roi) return options;
  const int shownWidth = isSwapped ? storedHeight : storedWidth;
  const int shownHeight = isSwapped ? storedWidth : storedHeight;
  // Doubled distances from the centre are integers. The inverse of a turn is its transpose.
  const auto stored = [&](std::int32_t shownX, std::int32_t shownY) {
    const std::int64_t x = std::int64_t{2} * shownX - shownWidth, y = std::int64_t{2} * shownY - shownHeight;
    return std::pair((turn.xx * x + turn.yx * y + storedWidth) / 2,
                     (turn.xy * x + turn.yy * y + storedHeight) / 2);
  };
  const auto [x0, y0] = stored(options.roi->left, options.roi->top);
  const auto [x1, y1] = stored(options.roi->right, options.roi->bottom);
  const auto coordinate = [](std::int64_t value) { return static_cast<std::int32_t>(value); };
  options.roi = {coordinate(std::min(x0, x1)), coordinate(std::min(y0, y1)), coordinate(std::max(x0, x1)),
                 coordinate(std::max(y0, y1))};
  return options;
}
