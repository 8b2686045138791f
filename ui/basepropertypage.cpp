#include "ui/basepropertypage.h"

#include <bit>
#include <commctrl.h>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <shellapi.h>
#include <string>
#include <utility>

#include "common/comboundary.h"
#include "common/module.h"

using Microsoft::WRL::ComPtr;

namespace {

HRESULT LastError() {
  const DWORD error = GetLastError();
  return error != ERROR_SUCCESS ? HRESULT_FROM_WIN32(error) : E_FAIL;
}

HRESULT CopyTaskString(const wchar_t* text, LPOLESTR* copy) {
  const std::size_t bytes = (std::wcslen(text) + 1) * sizeof *text;
  *copy = static_cast<LPOLESTR>(CoTaskMemAlloc(bytes));
  if (!*copy) return E_OUTOFMEMORY;
  std::memcpy(*copy, text, bytes);
  return S_OK;
}

wchar_t ToUpper(wchar_t character) {
  CharUpperBuffW(&character, 1);
  return character;
}

bool HasMnemonic(const wchar_t* caption, wchar_t key) {
  for (const wchar_t* mark = std::wcschr(caption, L'&'); mark && mark[1];
       mark = std::wcschr(mark + 2, L'&')) {
    if (mark[1] != L'&' && ToUpper(mark[1]) == ToUpper(key)) return true;
  }
  return false;
}

bool HasControlWithMnemonic(HWND dialog, wchar_t key) {
  wchar_t caption[128];
  for (HWND control = GetWindow(dialog, GW_CHILD); control; control = GetWindow(control, GW_HWNDNEXT)) {
    if (!IsWindowEnabled(control) || !IsWindowVisible(control)) continue;
    if (GetWindowTextW(control, caption, static_cast<int>(std::size(caption))) > 0 &&
        HasMnemonic(caption, key))
      return true;
  }
  return false;
}

}  // namespace

// Creation and identity

HRESULT CBasePropertyPage::CreatePage(MakeFunction make, IUnknown* outer, REFIID iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (outer) return CLASS_E_NOAGGREGATION;
  return ComBoundary([&] {
    CBasePropertyPage* const page = make();
    const HRESULT hr = page->QueryInterface(iid, object);
    page->Release();
    return hr;
  });
}

STDMETHODIMP CBasePropertyPage::QueryInterface(REFIID iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (iid != __uuidof(IUnknown) && iid != __uuidof(IPropertyPage)) return E_NOINTERFACE;
  *object = static_cast<IPropertyPage*>(this);
  AddRef();
  return S_OK;
}

void CBasePropertyPage::Destroy() {
  CloseDialog();  // before destruction begins: closing sends messages to the derived class
  CRefCounted::Destroy();
}

// Site and objects

STDMETHODIMP CBasePropertyPage::SetPageSite(IPropertyPageSite* site) {
  if (site && m_pPageSite) return E_UNEXPECTED;
  m_pPageSite = site;
  return S_OK;
}

STDMETHODIMP CBasePropertyPage::SetObjects(ULONG count, IUnknown** objects) {
  if (count > 1) return E_UNEXPECTED;
  if (count == 1 && (!objects || !objects[0])) return E_POINTER;
  m_active = m_dirty = false;
  const HRESULT hr = OnConnect(count == 1 ? objects[0] : nullptr);
  m_hasObject = count == 1 && SUCCEEDED(hr);
  return hr;
}

STDMETHODIMP CBasePropertyPage::IsPageDirty() { return m_dirty ? S_OK : S_FALSE; }

STDMETHODIMP CBasePropertyPage::Apply() {
  if (!m_hasObject || !(m_active || m_dirty)) return E_UNEXPECTED;
  const HRESULT hr = OnApply();
  if (SUCCEEDED(hr)) m_dirty = false;
  return hr;
}

void CBasePropertyPage::SetDirty() {
  m_dirty = true;
  // The site may be replaced during the call; this reference keeps it alive.
  const ComPtr<IPropertyPageSite> site = m_pPageSite;
  if (site) site->OnStatusChange(PROPPAGESTATUS_DIRTY);
}

// The dialog

STDMETHODIMP CBasePropertyPage::Activate(HWND parent, LPCRECT rect, BOOL) {
  if (!rect) return E_POINTER;
  if (!m_hasObject || m_hwnd) return E_UNEXPECTED;
  m_hwnd = CreatePageDialog(parent, &DialogProc);
  if (!m_hwnd) return LastError();
  m_active = true;
  OnActivate();
  Move(rect);
  return Show(SW_SHOWNORMAL);
}

STDMETHODIMP CBasePropertyPage::Deactivate() {
  if (!m_hwnd) return E_UNEXPECTED;
  CloseDialog();
  return S_OK;
}

HWND CBasePropertyPage::CreatePageDialog(HWND parent, DLGPROC procedure) {
  const INITCOMMONCONTROLSEX classes = {sizeof classes, ICC_UPDOWN_CLASS};
  InitCommonControlsEx(&classes);
  return CreateDialogParamW(CurrentModule(), MAKEINTRESOURCEW(m_dialogId), parent, procedure,
                            reinterpret_cast<LPARAM>(this));
}

