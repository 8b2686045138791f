#include <windows.h>

#include <map>
#include <oleauto.h>

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

std::wstring HelpOf(ITypeInfo* info, MEMBERID member = MEMBERID_NIL) {
  BSTR help = nullptr;
  DWORD context = 1;
  EXPECT_EQ(info->GetDocumentation(member, nullptr, &help, &context, nullptr), S_OK);
  EXPECT_EQ(context, 0U) << "help context";
  return Take(help);
}

std::wstring NameOf(ITypeInfo* info, MEMBERID member = MEMBERID_NIL) {
  BSTR name = nullptr;
  EXPECT_EQ(info->GetDocumentation(member, &name, nullptr, nullptr, nullptr), S_OK);
  return Take(name);
}

/// A parameter's type by name: the alias or enumeration it refers to, or its number.
std::wstring TypeName(ITypeInfo* info, const TYPEDESC& type) {
  if (type.vt == VT_PTR) return TypeName(info, *type.lptdesc);
  if (type.vt == VT_BOOL) return L"VARIANT_BOOL";
  if (type.vt == VT_I4) return L"long";
  if (type.vt != VT_USERDEFINED) return std::to_wstring(type.vt);
  ComPtr<ITypeInfo> referred;
  EXPECT_EQ(info->GetRefTypeInfo(type.hreftype, &referred), S_OK);
  return NameOf(referred.Get());
}

struct Member {
  const wchar_t* name;
  MEMBERID id;
  const wchar_t* type;  ///< null for a method
  bool canPut;
};

constexpr Member kMembers1[] = {
    {L"Enabled", 1, L"VARIANT_BOOL", true},
    {L"AutoReconnect", 2, L"VARIANT_BOOL", true},
    {L"ROIEnabled", 3, L"VARIANT_BOOL", true},
    {L"ROITop", 4, L"long", true},
    {L"ROILeft", 5, L"long", true},
    {L"ROIBottom", 6, L"long", true},
    {L"ROIRight", 7, L"long", true},
    {L"GlobalEstimationCoefficients", 8, L"vkvstab_GlobalEstimationCoefficients", true},
    {L"GlobalEstimationQuality", 9, L"vkvstab_GlobalEstimationQuality", true},
    {L"PathSmoothingLevel", 10, L"vkvstab_PathSmoothingLevel", true},
    {L"BkFillColor", 13, L"OLE_COLOR", true},
    {L"CropEnabled", 14, L"VARIANT_BOOL", true},
    {L"LeftRightCropMargin", 15, L"long", true},
    {L"TopBottomCropMargin", 16, L"long", true},
    {L"InterpolationType", 17, L"vkvstab_InterpolationType", true},
    {L"ClippingOption", 18, L"vkvstab_enumClippingOption", true},
    {L"ResetToDefaults", 19, nullptr, false},
    {L"LoadAttributes", 20, nullptr, false},
    {L"SaveAttributes", 21, nullptr, false}};
constexpr Member kMembers2[] = {{L"UseAdvancedEngine", 22, L"VARIANT_BOOL", true},
                                {L"AdvancedEngineAvailable", 23, L"VARIANT_BOOL", false}};

