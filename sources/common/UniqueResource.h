#pragma once
// One owner template for every kind of handle the module holds. The traits
// name the handle type, the value that means "none" and the close function;
// the named owners (Handle, ServiceHandle, the find handle, ...) are aliases.

#include <windows.h>

#include <utility>

#include "Assert.h"

namespace Kestrel {

template <typename Traits>
class UniqueResource {
 public:
  using pointer = typename Traits::pointer;

  UniqueResource() noexcept = default;
  explicit UniqueResource(pointer value) noexcept : m_value(value) {}
  UniqueResource(UniqueResource&& other) noexcept : m_value(other.Release()) {}
  UniqueResource& operator=(UniqueResource&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }
  UniqueResource(const UniqueResource&) = delete;
  UniqueResource& operator=(const UniqueResource&) = delete;
  ~UniqueResource() { Reset(); }

  pointer Get() const noexcept { return m_value; }
  bool IsValid() const noexcept { return Traits::IsValid(m_value); }
  explicit operator bool() const noexcept { return IsValid(); }

  // Gives up ownership without closing.
  [[nodiscard]] pointer Release() noexcept { return std::exchange(m_value, Traits::Invalid()); }

  // Closes the held value (keeping the thread's last error intact, so a
  // failure being reported is not clobbered by cleanup) and takes a new one.
  void Reset(pointer value = Traits::Invalid()) noexcept {
    pointer old = std::exchange(m_value, value);
    if (Traits::IsValid(old)) {
      const DWORD lastError = ::GetLastError();
      const bool bClosed = Traits::Close(old);
      WD64_ASSERT(bClosed, Traits::Source());
      (void)bClosed;
      ::SetLastError(lastError);
    }
  }

  // Closes the held value and hands out the slot for an out-parameter.
  pointer* Put() noexcept {
    Reset();
    return &m_value;
  }

 private:
  pointer m_value = Traits::Invalid();
};

}  // namespace Kestrel
