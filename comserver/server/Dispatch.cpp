// Calls by name go through the type library's own Invoke, which checks and converts the
// arguments and calls the vtable slot. What script hosts pass for pointer parameters is put
// into shape first:
//  - a text (BSTR) for a char* parameter: the method gets an 8-bit copy in a buffer with
//    room for the longest text a method writes back;
//  - a number by value (JScript) or a variable as VARIANT* (VBScript) for a numeric pointer
//    parameter: the method gets the converted number at the start of a zeroed buffer with
//    room for the largest answer. The type library alone would hand it a single temporary,
//    and the array methods write as many values as the gateway sends.
// After the call, what the method wrote goes back into the caller's by-reference variables
// (for an array, its first value).
#include <windows.h>
#include <oleauto.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Module.h"

namespace tamrik::server {

namespace {

// Longer than any text a method returns (at most 200 characters).
constexpr size_t kTextRoom = 1024;
// An answer carries at most 65535 data bytes, which the array methods hand out one per value.
constexpr size_t kArrayRoom = 65536;

struct FuncDescHolder {
  ITypeInfo* info = nullptr;
  FUNCDESC* desc = nullptr;
  ~FuncDescHolder() {
    if (desc != nullptr) info->ReleaseFuncDesc(desc);
  }
};

// The description of the method with dispatch identifier id, or null.
HRESULT FindFunction(ITypeInfo* info, DISPID id, FuncDescHolder* holder) {
  TYPEATTR* attr = nullptr;
  HRESULT hr = info->GetTypeAttr(&attr);
  if (FAILED(hr)) return hr;
  const WORD count = attr->cFuncs;
  info->ReleaseTypeAttr(attr);
  holder->info = info;
  for (WORD i = 0; i < count; ++i) {
    FUNCDESC* desc = nullptr;
    if (FAILED(info->GetFuncDesc(i, &desc))) continue;
    if (desc->memid == id) {
      holder->desc = desc;
      return S_OK;
    }
    info->ReleaseFuncDesc(desc);
  }
  return DISP_E_MEMBERNOTFOUND;
}

// The variant an argument stands for: the target of a VARIANT* passed by reference.
VARIANT* Underlying(VARIANT* arg) {
  if (V_VT(arg) == (VT_BYREF | VT_VARIANT) && V_VARIANTREF(arg) != nullptr) return V_VARIANTREF(arg);
  return arg;
}

bool IsTextParameter(const TYPEDESC& type) {
  return type.vt == VT_PTR && type.lptdesc != nullptr && type.lptdesc->vt == VT_I1;
}

VARTYPE NumericPointee(const TYPEDESC& type) {
  if (type.vt != VT_PTR || type.lptdesc == nullptr) return VT_EMPTY;
  const VARTYPE vt = type.lptdesc->vt;
  return (vt == VT_I4 || vt == VT_I2 || vt == VT_UI1 || vt == VT_INT) ? vt : VARTYPE(VT_EMPTY);
}

// One argument replaced for the call, and where its result goes afterwards.
struct Replacement {
  size_t position = 0;           // index into rgvarg
  VARIANT* writeBack = nullptr;  // the caller's variable, or null when passed by value
  bool text = false;
  VARTYPE pointee = VT_EMPTY;    // number: the type the method sees
  std::vector<char> buffer;      // text, or the numbers' room
};

size_t ElementSize(VARTYPE vt) {
  switch (vt) {
    case VT_I2: return sizeof(SHORT);
    case VT_UI1: return sizeof(BYTE);
    default: return sizeof(LONG);  // VT_I4, VT_INT
  }
}

// The text a script passed for a char* parameter, as an 8-bit copy with room to write back.
// Null when the argument goes through as it is; *hr tells a conversion that failed.
std::unique_ptr<Replacement> AdaptText(VARIANT* given, VARIANT* value, bool byRef, size_t position, HRESULT* hr) {
  // A pointer to characters (a compiled client's) goes through as it is.
  if ((V_VT(given) & VT_BYREF) != 0 && value == given && V_VT(given) != (VT_BYREF | VT_BSTR)) return nullptr;
  const BSTR* text = nullptr;
  if (V_VT(value) == VT_BSTR) text = &V_BSTR(value);
  if (V_VT(value) == (VT_BYREF | VT_BSTR)) text = V_BSTRREF(value);
  // Anything else a script passes (a number, nothing) is taken as its text.
  VARIANT asText;
  VariantInit(&asText);
  if (text == nullptr) {
    *hr = VariantChangeType(&asText, value, 0, VT_BSTR);
    if (FAILED(*hr)) return nullptr;
    text = &V_BSTR(&asText);
  }
  auto r = std::make_unique<Replacement>();
  r->position = position;
  r->writeBack = byRef ? value : nullptr;
  r->text = true;
  const UINT length = *text != nullptr ? SysStringLen(*text) : 0;
  const int bytes = length > 0 ? WideCharToMultiByte(CP_ACP, 0, *text, int(length), nullptr, 0, nullptr, nullptr) : 0;
  r->buffer.assign(std::max<size_t>(size_t(bytes) + 1, kTextRoom), '\0');
  if (bytes > 0) WideCharToMultiByte(CP_ACP, 0, *text, int(length), r->buffer.data(), bytes, nullptr, nullptr);
  VariantClear(&asText);
  return r;
}

// The number a script passed for a numeric pointer parameter, at the start of a zeroed buffer
// with room for the largest answer. Null when the argument goes through as it is.
std::unique_ptr<Replacement> AdaptNumber(VARIANT* given, VARIANT* value, VARTYPE pointee, size_t position,
                                         HRESULT* hr) {
  // A pointer of the right type (a compiled client's) goes through as it is.
  if (pointee == VT_EMPTY || ((V_VT(given) & VT_BYREF) != 0 && value == given)) return nullptr;
  VARIANT converted;
  VariantInit(&converted);
  *hr = VariantChangeType(&converted, value, 0, pointee);
  if (FAILED(*hr)) return nullptr;
  auto r = std::make_unique<Replacement>();
  r->position = position;
  r->writeBack = value != given ? value : nullptr;
  r->pointee = pointee;
  r->buffer.assign(kArrayRoom * ElementSize(pointee), '\0');
  std::memcpy(r->buffer.data(), &V_NONE(&converted), ElementSize(pointee));
  return r;
}

// What the method wrote, back into the caller's by-reference variable.
void WriteBack(const Replacement& r) {
  if (r.writeBack == nullptr) return;
  if (!r.text) {
    VariantClear(r.writeBack);
    V_VT(r.writeBack) = r.pointee;
    std::memcpy(&V_NONE(r.writeBack), r.buffer.data(), ElementSize(r.pointee));
    return;
  }
  const int wide = MultiByteToWideChar(CP_ACP, 0, r.buffer.data(), -1, nullptr, 0);
  std::wstring text(size_t(wide > 0 ? wide : 1), L'\0');
  if (wide > 0) MultiByteToWideChar(CP_ACP, 0, r.buffer.data(), -1, text.data(), wide);
  BSTR copy = SysAllocString(text.c_str());
  if (V_VT(r.writeBack) == (VT_BYREF | VT_BSTR)) {
    SysFreeString(*V_BSTRREF(r.writeBack));
    *V_BSTRREF(r.writeBack) = copy;
  } else {
    VariantClear(r.writeBack);
    V_VT(r.writeBack) = VT_BSTR;
    V_BSTR(r.writeBack) = copy;
  }
}

}  // namespace

HRESULT InvokeFromTypeInfo(ITypeInfo* info, IcomVtable* object, DISPID id, WORD flags, DISPPARAMS* params,
                           VARIANT* result, EXCEPINFO* exception, UINT* argError) {
  if (params == nullptr || params->cArgs == 0 || params->cNamedArgs != 0 || !(flags & DISPATCH_METHOD)) {
    return info->Invoke(object, id, flags, params, result, exception, argError);
  }
  FuncDescHolder func;
  if (FAILED(FindFunction(info, id, &func))) {
    return info->Invoke(object, id, flags, params, result, exception, argError);
  }

  std::vector<VARIANT> args(params->rgvarg, params->rgvarg + params->cArgs);
  std::vector<std::unique_ptr<Replacement>> replaced;
  const UINT declared = UINT(func.desc->cParams);
  for (UINT i = 0; i < params->cArgs && i < declared; ++i) {
    // rgvarg holds the arguments last to first.
    const size_t position = params->cArgs - 1 - i;
    VARIANT* given = &params->rgvarg[position];
    VARIANT* value = Underlying(given);
    const bool byRef = value != given || V_VT(given) == (VT_BYREF | VT_BSTR);
    const TYPEDESC& type = func.desc->lprgelemdescParam[i].tdesc;
    HRESULT hr = S_OK;
    std::unique_ptr<Replacement> r = IsTextParameter(type)
                                         ? AdaptText(given, value, byRef, position, &hr)
                                         : AdaptNumber(given, value, NumericPointee(type), position, &hr);
    if (FAILED(hr)) {
      if (argError != nullptr) *argError = UINT(position);
      return hr;
    }
    if (r == nullptr) continue;
    VariantInit(&args[position]);
    if (r->text) {
      V_VT(&args[position]) = VT_BYREF | VT_I1;
      V_I1REF(&args[position]) = r->buffer.data();
    } else {
      V_VT(&args[position]) = VT_BYREF | r->pointee;
      V_BYREF(&args[position]) = r->buffer.data();
    }
    replaced.push_back(std::move(r));
  }

  if (replaced.empty()) return info->Invoke(object, id, flags, params, result, exception, argError);

  DISPPARAMS adapted = *params;
  adapted.rgvarg = args.data();
  const HRESULT hr = info->Invoke(object, id, flags, &adapted, result, exception, argError);
  if (SUCCEEDED(hr)) {
    for (const auto& r : replaced) WriteBack(*r);
  }
  return hr;
}

}  // namespace tamrik::server
