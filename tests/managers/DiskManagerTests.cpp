// The disk manager against the drives and volumes Wine really has: the drive
// list as the system gives it, devices defined for the test, free space read
// back through the same calls.

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "DiskManagerComponent.h"
#include "ErrorHandling.h"
#include "ManagersTestSupport.h"
#include "ModulePath.h"

using namespace ManagersTest;

namespace {

const GUID& kDiskManager = WatchDog64::CLSID_DiskManager;

std::vector<std::wstring> SystemDrives() {
  std::vector<wchar_t> buffer(1024);
  const DWORD length = ::GetLogicalDriveStringsW(static_cast<DWORD>(buffer.size() - 1), buffer.data());
  std::vector<std::wstring> drives;
  for (const wchar_t* entry = buffer.data(); length != 0 && *entry != L'\0'; entry += wcslen(entry) + 1) {
    drives.emplace_back(entry);
  }
  return drives;
}

std::wstring SystemNtPath(const std::wstring& device) {
  wchar_t target[MAX_PATH] = L"";
  EXPECT_NE(::QueryDosDeviceW(device.c_str(), target, MAX_PATH), 0u) << device;
  return target;
}

// Gives every free drive letter a device for the life of the object.
class AllDriveLetters {
 public:
  AllDriveLetters() {
    const DWORD used = ::GetLogicalDrives();
    for (wchar_t letter = L'A'; letter <= L'Z'; ++letter) {
      if ((used & (1u << (letter - L'A'))) != 0) continue;
      const std::wstring device{letter, L':'};
      if (::DefineDosDeviceW(0, device.c_str(), L"C:\\windows")) m_defined.push_back(device);
    }
  }
  ~AllDriveLetters() {
    for (const std::wstring& device : m_defined) ::DefineDosDeviceW(DDD_REMOVE_DEFINITION, device.c_str(), nullptr);
  }
  AllDriveLetters(const AllDriveLetters&) = delete;
  AllDriveLetters& operator=(const AllDriveLetters&) = delete;

 private:
  std::vector<std::wstring> m_defined;
};

wchar_t UnusedDriveLetter() {
  const DWORD used = ::GetLogicalDrives();
  for (wchar_t letter = L'Z'; letter >= L'D'; --letter) {
    if ((used & (1u << (letter - L'A'))) == 0) return letter;
  }
  return 0;
}

NodePtr FreeSpaceRequest(const std::wstring& directoryPaths) {
  NodePtr request = Request(L"QueryFreeSpace");
  request.SetAttribute(L"DirectoryPaths", directoryPaths.c_str(), static_cast<std::uint32_t>(directoryPaths.size()));
  return request;
}

std::vector<std::uint64_t> FreeSpaceOf(const NodePtr& response) {
  std::size_t stored = 0;
  EXPECT_EQ(AttributeType(response, L"FreeSpace", &stored), VHN_TYPE_INT64_ARRAY);
  std::vector<std::uint64_t> values(stored / sizeof(std::uint64_t));
  std::uint16_t type = VHN_TYPE_INT64_ARRAY;
  std::size_t size = stored;
  EXPECT_EQ(::VhnGetAttribute(response.Get(), L"FreeSpace", &type, values.data(), &size, nullptr), S_OK);
  return values;
}

std::uint64_t SystemFreeBytes(const std::wstring& path) {
  ULARGE_INTEGER totalFree{};
  EXPECT_TRUE(::GetDiskFreeSpaceExW(path.c_str(), nullptr, nullptr, &totalFree)) << path;
  return totalFree.QuadPart;
}

// Other programs write to the same volumes while the test runs.
void ExpectNearlyEqual(std::uint64_t actual, std::uint64_t expected) {
  const std::uint64_t slack = 512ull << 20;
  EXPECT_LE(actual > expected ? actual - expected : expected - actual, slack) << actual << " vs " << expected;
}

std::wstring ExpandedTemp() {
  wchar_t buffer[MAX_PATH];
  ::ExpandEnvironmentStringsW(L"%TEMP%", buffer, MAX_PATH);
  return buffer;
}

}  // namespace

