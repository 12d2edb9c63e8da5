#include "FreeSpaceWatcher.h"

#include <exception>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Boundary.h"
#include "RequestDispatch.h"
#include "DataLayer/NodePtr.h"
#include "ErrorHandling.h"
#include "FreeSpaceChecker.h"
#include "WorkerPeriod.h"
#include "logger/Logger.h"
#include "rules/WatchGroupRules.h"
#include "subsystems/auditarchive/common/storage_path_toolset.h"

WD64_REGISTER_COMPONENT(CFreeSpaceWatcher, WatchDog64::CLSID_FreeSpaceWatcher)

namespace {

constexpr wchar_t kSource[] = L"FreeSpaceWatcher";
constexpr std::int32_t kDefaultIntervalSec = 45;
constexpr std::int32_t kDefaultResendTimeoutSec = 3600;

using Kestrel::Detail::FreeSpaceChecker;
using Kestrel::Detail::PathList;
using CheckFunction = std::function<void(PathList)>;

bool TryReadInt32(const NodePtr& node, const wchar_t* sName, std::int32_t& value) {
  return node.TryGetAttribute(sName, VHN_TYPE_INT32, &value, sizeof(value));
}

std::wstring Describe(const std::exception& error) {
  const char* text = error.what();
  return std::wstring(text, text + std::char_traits<char>::length(text));
}

std::vector<std::wstring> ReadRequiredList(const NodePtr& group, const wchar_t* sName) {
  std::wstring raw;
  if (!group.TryGetMultiString(sName, raw)) {
    Kestrel::ThrowHr(Kestrel::kHrNotFound, std::wstring(L"Required attribute \"") + sName + L"\" is missing");
  }
  return Kestrel::SplitMultiString(raw);
}

std::shared_ptr<AuditArchive::IEnumerableSequencer<std::wstring>> ToSequence(const std::vector<std::wstring>& items) {
  auto sequence = AuditArchive::MakeEnumerableSequencer<std::wstring>();
  for (const std::wstring& item : items) sequence->Add(item);
  return sequence;
}

std::shared_ptr<const FreeSpaceChecker> ConfigureGroup(const NodePtr& group, const CFreeSpaceWatcher::StepList& steps) {
  const auto read = Kestrel::Rules::ReadWatchGroupBounds([&](const wchar_t* key) -> std::optional<std::int32_t> {
    std::int32_t value = 0;
    if (!TryReadInt32(group, key, value)) return std::nullopt;
    return value;
  });
  if (const auto* error = std::get_if<Kestrel::Rules::BoundsError>(&read)) {
    Kestrel::ThrowHr(E_INVALIDARG, error->text);
  }
  const Kestrel::Rules::WatchGroupBounds& bounds = std::get<Kestrel::Rules::WatchGroupBounds>(read);

  std::int32_t resendSec = kDefaultResendTimeoutSec;
  TryReadInt32(group, L"EventResendTimeoutSec", resendSec);
  // Held in milliseconds with 32-bit arithmetic, like the tick counter it is compared with.
  const std::int32_t resendMs = static_cast<std::int32_t>(static_cast<std::uint32_t>(resendSec) * 1000u);

  if (resendMs < 1) Kestrel::ThrowHr(E_INVALIDARG, L"\"EventResendTimeoutSec\" must be positive");

  std::vector<std::wstring> paths = ReadRequiredList(group, L"Paths");
  for (std::wstring& path : paths) path = AuditArchive::PreproceedStoragePath(path);
  const PathList pathList = ToSequence(paths);
  const PathList services = ToSequence(ReadRequiredList(group, L"ServiceNames"));

  auto checker = std::make_shared<FreeSpaceChecker>(services, bounds, static_cast<std::uint32_t>(resendMs));
  const auto checks = AuditArchive::MakeSingleEnumerable<CheckFunction>(
      [checker](PathList groupPaths) { (*checker)(groupPaths); });
  AuditArchive::ForEach(checks->GetEnumerator(), [&](const CheckFunction& check) {
    steps->Add([check, pathList] { check(pathList); });
  });
  return checker;
}

void SetInt32(NodePtr& node, const wchar_t* name, std::int32_t value) {
  node.SetAttribute(name, VHN_TYPE_INT32, &value, sizeof(value));
}

}  // namespace

CFreeSpaceWatcher::CFreeSpaceWatcher() { VH_TRACE_SCOPE(kSource, L"CFreeSpaceWatcher::CFreeSpaceWatcher"); }

CFreeSpaceWatcher::~CFreeSpaceWatcher() {
  VH_TRACE_SCOPE(kSource, L"CFreeSpaceWatcher::~CFreeSpaceWatcher");
  // A host that releases a running watcher without Shutdown must not be left
  // with a worker reading members that are gone.
  if (m_worker.IsRunning() && !m_bStop.load()) {
    VH_LOG(VHLogger::SEV_WARN, kSource, L"Released while running; stopping the worker");
  }
  m_bStop.exchange(true);
  if (m_hWake) ::SetEvent(m_hWake.Get());
  m_worker.Join();
}

HRESULT CFreeSpaceWatcher::Configure(HVHNODE config) {
  return Kestrel::RunAtBoundary(
      Kestrel::BoundaryInfo{L"CFreeSpaceWatcher::Configure", kSource, __LINE__,
                            L"Failed to configure Free Space Watcher: "},
      [&] { ConfigureFrom(config); });
}

