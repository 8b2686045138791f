#pragma once

#include <windows.h>

#include <ocidl.h>
#include <wrl/client.h>

#include "common/refcounted.h"

/// A property page over a dialog of this module's resources. Derived pages say what the dialog's controls
/// mean.
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
  /// Takes one object. A dialog that is open for another object has no effect from then on.
  STDMETHODIMP SetObjects(ULONG count, IUnknown** objects) override;
  STDMETHODIMP Show(UINT command) override;
  STDMETHODIMP Move(LPCRECT rect) override;
  STDMETHODIMP IsPageDirty() override;
  /// Also applies changes made in a dialog that has been closed since.
  STDMETHODIMP Apply() override;
  STDMETHODIMP Help(LPCOLESTR folder) override;
  /// Handles the keys of the dialog. Enter, Escape and mnemonics of no control here are left to the frame; so
  /// is the Tab that leaves the page, if the frame handles it.
  STDMETHODIMP TranslateAccelerator(MSG* message) override;

 protected:
  /// Makes a page; throws std::bad_alloc.
  using MakeFunction = CBasePropertyPage* (*)();

  /// The common part of the pages' creation functions.
  static HRESULT CreatePage(MakeFunction make, IUnknown* outer, REFIID iid, void** object);

  /// Resource numbers of the dialog and of the string that is the page's title.
  CBasePropertyPage(int dialogId, UINT titleId) : m_dialogId(dialogId), m_titleId(titleId) {}
  ~CBasePropertyPage() override = default;

  /// Takes the object that the page is to show, or none for null. On failure the page has no object.
  virtual HRESULT OnConnect(IUnknown* object) = 0;
  /// The dialog has been created, and is not visible yet.
  virtual void OnActivate() = 0;
  /// Writes the dialog's settings to the object, those of its last state if it is closed.
  virtual HRESULT OnApply() { return S_OK; }
  /// A message to the dialog; the result is a dialog procedure's.
  virtual INT_PTR OnMessage(UINT message, WPARAM wParam, LPARAM lParam);

  HWND Dialog() const { return m_hwnd; }
  HWND Control(int id) const { return GetDlgItem(m_hwnd, id); }
  /// Whether the dialog shows the object that the page holds.
  bool IsActive() const { return m_active; }
  /// Remembers that something was edited, and tells the site.
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
