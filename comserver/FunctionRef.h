// A callable passed down a call without owning it and without allocating: the methods hand
// their demonstration steps to the common method frame this way, so that a method costs no
// heap allocation in either mode.
#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace tamrik {

template <typename Signature>
class FunctionRef;

template <typename R, typename... Args>
class FunctionRef<R(Args...)> {
 public:
  FunctionRef() = default;

  // The callable must outlive every call through this reference; a lambda written in the
  // argument list of the call that uses it does.
  template <typename F>
    requires(!std::is_same_v<std::remove_cvref_t<F>, FunctionRef> && std::is_invocable_r_v<R, F&, Args...>)
  FunctionRef(F&& f)  // NOLINT(google-explicit-constructor,bugprone-forwarding-reference-overload)
      : object_(const_cast<void*>(static_cast<const void*>(std::addressof(f)))),
        call_([](void* object, Args... args) -> R {
          return (*static_cast<std::remove_reference_t<F>*>(object))(std::forward<Args>(args)...);
        }) {}

  explicit operator bool() const { return call_ != nullptr; }
  R operator()(Args... args) const { return call_(object_, std::forward<Args>(args)...); }

 private:
  void* object_ = nullptr;
  R (*call_)(void*, Args...) = nullptr;
};

}  // namespace tamrik
