#include <windows.h>

#include <oleauto.h>
#include <set>

#include "common/module.h"
#include "common/typelibrary.h"
#include "testenvironment.h"

using Microsoft::WRL::ComPtr;

namespace {

std::wstring Take(BSTR text) {
  std::wstring result = text ? text : L"";
  SysFreeString(text);
  return result;
}

struct Documentation {
  std::wstring name, help;
};

/// Name and help text of a library, a type or a member, which have no help file and no help context.
template <class Described>
Documentation DocumentationOf(Described* described, LONG member = MEMBERID_NIL) {
  BSTR name = nullptr, help = nullptr, helpFile = nullptr;
  DWORD context = 99;
  EXPECT_EQ(described->GetDocumentation(member, &name, &help, &context, &helpFile), S_OK);
  EXPECT_EQ(context, 0U);
  EXPECT_EQ(Take(helpFile), L"");
  return {Take(name), Take(help)};
}

/// A type's name; a user-defined type has that of the alias or enumeration.
std::wstring TypeName(ITypeInfo* info, const TYPEDESC& type) {
  if (type.vt == VT_PTR) return TypeName(info, *type.lptdesc) + L'*';
  if (type.vt == VT_BOOL) return L"VARIANT_BOOL";
  if (type.vt == VT_I4) return L"long";
  if (type.vt != VT_USERDEFINED) return std::to_wstring(type.vt);
  ComPtr<ITypeInfo> referred;
  EXPECT_EQ(info->GetRefTypeInfo(type.hreftype, &referred), S_OK);
  return DocumentationOf(referred.Get()).name;
}

/// Number, name, parameter type and help text of a function.
std::wstring Describe(ITypeInfo* info, const FUNCDESC& function) {
  const auto [name, help] = DocumentationOf(info, function.memid);
  std::wstring text = std::to_wstring(function.memid) + L' ' + name;
  for (SHORT i = 0; i < function.cParams; ++i) {
    const ELEMDESC& parameter = function.lprgelemdescParam[i];
    const bool isResult = parameter.paramdesc.wParamFlags == (PARAMFLAG_FOUT | PARAMFLAG_FRETVAL);
    EXPECT_TRUE(isResult || parameter.paramdesc.wParamFlags == PARAMFLAG_FIN) << function.memid;
    EXPECT_EQ(function.invkind, isResult ? INVOKE_PROPERTYGET : INVOKE_PROPERTYPUT) << function.memid;
    text += (isResult ? L" gets " : L" puts ") + TypeName(info, parameter.tdesc);
  }
  return text + L": " + help;
}

/// All functions in the order of the vtable, without the inherited ones.
std::vector<std::wstring> DescribeFunctions(ITypeInfo* info) {
  std::vector<std::wstring> functions;
  FUNCDESC* function = nullptr;
  for (UINT i = 0; SUCCEEDED(info->GetFuncDesc(i, &function)); ++i) {
    functions.push_back(Describe(info, *function));
    info->ReleaseFuncDesc(function);
  }
  return functions;
}

/// An enumeration with its constants; any other type with its identifier and help text.
std::wstring DescribeType(ITypeInfo* info) {
  TYPEATTR* attributes = nullptr;
  EXPECT_EQ(info->GetTypeAttr(&attributes), S_OK);
  auto [text, help] = DocumentationOf(info);
  WCHAR id[40] = {};
  StringFromGUID2(attributes->guid, id, 40);
  if (attributes->typekind != TKIND_ENUM)
    text +=
        L' ' + std::wstring(id) + (attributes->typekind == TKIND_COCLASS ? L" class " : L" dispatch ") + help;
  VARDESC* constant = nullptr;
  for (UINT i = 0; attributes->typekind == TKIND_ENUM && SUCCEEDED(info->GetVarDesc(i, &constant)); ++i) {
    const std::wstring name = DocumentationOf(info, constant->memid).name;
    text += L' ' + name.substr(name.find(L'_') + 1) + L'=' + std::to_wstring(constant->lpvarValue->lVal);
    info->ReleaseVarDesc(constant);
  }
  info->ReleaseTypeAttr(attributes);
  return text;
}

/// Appends a property's getter and setter.
void Expect(std::vector<std::wstring>& functions, int id, const std::wstring& name, const std::wstring& type,
            bool canPut = true) {
  const std::wstring start = std::to_wstring(id) + L' ' + name, help = L": property " + name;
  functions.push_back(start + L" gets " + type + L'*' + help);
  if (canPut) functions.push_back(start + L" puts " + type + help);
}

class TypeLibrary : public EngineTest {
 protected:
  TypeLibrary() { EXPECT_EQ(LoadModuleTypeLibrary(CurrentModule(), &m_pLibrary), S_OK); }

