#pragma once

#include <windows.h>

/// Registers the module's classes, its transform and its type library under HKEY_CLASSES_ROOT. If a newer
/// copy of the module is registered, changes nothing and returns S_OK.
HRESULT RegisterModule(HMODULE module);

/// Removes these registrations. If another file that exists is registered, changes nothing and returns S_OK.
HRESULT UnregisterModule(HMODULE module);
