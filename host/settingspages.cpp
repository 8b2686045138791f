#include <windows.h>

#include <ocidl.h>
#include <olectl.h>

#include "host/transform.h"
#include "host/transformmodule.h"

using Microsoft::WRL::ComPtr;

namespace {

/// The class identifiers of an object's property pages.
class PageClasses {
 public:
  explicit PageClasses(IUnknown* object) {
    ComPtr<ISpecifyPropertyPages> specify;
    Check(object->QueryInterface(IID_PPV_ARGS(&specify)), "the transform has no property pages");
    Check(specify->GetPages(&m_pages), "the transform has no property pages");
  }
  ~PageClasses() { CoTaskMemFree(m_pages.pElems); }
  PageClasses(const PageClasses&) = delete;
  PageClasses& operator=(const PageClasses&) = delete;

  const CAUUID& Get() const { return m_pages; }

 private:
  CAUUID m_pages = {};
};

}  // namespace

void ShowSettingsPages(bool registered) {
  const ComSession session(COINIT_APARTMENTTHREADED);
  TransformModule module(registered);
  const ComPtr<IMFTransform> transform = module.CreateTransform();
  const PageClasses pages(transform.Get());
  module.OfferPages(pages.Get());
  IUnknown* object = transform.Get();
  Check(OleCreatePropertyFrame(nullptr, 0, 0, L"Video Stabilizer", 1, &object, pages.Get().cElems,
                               pages.Get().pElems, LOCALE_USER_DEFAULT, 0, nullptr),
        "cannot show the property pages");
}