  /// Checks an interface in its vtable form.
  void ExpectInterface(const GUID& iid, const wchar_t* base,
                       const std::vector<std::wstring>& functions) const {
    ComPtr<ITypeInfo> dispatch, info, baseInfo;
    HREFTYPE type = 0;
    ASSERT_EQ(m_pLibrary->GetTypeInfoOfGuid(iid, &dispatch), S_OK);
    EXPECT_EQ(dispatch->GetRefTypeOfImplType(static_cast<UINT>(-1), &type), S_OK);
    ASSERT_EQ(dispatch->GetRefTypeInfo(type, &info), S_OK);
    EXPECT_EQ(DescribeFunctions(info.Get()), functions);
    TYPEATTR* attributes = nullptr;
    ASSERT_EQ(info->GetTypeAttr(&attributes), S_OK);
    EXPECT_EQ(attributes->wTypeFlags,
              TYPEFLAG_FDUAL | TYPEFLAG_FOLEAUTOMATION | TYPEFLAG_FDISPATCHABLE | TYPEFLAG_FNONEXTENSIBLE);
    info->ReleaseTypeAttr(attributes);
    EXPECT_EQ(info->GetRefTypeOfImplType(0, &type), S_OK);
    ASSERT_EQ(info->GetRefTypeInfo(type, &baseInfo), S_OK);
    EXPECT_EQ(DocumentationOf(baseInfo.Get()).name, base);
  }

