#pragma once

#include <array>
#include <cstdint>
#include <guiddef.h>

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

/// All items, in the order in which a reset writes them.
inline constexpr std::array<SettingDefault, 18> kSettingDefaults = {{
    {VKVSTAB_ATTR_ENABLED, 1},
    {VKVSTAB_ATTR_ROI_TOP, 0},
    {VKVSTAB_ATTR_ROI_LEFT, 0},
    {VKVSTAB_ATTR_ROI_BOTTOM, 10000},
    {VKVSTAB_ATTR_ROI_RIGHT, 10000},
    {VKVSTAB_ATTR_ROI_ENABLED, 0},
    {VKVSTAB_ATTR_ESTIMATION_COEFFICIENTS, 0},
    {VKVSTAB_ATTR_ESTIMATION_QUALITY, 2},
    {VKVSTAB_ATTR_PATH_SMOOTHING_LEVEL, 32},
    {VKVSTAB_ATTR_BK_FILL_COLOR, 0},
    {VKVSTAB_ATTR_LEFT_RIGHT_CROP_MARGIN, 0},
    {VKVSTAB_ATTR_TOP_BOTTOM_CROP_MARGIN, 0},
    {VKVSTAB_ATTR_CROP_ENABLED, 0},
    {VKVSTAB_ATTR_INTERPOLATION_TYPE, 1},
    {VKVSTAB_ATTR_CLIPPING_OPTION, 0},
    {VKVSTAB_ATTR_AUTO_RECONNECT, 1},
    {VKVSTAB_ATTR_USE_ADVANCED_ENGINE, 0},
    {VKVSTAB_ATTR_ADVANCED_ENGINE_AVAILABLE, 0},
}};
