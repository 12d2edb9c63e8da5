#pragma once
// A process-wide object made on first use. The once-flag makes concurrent
// first calls wait for the one construction instead of racing it; the object
// lives until the library is unloaded.

#include <memory>
#include <mutex>

namespace Kestrel {

template <typename T>
class CLazySingleton {
 public:
  CLazySingleton() = delete;

  static T& Instance() {
    std::call_once(s_onceFlag, [] { s_pInstance.reset(new T()); });
    return *s_pInstance;
  }

 private:
  static inline std::once_flag s_onceFlag;
  static inline std::unique_ptr<T> s_pInstance;
};

}  // namespace Kestrel
