// Test client of tamrik.dll, run under wine after registration:
//   client typelib DLLPATH                 the type library, from the module and the registry
//   client server                          creation, interfaces, class object, unloading, IDispatch
//   client renamed DLLPATH VERSION         a renamed copy finds its own profile files
//   client scenario vtable|dispatch demo|tcp PORT|udp PORT|serial N
//                                          the shared call sequence, lines for comparison
// The checking modes print one line per failed check and close with "N passed, N failed".
#include <windows.h>
#include <initguid.h>
#include <cguid.h>
#include <ole2.h>
#include <oleauto.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "MethodTable.h"
#include "Scenario.h"
#include "TamrikLib.h"

namespace {

int g_passed = 0;
int g_failed = 0;

void Check(bool ok, const std::string& what) {
  if (ok) {
    ++g_passed;
  } else {
    ++g_failed;
    std::printf("FAIL %s\n", what.c_str());
  }
}

std::string Hex(HRESULT hr) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(hr));
  return text;
}

std::string Narrow(const wchar_t* text) {
  if (text == nullptr) return {};
  std::string out;
  for (; *text != 0; ++text) out.push_back(*text < 128 ? char(*text) : '?');
  return out;
}

std::wstring Wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

int Close() {
  std::printf("%d passed, %d failed\n", g_passed, g_failed);
  return g_failed == 0 ? 0 : 1;
}

// --- the method table, as the type library must show it -------------------------------------

struct Expected {
  int dispid;
  const char* name;
  const char* params;  // "(type name, ...)" as the table writes it
  const char* args;    // "(name, ...)"
};

#define TAMRIK_EXPECTED(dispid, name, params, args) {dispid, #name, #params, #args},
const Expected kMethods[] = {TAMRIK_METHOD_TABLE(TAMRIK_EXPECTED)};
#undef TAMRIK_EXPECTED

std::vector<std::string> Split(const char* list) {
  std::string text = list;
  if (!text.empty() && text.front() == '(') text.erase(0, 1);
  if (!text.empty() && text.back() == ')') text.pop_back();
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= text.size()) {
    size_t comma = text.find(',', start);
    if (comma == std::string::npos) comma = text.size();
    std::string part = text.substr(start, comma - start);
    while (!part.empty() && part.front() == ' ') part.erase(0, 1);
    while (!part.empty() && part.back() == ' ') part.pop_back();
    parts.push_back(part);
    start = comma + 1;
  }
  return parts;
}

// The automation type a parameter of the table must have in the type library.
std::string ExpectedType(const std::string& param, const std::string& name, bool last) {
  if (last) return "long*";
  if (param.rfind("int32_t*", 0) == 0) return "long*";
  if (param.rfind("int32_t", 0) == 0) return name[0] == 'n' ? "int" : "long";
  if (param.rfind("int16_t*", 0) == 0) return "short*";
  if (param.rfind("uint8_t*", 0) == 0) return "unsigned char*";
  if (param.rfind("const char*", 0) == 0 || param.rfind("char*", 0) == 0) return "char*";
  return "?";
}

std::string TypeName(const TYPEDESC& t) {
  switch (t.vt) {
    case VT_I4: return "long";
    case VT_INT: return "int";
    case VT_I2: return "short";
    case VT_I1: return "char";
    case VT_UI1: return "unsigned char";
    case VT_PTR: return t.lptdesc != nullptr ? TypeName(*t.lptdesc) + "*" : "?*";
    default: return "vt" + std::to_string(t.vt);
  }
}

