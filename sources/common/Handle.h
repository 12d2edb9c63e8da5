#pragma once
// Owners of kernel handles (processes, files), find-file searches,
// LocalAlloc'd memory, mapped views and loaded libraries.

#include <windows.h>

#include "UniqueResource.h"

namespace Kestrel::Detail {

struct KernelHandleTraits {
  using pointer = HANDLE;
  static pointer Invalid() noexcept { return nullptr; }
  // Both null and INVALID_HANDLE_VALUE mean "none".
  static bool IsValid(pointer value) noexcept { return value != nullptr && value != INVALID_HANDLE_VALUE; }
  static bool Close(pointer value) noexcept { return ::CloseHandle(value) != FALSE; }
  static const wchar_t* Source() noexcept { return L"Handle"; }
};

struct FindHandleTraits {
  using pointer = HANDLE;
  static pointer Invalid() noexcept { return INVALID_HANDLE_VALUE; }
  static bool IsValid(pointer value) noexcept { return value != INVALID_HANDLE_VALUE && value != nullptr; }
  static bool Close(pointer value) noexcept { return ::FindClose(value) != FALSE; }
  static const wchar_t* Source() noexcept { return L"FindHandle"; }
};

struct LocalMemoryTraits {
  using pointer = HLOCAL;
  static pointer Invalid() noexcept { return nullptr; }
  static bool IsValid(pointer value) noexcept { return value != nullptr; }
  static bool Close(pointer value) noexcept { return ::LocalFree(value) == nullptr; }
  static const wchar_t* Source() noexcept { return L"LocalMemory"; }
};

struct MappedViewTraits {
  using pointer = void*;
  static pointer Invalid() noexcept { return nullptr; }
  static bool IsValid(pointer value) noexcept { return value != nullptr; }
  static bool Close(pointer value) noexcept { return ::UnmapViewOfFile(value) != FALSE; }
  static const wchar_t* Source() noexcept { return L"MappedView"; }
};

struct LibraryTraits {
  using pointer = HMODULE;
  static pointer Invalid() noexcept { return nullptr; }
  static bool IsValid(pointer value) noexcept { return value != nullptr; }
  static bool Close(pointer value) noexcept { return ::FreeLibrary(value) != FALSE; }
  static const wchar_t* Source() noexcept { return L"Library"; }
};

}  // namespace Kestrel::Detail

using Handle = Kestrel::UniqueResource<Kestrel::Detail::KernelHandleTraits>;
using FindHandle = Kestrel::UniqueResource<Kestrel::Detail::FindHandleTraits>;
// Memory the system hands out to be given back with LocalFree (security
// descriptors, formatted messages, SID strings).
using LocalMemory = Kestrel::UniqueResource<Kestrel::Detail::LocalMemoryTraits>;
// A view of a file mapping.
using MappedView = Kestrel::UniqueResource<Kestrel::Detail::MappedViewTraits>;
// A loaded library, such as a message file loaded as data.
using Library = Kestrel::UniqueResource<Kestrel::Detail::LibraryTraits>;
