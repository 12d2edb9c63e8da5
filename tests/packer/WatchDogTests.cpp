// The heartbeat worker: its due rule, and one real thread per process that
// Configure starts and Shutdown or the log packer's last release ends.

#include <gtest/gtest.h>

#include "LazySingleton.h"
#include "PackerTestSupport.h"
#include "WatchDogConfiguration.h"

using Kestrel::Detail::IsRefreshDue;
using namespace PackerTest;
using Config = Kestrel::CLazySingleton<Kestrel::CWatchDogConfiguration>;

TEST(WatchDogRefreshRule, ElapsedWrappedAndNegativeIntervals) {
  EXPECT_FALSE(IsRefreshDue(1000, 2000, 1));  // the last millisecond is still inside
  EXPECT_TRUE(IsRefreshDue(1000, 2001, 1));
  // A counter that wrapped below the start is due at once, whatever the interval.
  EXPECT_TRUE(IsRefreshDue(0xFFFFFFF0u, 0x10u, 3600));
  EXPECT_FALSE(IsRefreshDue(0, 0xFFFFFFFFu, 5000000));  // no 32-bit overflow in the bound
  // A negative interval is a huge unsigned bound: only the wrap fires.
  EXPECT_FALSE(IsRefreshDue(0, 0xFFFFFFFFu, -1));
  EXPECT_TRUE(IsRefreshDue(100, 99, -1));
}

class WatchDogWorker : public ::testing::Test {
 protected:
  static NodePtr Interval(std::int64_t seconds) { return MakeNode({{L"RefreshIntervalSeconds", seconds}}); }
  void SetUp() override { TearDown(), m_nBaseline = CountThreads(); }
  void TearDown() override { Config::Instance().StopWorkerThread(); }

  std::size_t m_nBaseline = 0;
};

TEST_F(WatchDogWorker, OneThreadWhileConfiguredNoneAfterShutdown) {
  auto* first = Create<IVHConfigurable>(WatchDog64::CLSID_WatchDog);
  auto* second = Create<IVHConfigurable>(WatchDog64::CLSID_WatchDog);
  auto* shutdown = Create<IVHShutdownable>(WatchDog64::CLSID_WatchDog);
  ASSERT_TRUE(first && second && shutdown);
  EXPECT_EQ(shutdown->Shutdown(), S_OK);  // never configured
  EXPECT_EQ(CountThreads(), m_nBaseline);

  // Reconfiguring, through the same or another component, replaces the worker.
  NodePtr node = Interval(30);
  ASSERT_EQ(first->Configure(node.Get()), S_OK);
  EXPECT_EQ(CountThreads(), m_nBaseline + 1);
  ASSERT_EQ(first->Configure(node.Get()), S_OK);
  ASSERT_EQ(second->Configure(Interval(1).Get()), S_OK);
  EXPECT_EQ(CountThreads(), m_nBaseline + 1);
  EXPECT_EQ(node.GetName(), L"Configuration");  // the caller's handle stays usable

  // Bad configurations leave the running worker and its interval alone.
  LogCapture capture;
  EXPECT_EQ(first->Configure(MakeNode({}).Get()), static_cast<HRESULT>(0x80070490));
  EXPECT_EQ(first->Configure(nullptr), E_POINTER);
  const auto errors = capture.Get(L"WatchDogComponent", 2);
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_EQ(errors[0].second.rfind(L"CWatchDogComponent::Configure failed: 0x80070490", 0), 0u) << errors[0].second;
  EXPECT_EQ(CountThreads(), m_nBaseline + 1);
  EXPECT_EQ(Config::Instance().RefreshIntervalSeconds(), 1);

  // Releasing components does not stop it; Shutdown does, and may repeat.
  first->Release();
  second->Release();
  EXPECT_EQ(CountThreads(), m_nBaseline + 1);
  EXPECT_EQ(shutdown->Shutdown(), S_OK);
  EXPECT_EQ(CountThreads(), m_nBaseline);
  EXPECT_EQ(shutdown->Shutdown(), S_OK);
  shutdown->Release();
}

TEST_F(WatchDogWorker, LastReleaseOfTheLogPackerStopsTheWorker) {
  auto* watchdog = Create<IVHConfigurable>(WatchDog64::CLSID_WatchDog);
  auto* packer = Create<IVHLogPacker>(WatchDog64::CLSID_LogPacker);
  ASSERT_TRUE(watchdog && packer);
  ASSERT_EQ(watchdog->Configure(Interval(0).Get()), S_OK);
  packer->AddRef();
  packer->Release();  // not the last reference
  EXPECT_EQ(CountThreads(), m_nBaseline + 1);
  packer->Release();
  EXPECT_EQ(CountThreads(), m_nBaseline);
  watchdog->Release();
}