void CheckInterface(ITypeInfo* dispatchInfo, const std::string& from) {
  TYPEATTR* attr = nullptr;
  if (FAILED(dispatchInfo->GetTypeAttr(&attr))) {
    Check(false, from + ": type attributes of Icom");
    return;
  }
  Check(attr->typekind == TKIND_DISPATCH && (attr->wTypeFlags & TYPEFLAG_FDUAL) != 0,
        from + ": Icom is a dual dispatch interface");
  dispatchInfo->ReleaseTypeAttr(attr);
  BSTR name = nullptr, doc = nullptr;
  dispatchInfo->GetDocumentation(MEMBERID_NIL, &name, &doc, nullptr, nullptr);
  Check(Narrow(name) == "Icom" && Narrow(doc) == "Icom Interface", from + ": Icom's name and help string");
  SysFreeString(name);
  SysFreeString(doc);

  // The vtable half of the dual interface holds the methods in their slots.
  HREFTYPE ref = 0;
  ITypeInfo* info = nullptr;
  if (FAILED(dispatchInfo->GetRefTypeOfImplType(UINT(-1), &ref)) || FAILED(dispatchInfo->GetRefTypeInfo(ref, &info))) {
    Check(false, from + ": vtable interface of Icom");
    return;
  }
  info->GetTypeAttr(&attr);
  const UINT count = attr->cFuncs;
  Check(attr->typekind == TKIND_INTERFACE, from + ": vtable interface kind");
  Check(count == 67, from + ": 67 methods, found " + std::to_string(count));
  info->ReleaseTypeAttr(attr);

  // The dispatch identifiers: 1 to 70 without 6, 9 and 17.
  std::vector<int> ids;
  for (int id = 1; id <= 70; ++id) {
    if (id != 6 && id != 9 && id != 17) ids.push_back(id);
  }
  const size_t expected = sizeof kMethods / sizeof kMethods[0];
  Check(expected == ids.size(), from + ": the method table has 67 entries");

  for (UINT i = 0; i < count && i < expected; ++i) {
    const Expected& m = kMethods[i];
    const std::string where = from + ": method " + std::to_string(i) + " (" + m.name + ")";
    FUNCDESC* f = nullptr;
    if (FAILED(info->GetFuncDesc(i, &f))) {
      Check(false, where + ": no description");
      continue;
    }
    Check(f->memid == m.dispid && (i >= ids.size() || f->memid == ids[i]),
          where + ": DISPID " + std::to_string(f->memid));
    Check(f->oVft == SHORT((7 + i) * sizeof(void*)), where + ": vtable slot " + std::to_string(f->oVft));
    Check(f->funckind == FUNC_PUREVIRTUAL && f->invkind == INVOKE_FUNC && f->elemdescFunc.tdesc.vt == VT_HRESULT,
          where + ": a method returning HRESULT");
    const std::vector<std::string> params = Split(m.params);
    const std::vector<std::string> args = Split(m.args);
    Check(size_t(f->cParams) == params.size(), where + ": " + std::to_string(f->cParams) + " parameters");

    std::vector<BSTR> names(size_t(f->cParams) + 1, nullptr);
    UINT got = 0;
    info->GetNames(f->memid, names.data(), UINT(names.size()), &got);
    Check(got == names.size() && Narrow(names[0]) == m.name, where + ": name " + Narrow(names[0]));
    for (SHORT p = 0; p < f->cParams && size_t(p) < params.size(); ++p) {
      const bool last = p == f->cParams - 1;
      const std::string pname = size_t(p) + 1 < got ? Narrow(names[size_t(p) + 1]) : "";
      Check(pname == args[size_t(p)], where + ": parameter " + std::to_string(p) + " named " + pname);
      const ELEMDESC& e = f->lprgelemdescParam[p];
      const std::string type = TypeName(e.tdesc);
      Check(type == ExpectedType(params[size_t(p)], args[size_t(p)], last),
            where + ": parameter " + pname + " of type " + type);
      const USHORT flags = e.paramdesc.wParamFlags;
      if (last) {
        Check(flags == (PARAMFLAG_FOUT | PARAMFLAG_FRETVAL), where + ": last parameter [out, retval]");
      } else {
        const bool input = params[size_t(p)].rfind("const ", 0) == 0 || params[size_t(p)].find('*') == std::string::npos;
        Check(flags == (input ? PARAMFLAG_FIN : (PARAMFLAG_FIN | PARAMFLAG_FOUT)),
              where + ": direction of " + pname);
      }
    }
    for (BSTR b : names) SysFreeString(b);

    BSTR doc = nullptr;
    info->GetDocumentation(f->memid, nullptr, &doc, nullptr, nullptr);
    Check(Narrow(doc) == std::string("Methode ") + m.name, where + ": help string " + Narrow(doc));
    SysFreeString(doc);
    info->ReleaseFuncDesc(f);
  }
  info->Release();
}

