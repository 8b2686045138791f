#pragma once

#include <windows.h>

#include <oaidl.h>

/// Loads the type library from a module's resources. Does not register it.
HRESULT LoadModuleTypeLibrary(HMODULE module, ITypeLib** library);

/// Registers the type library of a module under the module's path. A failure is traced, and with
/// `showMessages` shown in a message box.
HRESULT RegisterModuleTypeLibrary(HMODULE module, bool showMessages);