TEST(DiskManagerListDisks, AnswerMatchesTheSystemsDriveList) {
  Component manager(kDiskManager);
  const Reply reply = Send(manager, Request(L"ListDisks"));
  ASSERT_EQ(reply.hr, S_OK);
  const std::vector<std::wstring> drives = SystemDrives();
  const std::vector<NodePtr> disks = Children(reply.response);
  ASSERT_EQ(disks.size(), drives.size());
  for (std::size_t index = 0; index < drives.size(); ++index) {
    const std::wstring ntPath = SystemNtPath(drives[index].substr(0, 2));
    EXPECT_EQ(disks[index].GetType(), L"Disk");
    EXPECT_EQ(disks[index].GetName(), ntPath);
    EXPECT_EQ(StringAttribute(disks[index], L"NtPath"), ntPath);
    EXPECT_EQ(StringAttribute(disks[index], L"Path"), drives[index]);
    std::size_t stored = 0;
    EXPECT_EQ(AttributeType(disks[index], L"Path", &stored), VHN_TYPE_STRING);
    EXPECT_EQ(stored, (drives[index].size() + 1) * sizeof(wchar_t));
    EXPECT_EQ(AttributeType(disks[index], L"NtPath"), VHN_TYPE_STRING);
  }
}

TEST(DiskManagerListDisks, AllTwentySixLettersOutgrowTheFirstBuffers) {
  AllDriveLetters letters;
  // 26 roots of four characters and the closing empty entry.
  ASSERT_EQ(::GetLogicalDriveStringsW(0, nullptr), 26u * 4 + 1) << "DefineDosDeviceW did not map every letter";

  Component manager(kDiskManager);
  const Reply reply = Send(manager, Request(L"ListDisks"));
  ASSERT_EQ(reply.hr, S_OK);
  const std::vector<NodePtr> disks = Children(reply.response);
  ASSERT_EQ(disks.size(), 26u);
  for (std::size_t index = 0; index < disks.size(); ++index) {
    const std::wstring root{static_cast<wchar_t>(L'A' + index), L':', L'\\'};
    EXPECT_EQ(StringAttribute(disks[index], L"Path"), root);
    EXPECT_EQ(disks[index].GetName(), SystemNtPath(root.substr(0, 2)));
  }

  unsigned calls = 0;
  Kestrel::EnumerateDrives([&](const Kestrel::CDrive&) { return ++calls < 3; });
  EXPECT_EQ(calls, 3u);
}

TEST(DiskManagerListDisks, EveryTrailingBackslashIsDroppedBeforeTheQuery) {
  const std::wstring expected = SystemNtPath(L"C:");
  // Wine accepts one trailing backslash but not several, so this fails
  // unless all of them are removed.
  EXPECT_EQ(Kestrel::GetDriveNtPath(L"C:\\\\\\").String(), expected);
  EXPECT_EQ(Kestrel::GetDriveNtPath(L"C:").String(), expected);
  const wchar_t missing[] = {UnusedDriveLetter(), L':', L'\\', L'\0'};
  try {
    Kestrel::GetDriveNtPath(missing);
    ADD_FAILURE() << "an unmapped drive has no device";
  } catch (const Kestrel::HRX& error) {
    EXPECT_EQ(HRESULT_FACILITY(error.Code()), FACILITY_WIN32);
  }
}

TEST(DiskManagerQueryFreeSpace, DataDirectoryAndExpandedTemp) {
  Component manager(kDiskManager);
  const std::wstring dataDirectory = Kestrel::ModuleDirectory();
  const Reply reply = Send(manager, FreeSpaceRequest(dataDirectory + L'\0' + L"%TEMP%" + L'\0'));
  ASSERT_EQ(reply.hr, S_OK);
  const std::vector<std::uint64_t> free = FreeSpaceOf(reply.response);
  ASSERT_EQ(free.size(), 2u);
  ExpectNearlyEqual(free[0], SystemFreeBytes(dataDirectory));
  ExpectNearlyEqual(free[1], SystemFreeBytes(ExpandedTemp()));
  EXPECT_GT(free[0], 0u);
}

TEST(DiskManagerQueryFreeSpace, EmptyListGivesAnEmptyArray) {
  Component manager(kDiskManager);
  const Reply reply = Send(manager, FreeSpaceRequest(L""));
  ASSERT_EQ(reply.hr, S_OK);
  std::size_t stored = 1;
  EXPECT_EQ(AttributeType(reply.response, L"FreeSpace", &stored), VHN_TYPE_INT64_ARRAY);
  EXPECT_EQ(stored, 0u);
}

