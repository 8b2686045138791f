#pragma once

#include <windows.h>

#include <oaidl.h>

/// The type library that a module carries as its resource, without any registration.
HRESULT LoadModuleTypeLibrary(HMODULE module, ITypeLib** library);

/// Registers that library under the module's path. Failures to load or to register
/// are traced, and shown in a message box if wanted.
HRESULT RegisterModuleTypeLibrary(HMODULE module, bool showMessages);