void CheckLibrary(ITypeLib* lib, const std::string& from) {
  TLIBATTR* attr = nullptr;
  lib->GetLibAttr(&attr);
  Check(IsEqualGUID(attr->guid, LIBID_TamrikLib) && attr->wMajorVerNum == 1 && attr->wMinorVerNum == 0 &&
            attr->lcid == 0x409,
        from + ": library identifier, version 1.0, locale 0x409");
  lib->ReleaseTLibAttr(attr);
  BSTR name = nullptr, doc = nullptr;
  lib->GetDocumentation(-1, &name, &doc, nullptr, nullptr);
  Check(Narrow(name) == "TamrikLib" && Narrow(doc) == "tamrik 1.0 Typbibliothek",
        from + ": library name and help string: " + Narrow(name) + " / " + Narrow(doc));
  SysFreeString(name);
  SysFreeString(doc);
  Check(lib->GetTypeInfoCount() == 2, from + ": an interface and a class");

  ITypeInfo* coclass = nullptr;
  if (SUCCEEDED(lib->GetTypeInfoOfGuid(CLSID_com, &coclass))) {
    TYPEATTR* t = nullptr;
    coclass->GetTypeAttr(&t);
    Check(t->typekind == TKIND_COCLASS && (t->wTypeFlags & TYPEFLAG_FCANCREATE) != 0 && t->cImplTypes == 1,
          from + ": creatable class with one interface");
    coclass->ReleaseTypeAttr(t);
    coclass->GetDocumentation(MEMBERID_NIL, &name, &doc, nullptr, nullptr);
    Check(Narrow(name) == "com" && Narrow(doc) == "com Class", from + ": class name and help string");
    SysFreeString(name);
    SysFreeString(doc);
    INT implFlags = 0;
    HREFTYPE ref = 0;
    ITypeInfo* impl = nullptr;
    coclass->GetImplTypeFlags(0, &implFlags);
    Check(implFlags == IMPLTYPEFLAG_FDEFAULT, from + ": Icom is the default interface");
    if (SUCCEEDED(coclass->GetRefTypeOfImplType(0, &ref)) && SUCCEEDED(coclass->GetRefTypeInfo(ref, &impl))) {
      impl->GetTypeAttr(&t);
      Check(IsEqualGUID(t->guid, IID_Icom), from + ": the class implements Icom");
      impl->ReleaseTypeAttr(t);
      impl->Release();
    }
    coclass->Release();
  } else {
    Check(false, from + ": class com in the library");
  }

  ITypeInfo* icom = nullptr;
  if (SUCCEEDED(lib->GetTypeInfoOfGuid(IID_Icom, &icom))) {
    CheckInterface(icom, from);
    icom->Release();
  } else {
    Check(false, from + ": Icom in the library");
  }
}

int TypeLibMode(const char* dllPath) {
  ITypeLib* lib = nullptr;
  HRESULT hr = LoadTypeLibEx(Wide(dllPath).c_str(), REGKIND_NONE, &lib);
  Check(SUCCEEDED(hr), std::string("type library in ") + dllPath + ": " + Hex(hr));
  if (lib != nullptr) {
    CheckLibrary(lib, "module");
    lib->Release();
  }
  lib = nullptr;
  hr = LoadRegTypeLib(LIBID_TamrikLib, 1, 0, 0x409, &lib);
  Check(SUCCEEDED(hr), "registered type library: " + Hex(hr));
  if (lib != nullptr) {
    CheckLibrary(lib, "registry");
    lib->Release();
  }
  return Close();
}

// --- calls through IDispatch ------------------------------------------------------------------

VARIANT ByRef(int32_t* p) { VARIANT v; VariantInit(&v); V_VT(&v) = VT_BYREF | VT_I4; V_I4REF(&v) = reinterpret_cast<LONG*>(p); return v; }
VARIANT ByRef(int16_t* p) { VARIANT v; VariantInit(&v); V_VT(&v) = VT_BYREF | VT_I2; V_I2REF(&v) = p; return v; }
VARIANT ByRef(uint8_t* p) { VARIANT v; VariantInit(&v); V_VT(&v) = VT_BYREF | VT_UI1; V_UI1REF(&v) = p; return v; }
VARIANT ByRef(char* p) { VARIANT v; VariantInit(&v); V_VT(&v) = VT_BYREF | VT_I1; V_I1REF(&v) = p; return v; }
VARIANT ByRef(const char* p) { return ByRef(const_cast<char*>(p)); }
VARIANT ByRef(int32_t value) { VARIANT v; VariantInit(&v); V_VT(&v) = VT_I4; V_I4(&v) = value; return v; }

