#include "GlobalSettings.h"

#include <cwchar>
#include <cwctype>
#include <mutex>
#include <new>

#include "ErrorHandling.h"
#include "platform/ModulePath.h"
#include "platform/TickCount.h"

namespace GlobalSettings {

namespace Detail {

namespace {

constexpr wchar_t kGeneralSection[] = L"General";
constexpr DWORD kInitialIniBuffer = 260;

const wchar_t* SectionOrGeneral(const wchar_t* section) noexcept {
  return section != nullptr ? section : kGeneralSection;
}

void Trim(std::wstring& text) {
  std::size_t end = text.size();
  while (end > 0 && std::iswspace(text[end - 1])) --end;
  std::size_t begin = 0;
  while (begin < end && std::iswspace(text[begin])) ++begin;
  text = text.substr(begin, end - begin);
}

template <typename Fn>
void AppendOrThrow(Fn&& append) {
  try {
    append();
  } catch (const std::bad_alloc&) {
    Kestrel::ThrowHr(E_OUTOFMEMORY);
  }
}

// Reads an environment variable; false when it is not defined. The value
// may change between the length query and the read, hence the loop.
bool ReadEnvironment(const wchar_t* name, std::wstring& value) {
  DWORD needed = ::GetEnvironmentVariableW(name, nullptr, 0);
  while (needed != 0) {
    std::wstring buffer(needed, L'\0');
    const DWORD length = ::GetEnvironmentVariableW(name, buffer.data(), needed);
    if (length < needed) {
      buffer.resize(length);
      value = std::move(buffer);
      return true;
    }
    needed = length;
  }
  return false;
}

}  // namespace

// Parsing ------------------------------------------------------------------

HRESULT ParseDWord(const std::wstring& text, std::uint32_t& value) noexcept {
  const wchar_t* begin = text.c_str();
  wchar_t* end = nullptr;
  const unsigned long number = std::wcstoul(begin, &end, 0);
  if (end == begin || *end != L'\0') return kHrInvalidArg;
  value = static_cast<std::uint32_t>(number);
  return S_OK;
}

HRESULT StringGSProviderBase::GetDWord(const wchar_t* section, const wchar_t* key, std::uint32_t& value) {
  std::wstring text;
  const HRESULT hr = GetString(section, key, text);
  if (FAILED(hr)) return hr;
  return ParseDWord(text, value);
}

// Environment variables ----------------------------------------------------

std::wstring CEnvVarGSProvider::VariableName(const wchar_t* section, const wchar_t* key) {
  std::wstring name = L"GS_";
  name += SectionOrGeneral(section);
  name += L'_';
  name += key != nullptr ? key : L"";
  return name;
}

HRESULT CEnvVarGSProvider::GetString(const wchar_t* section, const wchar_t* key, std::wstring& value) {
  std::wstring text;
  if (!ReadEnvironment(VariableName(section, key).c_str(), text)) return kHrNotFound;
  text.resize(std::wcslen(text.c_str()));
  Trim(text);
  value = std::move(text);
  return S_OK;
}

// INI files ----------------------------------------------------------------

CIniFileGSProvider::CIniFileGSProvider() {
  try {
    HMODULE self = Kestrel::ThisModule();
    const bool moduleIsExecutable = self == nullptr || self == ::GetModuleHandleW(nullptr);
    const std::wstring executable = Kestrel::ExecutableFilePath();
    const std::wstring module = moduleIsExecutable ? executable : Kestrel::ModuleFilePath();
    m_aCandidates = BuildCandidates(executable, module, moduleIsExecutable);
  } catch (...) {
    // Without the paths only GLOBAL_SETTINGS_INI and the environment remain.
    m_aCandidates.clear();
  }
}

std::vector<std::wstring> CIniFileGSProvider::BuildCandidates(const std::wstring& executablePath,
                                                              const std::wstring& modulePath, bool moduleIsExecutable) {
  const std::wstring hostDirectory = Kestrel::DirectoryOf(executablePath);
  const std::wstring moduleDirectory = Kestrel::DirectoryOf(modulePath);
  const std::wstring hostBase = Kestrel::BaseNameOf(executablePath);
  const std::wstring moduleBase = Kestrel::BaseNameOf(modulePath);

  std::vector<std::wstring> candidates;
  candidates.push_back(hostDirectory + hostBase + L".ini");
  if (!moduleIsExecutable) candidates.push_back(hostDirectory + moduleBase + L".ini");
  candidates.push_back(hostDirectory + L"GlobalSettings.ini");
  if (!moduleIsExecutable && moduleDirectory != hostDirectory) {
    candidates.push_back(moduleDirectory + moduleBase + L".ini");
    candidates.push_back(moduleDirectory + L"GlobalSettings.ini");
  }
  return candidates;
}

HRESULT CIniFileGSProvider::ReadFile(const std::wstring& path, const wchar_t* section, const wchar_t* key,
                                     std::wstring& value) {
  DWORD size = kInitialIniBuffer;
  std::wstring buffer;
  for (;;) {
    buffer.assign(size, L'\0');
    const DWORD length =
        ::GetPrivateProfileStringW(SectionOrGeneral(section), key, L"", buffer.data(), size, path.c_str());
    if (length != size - 1) {
      buffer.resize(length);
      break;
    }
    // The value was cut: read again with twice the room.
    if (size & 0x40000000u) Kestrel::ThrowHr(kHrInvalidArg);
    size *= 2;
  }
  if (buffer.empty()) return kHrNotFound;
  Trim(buffer);
  value = std::move(buffer);
  return S_OK;
}

HRESULT CIniFileGSProvider::GetString(const wchar_t* section, const wchar_t* key, std::wstring& value) {
  std::wstring explicitFile;
  if (ReadEnvironment(L"GLOBAL_SETTINGS_INI", explicitFile) && !explicitFile.empty()) {
    explicitFile.resize(std::wcslen(explicitFile.c_str()));
    if (ReadFile(explicitFile, section, key, value) == S_OK) return S_OK;
  }
  for (const std::wstring& candidate : m_aCandidates) {
    if (ReadFile(candidate, section, key, value) == S_OK) return S_OK;
  }
  return kHrNotFound;
}

// Registry -----------------------------------------------------------------

ProviderRegistry& ProviderRegistry::Instance() {
  // Never destroyed: code that runs during process exit may still read
  // settings after the providers are gone, and then simply finds nothing.
  static ProviderRegistry* const s_pRegistry = [] {
    auto* registry = new ProviderRegistry();
    static AutoRegGSProvider<CIniFileGSProvider> s_iniProvider(*registry);
    static AutoRegGSProvider<CEnvVarGSProvider> s_envProvider(*registry);
    return registry;
  }();
  return *s_pRegistry;
}

void ProviderRegistry::Register(IGSProvider* provider) {
  const std::lock_guard lock(m_cs);
  AppendOrThrow([&] { m_aProviders.push_back(provider); });
}

void ProviderRegistry::Unregister(IGSProvider* provider) noexcept {
  const std::lock_guard lock(m_cs);
  for (std::size_t i = m_aProviders.size(); i-- > 0;) {
    if (m_aProviders[i] == provider) m_aProviders.erase(m_aProviders.begin() + static_cast<std::ptrdiff_t>(i));
  }
}

template <typename Ask>
HRESULT ProviderRegistry::Walk(Ask&& ask) {
  const std::lock_guard lock(m_cs);
  for (std::size_t i = m_aProviders.size(); i-- > 0;) {
    if (i >= m_aProviders.size()) Kestrel::ThrowHr(kHrInvalidArg);
    const HRESULT hr = ask(*m_aProviders[i]);
    // E_ABORT lets a provider veto the providers behind it.
    if (SUCCEEDED(hr) || hr == kHrAbort) return hr;
  }
  return kHrNotFound;
}

HRESULT ProviderRegistry::Lookup(const wchar_t* section, const wchar_t* key, std::wstring& value) {
  return Walk([&](IGSProvider& provider) { return provider.GetString(section, key, value); });
}

HRESULT ProviderRegistry::LookupDWord(const wchar_t* section, const wchar_t* key, std::uint32_t& value) {
  return Walk([&](IGSProvider& provider) { return provider.GetDWord(section, key, value); });
}

// Cached section -----------------------------------------------------------

SettingsSection::SettingsSection(std::wstring name, DWORD refreshIntervalMs)
    : m_sName(std::move(name)),
      m_nRefreshInterval(refreshIntervalMs),
      m_mapStrings(17),
      m_mapNumbers(17),
      m_setAbsent(17) {
  m_mapStrings.max_load_factor(2.25f);
  m_mapNumbers.max_load_factor(2.25f);
  m_setAbsent.max_load_factor(2.25f);
}

void SettingsSection::FlushLocked() noexcept {
  m_mapStrings.clear();
  m_mapNumbers.clear();
  m_setAbsent.clear();
  m_nLastFlush = Kestrel::TickCount();
  ++m_nGeneration;
}

void SettingsSection::Flush() noexcept {
  const std::lock_guard lock(m_cs);
  FlushLocked();
}

DWORD SettingsSection::Generation() noexcept {
  const std::lock_guard lock(m_cs);
  return m_nGeneration;
}

void SettingsSection::ExpireLocked() noexcept {
  if (m_nRefreshInterval == 0) return;
  if (m_nLastFlush == 0 || Kestrel::TickCount() - m_nLastFlush > m_nRefreshInterval) FlushLocked();
}

template <typename Map, typename Value, typename Ask>
bool SettingsSection::CachedGet(const wchar_t* key, Value& value, Map* cache, Ask&& ask) {
  const std::wstring_view keyView = key != nullptr ? key : L"";
  if (cache != nullptr) {
    const std::lock_guard lock(m_cs);
    ExpireLocked();
    if (const auto found = cache->find(keyView); found != cache->end()) {
      value = found->second;
      return true;
    }
    if (m_setAbsent.find(keyView) != m_setAbsent.end()) return false;
  }

  // The registry is asked outside the section's lock, so two threads may ask
  // for the same key at once; both then store the same answer.
  Value answer{};
  const bool found = SUCCEEDED(ask(answer));

  if (cache != nullptr) {
    const std::lock_guard lock(m_cs);
    if (found) {
      (*cache)[std::wstring(keyView)] = answer;
    } else {
      m_setAbsent.emplace(keyView);
    }
  }
  if (found) value = std::move(answer);
  return found;
}

bool SettingsSection::Get(const wchar_t* key, std::wstring& value, StringMap* cache) {
  return CachedGet(key, value, cache, [&](std::wstring& answer) {
    return ProviderRegistry::Instance().Lookup(m_sName.c_str(), key, answer);
  });
}

bool SettingsSection::GetDWord(const wchar_t* key, std::uint32_t& value, NumberMap* cache) {
  return CachedGet(key, value, cache, [&](std::uint32_t& answer) {
    return ProviderRegistry::Instance().LookupDWord(m_sName.c_str(), key, answer);
  });
}

}  // namespace Detail

std::wstring GetStringOrDefault(const wchar_t* section, const wchar_t* key, const std::wstring& defaultValue) {
  try {
    std::wstring value;
    if (SUCCEEDED(Detail::ProviderRegistry::Instance().Lookup(section, key, value))) return value;
  } catch (...) {
    // Settings never report their own failures; the caller's default holds.
  }
  return defaultValue;
}

}  // namespace GlobalSettings
