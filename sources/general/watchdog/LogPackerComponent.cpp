#include "LogPackerComponent.h"

#include "Boundary.h"
#include "LazySingleton.h"
#include "LogPackerConfiguration.h"
#include "WatchDogConfiguration.h"

WD64_REGISTER_COMPONENT(CLogPackerComponent, WatchDog64::CLSID_LogPacker)

namespace {
constexpr wchar_t kSource[] = L"LogPackerComponent";
}

HRESULT CLogPackerComponent::Configure(HVHNODE config) {
  return Kestrel::RunAtBoundary({L"CLogPackerComponent::Configure", kSource, __LINE__}, [config] {
    if (config == nullptr) Kestrel::ThrowHr(E_POINTER);
    Kestrel::CLazySingleton<Kestrel::CLogPackerConfiguration>::Instance().Configure(config);
  });
}

HRESULT CLogPackerComponent::ProcessRequest(HVHNODE, HVHNODE*) {
  return Kestrel::RunAtBoundary({L"CLogPackerComponent::ProcessRequest", kSource, __LINE__}, [] {
    Kestrel::CLazySingleton<Kestrel::CLogPackerConfiguration>::Instance().PackLogs();
  });
}

void CLogPackerComponent::FinalRelease() {
  VH_TRACE_SCOPE(kSource, L"CLogPackerComponent::FinalRelease");
  Kestrel::CLazySingleton<Kestrel::CWatchDogConfiguration>::Instance().StopWorkerThread();
}