/// Checks the functions of an interface from its own first one on, in order.
void ExpectMembers(ITypeInfo* info, std::span<const Member> members, int firstSlot) {
  int slot = firstSlot;
  UINT index = 0;
  const auto expectFunction = [&](const Member& member, INVOKEKIND kind, const std::wstring& help) {
    FUNCDESC* function = nullptr;
    ASSERT_EQ(info->GetFuncDesc(index++, &function), S_OK) << slot;
    EXPECT_EQ(NameOf(info, function->memid), member.name);
    EXPECT_EQ(function->memid, member.id);
    EXPECT_EQ(function->invkind, kind);
    EXPECT_EQ(function->oVft, slot++ * static_cast<int>(sizeof(void*)));
    EXPECT_EQ(function->elemdescFunc.tdesc.vt, VT_HRESULT);
    EXPECT_EQ(HelpOf(info, function->memid), help);
    EXPECT_EQ(function->cParams, member.type ? 1 : 0);
    if (member.type) {
      const ELEMDESC& parameter = function->lprgelemdescParam[0];
      EXPECT_EQ(TypeName(info, parameter.tdesc), member.type);
      EXPECT_EQ(parameter.tdesc.vt == VT_PTR, kind == INVOKE_PROPERTYGET);
      EXPECT_EQ(parameter.paramdesc.wParamFlags,
                kind == INVOKE_PROPERTYGET ? PARAMFLAG_FOUT | PARAMFLAG_FRETVAL : PARAMFLAG_FIN);
    }
    if (kind == INVOKE_PROPERTYGET) {
      BSTR names[2] = {};
      UINT count = 0;
      EXPECT_EQ(info->GetNames(function->memid, names, 2, &count), S_OK);
      Take(names[0]);
      EXPECT_EQ(Take(names[1]), L"pVal");
    }
    info->ReleaseFuncDesc(function);
  };
  const std::map<std::wstring, std::wstring> methodHelp = {
      {L"ResetToDefaults", L"method ResetToDefaults"},
      {L"LoadAttributes", L"method LoadAttributes, read Transform settings from registry"},
      {L"SaveAttributes", L"method SaveAttributes, write Transform settings to registry"}};
  for (const Member& member : members) {
    if (!member.type) {
      expectFunction(member, INVOKE_FUNC, methodHelp.at(member.name));
      continue;
    }
    const std::wstring help = std::wstring(L"property ") + member.name;
    expectFunction(member, INVOKE_PROPERTYGET, help);
    if (member.canPut) expectFunction(member, INVOKE_PROPERTYPUT, help);
  }
  TYPEATTR* attributes = nullptr;
  ASSERT_EQ(info->GetTypeAttr(&attributes), S_OK);
  EXPECT_EQ(attributes->cFuncs, index) << "no functions beside these";
  info->ReleaseTypeAttr(attributes);
}

class TypeLibrary : public EngineTest {
 protected:
  TypeLibrary() { EXPECT_EQ(LoadModuleTypeLibrary(CurrentModule(), &m_pLibrary), S_OK); }

  /// The interface's functions as the vtable has them.
  ComPtr<ITypeInfo> VtableView(const GUID& iid) const {
    ComPtr<ITypeInfo> dispatch, vtable;
    HREFTYPE type = 0;
    EXPECT_EQ(m_pLibrary->GetTypeInfoOfGuid(iid, &dispatch), S_OK);
    EXPECT_EQ(dispatch->GetRefTypeOfImplType(static_cast<UINT>(-1), &type), S_OK);
    EXPECT_EQ(dispatch->GetRefTypeInfo(type, &vtable), S_OK);
    return vtable;
  }

  void ExpectInterface(const GUID& iid, const wchar_t* name, const wchar_t* base, int slots) const {
    const ComPtr<ITypeInfo> info = VtableView(iid);
    TYPEATTR* attributes = nullptr;
    ASSERT_EQ(info->GetTypeAttr(&attributes), S_OK);
    constexpr WORD kFlags =
        TYPEFLAG_FDUAL | TYPEFLAG_FOLEAUTOMATION | TYPEFLAG_FDISPATCHABLE | TYPEFLAG_FNONEXTENSIBLE;
    EXPECT_EQ(attributes->wTypeFlags, kFlags) << NameOf(info.Get());
    EXPECT_EQ(attributes->cbSizeVft, slots * static_cast<int>(sizeof(void*)));
    info->ReleaseTypeAttr(attributes);
    EXPECT_EQ(NameOf(info.Get()), name);
    EXPECT_EQ(HelpOf(info.Get()), std::wstring(name) + L" Interface");
    HREFTYPE type = 0;
    ComPtr<ITypeInfo> baseInfo;
    EXPECT_EQ(info->GetRefTypeOfImplType(0, &type), S_OK);
    EXPECT_EQ(info->GetRefTypeInfo(type, &baseInfo), S_OK);
    EXPECT_EQ(NameOf(baseInfo.Get()), base);
  }

  ComPtr<ITypeLib> m_pLibrary;
};