TEST(DiskManagerQueryFreeSpace, StringArrayFormIsAccepted) {
  Component manager(kDiskManager);
  NodePtr request = Request(L"QueryFreeSpace");
  const wchar_t paths[] = L"C:\\\0%TEMP%\0";  // each string ends in its own zero
  request.SetAttribute(L"DirectoryPaths", VHN_TYPE_STRING_ARRAY, paths, sizeof(paths) - sizeof(wchar_t));
  const Reply reply = Send(manager, request);
  ASSERT_EQ(reply.hr, S_OK);
  EXPECT_EQ(FreeSpaceOf(reply.response).size(), 2u);
}

TEST(DiskManagerQueryFreeSpace, OneBadPathFailsTheWholeRequest) {
  Component manager(kDiskManager);
  std::uint64_t nodesBefore = 0;
  ASSERT_EQ(::VhnGetLiveNodeCount(&nodesBefore), S_OK);

  // A missing drive after a good path.
  const std::wstring missing = std::wstring{UnusedDriveLetter(), L':', L'\\'} + L"data";
  ULARGE_INTEGER ignored;
  ASSERT_FALSE(::GetDiskFreeSpaceExW(missing.c_str(), nullptr, nullptr, &ignored));
  const HRESULT missingHr = Kestrel::HResultFromWin32(::GetLastError());
  {
    HVHNODE response = nullptr;
    const NodePtr request = FreeSpaceRequest(L"C:\\" + std::wstring(1, L'\0') + missing + L'\0');
    EXPECT_EQ(manager->ProcessRequest(request.Get(), &response), missingHr);
    EXPECT_EQ(response, nullptr);
  }
  // Two NULs in a row make an empty path, which has no volume.
  {
    HVHNODE response = nullptr;
    const NodePtr request = FreeSpaceRequest(std::wstring(L"C:\\") + L'\0' + L'\0');
    EXPECT_TRUE(FAILED(manager->ProcessRequest(request.Get(), &response)));
    EXPECT_EQ(response, nullptr);
  }
  // No "DirectoryPaths" at all.
  {
    HVHNODE response = nullptr;
    EXPECT_EQ(manager->ProcessRequest(Request(L"QueryFreeSpace").Get(), &response), Kestrel::kHrNotFound);
    EXPECT_EQ(response, nullptr);
  }
  std::uint64_t nodesAfter = 0;
  ASSERT_EQ(::VhnGetLiveNodeCount(&nodesAfter), S_OK);
  EXPECT_EQ(nodesAfter, nodesBefore) << "a failed request left nodes behind";
}

TEST(DiskManagerQueryFreeSpace, DirectoryPathsSplitting) {
  using Kestrel::SplitDirectoryPaths;
  using List = std::vector<std::wstring>;
  EXPECT_EQ(SplitDirectoryPaths(L""), List{});
  EXPECT_EQ(SplitDirectoryPaths(std::wstring(1, L'\0')), List{L""});
  EXPECT_EQ(SplitDirectoryPaths(std::wstring(L"a\0", 2)), List{L"a"});
  EXPECT_EQ(SplitDirectoryPaths(std::wstring(L"a\0\0b\0", 5)), (List{L"a", L"", L"b"}));
  EXPECT_EQ(SplitDirectoryPaths(std::wstring(L"a\0\0", 3)), (List{L"a", L""}));
  // The last character is the list's terminator whatever it is.
  EXPECT_EQ(SplitDirectoryPaths(std::wstring(L"a\0bc", 4)), (List{L"a", L"b"}));
}

TEST(DiskManagerRequests, NamesAndArguments) {
  Component manager(kDiskManager);
  for (const wchar_t* name : {L"listdisks", L"LISTDISKS", L"ListDisksX", L"ListDisk", L"queryFreeSpace", L""}) {
    HVHNODE response = nullptr;
    EXPECT_EQ(manager->ProcessRequest(Request(name).Get(), &response), E_INVALIDARG) << name;
    EXPECT_EQ(response, nullptr);
  }
  HVHNODE response = nullptr;
  EXPECT_EQ(manager->ProcessRequest(nullptr, &response), E_POINTER);
  EXPECT_EQ(manager->ProcessRequest(Request(L"ListDisks").Get(), nullptr), E_POINTER);
  EXPECT_EQ(response, nullptr);
}
