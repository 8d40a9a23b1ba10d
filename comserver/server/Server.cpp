// The module's entry points and the class object of `com`.
#include <windows.h>
#include <initguid.h>
#include <ole2.h>
#include <olectl.h>

#include <atomic>
#include <new>

#include "ComObject.h"
#include "Module.h"
#include "TamrikLib.h"

namespace tamrik::server {

namespace {

HINSTANCE g_instance = nullptr;
std::atomic<long> g_count{0};

constexpr UINT kRegistryScript = 102;

class ClassFactory final : public IClassFactory {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
    if (out == nullptr) return E_POINTER;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IClassFactory)) {
      *out = static_cast<IClassFactory*>(this);
      AddRef();
      return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
  }
  // The class object lives as long as the module; handing it out does not keep the module
  // loaded, a lock does.
  ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }

  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** out) override {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    if (outer != nullptr) return CLASS_E_NOAGGREGATION;
    ComObject* object = nullptr;
    try {
      object = new ComObject();
    } catch (...) {
      return E_OUTOFMEMORY;
    }
    const HRESULT hr = object->QueryInterface(riid, out);
    object->Release();
    return hr;
  }

  HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override {
    if (lock) {
      ModuleAddRef();
    } else {
      ModuleRelease();
    }
    return S_OK;
  }
};

ClassFactory g_factory;

// The type library as the module carries it, for (un)registering.
HRESULT LoadOwnTypeLib(ITypeLib** lib) { return LoadTypeLibEx(ModulePath().c_str(), REGKIND_NONE, lib); }

}  // namespace

HINSTANCE ModuleInstance() { return g_instance; }

std::wstring ModulePath() {
  std::wstring path(MAX_PATH, L'\0');
  for (int attempt = 0; attempt < 6; ++attempt) {
    const DWORD n = GetModuleFileNameW(g_instance, path.data(), DWORD(path.size()));
    if (n == 0) return {};
    if (n < path.size()) {
      path.resize(n);
      return path;
    }
    path.resize(path.size() * 2);
  }
  return {};
}

void ModuleAddRef() { g_count.fetch_add(1); }
void ModuleRelease() { g_count.fetch_sub(1); }
long ModuleCount() { return g_count.load(); }

}  // namespace tamrik::server

using namespace tamrik::server;

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) {
    g_instance = instance;
    DisableThreadLibraryCalls(instance);
  }
  return TRUE;
}

extern "C" HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID clsid, REFIID riid, void** out) {
  if (out == nullptr) return E_POINTER;
  *out = nullptr;
  if (!IsEqualCLSID(clsid, CLSID_com)) return CLASS_E_CLASSNOTAVAILABLE;
  return g_factory.QueryInterface(riid, out);
}

extern "C" HRESULT STDAPICALLTYPE DllCanUnloadNow() { return ModuleCount() == 0 ? S_OK : S_FALSE; }

extern "C" HRESULT STDAPICALLTYPE DllRegisterServer() {
  HRESULT hr = RunRegistryScript(kRegistryScript, true);
  if (FAILED(hr)) return hr;
  ITypeLib* lib = nullptr;
  hr = LoadOwnTypeLib(&lib);
  if (FAILED(hr)) return hr;
  std::wstring path = ModulePath();
  hr = RegisterTypeLib(lib, path.data(), nullptr);
  lib->Release();
  return hr;
}

extern "C" HRESULT STDAPICALLTYPE DllUnregisterServer() {
  const HRESULT hr = RunRegistryScript(kRegistryScript, false);
  ITypeLib* lib = nullptr;
  if (SUCCEEDED(LoadOwnTypeLib(&lib))) {
    TLIBATTR* attr = nullptr;
    if (SUCCEEDED(lib->GetLibAttr(&attr))) {
      // Not registered (any more) is as good as unregistered.
      (void)UnRegisterTypeLib(attr->guid, attr->wMajorVerNum, attr->wMinorVerNum, attr->lcid, attr->syskind);
      lib->ReleaseTLibAttr(attr);
    }
    lib->Release();
  }
  return FAILED(hr) ? hr : S_OK;
}
