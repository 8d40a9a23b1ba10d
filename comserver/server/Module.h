// What the parts of the server shell share: the module's instance handle, its count of live
// objects and locks, and the interface that the driver object is reached through.
#pragma once

#include <windows.h>
#include <oaidl.h>

#include <string>

#include "MethodTable.h"

namespace tamrik::server {

HINSTANCE ModuleInstance();
std::wstring ModulePath();

// Live driver objects plus server locks; the module may be unloaded while it is zero.
void ModuleAddRef();
void ModuleRelease();
long ModuleCount();

// Icom as the type library lays it out: the seven slots of IDispatch, then the methods in
// table order. Declared from the method table, like the IDL the type library comes from.
struct IcomVtable : public IDispatch {
#define TAMRIK_DECLARE_SLOT(dispid, name, params, args) virtual HRESULT STDMETHODCALLTYPE name params = 0;
  TAMRIK_METHOD_TABLE(TAMRIK_DECLARE_SLOT)
#undef TAMRIK_DECLARE_SLOT
};

// Runs the registry script (resource REGISTRY id) with %MODULE% replaced by the module's
// path: creates its keys and values, or removes every key not marked NoRemove.
HRESULT RunRegistryScript(UINT id, bool registering);

// IDispatch::Invoke for an object whose interface info is typeInfo, with text and
// by-reference arguments from script hosts put into the form the methods take.
HRESULT InvokeFromTypeInfo(ITypeInfo* typeInfo, IcomVtable* object, DISPID id, WORD flags,
                           DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception, UINT* argError);

}  // namespace tamrik::server