HRESULT g_lastInvoke = S_OK;

// Calls method `name` by name; every argument but the last travels as a VARIANT (pointers
// by reference), the last receives the [out, retval] value.
template <typename... Args>
uint32_t CallByName(IDispatch* d, const char* name, Args... all) {
  auto args = std::make_tuple(all...);
  constexpr size_t n = sizeof...(Args) - 1;
  int32_t* retval = std::get<n>(args);
  std::wstring wide = Wide(name);
  LPOLESTR names[1] = {wide.data()};
  DISPID id = 0;
  g_lastInvoke = d->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
  if (FAILED(g_lastInvoke)) return uint32_t(g_lastInvoke);
  VARIANT v[n > 0 ? n : 1];
  [&]<size_t... I>(std::index_sequence<I...>) { ((v[n - 1 - I] = ByRef(std::get<I>(args))), ...); }
  (std::make_index_sequence<n>{});
  DISPPARAMS params = {v, nullptr, UINT(n), 0};
  VARIANT result;
  VariantInit(&result);
  g_lastInvoke = d->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, &result, nullptr, nullptr);
  if (SUCCEEDED(g_lastInvoke) && V_VT(&result) == VT_I4) *retval = V_I4(&result);
  VariantClear(&result);
  return uint32_t(g_lastInvoke);
}

struct DispatchDriver {
  static constexpr bool kShowsStatus = false;
  IDispatch* d;
#define TAMRIK_EXPAND(...) __VA_ARGS__
#define TAMRIK_BY_NAME(dispid, name, params, args) \
  uint32_t name params { return CallByName(d, #name, TAMRIK_EXPAND args); }
  TAMRIK_METHOD_TABLE(TAMRIK_BY_NAME)
#undef TAMRIK_BY_NAME
};

// --- calls through the vtable, as the type library's header declares it --------------------

LONG* Arg(int32_t* p) { return reinterpret_cast<LONG*>(p); }
int32_t Arg(int32_t v) { return v; }
short* Arg(int16_t* p) { return p; }
unsigned char* Arg(uint8_t* p) { return p; }
char* Arg(char* p) { return p; }
char* Arg(const char* p) { return const_cast<char*>(p); }

struct VtableDriver {
  static constexpr bool kShowsStatus = true;
  Icom* p;
#define TAMRIK_BY_SLOT(dispid, name, params, args) \
  uint32_t name params {                          \
    return [this](auto... a) { return uint32_t(p->name(Arg(a)...)); } args; \
  }
  TAMRIK_METHOD_TABLE(TAMRIK_BY_SLOT)
#undef TAMRIK_BY_SLOT
};

Icom* Create() {
  CLSID clsid{};
  HRESULT hr = CLSIDFromProgID(L"Tamrik.com", &clsid);
  if (FAILED(hr)) {
    std::printf("CLSIDFromProgID(Tamrik.com): %s\n", Hex(hr).c_str());
    return nullptr;
  }
  Icom* object = nullptr;
  hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_Icom, reinterpret_cast<void**>(&object));
  if (FAILED(hr)) {
    std::printf("CoCreateInstance: %s\n", Hex(hr).c_str());
    return nullptr;
  }
  return object;
}

int ScenarioMode(const std::string& way, const std::string& kind, const std::string& port) {
  Icom* object = Create();
  if (object == nullptr) {
    std::printf("cannot create Tamrik.com\n");
    return 2;
  }
  tamrik::scenario::Printer printer(stdout);
  tamrik::scenario::Link link{kind, port};
  if (way == "vtable") {
    VtableDriver driver{object};
    tamrik::scenario::Run(driver, link, printer);
  } else {
    DispatchDriver driver{object};
    tamrik::scenario::Run(driver, link, printer);
  }
  object->Release();
  return 0;
}

// --- the server -------------------------------------------------------------------------------

VARIANT Text(const wchar_t* text) { VARIANT v; VariantInit(&v); V_VT(&v) = VT_BSTR; V_BSTR(&v) = SysAllocString(text); return v; }

int ServerMode() {
  CLSID clsid{};
  Check(SUCCEEDED(CLSIDFromProgID(L"Tamrik.com", &clsid)) && IsEqualCLSID(clsid, CLSID_com),
        "Tamrik.com names the class");
  Check(SUCCEEDED(CLSIDFromProgID(L"Tamrik.com.1", &clsid)) && IsEqualCLSID(clsid, CLSID_com),
        "Tamrik.com.1 names the class");

  Icom* object = Create();
  Check(object != nullptr, "created by ProgID");
  if (object == nullptr) return Close();

  HMODULE module = GetModuleHandleW(L"tamrik.dll");
  Check(module != nullptr, "the module is loaded in-process");
  auto canUnload = reinterpret_cast<HRESULT(STDAPICALLTYPE*)()>(
      reinterpret_cast<void*>(GetProcAddress(module, "DllCanUnloadNow")));
  auto getClassObject = reinterpret_cast<HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**)>(
      reinterpret_cast<void*>(GetProcAddress(module, "DllGetClassObject")));
  Check(canUnload != nullptr && getClassObject != nullptr, "the module exports its entry points");
  if (canUnload == nullptr || getClassObject == nullptr) return Close();

