#pragma once
// The binary contract between the host and the module: interfaces by GUID,
// reference counting, HRESULTs. Interface slots are in the order declared.

#include <windows.h>

#include <cstdint>
#include <cstring>

#include "DataLayer/VhnApi.h"

namespace WatchDog64 {

constexpr GUID MakeGuid(std::uint32_t d1, std::uint16_t d2, std::uint16_t d3, std::uint8_t b0, std::uint8_t b1,
                        std::uint8_t b2, std::uint8_t b3, std::uint8_t b4, std::uint8_t b5, std::uint8_t b6,
                        std::uint8_t b7) {
  return GUID{d1, d2, d3, {b0, b1, b2, b3, b4, b5, b6, b7}};
}

}  // namespace WatchDog64

struct IComponentBase {
  static constexpr GUID IID =
      WatchDog64::MakeGuid(0x51C3FBA2, 0x85FE, 0x436B, 0xA0, 0xFF, 0x1C, 0x61, 0xA5, 0xC0, 0xC5, 0x85);
  virtual std::uint32_t AddRef() = 0;
  virtual std::uint32_t Release() = 0;
  virtual HRESULT QueryInterface(const GUID* iid, void** ppv) = 0;

 protected:
  ~IComponentBase() = default;
};

struct IComponentsModule : IComponentBase {
  // cppcheck-suppress duplInheritedMember ; each interface names its own id, hiding its base's on purpose
  static constexpr GUID IID =
      WatchDog64::MakeGuid(0x989524A9, 0x625D, 0x48C8, 0xAB, 0x03, 0x7C, 0x08, 0x4E, 0xB5, 0x26, 0x5D);
  virtual HRESULT Initialize() = 0;
  virtual HRESULT Uninitialize() = 0;
  virtual long Lock() = 0;
  virtual long Unlock() = 0;
  virtual HRESULT IsLocked(int* locked) = 0;
  virtual HRESULT CreateComponent(const GUID* clsid, const GUID* iid, void** ppv) = 0;

 protected:
  ~IComponentsModule() = default;
};

struct IVHConfigurable : IComponentBase {
  // cppcheck-suppress duplInheritedMember ; each interface names its own id, hiding its base's on purpose
  static constexpr GUID IID =
      WatchDog64::MakeGuid(0x9FD0681A, 0xA35D, 0x48EF, 0xA2, 0x26, 0xDE, 0x38, 0x46, 0xE1, 0x9D, 0x38);
  // The node stays the caller's; the component works on a duplicate.
  virtual HRESULT Configure(HVHNODE config) = 0;

 protected:
  ~IVHConfigurable() = default;
};

struct IVHShutdownable : IComponentBase {
  // cppcheck-suppress duplInheritedMember ; each interface names its own id, hiding its base's on purpose
  static constexpr GUID IID =
      WatchDog64::MakeGuid(0x45622F80, 0x2F68, 0x4571, 0xBC, 0xBC, 0x70, 0x65, 0x16, 0x01, 0x77, 0x1B);
  virtual HRESULT Shutdown() = 0;

 protected:
  ~IVHShutdownable() = default;
};

struct IVHRequestProcessor : IComponentBase {
  // cppcheck-suppress duplInheritedMember ; each interface names its own id, hiding its base's on purpose
  static constexpr GUID IID =
      WatchDog64::MakeGuid(0xA3A15500, 0x301B, 0x4D78, 0xB4, 0x15, 0x14, 0xE2, 0xA6, 0x73, 0x99, 0xF3);
  // The request node's name selects the operation; the response handle, when
  // one is produced, passes to the caller.
  virtual HRESULT ProcessRequest(HVHNODE request, HVHNODE* response) = 0;

 protected:
  ~IVHRequestProcessor() = default;
};

// Marker interfaces: they identify the kind of component.
struct IVHWatchDog : IComponentBase {
  // cppcheck-suppress duplInheritedMember ; each interface names its own id, hiding its base's on purpose
  static constexpr GUID IID =
      WatchDog64::MakeGuid(0x00F6F589, 0xFD87, 0x4A51, 0xAF, 0x5F, 0xAB, 0x94, 0xA1, 0x38, 0x35, 0xF2);

 protected:
  ~IVHWatchDog() = default;
};
struct IVHDiskManager : IComponentBase {
  // cppcheck-suppress duplInheritedMember ; each interface names its own id, hiding its base's on purpose
  static constexpr GUID IID =
      WatchDog64::MakeGuid(0x49FA0DA5, 0xEB55, 0x41BD, 0xB4, 0xC7, 0xFD, 0x02, 0x5C, 0x21, 0xF7, 0xA7);

 protected:
  ~IVHDiskManager() = default;
};
struct IVHProcessManager : IComponentBase {
  // cppcheck-suppress duplInheritedMember ; each interface names its own id, hiding its base's on purpose
  static constexpr GUID IID =
      WatchDog64::MakeGuid(0x895A4F36, 0xE53A, 0x4517, 0x91, 0x87, 0x9A, 0x0D, 0x2C, 0xC4, 0x8E, 0x67);

 protected:
  ~IVHProcessManager() = default;
};
struct IVHLogPacker : IComponentBase {
  // cppcheck-suppress duplInheritedMember ; each interface names its own id, hiding its base's on purpose
  static constexpr GUID IID =
      WatchDog64::MakeGuid(0xABC15B57, 0x8CC6, 0x457F, 0xBF, 0x7D, 0xFF, 0xE9, 0x6D, 0xA2, 0x1C, 0x36);

 protected:
  ~IVHLogPacker() = default;
};

namespace WatchDog64 {

// Class ids of the five components.
constexpr GUID CLSID_DiskManager =
    MakeGuid(0xA3F78FE3, 0x0AF3, 0x4AC0, 0xA5, 0x89, 0xFC, 0x34, 0x2C, 0xAC, 0x83, 0xC3);
constexpr GUID CLSID_FreeSpaceWatcher =
    MakeGuid(0xF6EC8B5C, 0xE361, 0x4099, 0xBC, 0x19, 0x3D, 0x3B, 0x3B, 0x30, 0xD4, 0x2B);
constexpr GUID CLSID_LogPacker =
    MakeGuid(0x56E3C942, 0xCA42, 0x456F, 0x88, 0xB0, 0x2E, 0xCB, 0xA0, 0x3B, 0x7B, 0x5B);
constexpr GUID CLSID_ProcessManager =
    MakeGuid(0xB6725930, 0x368B, 0x4D73, 0xAD, 0x7B, 0xD3, 0xE2, 0xC9, 0xCE, 0xDC, 0x54);
constexpr GUID CLSID_WatchDog =
    MakeGuid(0x3BCAB93A, 0xF050, 0x4486, 0xB2, 0x2C, 0x19, 0x14, 0xC7, 0xEE, 0x2F, 0xCE);

inline bool SameGuid(const GUID& a, const GUID& b) noexcept {
  return std::memcmp(&a, &b, sizeof(GUID)) == 0;
}

// The module's one export.
using GetComponentsModuleObjectFn = HRESULT (*)(void** ppv);
constexpr char kGetComponentsModuleObjectName[] = "GetComponentsModuleObject";

}  // namespace WatchDog64
