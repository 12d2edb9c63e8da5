#pragma once
// WatchDog64.dll as the host sees it: loaded at run time, components created
// by class id, HRESULTs described for people.

#include <windows.h>

#include <string>
#include <utility>

#include "components/ComponentInterfaces.h"

namespace Host {

// One counted interface pointer; releases on destruction.
template <typename I>
class ComponentRef {
 public:
  ComponentRef() noexcept = default;
  explicit ComponentRef(I* pointer) noexcept : m_pointer(pointer) {}
  ComponentRef(ComponentRef&& other) noexcept : m_pointer(std::exchange(other.m_pointer, nullptr)) {}
  ComponentRef& operator=(ComponentRef&& other) noexcept {
    if (this != &other) {
      Reset();
      m_pointer = std::exchange(other.m_pointer, nullptr);
    }
    return *this;
  }
  ComponentRef(const ComponentRef&) = delete;
  ComponentRef& operator=(const ComponentRef&) = delete;
  ~ComponentRef() { Reset(); }

  I* operator->() const noexcept { return m_pointer; }
  I* Get() const noexcept { return m_pointer; }
  explicit operator bool() const noexcept { return m_pointer != nullptr; }
  void** Put() noexcept {
    Reset();
    return reinterpret_cast<void**>(&m_pointer);
  }
  void Reset() noexcept {
    if (m_pointer != nullptr) std::exchange(m_pointer, nullptr)->Release();
  }

  // Another interface of the same object; empty when it has none.
  template <typename J>
  ComponentRef<J> As() const {
    ComponentRef<J> other;
    if (m_pointer != nullptr) m_pointer->QueryInterface(&J::IID, other.Put());
    return other;
  }

 private:
  I* m_pointer = nullptr;
};

// A failed call with the text a person needs: the code, the module's
// description when it published one, else the module's text for the code.
class HostError {
 public:
  HostError(HRESULT code, std::wstring what);
  HRESULT Code() const noexcept { return m_code; }
  const std::wstring& What() const noexcept { return m_what; }
  // "0x%08X description", with the module's " [context]" only when verbose.
  const std::wstring& Description() const noexcept { return m_description; }
  std::wstring Text() const;

 private:
  HRESULT m_code;
  std::wstring m_what;
  std::wstring m_description;
};

class ModuleHost {
 public:
  // Loads WatchDog64.dll from `directory` (this program's own when empty).
  explicit ModuleHost(const std::wstring& directory = {});
  ~ModuleHost();
  ModuleHost(const ModuleHost&) = delete;
  ModuleHost& operator=(const ModuleHost&) = delete;

  const std::wstring& ModulePath() const noexcept { return m_modulePath; }
  std::wstring ModuleDirectory() const;
  IComponentsModule* Module() const noexcept { return m_module; }

  template <typename I>
  ComponentRef<I> Create(const GUID& clsid, const wchar_t* what) {
    ComponentRef<I> component;
    const HRESULT hr = m_module->CreateComponent(&clsid, &I::IID, component.Put());
    if (FAILED(hr)) throw HostError(hr, std::wstring(L"creating the ") + what);
    return component;
  }

 private:
  std::wstring m_modulePath;
  IComponentsModule* m_module = nullptr;
};

// Whether error texts keep the module's return-address context.
void SetVerbose(bool verbose) noexcept;
bool IsVerbose() noexcept;

// Loads a DLL by its full path; the DLLs it imports come from its own folder
// and System32 only.
HMODULE LoadFromFolderOf(const std::wstring& path);

// Raises HostError for a failed HRESULT, describing `what` was attempted.
void Check(HRESULT hr, const std::wstring& what);

// This program's directory, with its trailing separator.
std::wstring ProgramDirectory();

}  // namespace Host