  Check(canUnload() == S_FALSE, "DllCanUnloadNow says no while an object lives");

  // Class object: refusals, and a lock that keeps the module.
  void* out = nullptr;
  Check(getClassObject(IID_Icom, IID_IClassFactory, &out) == CLASS_E_CLASSNOTAVAILABLE && out == nullptr,
        "another class is not available");
  Check(getClassObject(CLSID_com, IID_IClassFactory, nullptr) == E_POINTER, "a null output is refused");
  IClassFactory* factory = nullptr;
  Check(SUCCEEDED(getClassObject(CLSID_com, IID_IClassFactory, reinterpret_cast<void**>(&factory))),
        "class object of com");
  IUnknown* outer = reinterpret_cast<IUnknown*>(object);
  IUnknown* inner = nullptr;
  Check(factory->CreateInstance(outer, IID_IUnknown, reinterpret_cast<void**>(&inner)) == CLASS_E_NOAGGREGATION,
        "no aggregation");

  // Interfaces.
  IDispatch* dispatch = nullptr;
  ISupportErrorInfo* errorInfo = nullptr;
  IUnknown* unknown = nullptr;
  Check(SUCCEEDED(object->QueryInterface(IID_IDispatch, reinterpret_cast<void**>(&dispatch))), "IDispatch");
  Check(SUCCEEDED(object->QueryInterface(IID_ISupportErrorInfo, reinterpret_cast<void**>(&errorInfo))),
        "ISupportErrorInfo");
  Check(object->QueryInterface(IID_IClassFactory, reinterpret_cast<void**>(&unknown)) == E_NOINTERFACE &&
            unknown == nullptr,
        "no other interface");
  if (errorInfo != nullptr) {
    Check(errorInfo->InterfaceSupportsErrorInfo(IID_Icom) == S_OK, "error info for Icom");
    Check(errorInfo->InterfaceSupportsErrorInfo(IID_IDispatch) == S_FALSE, "no error info for others");
    errorInfo->Release();
  }

  // Through the vtable.
  char version[16];
  std::memset(version, '#', sizeof version);
  LONG size = 0, error = 77;
  HRESULT hr = object->kaVGetVersion(version, &size, &error);
  Check(hr == S_OK && std::string(version, 12) == "1.0 B2.1.38#" && size == 11 && error == 77,
        "kaVGetVersion through the vtable");
  Check(object->kaVGetGatewayVersion(nullptr, &error) == 0x10060, "a null pointer is refused with 0x10060");

