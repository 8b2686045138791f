#pragma once

#include <windows.h>

#include <ocidl.h>
#include <wrl/client.h>

#include "common/refcounted.h"

/// The base class of the property pages: shows a dialog from the module's resources. Derived classes handle
/// the dialog's controls.
///
/// Like any window, a page belongs to the thread that activates it. Methods called out of order give
/// E_UNEXPECTED.
class CBasePropertyPage : public CRefCounted<IPropertyPage> {
 public:
  CBasePropertyPage(const CBasePropertyPage&) = delete;
  CBasePropertyPage& operator=(const CBasePropertyPage&) = delete;

  // IUnknown
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override;

  // IPropertyPage
  STDMETHODIMP SetPageSite(IPropertyPageSite* site) override;
  STDMETHODIMP Activate(HWND parent, LPCRECT rect, BOOL modal) override;
  STDMETHODIMP Deactivate() override;
  STDMETHODIMP GetPageInfo(PROPPAGEINFO* info) override;
  /// Takes one object, or none. A dialog that is open for the former object no longer has any effect.
  STDMETHODIMP SetObjects(ULONG count, IUnknown** objects) override;
  STDMETHODIMP Show(UINT command) override;
  STDMETHODIMP Move(LPCRECT rect) override;
  STDMETHODIMP IsPageDirty() override;
  /// Also applies changes that were made before the dialog was closed.
  STDMETHODIMP Apply() override;
  STDMETHODIMP Help(LPCOLESTR folder) override;
  /// Handles Tab, the arrow keys and the mnemonics of the dialog's controls; S_FALSE leaves all other keys to
  /// the frame. A Tab that would leave the page is offered to the site first.
  STDMETHODIMP TranslateAccelerator(MSG* message) override;

 protected:
  /// Makes a page; throws std::bad_alloc.
  using MakeFunction = CBasePropertyPage* (*)();

  /// What the `CreateInstance` functions of the pages have in common.
  static HRESULT CreatePage(MakeFunction make, IUnknown* outer, REFIID iid, void** object);

  /// Takes the resource numbers of the dialog and of the page's title.
  CBasePropertyPage(int dialogId, UINT titleId) : m_dialogId(dialogId), m_titleId(titleId) {}
  ~CBasePropertyPage() override = default;

  /// Takes the object that the page shows; null means none. After a failure the page has no object.
  virtual HRESULT OnConnect(IUnknown* object) = 0;
  /// Called when the dialog exists, before it is visible.
  virtual void OnActivate() = 0;
  /// Writes the settings to the object: those in the dialog or, after it was closed, those it had last.
  virtual HRESULT OnApply() { return S_OK; }
  /// Handles a message to the dialog. Returns what a dialog procedure returns.
  virtual INT_PTR OnMessage(UINT message, WPARAM wParam, LPARAM lParam);

  HWND Dialog() const { return m_hwnd; }
  HWND Control(int id) const { return GetDlgItem(m_hwnd, id); }
  /// Whether a dialog is open and shows the current object.
  bool IsActive() const { return m_active; }
  /// Notes that a setting was edited, and tells the site.
  void SetDirty();

 private:
  void Destroy() override;
  static INT_PTR CALLBACK DialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam);
  HWND CreatePageDialog(HWND parent, DLGPROC procedure);
  void CloseDialog();
  HRESULT MeasureDialog(SIZE* pixels);
  bool IsDialogKey(const MSG& message) const;
  bool LeavesPage(const MSG& message) const;

  const int m_dialogId;
  const UINT m_titleId;
  Microsoft::WRL::ComPtr<IPropertyPageSite> m_pPageSite;
  HWND m_hwnd = nullptr;
  bool m_hasObject = false;
  bool m_active = false;
  bool m_dirty = false;
};
