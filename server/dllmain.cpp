#include <windows.h>

#include <olectl.h>

#include "common/baseobject.h"
#include "mft/mft_vstabilize.h"
#include "server/classfactory.h"
#include "server/registry.h"
#include "ui/aboutproperties.h"
#include "ui/vkvstabilizeprp.h"

namespace {

HMODULE g_hModule = nullptr;

struct CreatableClass {
  const GUID* clsid;
  MediaFoundationSamples::CreationFunction create;
};

constexpr CreatableClass kClasses[] = {
    {&CLSID_VKFVStabilize, CMFTVStabilize::CreateInstance},
    {&CLSID_VKFVStabilizePropertyPage, CVKVStabilizePrp::CreateInstance},
    {&CLSID_VKFVStabilizeAbout, CAboutProperties::CreateInstance},
};

}  // namespace

BOOL APIENTRY DllMain(HINSTANCE module, DWORD reason, void*) {
  if (reason == DLL_PROCESS_ATTACH) g_hModule = module;
  return TRUE;
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void** object) {
  if (object) *object = nullptr;
  for (const CreatableClass& row : kClasses)
    if (clsid == *row.clsid) return MediaFoundationSamples::ClassFactory::Create(row.create, iid, object);
  return CLASS_E_CLASSNOTAVAILABLE;
}

STDAPI DllCanUnloadNow() { return MediaFoundationSamples::LiveObjects::Count() == 0 ? S_OK : S_FALSE; }

STDAPI DllRegisterServer() { return RegisterModule(g_hModule); }

STDAPI DllUnregisterServer() { return UnregisterModule(g_hModule); }
