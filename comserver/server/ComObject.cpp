#include "ComObject.h"

#include <type_traits>

#include "ResultCodes.h"
#include "TamrikLib.h"

namespace tamrik::server {

namespace {

template <typename... Args>
bool AnyNull(Args... args) {
  return ((std::is_pointer_v<Args> && args == Args{}) || ...);
}

Guid ToGuid(REFIID riid) {
  Guid g{riid.Data1, riid.Data2, riid.Data3, {}};
  for (int i = 0; i < 8; ++i) g.data4[i] = riid.Data4[i];
  return g;
}

}  // namespace

ComObject::ComObject() { ModuleAddRef(); }

ComObject::~ComObject() {
  if (ITypeInfo* info = typeInfo_.load()) info->Release();
  ModuleRelease();
}

HRESULT STDMETHODCALLTYPE ComObject::QueryInterface(REFIID riid, void** out) {
  if (out == nullptr) return E_POINTER;
  if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IDispatch) || IsEqualIID(riid, IID_Icom)) {
    *out = static_cast<IcomVtable*>(this);
  } else if (IsEqualIID(riid, IID_ISupportErrorInfo)) {
    *out = static_cast<ISupportErrorInfo*>(this);
  } else {
    *out = nullptr;
    return E_NOINTERFACE;
  }
  AddRef();
  return S_OK;
}

ULONG STDMETHODCALLTYPE ComObject::AddRef() { return ++refs_; }

ULONG STDMETHODCALLTYPE ComObject::Release() {
  const ULONG left = --refs_;
  if (left == 0) delete this;
  return left;
}

HRESULT ComObject::TypeInfo(ITypeInfo** info) {
  ITypeInfo* cached = typeInfo_.load();
  if (cached == nullptr) {
    ITypeLib* lib = nullptr;
    HRESULT hr = LoadTypeLibEx(ModulePath().c_str(), REGKIND_NONE, &lib);
    if (FAILED(hr)) return hr;
    ITypeInfo* loaded = nullptr;
    hr = lib->GetTypeInfoOfGuid(IID_Icom, &loaded);
    lib->Release();
    if (FAILED(hr)) return hr;
    // Two threads may load it at once; the first one to store it wins.
    if (typeInfo_.compare_exchange_strong(cached, loaded)) {
      cached = loaded;
    } else {
      loaded->Release();
    }
  }
  *info = cached;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE ComObject::GetTypeInfoCount(UINT* count) {
  if (count == nullptr) return E_POINTER;
  *count = 1;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE ComObject::GetTypeInfo(UINT index, LCID, ITypeInfo** info) {
  if (info == nullptr) return E_POINTER;
  *info = nullptr;
  if (index != 0) return DISP_E_BADINDEX;
  ITypeInfo* own = nullptr;
  const HRESULT hr = TypeInfo(&own);
  if (FAILED(hr)) return hr;
  own->AddRef();
  *info = own;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE ComObject::GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID,
                                                   DISPID* ids) {
  if (!IsEqualIID(riid, IID_NULL)) return DISP_E_UNKNOWNINTERFACE;
  ITypeInfo* info = nullptr;
  const HRESULT hr = TypeInfo(&info);
  if (FAILED(hr)) return hr;
  return DispGetIDsOfNames(info, names, count, ids);
}

HRESULT STDMETHODCALLTYPE ComObject::Invoke(DISPID id, REFIID riid, LCID, WORD flags, DISPPARAMS* params,
                                            VARIANT* result, EXCEPINFO* exception, UINT* argError) {
  if (!IsEqualIID(riid, IID_NULL)) return DISP_E_UNKNOWNINTERFACE;
  ITypeInfo* info = nullptr;
  const HRESULT hr = TypeInfo(&info);
  if (FAILED(hr)) return hr;
  return InvokeFromTypeInfo(info, static_cast<IcomVtable*>(this), id, flags, params, result, exception,
                            argError);
}

HRESULT STDMETHODCALLTYPE ComObject::InterfaceSupportsErrorInfo(REFIID riid) {
  return HRESULT(driver_.InterfaceSupportsErrorInfo(ToGuid(riid)));
}

// Every method hands its status to the caller as the HRESULT. A null pointer gets the same
// refusal as from the C interface, and nothing escapes as an exception.
#define TAMRIK_EXPAND(...) __VA_ARGS__
#define TAMRIK_DEFINE_METHOD(dispid, name, params, args)                             \
  HRESULT STDMETHODCALLTYPE ComObject::name params {                                 \
    if (AnyNull(TAMRIK_EXPAND args)) return HRESULT(rc::kBadArgument);               \
    try {                                                                            \
      return HRESULT(driver_.name args);                                             \
    } catch (...) {                                                                  \
      return E_UNEXPECTED;                                                           \
    }                                                                                \
  }
TAMRIK_METHOD_TABLE(TAMRIK_DEFINE_METHOD)
#undef TAMRIK_DEFINE_METHOD

}  // namespace tamrik::server