  ComPtr<ITypeLib> m_pLibrary;
};

TEST_F(TypeLibrary, DeclaresItsTypesAndNothingElse) {
  TLIBATTR* attributes = nullptr;
  ASSERT_EQ(m_pLibrary->GetLibAttr(&attributes), S_OK);
  EXPECT_TRUE(attributes->guid == settingskeys::EngineKey(0xE2B6EDDB));
  EXPECT_EQ(attributes->wMajorVerNum, 1);
  EXPECT_EQ(attributes->wMinorVerNum, 0);
  EXPECT_EQ(attributes->lcid, 0x409U);
  m_pLibrary->ReleaseTLibAttr(attributes);
  const auto [name, help] = DocumentationOf(m_pLibrary.Get());
  EXPECT_EQ(name + L": " + help, L"VKFVStabilizeLib: Varkon MF Video Stabilizer Library");

  std::set<std::wstring> types;
  for (UINT i = 0; i < m_pLibrary->GetTypeInfoCount(); ++i) {
    ComPtr<ITypeInfo> info;
    ASSERT_EQ(m_pLibrary->GetTypeInfo(i, &info), S_OK);
    types.insert(DescribeType(info.Get()));
  }
  const std::set<std::wstring> expected = {
      L"VKFVStabilizeAbout {E2B6EDDC-38C5-11D5-91F6-00104BDB8FF9} class About Varkon MF Video Stabilizer",
      L"VKFVStabilizePropertyPage {E2B6EDDD-38C5-11D5-91F6-00104BDB8FF9} class "
      L"Varkon MF Video Stabilizer Property Page",
      L"VKFVStabilize {E2B6EDDE-38C5-11D5-91F6-00104BDB8FF9} class Varkon MF Video Stabilizer",
      L"IVKFVStabilize {E2B7DEE4-38C5-11D5-91F6-00104BDB8FF9} dispatch IVKFVStabilize Interface",
      L"IVKFVStabilize1 {E2B6EDC7-38C5-11D5-91F6-00104BDB8FF9} dispatch IVKFVStabilize1 Interface",
      L"vkvstab_GlobalEstimationCoefficients"
      L" GLOBALESTIMATIONCOEFFICIENTS_X_Y=0 GLOBALESTIMATIONCOEFFICIENTS_X_Y_THETA=1",
      L"vkvstab_GlobalEstimationQuality GLOBALESTIMATIONQUALITY_1=0 GLOBALESTIMATIONQUALITY_2=1"
      L" GLOBALESTIMATIONQUALITY_3=2 GLOBALESTIMATIONQUALITY_4=3",
      L"vkvstab_PathSmoothingLevel PATHSMOOTHINGLEVEL_1=4 PATHSMOOTHINGLEVEL_2=8 PATHSMOOTHINGLEVEL_3=12"
      L" PATHSMOOTHINGLEVEL_4=16 PATHSMOOTHINGLEVEL_5=24 PATHSMOOTHINGLEVEL_6=32 PATHSMOOTHINGLEVEL_7=64"
      L" PATHSMOOTHINGLEVEL_8=128 PATHSMOOTHINGLEVEL_COUNT=8",
      L"vkvstab_InterpolationType INTERPOLATIONTYPE_NEAREST=0 INTERPOLATIONTYPE_BILINEAR=1",
      L"vkvstab_enumClippingOption CLIPPINGOPTIONS_OUTLINE=0 CLIPPINGOPTIONS_CROP=1"
      L" CLIPPINGOPTIONS_CROPANDSTRETCH=2"};
  EXPECT_EQ(types, expected);
}

TEST_F(TypeLibrary, DeclaresTheInterfacesMemberByMember) {
  std::vector<std::wstring> first, second;
  Expect(first, 1, L"Enabled", L"VARIANT_BOOL");
  Expect(first, 2, L"AutoReconnect", L"VARIANT_BOOL");
  Expect(first, 3, L"ROIEnabled", L"VARIANT_BOOL");
  Expect(first, 4, L"ROITop", L"long");
  Expect(first, 5, L"ROILeft", L"long");
  Expect(first, 6, L"ROIBottom", L"long");
  Expect(first, 7, L"ROIRight", L"long");
  Expect(first, 8, L"GlobalEstimationCoefficients", L"vkvstab_GlobalEstimationCoefficients");
  Expect(first, 9, L"GlobalEstimationQuality", L"vkvstab_GlobalEstimationQuality");
  Expect(first, 10, L"PathSmoothingLevel", L"vkvstab_PathSmoothingLevel");
  Expect(first, 13, L"BkFillColor", L"OLE_COLOR");
  Expect(first, 14, L"CropEnabled", L"VARIANT_BOOL");
  Expect(first, 15, L"LeftRightCropMargin", L"long");
  Expect(first, 16, L"TopBottomCropMargin", L"long");
  Expect(first, 17, L"InterpolationType", L"vkvstab_InterpolationType");
  Expect(first, 18, L"ClippingOption", L"vkvstab_enumClippingOption");
  first.emplace_back(L"19 ResetToDefaults: method ResetToDefaults");
  first.emplace_back(L"20 LoadAttributes: method LoadAttributes, read Transform settings from registry");
  first.emplace_back(L"21 SaveAttributes: method SaveAttributes, write Transform settings to registry");
  ExpectInterface(__uuidof(IVKFVStabilize1), L"IDispatch", first);
  Expect(second, 22, L"UseAdvancedEngine", L"VARIANT_BOOL");
  Expect(second, 23, L"AdvancedEngineAvailable", L"VARIANT_BOOL", false);
  ExpectInterface(__uuidof(IVKFVStabilize), L"IVKFVStabilize1", second);
}

class Automation : public FacadeTest {
 protected:
  /// Calls a member by name, as a script does. `value` is put, or receives the result.
  HRESULT Call(const wchar_t* name, WORD kind, VARIANT* value = nullptr) {
    DISPID id = DISPID_UNKNOWN, put = DISPID_PROPERTYPUT;
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    const HRESULT hr = m_pFacade->GetIDsOfNames(IID_NULL, names, 1, 0x409, &id);
    if (FAILED(hr)) return hr;
    const UINT arguments = kind == DISPATCH_PROPERTYPUT ? 1 : 0;
    DISPPARAMS parameters = {value, &put, arguments, arguments};
    return m_pFacade->Invoke(id, IID_NULL, 0x409, kind, &parameters, arguments ? nullptr : value, nullptr,
                             nullptr);
  }

