#pragma once

#include <windows.h>

#include <wrl/client.h>

#include "automation/vkvstabilize.h"
#include "ui/basepropertypage.h"

/// The page on which a person edits the settings of a stabilizer.
class CVKVStabilizePrp final : public CBasePropertyPage {
 public:
  /// Creation function of the class table.
  static HRESULT CreateInstance(IUnknown* outer, REFIID iid, void** object);

 private:
  CVKVStabilizePrp();

  HRESULT OnConnect(IUnknown* object) override;
  void OnActivate() override;

  Microsoft::WRL::ComPtr<IVKFVStabilize> m_spIVStabilize;
};