void CFreeSpaceWatcher::ConfigureFrom(HVHNODE config) {
  std::lock_guard<std::mutex> guard(m_lifecycleLock);
  if (m_worker.IsStarted()) {
    // A running worker reads the steps without a lock: they are never
    // replaced under it. Reconfiguring is Shutdown and a new component.
    if (!m_bStop.load()) {
      Kestrel::ThrowHr(Kestrel::HResultFromWin32(ERROR_INVALID_STATE),
                       L"The watcher is already running; shut it down and create a new one to watch again");
    }
    // Shut down and configured again: that worker left its loop at once.
    m_worker.Join();
  }
  if (config == nullptr) Kestrel::ThrowHr(E_POINTER);
  const NodePtr node = NodePtr::Duplicate(config);

  std::int32_t interval = kDefaultIntervalSec;
  TryReadInt32(node, L"ActionsPerformIntervalSec", interval);
  if (interval < 1) Kestrel::ThrowHr(E_INVALIDARG, L"\"ActionsPerformIntervalSec\" must be at least 1");
  m_nIntervalSec = interval;

  // The old groups go as soon as nothing holds them; groups configured before
  // a failing one stay in the new list.
  m_pSteps = AuditArchive::MakeEnumerableSequencer<Step>();
  const StepList steps = m_pSteps;
  std::vector<std::shared_ptr<const FreeSpaceChecker>> groups;
  {
    const std::lock_guard<std::mutex> groupsGuard(m_groupsLock);
    m_groups.clear();
  }
  node.ForEachChild([&](NodePtr& group) { groups.push_back(ConfigureGroup(group, steps)); });

  if (!m_hWake) {
    m_hWake.Reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    Kestrel::ThrowLastErrorIf(!m_hWake);
  }
  {
    const std::lock_guard<std::mutex> groupsGuard(m_groupsLock);
    m_groups = std::move(groups);
  }
  // The stop flag is left as it is: a watcher that was shut down stays down,
  // and monitoring resumes only in a new component.
  m_worker.Start([this] { WorkerLoop(); });
}

void CFreeSpaceWatcher::WorkerLoop() {
  // Held in milliseconds with 32-bit arithmetic, like the tick counter.
  const DWORD intervalMs = static_cast<DWORD>(m_nIntervalSec) * 1000u;
  DWORD start = ::GetTickCount();
  while (!m_bStop.load()) {
    const DWORD wait = Kestrel::Detail::MillisecondsUntilDue(start, ::GetTickCount(), intervalMs);
    if (wait != 0) {
      ::WaitForSingleObject(m_hWake.Get(), wait);
      Kestrel::Detail::WakeUpCounts().watcher.fetch_add(1, std::memory_order_relaxed);
      continue;
    }
    try {
      PerformSteps(m_pSteps);
    } catch (const Kestrel::HRX& error) {
      VH_LOG(VHLogger::SEV_DBG, kSource, L"Failed to check free space: " << error.Text());
    } catch (const std::exception& error) {
      VH_LOG(VHLogger::SEV_DBG, kSource, L"Failed to check free space: " << Describe(error));
    }
    // Counted from the end of a cycle, so a slow cycle does not eat the pause.
    start = ::GetTickCount();
  }
}

void CFreeSpaceWatcher::PerformSteps(const std::shared_ptr<AuditArchive::IEnumerable<Step>>& steps) {
  const auto enumerator = steps->GetEnumerator();
  while (!enumerator->IsEnd()) {
    try {
      enumerator->Current()();
    } catch (const Kestrel::HRX& error) {
      VH_LOG(VHLogger::SEV_DBG, kSource, L"Failed to perform step: " << error.Text());
    } catch (const std::exception& error) {
      // An allocation failure in one group must not end the watch over the others.
      VH_LOG(VHLogger::SEV_DBG, kSource, L"Failed to perform step: " << Describe(error));
    }
    if (m_bStop.load()) return;
    enumerator->MoveNext();
  }
}

HRESULT CFreeSpaceWatcher::ProcessRequest(HVHNODE request, HVHNODE* response) {
  return Kestrel::ProcessRequestAtBoundary(
      {L"CFreeSpaceWatcher::ProcessRequest", kSource, __LINE__}, __LINE__, request, response,
      {{L"ListGroups", [this](const NodePtr&, NodePtr& result) { ListGroups(result); }}});
}

void CFreeSpaceWatcher::ListGroups(NodePtr& response) {
  std::vector<std::shared_ptr<const FreeSpaceChecker>> groups;
  {
    const std::lock_guard<std::mutex> guard(m_groupsLock);
    groups = m_groups;
  }
  for (std::size_t i = 0; i < groups.size(); ++i) {
    const Kestrel::Detail::GroupStatus status = groups[i]->Status();
    NodePtr child;
    child.SetName(std::to_wstring(i));
    child.SetType(L"Group");
    SetInt32(child, L"State", static_cast<std::int32_t>(status.state));
    SetInt32(child, L"ServicesStopped", status.bServicesStopped ? 1 : 0);
    child.SetAttribute(L"Recoveries", VHN_TYPE_INT64, &status.recoveries, sizeof(status.recoveries));
    response.AddChild(child);
  }
}

HRESULT CFreeSpaceWatcher::Shutdown() {
  VH_TRACE_SCOPE(kSource, L"CFreeSpaceWatcher::Shutdown");
  std::lock_guard<std::mutex> guard(m_lifecycleLock);
  m_bStop.exchange(true);
  if (m_hWake) ::SetEvent(m_hWake.Get());
  m_worker.Join();
  m_pSteps.reset();
  return S_OK;
}