  // Through IDispatch.
  if (dispatch != nullptr) {
    UINT count = 0;
    Check(dispatch->GetTypeInfoCount(&count) == S_OK && count == 1, "one type info");
    ITypeInfo* info = nullptr;
    Check(dispatch->GetTypeInfo(0, 0, &info) == S_OK && info != nullptr, "type info of the object");
    if (info != nullptr) {
      TYPEATTR* t = nullptr;
      info->GetTypeAttr(&t);
      Check(IsEqualGUID(t->guid, IID_Icom), "the object's type info is Icom");
      info->ReleaseTypeAttr(t);
      // The 67 methods as the object itself describes them.
      CheckInterface(info, "object");
      info->Release();
    }
    const wchar_t* probes[][2] = {{L"kaVGetGatewayVersion", L"18"}, {L"KAVGETVERSION", L"46"},
                                  {L"kaVDoService", L"70"}, {L"kaVSetBaudrate", L"1"}};
    for (auto& probe : probes) {
      LPOLESTR name = const_cast<LPOLESTR>(probe[0]);
      DISPID id = 0;
      Check(dispatch->GetIDsOfNames(IID_NULL, &name, 1, 0, &id) == S_OK && id == _wtoi(probe[1]),
            "DISPID of " + Narrow(probe[0]));
    }
    LPOLESTR unknownName = const_cast<LPOLESTR>(L"kaVNoSuchMethod");
    DISPID id = 0;
    Check(dispatch->GetIDsOfNames(IID_NULL, &unknownName, 1, 0, &id) == DISP_E_UNKNOWNNAME, "unknown name");

    // By reference, as a compiled client passes them.
    std::memset(version, 0, sizeof version);
    int32_t size32 = 0, error32 = 0;
    DispatchDriver by{dispatch};
    by.kaVGetVersion(version, &size32, &error32);
    Check(g_lastInvoke == S_OK && std::string(version) == "1.0 B2.1.38" && size32 == 11,
          "kaVGetVersion by name: " + Hex(g_lastInvoke));

    // Texts as BSTRs, as a script host passes them: 0.0.0.0 is refused at once.
    VARIANT args[2] = {Text(L"0.0.0.0"), Text(L"502")};
    DISPPARAMS params = {args, nullptr, 2, 0};
    VARIANT result;
    VariantInit(&result);
    hr = dispatch->Invoke(63, IID_NULL, 0, DISPATCH_METHOD, &params, &result, nullptr, nullptr);
    Check(hr == S_OK && V_VT(&result) == VT_I4 && V_I4(&result) == 4010049,
          "kaVOpenEthernet with texts: " + Hex(hr) + " " + std::to_string(V_I4(&result)));
    VariantClear(&args[0]);
    VariantClear(&args[1]);

    // Variables by reference as VARIANT*, as VBScript passes them: the results come back.
    VARIANT text, number;
    text = Text(L"");
    VariantInit(&number);
    V_VT(&number) = VT_I4;
    V_I4(&number) = 0;
    VARIANT refs[2];
    V_VT(&refs[0]) = VT_BYREF | VT_VARIANT;
    V_VARIANTREF(&refs[0]) = &number;
    V_VT(&refs[1]) = VT_BYREF | VT_VARIANT;
    V_VARIANTREF(&refs[1]) = &text;
    params = {refs, nullptr, 2, 0};
    hr = dispatch->Invoke(46, IID_NULL, 0, DISPATCH_METHOD, &params, &result, nullptr, nullptr);
    Check(hr == S_OK && V_VT(&text) == VT_BSTR && Narrow(V_BSTR(&text)) == "1.0 B2.1.38" &&
              V_VT(&number) == VT_I4 && V_I4(&number) == 11,
          "kaVGetVersion with VARIANT references: " + Hex(hr));
    VariantClear(&text);
    VariantClear(&result);

    // A script's number for an array parameter gets room for the whole array: 4096 bytes
    // of host memory go out from it and come back into it.
    VARIANT port[3];
    VariantInit(&port[0]);
    VariantInit(&port[1]);
    VariantInit(&port[2]);
    V_VT(&port[2]) = VT_I4;
    V_I4(&port[2]) = 0x1234;  // plData
    V_VT(&port[1]) = VT_I4;
    V_I4(&port[1]) = 4096;    // plSize, in bytes
    V_VT(&port[0]) = VT_I4;
    V_I4(&port[0]) = 0;       // plAddress
    params = {port, nullptr, 3, 0};
    hr = dispatch->Invoke(52, IID_NULL, 0, DISPATCH_METHOD, &params, &result, nullptr, nullptr);
    Check(hr == S_OK, "SetPort with numbers by value: " + Hex(hr));
    {
      // What went out: the number, then the zeros of the room (not whatever lay behind a
      // single temporary).
      std::vector<int16_t> back(2048, 0x5555);
      int32_t bytes = 4096, address = 0, error32 = 0;
      DispatchDriver by{dispatch};
      by.GetPort(back.data(), &bytes, &address, &error32);
      size_t nonzero = 0;
      for (size_t k = 1; k < back.size(); ++k) nonzero += back[k] != 0;
      Check(g_lastInvoke == S_OK && back[0] == 0x1234 && nonzero == 0,
            "SetPort from a number sent it with zeros behind: " + std::to_string(nonzero) + " other values");
    }
    VARIANT data;
    VariantInit(&data);
    V_VT(&data) = VT_I4;
    V_I4(&data) = 0;
    V_VT(&port[2]) = VT_BYREF | VT_VARIANT;
    V_VARIANTREF(&port[2]) = &data;
    hr = dispatch->Invoke(53, IID_NULL, 0, DISPATCH_METHOD, &params, &result, nullptr, nullptr);
    Check(hr == S_OK && V_VT(&data) == VT_I2 && V_I2(&data) == 0x1234,
          "GetPort of 4096 bytes into a VARIANT reference: " + Hex(hr));

    params = {nullptr, nullptr, 0, 0};
    hr = dispatch->Invoke(46, IID_NULL, 0, DISPATCH_METHOD, &params, &result, nullptr, nullptr);
    Check(hr == DISP_E_BADPARAMCOUNT, "missing arguments are refused: " + Hex(hr));
    hr = dispatch->Invoke(6, IID_NULL, 0, DISPATCH_METHOD, &params, &result, nullptr, nullptr);
    Check(hr == DISP_E_MEMBERNOTFOUND, "DISPID 6 is not used: " + Hex(hr));
    dispatch->Release();
  }

