#pragma once

#include <windows.h>

#include <memory>
#include <type_traits>

struct DeleteGdiObject {
  void operator()(HGDIOBJ object) const { DeleteObject(object); }
};

/// Owns a GDI object, such as an HBRUSH.
template <class Handle>
using CGdiObject = std::unique_ptr<std::remove_pointer_t<Handle>, DeleteGdiObject>;
