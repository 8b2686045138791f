#pragma once

#include <array>
#include <cstdint>
#include <guiddef.h>

#include "engine/stabilizersettings.h"

// Keys of the settings in the attribute store. Every item is a UINT32.

namespace settingskeys {

constexpr GUID Key(std::uint32_t first) {
  return {first, 0x4757, 0x4897, {0x8F, 0xAE, 0x62, 0x75, 0xCB, 0x23, 0x8B, 0x41}};
}

constexpr GUID EngineKey(std::uint32_t first) {
  return {first, 0x38C5, 0x11D5, {0x91, 0xF6, 0x00, 0x10, 0x4B, 0xDB, 0x8F, 0xF9}};
}

}  // namespace settingskeys

inline constexpr GUID VKVSTAB_ATTR_ENABLED = settingskeys::Key(0xE2BCDE61);
inline constexpr GUID VKVSTAB_ATTR_ROI_TOP = settingskeys::Key(0xE2BCDE62);
inline constexpr GUID VKVSTAB_ATTR_ROI_LEFT = settingskeys::Key(0xE2BCDE63);
inline constexpr GUID VKVSTAB_ATTR_ROI_BOTTOM = settingskeys::Key(0xE2BCDE64);
inline constexpr GUID VKVSTAB_ATTR_ROI_RIGHT = settingskeys::Key(0xE2BCDE65);
inline constexpr GUID VKVSTAB_ATTR_ROI_ENABLED = settingskeys::Key(0xE2BCDE66);
inline constexpr GUID VKVSTAB_ATTR_ESTIMATION_COEFFICIENTS = settingskeys::Key(0xE2BCDE67);
inline constexpr GUID VKVSTAB_ATTR_ESTIMATION_QUALITY = settingskeys::Key(0xE2BCDE68);
inline constexpr GUID VKVSTAB_ATTR_PATH_SMOOTHING_LEVEL = settingskeys::Key(0xE2BCDE69);
inline constexpr GUID VKVSTAB_ATTR_BK_FILL_COLOR = settingskeys::Key(0xE2BCDE10);
inline constexpr GUID VKVSTAB_ATTR_LEFT_RIGHT_CROP_MARGIN = settingskeys::Key(0xE2BCDE11);
inline constexpr GUID VKVSTAB_ATTR_TOP_BOTTOM_CROP_MARGIN = settingskeys::Key(0xE2BCDE12);
inline constexpr GUID VKVSTAB_ATTR_CROP_ENABLED = settingskeys::Key(0xE2BCDE13);
inline constexpr GUID VKVSTAB_ATTR_INTERPOLATION_TYPE = settingskeys::Key(0xE2BCDE14);
inline constexpr GUID VKVSTAB_ATTR_CLIPPING_OPTION = settingskeys::Key(0xE2BCDE15);
inline constexpr GUID VKVSTAB_ATTR_AUTO_RECONNECT = settingskeys::Key(0xE2BCDE16);
inline constexpr GUID VKVSTAB_ATTR_USE_ADVANCED_ENGINE = settingskeys::EngineKey(0xE2B7DEE5);
inline constexpr GUID VKVSTAB_ATTR_ADVANCED_ENGINE_AVAILABLE = settingskeys::EngineKey(0xE2B7DEE6);

struct SettingDefault {
  GUID key;
  std::uint32_t value;
};

namespace settingskeys {

constexpr std::uint32_t Item(std::int32_t value) { return static_cast<std::uint32_t>(value); }

/// A colour as a COLORREF, 0x00BBGGRR.
constexpr std::uint32_t Item(const std::array<std::uint8_t, 3>& blueGreenRed) {
  return std::uint32_t{blueGreenRed[0]} << 16 | std::uint32_t{blueGreenRed[1]} << 8 | blueGreenRed[2];
}

constexpr std::array<SettingDefault, 18> MakeDefaults() {
  constexpr StabilizerSettings defaults;
  return {{
      {VKVSTAB_ATTR_ENABLED, Item(defaults.Enabled)},
      {VKVSTAB_ATTR_ROI_TOP, Item(defaults.ROI.top)},
      {VKVSTAB_ATTR_ROI_LEFT, Item(defaults.ROI.left)},
      {VKVSTAB_ATTR_ROI_BOTTOM, Item(defaults.ROI.bottom)},
      {VKVSTAB_ATTR_ROI_RIGHT, Item(defaults.ROI.right)},
      {VKVSTAB_ATTR_ROI_ENABLED, Item(defaults.ROIEnabled)},
      {VKVSTAB_ATTR_ESTIMATION_COEFFICIENTS, Item(defaults.GlobalEstimationCoefficients)},
      {VKVSTAB_ATTR_ESTIMATION_QUALITY, Item(defaults.GlobalEstimationQuality)},
      {VKVSTAB_ATTR_PATH_SMOOTHING_LEVEL, Item(defaults.PathSmoothingLevel)},
      {VKVSTAB_ATTR_BK_FILL_COLOR, Item(defaults.BkFillColor)},
      {VKVSTAB_ATTR_LEFT_RIGHT_CROP_MARGIN, Item(defaults.LeftRightCropMargin)},
      {VKVSTAB_ATTR_TOP_BOTTOM_CROP_MARGIN, Item(defaults.TopBottomCropMargin)},
      {VKVSTAB_ATTR_CROP_ENABLED, Item(defaults.CropEnabled)},
      {VKVSTAB_ATTR_INTERPOLATION_TYPE, Item(defaults.InterpolationType)},
      {VKVSTAB_ATTR_CLIPPING_OPTION, Item(defaults.ClippingOption)},
      {VKVSTAB_ATTR_AUTO_RECONNECT, 1},  // not in the record
      {VKVSTAB_ATTR_USE_ADVANCED_ENGINE, Item(defaults.UseAdvancedEngine)},
      {VKVSTAB_ATTR_ADVANCED_ENGINE_AVAILABLE, Item(defaults.AdvancedEngineAvailable)},
  }};
}

}  // namespace settingskeys

/// All items with the defaults of `StabilizerSettings`, in the order in which a reset writes them.
inline constexpr std::array<SettingDefault, 18> kSettingDefaults = settingskeys::MakeDefaults();
