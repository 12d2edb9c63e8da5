#pragma once
// A process-wide object made on first use, as a function-local static:
// concurrent first calls wait for the one construction, and the object lives
// until the library is unloaded.

namespace Kestrel {

template <typename T>
class CLazySingleton {
 public:
  CLazySingleton() = delete;

  static T& Instance() {
    static T s_instance;
    return s_instance;
  }
};

}  // namespace Kestrel
