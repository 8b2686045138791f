#pragma once

#include <windows.h>

/// Registers the module's classes, its transform and its type library under HKEY_CLASSES_ROOT. Does nothing,
/// successfully, when a newer copy of the module is registered.
HRESULT RegisterModule(HMODULE module);

/// Takes all of that away again, unless another existing file is registered: then that one owns the
/// registration.
HRESULT UnregisterModule(HMODULE module);
