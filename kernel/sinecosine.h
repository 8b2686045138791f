#pragma once

struct SineCosine {
  double sine, cosine;
};

/// Sine and cosine of an angle in radians, the same bits on every platform.
/// Each is within 1 unit in the last place of 1.0 (2^-52) of the true value up to 2^20 radians. Beyond, the
/// angle is first taken modulo the double nearest to 2π; an angle that is not finite counts as 0.
SineCosine ComputeSineCosine(double radians);
