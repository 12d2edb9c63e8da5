#pragma once
// Owner of a service-control-manager handle (the manager or one service).

#include <windows.h>

#include "UniqueResource.h"

namespace Kestrel::Detail {

struct ServiceHandleTraits {
  using pointer = SC_HANDLE;
  static pointer Invalid() noexcept { return nullptr; }
  static bool IsValid(pointer value) noexcept { return value != nullptr; }
  static bool Close(pointer value) noexcept { return ::CloseServiceHandle(value) != FALSE; }
  static const wchar_t* Source() noexcept { return L"ServiceHandle"; }
};

}  // namespace Kestrel::Detail

using ServiceHandle = Kestrel::UniqueResource<Kestrel::Detail::ServiceHandleTraits>;