TEST_F(TypeLibrary, StandsInTheModuleUnderItsName) {
  TLIBATTR* attributes = nullptr;
  ASSERT_EQ(m_pLibrary->GetLibAttr(&attributes), S_OK);
  constexpr GUID kLibrary = {0xE2B6EDDB, 0x38C5, 0x11D5, {0x91, 0xF6, 0x00, 0x10, 0x4B, 0xDB, 0x8F, 0xF9}};
  EXPECT_TRUE(attributes->guid == kLibrary);
  EXPECT_EQ(attributes->wMajorVerNum, 1);
  EXPECT_EQ(attributes->wMinorVerNum, 0);
  EXPECT_EQ(attributes->lcid, 0x409U);
  m_pLibrary->ReleaseTLibAttr(attributes);
  BSTR name = nullptr, help = nullptr, helpFile = nullptr;
  ASSERT_EQ(m_pLibrary->GetDocumentation(-1, &name, &help, nullptr, &helpFile), S_OK);
  EXPECT_EQ(Take(name), L"VKFVStabilizeLib");
  EXPECT_EQ(Take(help), L"Varkon MF Video Stabilizer Library");
  EXPECT_EQ(Take(helpFile), L"");
}

TEST_F(TypeLibrary, DeclaresTheInterfacesMemberByMember) {
  ExpectInterface(__uuidof(IVKFVStabilize1), L"IVKFVStabilize1", L"IDispatch", 7 + 35);
  ExpectInterface(__uuidof(IVKFVStabilize), L"IVKFVStabilize", L"IVKFVStabilize1", 7 + 35 + 3);
  ExpectMembers(VtableView(__uuidof(IVKFVStabilize1)).Get(), kMembers1, 7);
  ExpectMembers(VtableView(__uuidof(IVKFVStabilize)).Get(), kMembers2, 7 + 35);
}

TEST_F(TypeLibrary, DeclaresNothingElse) {
  std::map<std::wstring, TYPEKIND> found;
  for (UINT i = 0; i < m_pLibrary->GetTypeInfoCount(); ++i) {
    ComPtr<ITypeInfo> info;
    TYPEKIND kind = TKIND_MAX;
    ASSERT_EQ(m_pLibrary->GetTypeInfo(i, &info), S_OK);
    ASSERT_EQ(m_pLibrary->GetTypeInfoType(i, &kind), S_OK);
    found[NameOf(info.Get())] = kind;
  }
  const std::map<std::wstring, TYPEKIND> expected = {{L"VKFVStabilizeAbout", TKIND_COCLASS},
                                                     {L"VKFVStabilizePropertyPage", TKIND_COCLASS},
                                                     {L"VKFVStabilize", TKIND_COCLASS},
                                                     {L"IVKFVStabilize", TKIND_DISPATCH},
                                                     {L"IVKFVStabilize1", TKIND_DISPATCH},
                                                     {L"vkvstab_GlobalEstimationCoefficients", TKIND_ENUM},
                                                     {L"vkvstab_GlobalEstimationQuality", TKIND_ENUM},
                                                     {L"vkvstab_PathSmoothingLevel", TKIND_ENUM},
                                                     {L"vkvstab_InterpolationType", TKIND_ENUM},
                                                     {L"vkvstab_enumClippingOption", TKIND_ENUM}};
  EXPECT_EQ(found, expected);
}

TEST_F(TypeLibrary, TakesTheColourTypeFromTheStandardLibrary) {
  const ComPtr<ITypeInfo> info = VtableView(__uuidof(IVKFVStabilize1));
  FUNCDESC* getColor = nullptr;
  ASSERT_EQ(info->GetFuncDesc(20, &getColor), S_OK);
  EXPECT_EQ(getColor->memid, 13);
  ComPtr<ITypeInfo> color;
  ComPtr<ITypeLib> library;
  UINT index = 0;
  ASSERT_EQ(info->GetRefTypeInfo(getColor->lprgelemdescParam[0].tdesc.lptdesc->hreftype, &color), S_OK);
  info->ReleaseFuncDesc(getColor);
  ASSERT_EQ(color->GetContainingTypeLib(&library, &index), S_OK);
  BSTR name = nullptr;
  ASSERT_EQ(library->GetDocumentation(-1, &name, nullptr, nullptr, nullptr), S_OK);
  EXPECT_EQ(Take(name), L"stdole");
}

