#pragma once
// The host's owners of system handles: the module's owners for kernel, find
// and service handles, and the two kinds only the host holds.

#include <windows.h>

#include "Handle.h"
#include "ServiceHandle.h"
#include "UniqueResource.h"

namespace Host {

using ScHandle = ::ServiceHandle;
// CreateFileW fails with INVALID_HANDLE_VALUE, OpenProcess with null: both
// count as none.
using FileHandle = ::Handle;
using ProcessHandle = ::Handle;
using FindHandle = ::FindHandle;

struct EventSourceTraits {
  using pointer = HANDLE;
  static pointer Invalid() noexcept { return nullptr; }
  static bool IsValid(pointer value) noexcept { return value != nullptr; }
  static bool Close(pointer value) noexcept { return ::DeregisterEventSource(value) != FALSE; }
  static const wchar_t* Source() noexcept { return L"EventSource"; }
};
using EventSourceHandle = Kestrel::UniqueResource<EventSourceTraits>;

struct RegistryKeyTraits {
  using pointer = HKEY;
  static pointer Invalid() noexcept { return nullptr; }
  static bool IsValid(pointer value) noexcept { return value != nullptr; }
  static bool Close(pointer value) noexcept { return ::RegCloseKey(value) == ERROR_SUCCESS; }
  static const wchar_t* Source() noexcept { return L"RegistryKey"; }
};
using RegistryKey = Kestrel::UniqueResource<RegistryKeyTraits>;

}  // namespace Host
