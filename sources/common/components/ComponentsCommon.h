#pragma once
// Reference counting and interface lookup written once for every component:
// a component class names its interfaces, the templates do the rest.

#include <windows.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <new>

#include "Assert.h"
#include "components/ComponentInterfaces.h"

namespace Kestrel::Detail {
constexpr wchar_t kComponentsSource[] = L"ComponentsCommon";
}

// Creates a component object for one class id: makes it, asks it for `iid`
// and hands the interface out through `ppv`.
using ComponentCreator = std::function<long(const GUID* iid, void** ppv)>;

// Interface lookup over the list I1..In, in that order, after IComponentBase.
template <typename T, typename... Interfaces>
class QIImplementation : public IComponentBase {
 public:
  // Finds the interface part for `iid` without counting; E_INVALIDARG for
  // null arguments, E_NOINTERFACE (leaving *ppv untouched) when absent.
  HRESULT Lookup(const GUID* iid, void** ppv) noexcept {
    if (iid == nullptr || ppv == nullptr) return E_INVALIDARG;
    void* found = nullptr;
    if (WatchDog64::SameGuid(*iid, IComponentBase::IID)) {
      found = static_cast<IComponentBase*>(this);
    } else {
      T* self = static_cast<T*>(this);
      auto match = [&](void* part, const GUID& id) {
        if (found == nullptr && WatchDog64::SameGuid(*iid, id)) found = part;
      };
      (match(static_cast<Interfaces*>(self), Interfaces::IID), ...);
    }
    if (found == nullptr) return E_NOINTERFACE;
    *ppv = found;
    return S_OK;
  }

  // Runs when the last reference goes, before destruction; components that
  // need it hide this one.
  void FinalRelease() {}

  virtual ~QIImplementation() = default;

 protected:
  std::atomic<long> nRefs{1};
};

// The base of a reference-counted component exposing I1..In. Calls through any
// interface part act on the one object.
template <typename T, typename... Interfaces>
class CComponentClass : public QIImplementation<T, Interfaces...>, public Interfaces... {
  using Base = QIImplementation<T, Interfaces...>;

 public:
  std::uint32_t AddRef() override {
    const long nRefs = ++this->Base::nRefs;
    // cppcheck-suppress incorrectStringBooleanError ; the text is the assertion's message
    WD64_ASSERT_AT(nRefs > 1 && "Invalid reference counting (AddRef after deletion?)",
                   Kestrel::Detail::kComponentsSource, 233);
    return static_cast<std::uint32_t>(nRefs);
  }

  std::uint32_t Release() override {
    const long nRefs = --this->Base::nRefs;
    // cppcheck-suppress incorrectStringBooleanError ; the text is the assertion's message
    WD64_ASSERT_AT(nRefs >= 0 && "Invalid reference counting (extra Release?)", Kestrel::Detail::kComponentsSource,
                   242);
    if (nRefs != 0) return static_cast<std::uint32_t>(nRefs);
    T* self = static_cast<T*>(this);
    self->FinalRelease();
    delete static_cast<Base*>(this);
    return 0;
  }

  HRESULT QueryInterface(const GUID* iid, void** ppv) override {
    const HRESULT hr = this->Lookup(iid, ppv);
    if (SUCCEEDED(hr)) AddRef();
    return hr;
  }

  long RefCount() const noexcept { return this->Base::nRefs.load(); }
};

// The module object: one per process, not reference counted.
class CComponentsModule;
template <typename T, typename... Interfaces>
class CComponentClassSingleton : public QIImplementation<T, Interfaces...>, public Interfaces... {
 public:
  std::uint32_t AddRef() override { return 0xFFFFFFFFu; }
  std::uint32_t Release() override { return 0xFFFFFFFFu; }
  HRESULT QueryInterface(const GUID* iid, void** ppv) override { return this->Lookup(iid, ppv); }
};

class CComponentsModule : public CComponentClassSingleton<CComponentsModule, IComponentsModule> {
 public:
  CComponentsModule() = default;
  ~CComponentsModule() override = default;

  HRESULT Initialize() override { return S_OK; }
  HRESULT Uninitialize() override { return S_OK; }
  long Lock() override { return ++m_aModuleLocks; }
  long Unlock() override;
  HRESULT IsLocked(int* locked) override;
  HRESULT CreateComponent(const GUID* clsid, const GUID* iid, void** ppv) override;

  // Later registrations of a class id replace earlier ones. Raises when
  // memory runs out; the registry stays as it was.
  void RegisterComponentClass(const GUID& clsid, ComponentCreator creator);

 private:
  struct GuidLess {
    bool operator()(const GUID& a, const GUID& b) const noexcept { return std::memcmp(&a, &b, sizeof(GUID)) < 0; }
  };

  std::atomic<long> m_aModuleLocks{0};
  // Held through its scoped owner only: a copy or an insert under it may
  // throw, and the lock must go with the exception.
  std::mutex m_registryLock;
  std::map<GUID, ComponentCreator, GuidLess> m_registry;
};

// The process-wide module object, created on first use.
CComponentsModule& GetComponentsModule();

void RegisterComponentClass(const GUID& clsid, ComponentCreator creator);

// The creatable class: ties the object to the module's lock count.
template <typename T>
class CComponentObject final : public T {
 public:
  CComponentObject() { GetComponentsModule().Lock(); }
  ~CComponentObject() override { GetComponentsModule().Unlock(); }

  // The registered creator: the initial reference passes to the caller; an
  // object that lacks `iid` is destroyed again, giving its lock back.
  static long Create(const GUID* iid, void** ppv) {
    auto* object = new CComponentObject<T>();
    const HRESULT hr = object->Lookup(iid, ppv);
    if (FAILED(hr)) object->Release();
    return hr;
  }
};

// Registers a component class at library load.
#define WD64_REGISTER_COMPONENT(ClassName, clsid)                                                   \
  namespace {                                                                                       \
  const bool g_b##ClassName##Registered =                                                           \
      (::RegisterComponentClass(clsid, &::CComponentObject<ClassName>::Create), true);              \
  }
