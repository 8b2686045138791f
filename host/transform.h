#pragma once

#include <memory>

#include "host/stabilizer.h"

// What the command does with the transform. Only Windows has it.

/// The transform, driven as any host drives it: through COM. Throws WorkError.
std::unique_ptr<Stabilizer> MakeTransformStabilizer(const StabilizerSettings& settings, FrameSize size,
                                                    bool registered);

/// Shows the transform's property pages in the system's property frame until the person closes it. What is
/// applied there is saved for this user. Throws WorkError.
void ShowSettingsPages(bool registered);
