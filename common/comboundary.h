#pragma once

#include <windows.h>

#include <new>
#include <utility>

/// Runs the body of a COM method. A std::bad_alloc that it throws becomes E_OUTOFMEMORY.
template <class Body>
HRESULT ComBoundary(Body&& body) noexcept {
  try {
    return std::forward<Body>(body)();
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}