TEST_F(TypeLibrary, DeclaresTheClasses) {
  const std::pair<unsigned long, std::pair<const wchar_t*, const wchar_t*>> classes[] = {
      {0xE2B6EDDC, {L"VKFVStabilizeAbout", L"About Varkon MF Video Stabilizer"}},
      {0xE2B6EDDD, {L"VKFVStabilizePropertyPage", L"Varkon MF Video Stabilizer Property Page"}},
      {0xE2B6EDDE, {L"VKFVStabilize", L"Varkon MF Video Stabilizer"}}};
  for (const auto& [first, texts] : classes) {
    const GUID clsid = settingskeys::EngineKey(first);
    ComPtr<ITypeInfo> info;
    ASSERT_EQ(m_pLibrary->GetTypeInfoOfGuid(clsid, &info), S_OK) << texts.first;
    EXPECT_EQ(NameOf(info.Get()), texts.first);
    EXPECT_EQ(HelpOf(info.Get()), texts.second);
  }
}

TEST_F(TypeLibrary, DeclaresTheEnumerations) {
  const std::map<std::wstring, std::map<std::wstring, LONG>> expected = {
      {L"vkvstab_GlobalEstimationCoefficients",
       {{L"vkvstab_GLOBALESTIMATIONCOEFFICIENTS_X_Y", 0},
        {L"vkvstab_GLOBALESTIMATIONCOEFFICIENTS_X_Y_THETA", 1}}},
      {L"vkvstab_GlobalEstimationQuality",
       {{L"vkvstab_GLOBALESTIMATIONQUALITY_1", 0},
        {L"vkvstab_GLOBALESTIMATIONQUALITY_2", 1},
        {L"vkvstab_GLOBALESTIMATIONQUALITY_3", 2},
        {L"vkvstab_GLOBALESTIMATIONQUALITY_4", 3}}},
      {L"vkvstab_PathSmoothingLevel",
       {{L"vkvstab_PATHSMOOTHINGLEVEL_1", 4},
        {L"vkvstab_PATHSMOOTHINGLEVEL_2", 8},
        {L"vkvstab_PATHSMOOTHINGLEVEL_3", 12},
        {L"vkvstab_PATHSMOOTHINGLEVEL_4", 16},
        {L"vkvstab_PATHSMOOTHINGLEVEL_5", 24},
        {L"vkvstab_PATHSMOOTHINGLEVEL_6", 32},
        {L"vkvstab_PATHSMOOTHINGLEVEL_7", 64},
        {L"vkvstab_PATHSMOOTHINGLEVEL_8", 128},
        {L"vkvstab_PATHSMOOTHINGLEVEL_COUNT", 8}}},
      {L"vkvstab_InterpolationType",
       {{L"vkvstab_INTERPOLATIONTYPE_NEAREST", 0}, {L"vkvstab_INTERPOLATIONTYPE_BILINEAR", 1}}},
      {L"vkvstab_enumClippingOption",
       {{L"vkvstab_CLIPPINGOPTIONS_OUTLINE", 0},
        {L"vkvstab_CLIPPINGOPTIONS_CROP", 1},
        {L"vkvstab_CLIPPINGOPTIONS_CROPANDSTRETCH", 2}}}};
  std::map<std::wstring, std::map<std::wstring, LONG>> found;
  for (UINT i = 0; i < m_pLibrary->GetTypeInfoCount(); ++i) {
    TYPEKIND kind = TKIND_MAX;
    ASSERT_EQ(m_pLibrary->GetTypeInfoType(i, &kind), S_OK);
    if (kind != TKIND_ENUM) continue;
    ComPtr<ITypeInfo> info;
    ASSERT_EQ(m_pLibrary->GetTypeInfo(i, &info), S_OK);
    auto& constants = found[NameOf(info.Get())];
    VARDESC* constant = nullptr;
    for (UINT k = 0; SUCCEEDED(info->GetVarDesc(k, &constant)); ++k) {
      constants[NameOf(info.Get(), constant->memid)] = constant->lpvarValue->lVal;
      info->ReleaseVarDesc(constant);
    }
  }
  EXPECT_EQ(found, expected);
}