  // The module stays while an object or a lock holds it.
  object->Release();
  Check(canUnload() == S_OK, "DllCanUnloadNow says yes once the object is released");
  factory->LockServer(TRUE);
  Check(canUnload() == S_FALSE, "a server lock keeps the module");
  factory->LockServer(FALSE);
  Check(canUnload() == S_OK, "the module may go once unlocked");
  factory->Release();
  return Close();
}

// A copy of the module under another name, loaded without the registry: its driver object
// must find its profile files beside that copy (here a demonstration station), not beside
// the registered module or the program.
int RenamedMode(const char* path, int32_t expectedVersion) {
  HMODULE module = LoadLibraryA(path);
  Check(module != nullptr, std::string("load ") + path);
  if (module == nullptr) return Close();
  auto getClassObject = reinterpret_cast<HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**)>(
      reinterpret_cast<void*>(GetProcAddress(module, "DllGetClassObject")));
  IClassFactory* factory = nullptr;
  Icom* object = nullptr;
  if (getClassObject != nullptr && SUCCEEDED(getClassObject(CLSID_com, IID_IClassFactory, reinterpret_cast<void**>(&factory)))) {
    factory->CreateInstance(nullptr, IID_Icom, reinterpret_cast<void**>(&object));
    factory->Release();
  }
  Check(object != nullptr, "object from the renamed module");
  if (object != nullptr) {
    LONG version = 0, error = -1;
    object->kaVGetGatewayVersion(&version, &error);
    Check(error == 0 && version == expectedVersion,
          "gateway version from the demonstration file beside the copy: " + std::to_string(version));
    object->Release();
  }
  return Close();
}

}  // namespace

int main(int argc, char** argv) {
  if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 3;
  int result = 2;
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "typelib" && argc > 2) {
    result = TypeLibMode(argv[2]);
  } else if (mode == "server") {
    result = ServerMode();
  } else if (mode == "renamed" && argc > 3) {
    result = RenamedMode(argv[2], std::atoi(argv[3]));
  } else if (mode == "scenario" && argc > 3) {
    result = ScenarioMode(argv[2], argv[3], argc > 4 ? argv[4] : "");
  } else {
    std::printf("usage: client typelib DLL | server | renamed DLL VERSION | scenario vtable|dispatch demo|tcp PORT|udp PORT|serial N\n");
  }
  CoUninitialize();
  return result;
}
