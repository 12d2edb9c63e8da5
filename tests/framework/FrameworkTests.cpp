// The component templates and the owner template, exercised in-process with
// components of the test's own.

#include <windows.h>

#include <gtest/gtest.h>

#include "UniqueResource.h"
#include "components/ComponentsCommon.h"

namespace {

const GUID kTestClass = WatchDog64::MakeGuid(0xC0FFEE00, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10);

int g_finalReleases = 0;
int g_destructions = 0;
long g_locksSeenInFinalRelease = -1;

class CTestComponent : public CComponentClass<CTestComponent, IVHConfigurable, IVHShutdownable> {
 public:
  ~CTestComponent() override { ++g_destructions; }
  HRESULT Configure(HVHNODE) override { return S_OK; }
  HRESULT Shutdown() override { return S_OK; }
  void FinalRelease() {
    ++g_finalReleases;
    int locked = 0;
    GetComponentsModule().IsLocked(&locked);
    g_locksSeenInFinalRelease = locked;
  }
};

TEST(Registry, LaterRegistrationReplacesEarlierAndFinalReleaseRunsBeforeDestruction) {
  RegisterComponentClass(kTestClass, [](const GUID*, void**) -> long { return E_ABORT; });
  void* out = nullptr;
  EXPECT_EQ(GetComponentsModule().CreateComponent(&kTestClass, &IComponentBase::IID, &out), E_ABORT);

  RegisterComponentClass(kTestClass, &CComponentObject<CTestComponent>::Create);
  IVHShutdownable* object = nullptr;
  ASSERT_EQ(GetComponentsModule().CreateComponent(&kTestClass, &IVHShutdownable::IID,
                                                  reinterpret_cast<void**>(&object)),
            S_OK);
  EXPECT_EQ(object->Shutdown(), S_OK);
  EXPECT_EQ(object->Release(), 0u);
  EXPECT_EQ(g_finalReleases, 1);
  EXPECT_EQ(g_destructions, 1);
  EXPECT_EQ(g_locksSeenInFinalRelease, 1);  // the object still held its lock

  // An object created for an interface it lacks is destroyed without its
  // FinalRelease being skipped.
  out = nullptr;
  EXPECT_EQ(GetComponentsModule().CreateComponent(&kTestClass, &IVHRequestProcessor::IID, &out), E_NOINTERFACE);
  EXPECT_EQ(g_destructions, 2);
  int locked = -1;
  GetComponentsModule().IsLocked(&locked);
  EXPECT_EQ(locked, 0);
}

// A fake close function that counts calls and can fail, as handle owners are
// tested without real handles.
int g_closes = 0;
bool g_closeResult = true;
struct FakeTraits {
  using pointer = int;
  static int Invalid() noexcept { return -1; }
  static bool IsValid(int value) noexcept { return value >= 0; }
  static bool Close(int) noexcept {
    ++g_closes;
    SetLastError(ERROR_INVALID_HANDLE);
    return g_closeResult;
  }
  static const wchar_t* Source() noexcept { return L"Fake"; }
};
using FakeOwner = Kestrel::UniqueResource<FakeTraits>;

TEST(UniqueResource, ClosesExactlyOnceAndKeepsLastError) {
  g_closes = 0;
  {
    FakeOwner a(5);
    FakeOwner b(std::move(a));
    EXPECT_FALSE(a.IsValid());
    EXPECT_TRUE(b.IsValid());
    FakeOwner c;
    c = std::move(b);
    SetLastError(ERROR_ACCESS_DENIED);
    c.Reset(7);  // closes 5
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(g_closes, 1);
    *c.Put() = 9;  // closes 7
    EXPECT_EQ(g_closes, 2);
    int released = c.Release();
    EXPECT_EQ(released, 9);
  }
  EXPECT_EQ(g_closes, 2);  // the released value is no longer owned
  {
    FakeOwner none;
    FakeOwner invalid(-1);
  }
  EXPECT_EQ(g_closes, 2);
}

}  // namespace