  HRESULT Put(const wchar_t* name, VARTYPE type, LONG number) {
    VARIANT value = {};
    value.vt = type;
    value.lVal = number;
    return Call(name, DISPATCH_PROPERTYPUT, &value);
  }

  LONG Get(const wchar_t* name) {
    VARIANT value = {};
    EXPECT_EQ(Call(name, DISPATCH_PROPERTYGET, &value), S_OK) << name;
    return value.vt == VT_BOOL ? value.boolVal : value.lVal;
  }
};

TEST_F(Automation, WorksByNameWithoutRegistration) {
  EXPECT_EQ(Put(L"ROIRight", VT_I4, 123), S_OK);
  EXPECT_EQ(Get(L"roibottom"), 123) << "names know no case";
  EXPECT_EQ(Put(L"Enabled", VT_BOOL, VARIANT_FALSE), S_OK);
  EXPECT_EQ(Get(L"Enabled"), VARIANT_FALSE);
  EXPECT_EQ(Put(L"PathSmoothingLevel", VT_I4, 5), S_OK);
  EXPECT_EQ(Get(L"PathSmoothingLevel"), 5);
  EXPECT_EQ(Put(L"BkFillColor", VT_I4, 0x05123456), DISP_E_EXCEPTION);
  EXPECT_EQ(Put(L"UseAdvancedEngine", VT_BOOL, VARIANT_TRUE), S_OK);
  EXPECT_EQ(Get(L"UseAdvancedEngine"), VARIANT_TRUE);
  EXPECT_HRESULT_FAILED(Put(L"AdvancedEngineAvailable", VT_BOOL, VARIANT_TRUE));
  EXPECT_EQ(Call(L"SaveAttributes", DISPATCH_METHOD), S_OK);
  EXPECT_EQ(Call(L"ResetToDefaults", DISPATCH_METHOD), S_OK);
  EXPECT_EQ(Get(L"ROIRight"), 10000);
  EXPECT_EQ(Call(L"LoadAttributes", DISPATCH_METHOD), S_OK);
  EXPECT_EQ(Get(L"ROIRight"), 123);
  EXPECT_EQ(Call(L"Sharpness", DISPATCH_PROPERTYGET), DISP_E_UNKNOWNNAME);
}

TEST_F(Automation, HandsOutTheTypeInformationOfTheNewerInterface) {
  UINT count = 0;
  EXPECT_EQ(m_pFacade->GetTypeInfoCount(&count), S_OK);
  EXPECT_EQ(count, 1U);
  EXPECT_EQ(m_pFacade->GetTypeInfoCount(nullptr), E_POINTER);
  ComPtr<ITypeInfo> info, again;
  EXPECT_EQ(m_pFacade->GetTypeInfo(0, 0x409, &info), S_OK);
  EXPECT_EQ(DocumentationOf(info.Get()).name, L"IVKFVStabilize");
  EXPECT_EQ(m_pFacade->GetTypeInfo(0, 0, &again), S_OK);
  EXPECT_EQ(info.Get(), again.Get()) << "loaded once";
  EXPECT_EQ(m_pFacade->GetTypeInfo(1, 0, &again), DISP_E_BADINDEX);
  EXPECT_EQ(m_pFacade->GetTypeInfo(0, 0, nullptr), E_POINTER);
}

}  // namespace