void CBasePropertyPage::CloseDialog() {
  m_active = false;
  const HWND dialog = std::exchange(m_hwnd, nullptr);
  if (!dialog) return;
  SetWindowLongPtrW(dialog, DWLP_USER, 0);
  DestroyWindow(dialog);
}

STDMETHODIMP CBasePropertyPage::GetPageInfo(PROPPAGEINFO* info) {
  if (!info) return E_POINTER;
  info->pszTitle = info->pszDocString = info->pszHelpFile = nullptr;
  info->dwHelpContext = 0;
  HRESULT hr = MeasureDialog(&info->size);
  if (FAILED(hr)) return hr;
  wchar_t title[128] = {};
  LoadStringW(CurrentModule(), m_titleId, title, static_cast<int>(std::size(title)));
  return CopyTaskString(title, &info->pszTitle);
}

// Dialog units depend on the font, so the size in pixels is measured on a real dialog.
HRESULT CBasePropertyPage::MeasureDialog(SIZE* pixels) {
  const HWND dialog = CreatePageDialog(GetDesktopWindow(), nullptr);
  if (!dialog) return LastError();
  RECT rect = {};
  GetWindowRect(dialog, &rect);
  DestroyWindow(dialog);
  *pixels = {rect.right - rect.left, rect.bottom - rect.top};
  return S_OK;
}

STDMETHODIMP CBasePropertyPage::Show(UINT command) {
  if (command != SW_SHOW && command != SW_SHOWNORMAL && command != SW_HIDE) return E_INVALIDARG;
  if (!m_hwnd) return E_UNEXPECTED;
  ShowWindow(m_hwnd, static_cast<int>(command));
  return S_OK;
}

STDMETHODIMP CBasePropertyPage::Move(LPCRECT rect) {
  if (!rect) return E_POINTER;
  if (!m_hwnd) return E_UNEXPECTED;
  const BOOL moved =
      MoveWindow(m_hwnd, rect->left, rect->top, rect->right - rect->left, rect->bottom - rect->top, TRUE);
  return moved ? S_OK : LastError();
}

STDMETHODIMP CBasePropertyPage::Help(LPCOLESTR) {
  return ComBoundary([&] {
    const std::wstring file = FindHelpFile(CurrentModule());
    if (file.empty()) return E_NOTIMPL;
    // ShellExecute gives more than 32 on success.
    const auto result = reinterpret_cast<INT_PTR>(
        ShellExecuteW(m_hwnd, nullptr, file.c_str(), nullptr, nullptr, SW_SHOWNORMAL));
    return result > 32 ? S_OK : E_FAIL;
  });
}

STDMETHODIMP CBasePropertyPage::TranslateAccelerator(MSG* message) {
  if (!message) return E_POINTER;
  if (!m_hwnd || !IsChild(m_hwnd, message->hwnd) || !IsDialogKey(*message)) return S_FALSE;
  const ComPtr<IPropertyPageSite> site = m_pPageSite;
  if (LeavesPage(*message) && site && site->TranslateAccelerator(message) == S_OK) return S_OK;
  return IsDialogMessageW(m_hwnd, message) ? S_OK : S_FALSE;
}

bool CBasePropertyPage::IsDialogKey(const MSG& message) const {
  switch (message.message) {
    case WM_KEYDOWN:
      return message.wParam == VK_TAB || (message.wParam >= VK_LEFT && message.wParam <= VK_DOWN);
    case WM_CHAR:
    case WM_SYSCHAR:
      return HasControlWithMnemonic(m_hwnd, static_cast<wchar_t>(message.wParam));
    default:
      return false;
  }
}

bool CBasePropertyPage::LeavesPage(const MSG& message) const {
  if (message.message != WM_KEYDOWN || message.wParam != VK_TAB) return false;
  const HWND first = GetNextDlgTabItem(m_hwnd, nullptr, FALSE);
  const bool isBackward = GetKeyState(VK_SHIFT) < 0;
  return message.hwnd == (isBackward ? first : GetNextDlgTabItem(m_hwnd, first, TRUE));
}

INT_PTR CALLBACK CBasePropertyPage::DialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) {
  if (message == WM_INITDIALOG) {
    SetWindowLongPtrW(dialog, DWLP_USER, lParam);
    return FALSE;  // the focus stays with the frame
  }
  auto* const page = std::bit_cast<CBasePropertyPage*>(GetWindowLongPtrW(dialog, DWLP_USER));
  if (!page) return FALSE;
  // While the message is handled, the host may release its last reference to the page.
  const ComPtr<CBasePropertyPage> keepAlive(page);
  if (message != WM_NCDESTROY) return page->OnMessage(message, wParam, lParam);
  // The frame was destroyed, and the dialog with it, before the page was deactivated.
  page->m_hwnd = nullptr;
  page->m_active = false;
  return FALSE;
}

INT_PTR CBasePropertyPage::OnMessage(UINT, WPARAM, LPARAM) { return FALSE; }
