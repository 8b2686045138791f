#pragma once

#include <memory>

#include "host/stabilizer.h"

// The command's use of the transform, which exists on Windows only.

/// Makes a stabilizer that drives the transform through COM, as any host does. Throws WorkError.
std::unique_ptr<Stabilizer> MakeTransformStabilizer(const StabilizerSettings& settings, FrameSize size,
                                                    bool registered);

/// Shows the transform's property pages in the system's property frame until the user closes it. Apply saves
/// the settings for this user. Throws WorkError.
void ShowSettingsPages(bool registered);
