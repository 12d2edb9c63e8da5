#include "components/ModuleThread.h"

#include <exception>
#include <memory>
#include <utility>

#include "ErrorHandling.h"
#include "Handle.h"
#include "components/ComponentsCommon.h"
#include "logger/Logger.h"

namespace Kestrel {

namespace {

constexpr wchar_t kSource[] = L"ModuleThread";

struct StartContext {
  std::function<void()> work;
  Library module;  // a reference on this library for the thread's life
};

DWORD WINAPI ThreadMain(void* parameter) {
  HMODULE module = nullptr;
  {
    std::unique_ptr<StartContext> context(static_cast<StartContext*>(parameter));
    module = context->module.Release();
    // A worker's failure must never end the host's process.
    try {
      context->work();
    } catch (const HRX& error) {
      VH_LOG(VHLogger::SEV_DBG, kSource, L"Worker failed: " << error.Text());
    } catch (const std::exception& error) {
      VH_LOG(VHLogger::SEV_DBG, kSource, L"Worker failed: " << error.what());
    } catch (...) {
      VH_LOG(VHLogger::SEV_DBG, kSource, L"Worker failed");
    }
  }
  GetComponentsModule().Unlock();
  // The reference keeps the code above mapped until here; the library may be
  // unloaded by this very call, which does not return into it.
  ::FreeLibraryAndExitThread(module, 0);
  return 0;
}

}  // namespace

void CModuleThread::Start(std::function<void()> work) {
  Join();
  auto context = std::make_unique<StartContext>();
  context->work = std::move(work);
  ThrowLastErrorIf(!::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCWSTR>(&ThreadMain),
                                         context->module.Put()));
  GetComponentsModule().Lock();
  Handle thread(::CreateThread(nullptr, 0, &ThreadMain, context.get(), 0, nullptr));
  if (!thread) {
    const DWORD error = ::GetLastError();
    GetComponentsModule().Unlock();
    ThrowWin32(error == 0 ? ERROR_NOT_ENOUGH_MEMORY : error);  // the context gives its reference back
  }
  (void)context.release();  // the thread owns it now
  m_hThread = std::move(thread);
}

void CModuleThread::Join() noexcept {
  if (!m_hThread) return;
  ::WaitForSingleObject(m_hThread.Get(), INFINITE);
  m_hThread.Reset();
}

bool CModuleThread::IsRunning() const noexcept {
  return m_hThread && ::WaitForSingleObject(m_hThread.Get(), 0) == WAIT_TIMEOUT;
}

DWORD CModuleThread::Id() const noexcept { return m_hThread ? ::GetThreadId(m_hThread.Get()) : 0; }

}  // namespace Kestrel
