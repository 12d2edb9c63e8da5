// Installs the module's own log file when the module is loaded.

#include <cwchar>
#include <memory>

#include "Logger.h"
#include "platform/ModulePath.h"
#include "detail/DebugOutput.h"
#include "detail/FileLogger.h"
#include "detail/LoggerCore.h"

namespace VHLogger {

namespace {

constexpr wchar_t kModuleDescription[] = L"WatchDog64";
constexpr int kVersion[4] = {7, 0, 127, 0};
constexpr wchar_t kStarLine[] =
    L"****************************************************************************************************\r\n";

// Owns the module's file logger and its writer slot for the life of the
// module.
class CModuleLog {
 public:
  CModuleLog() noexcept {
    try {
      CLogger& logger = GetLogger();
      m_pFileLogger = std::make_unique<Detail::CFileLogger>(Kestrel::BaseNameOf(Kestrel::ModuleFilePath()) + L".log",
                                                            ModuleBanner());
      if (!logger.AddLogWriter(m_pFileLogger.get())) m_pFileLogger.reset();
    } catch (...) {
      Detail::DebugOutput(L"LogManager: cannot install the module log file");
      m_pFileLogger.reset();
    }
  }
  ~CModuleLog() {
    if (m_pFileLogger) GetLogger().RemoveLogWriter(m_pFileLogger.get());
  }
  CModuleLog(const CModuleLog&) = delete;
  CModuleLog& operator=(const CModuleLog&) = delete;

 private:
  std::unique_ptr<Detail::CFileLogger> m_pFileLogger;
};

CModuleLog g_moduleLog;

}  // namespace

std::wstring ModuleBanner() {
  const HMODULE module = Kestrel::ThisModule();
  const std::wstring modulePath = Kestrel::ModuleFilePath();
  const std::wstring executablePath = Kestrel::ExecutableFilePath();
  const wchar_t* commandLine = ::GetCommandLineW();

  // The base address is shown as the platform's pointer format does it: all
  // sixteen digits, upper case.
  const std::wstring header = std::wstring(kStarLine) +
                              L"*** Module: %ls (Base: 0x%016llX)\r\n"
                              L"*** Version: %d.%d.%d.%d\r\n*** Module description: %ls\r\n"
                              L"*** Process: %ls (Pid: %u)\r\n*** Command line: %ls\r\n" +
                              kStarLine;
  std::wstring banner(header.size() + modulePath.size() + executablePath.size() +
                          (commandLine != nullptr ? std::wcslen(commandLine) : 0) + 128,
                      L'\0');
  const int length =
      std::swprintf(banner.data(), banner.size(), header.c_str(), modulePath.c_str(),
                    static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(module)), kVersion[0], kVersion[1],
                    kVersion[2], kVersion[3], kModuleDescription, executablePath.c_str(),
                    static_cast<unsigned>(::GetCurrentProcessId()), commandLine != nullptr ? commandLine : L"");
  banner.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return banner;
}

}  // namespace VHLogger
