// The C interface of libtamrik.so: a thin shell over the driver object.
#include "tamrik.h"

#include <new>
#include <string>
#include <type_traits>

#include "ResultCodes.h"
#include "com.h"
#include "platform/Platform.h"

struct tamrik_com {
  tamrik::Ccom driver;
  tamrik_com() = default;
  explicit tamrik_com(const std::string& directory) : driver(directory) {}
};

namespace {

// True when any pointer among the arguments is null; other arguments are not looked at.
template <typename... Args>
bool AnyNull(Args... args) {
  return ((std::is_pointer_v<Args> && args == Args{}) || ...);
}

}  // namespace

extern "C" {

TAMRIK_API tamrik_com* tamrik_create(void) {
  return new (std::nothrow) tamrik_com();
}

TAMRIK_API tamrik_com* tamrik_create_in(const char* directory) {
  if (directory == nullptr) return nullptr;
  return new (std::nothrow) tamrik_com(directory);
}

TAMRIK_API void tamrik_release(tamrik_com* com) { delete com; }

TAMRIK_API void tamrik_set_trace(void (*sink)(void* context, const char* text), void* context) {
  tamrik::platform::SetDebugSink(sink, context);
}

#define TAMRIK_EXPAND(...) __VA_ARGS__
#define TAMRIK_DEFINE_FUNCTION(dispid, name, params, args)                         \
  TAMRIK_API uint32_t tamrik_##name(tamrik_com* com, TAMRIK_EXPAND params) {       \
    if (com == nullptr || AnyNull(TAMRIK_EXPAND args)) return tamrik::rc::kBadArgument; \
    return com->driver.name args;                                                  \
  }
TAMRIK_METHOD_TABLE(TAMRIK_DEFINE_FUNCTION)
#undef TAMRIK_DEFINE_FUNCTION

}  // extern "C"
