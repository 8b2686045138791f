#pragma once

struct SineCosine {
  double sine, cosine;
};

/// Sine and cosine of an angle in radians, the same bits on every platform.
/// Up to 2^20 radians the error of each is at most 2^-52. Larger angles are first reduced modulo the double
/// nearest to 2π. An angle that is not finite counts as 0.
SineCosine ComputeSineCosine(double radians);
