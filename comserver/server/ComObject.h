// The creatable object of class `com`: the driver object behind Icom, with IDispatch served
// from the module's type library and ISupportErrorInfo answered by the driver object.
#pragma once

#include <windows.h>
#include <oaidl.h>

#include <atomic>

#include "Module.h"
#include "com.h"

namespace tamrik::server {

class ComObject final : public IcomVtable, public ISupportErrorInfo {
 public:
  ComObject();
  ~ComObject();
  ComObject(const ComObject&) = delete;
  ComObject& operator=(const ComObject&) = delete;

  // IUnknown
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  // IDispatch
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override;
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID lcid, ITypeInfo** info) override;
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID lcid,
                                          DISPID* ids) override;
  HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID riid, LCID lcid, WORD flags, DISPPARAMS* params,
                                   VARIANT* result, EXCEPINFO* exception, UINT* argError) override;

  // ISupportErrorInfo
  HRESULT STDMETHODCALLTYPE InterfaceSupportsErrorInfo(REFIID riid) override;

  // Icom
#define TAMRIK_DECLARE_OVERRIDE(dispid, name, params, args) HRESULT STDMETHODCALLTYPE name params override;
  TAMRIK_METHOD_TABLE(TAMRIK_DECLARE_OVERRIDE)
#undef TAMRIK_DECLARE_OVERRIDE

 private:
  // The interface info of Icom from the module's type library, loaded on first use.
  HRESULT TypeInfo(ITypeInfo** info);

  std::atomic<ULONG> refs_{1};
  std::atomic<ITypeInfo*> typeInfo_{nullptr};
  Ccom driver_;
};

}  // namespace tamrik::server
