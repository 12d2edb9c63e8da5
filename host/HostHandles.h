#pragma once
// The host's owners of system handles, one per kind, on the module's one
// owner template.

#include <windows.h>

#include "UniqueResource.h"

namespace Host {

struct ScHandleTraits {
  using pointer = SC_HANDLE;
  static pointer Invalid() noexcept { return nullptr; }
  static bool IsValid(pointer value) noexcept { return value != nullptr; }
  static bool Close(pointer value) noexcept { return ::CloseServiceHandle(value) != FALSE; }
  static const wchar_t* Source() noexcept { return L"ScHandle"; }
};
using ScHandle = Kestrel::UniqueResource<ScHandleTraits>;

struct EventSourceTraits {
  using pointer = HANDLE;
  static pointer Invalid() noexcept { return nullptr; }
  static bool IsValid(pointer value) noexcept { return value != nullptr; }
  static bool Close(pointer value) noexcept { return ::DeregisterEventSource(value) != FALSE; }
  static const wchar_t* Source() noexcept { return L"EventSource"; }
};
using EventSourceHandle = Kestrel::UniqueResource<EventSourceTraits>;

// Any handle CloseHandle closes: files, processes. CreateFileW fails with
// INVALID_HANDLE_VALUE, OpenProcess with null; both count as none.
struct KernelHandleTraits {
  using pointer = HANDLE;
  static pointer Invalid() noexcept { return INVALID_HANDLE_VALUE; }
  static bool IsValid(pointer value) noexcept { return value != INVALID_HANDLE_VALUE && value != nullptr; }
  static bool Close(pointer value) noexcept { return ::CloseHandle(value) != FALSE; }
  static const wchar_t* Source() noexcept { return L"KernelHandle"; }
};
using FileHandle = Kestrel::UniqueResource<KernelHandleTraits>;
using ProcessHandle = Kestrel::UniqueResource<KernelHandleTraits>;

struct FindHandleTraits {
  using pointer = HANDLE;
  static pointer Invalid() noexcept { return INVALID_HANDLE_VALUE; }
  static bool IsValid(pointer value) noexcept { return value != INVALID_HANDLE_VALUE; }
  static bool Close(pointer value) noexcept { return ::FindClose(value) != FALSE; }
  static const wchar_t* Source() noexcept { return L"FindHandle"; }
};
using FindHandle = Kestrel::UniqueResource<FindHandleTraits>;

struct RegistryKeyTraits {
  using pointer = HKEY;
  static pointer Invalid() noexcept { return nullptr; }
  static bool IsValid(pointer value) noexcept { return value != nullptr; }
  static bool Close(pointer value) noexcept { return ::RegCloseKey(value) == ERROR_SUCCESS; }
  static const wchar_t* Source() noexcept { return L"RegistryKey"; }
};
using RegistryKey = Kestrel::UniqueResource<RegistryKeyTraits>;

}  // namespace Host