class Automation : public EngineTest {
 protected:
  /// Calls a member by name as a script does.
  HRESULT Call(const wchar_t* name, WORD kind, VARIANT* argument, VARIANT* result) {
    DISPID id = DISPID_UNKNOWN;
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    const HRESULT hr = m_pFacade->GetIDsOfNames(IID_NULL, names, 1, 0x409, &id);
    if (FAILED(hr)) return hr;
    DISPID put = DISPID_PROPERTYPUT;
    DISPPARAMS parameters = {argument, nullptr, argument ? 1U : 0U, 0};
    if (kind == DISPATCH_PROPERTYPUT) {
      parameters.rgdispidNamedArgs = &put;
      parameters.cNamedArgs = 1;
    }
    return m_pFacade->Invoke(id, IID_NULL, 0x409, kind, &parameters, result, nullptr, nullptr);
  }

  HRESULT Put(const wchar_t* name, VARTYPE type, LONG value) {
    VARIANT argument = {};
    argument.vt = type;
    argument.lVal = value;
    return Call(name, DISPATCH_PROPERTYPUT, &argument, nullptr);
  }

  LONG Get(const wchar_t* name) {
    VARIANT result = {};
    EXPECT_EQ(Call(name, DISPATCH_PROPERTYGET, nullptr, &result), S_OK) << name;
    return result.vt == VT_BOOL ? result.boolVal : result.lVal;
  }

  ComPtr<CVKVStabilizeImpl> m_pFacade = MakeFacade();
};

TEST_F(Automation, WorksByNameWithoutRegistration) {
  EXPECT_EQ(Put(L"ROIRight", VT_I4, 123), S_OK);
  EXPECT_EQ(Get(L"ROIBottom"), 123);
  EXPECT_EQ(Get(L"roibottom"), 123) << "names know no case";
  EXPECT_EQ(Put(L"Enabled", VT_BOOL, VARIANT_FALSE), S_OK);
  EXPECT_EQ(Get(L"Enabled"), VARIANT_FALSE);
  EXPECT_EQ(Put(L"PathSmoothingLevel", VT_I4, 5), S_OK);
  EXPECT_EQ(Get(L"PathSmoothingLevel"), 5);
  EXPECT_EQ(Put(L"BkFillColor", VT_I4, 0x05123456), DISP_E_EXCEPTION);
  EXPECT_EQ(Get(L"BkFillColor"), 0);
  EXPECT_EQ(Put(L"UseAdvancedEngine", VT_BOOL, VARIANT_TRUE), S_OK);
  EXPECT_EQ(Get(L"UseAdvancedEngine"), VARIANT_TRUE);
  EXPECT_HRESULT_FAILED(Put(L"AdvancedEngineAvailable", VT_BOOL, VARIANT_TRUE));
  EXPECT_EQ(Call(L"ResetToDefaults", DISPATCH_METHOD, nullptr, nullptr), S_OK);
  EXPECT_EQ(Get(L"ROIRight"), 10000);
  EXPECT_EQ(Get(L"Enabled"), VARIANT_TRUE);
  EXPECT_EQ(Call(L"SaveAttributes", DISPATCH_METHOD, nullptr, nullptr), S_OK);
  EXPECT_EQ(Call(L"LoadAttributes", DISPATCH_METHOD, nullptr, nullptr), S_OK);
  EXPECT_EQ(Call(L"Sharpness", DISPATCH_PROPERTYGET, nullptr, nullptr), DISP_E_UNKNOWNNAME);
}

TEST_F(Automation, HandsOutTheTypeInformationOfTheNewerInterface) {
  UINT count = 0;
  EXPECT_EQ(m_pFacade->GetTypeInfoCount(&count), S_OK);
  EXPECT_EQ(count, 1U);
  EXPECT_EQ(m_pFacade->GetTypeInfoCount(nullptr), E_POINTER);
  ComPtr<ITypeInfo> info, again;
  EXPECT_EQ(m_pFacade->GetTypeInfo(0, 0x409, &info), S_OK);
  EXPECT_EQ(NameOf(info.Get()), L"IVKFVStabilize");
  EXPECT_EQ(m_pFacade->GetTypeInfo(0, 0, &again), S_OK);
  EXPECT_EQ(info.Get(), again.Get()) << "loaded once";
  EXPECT_EQ(m_pFacade->GetTypeInfo(1, 0, &again), DISP_E_BADINDEX);
  EXPECT_EQ(m_pFacade->GetTypeInfo(0, 0, nullptr), E_POINTER);
}

}  // namespace
