#pragma once
// Process-wide settings by section and key: the environment variable
// "GS_<Section>_<Key>" wins over the INI files.

#include <windows.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>


namespace GlobalSettings {

// Asks the providers directly (no cache); the default when nothing is found.
std::wstring GetStringOrDefault(const wchar_t* section, const wchar_t* key, const std::wstring& defaultValue);

namespace Detail {

constexpr HRESULT kHrNotFound = static_cast<HRESULT>(0x80070490);
constexpr HRESULT kHrInvalidArg = static_cast<HRESULT>(0x80070057);
constexpr HRESULT kHrAbort = static_cast<HRESULT>(0x80004004);

// A source of settings. A null section means "General". Both lookups return
// S_OK with the value set, or a failure with the value untouched.
class IGSProvider {
 public:
  virtual ~IGSProvider() = default;
  virtual HRESULT GetString(const wchar_t* section, const wchar_t* key, std::wstring& value) = 0;
  virtual HRESULT GetDWord(const wchar_t* section, const wchar_t* key, std::uint32_t& value) = 0;
};

// Reads numbers as text: decimal, "0x" hexadecimal or "0" octal, nothing after.
HRESULT ParseDWord(const std::wstring& text, std::uint32_t& value) noexcept;

class StringGSProviderBase : public IGSProvider {
 public:
  HRESULT GetDWord(const wchar_t* section, const wchar_t* key, std::uint32_t& value) override;
};

// "GS_" + section + "_" + key. A defined variable is a value whatever it
// holds, the empty string included.
class CEnvVarGSProvider : public StringGSProviderBase {
 public:
  HRESULT GetString(const wchar_t* section, const wchar_t* key, std::wstring& value) override;
  static std::wstring VariableName(const wchar_t* section, const wchar_t* key);
};

// The file named by GLOBAL_SETTINGS_INI, then the candidate files next to
// the host and next to the module. An empty entry counts as absent, so the
// next file is asked.
class CIniFileGSProvider : public StringGSProviderBase {
 public:
  CIniFileGSProvider();
  // The given candidates instead of this process's own: for a host that
  // reads the settings of a module it loads.
  explicit CIniFileGSProvider(std::vector<std::wstring> candidates) : m_aCandidates(std::move(candidates)) {}
  HRESULT GetString(const wchar_t* section, const wchar_t* key, std::wstring& value) override;

  const std::vector<std::wstring>& Candidates() const noexcept { return m_aCandidates; }

  // Host and module INI names, in the order they are read. Paths are not
  // checked for existence and duplicates are kept.
  static std::vector<std::wstring> BuildCandidates(const std::wstring& executablePath, const std::wstring& modulePath,
                                                   bool moduleIsExecutable);
  // One file: S_OK with the trimmed value, or not-found for a missing or
  // empty entry.
  static HRESULT ReadFile(const std::wstring& path, const wchar_t* section, const wchar_t* key, std::wstring& value);

 private:
  std::vector<std::wstring> m_aCandidates;
};

// The providers in registration order; lookups ask the last registered first.
class ProviderRegistry {
 public:
  ProviderRegistry() = default;
  ProviderRegistry(const ProviderRegistry&) = delete;
  ProviderRegistry& operator=(const ProviderRegistry&) = delete;

  // The process's registry with its INI-file and environment providers.
  static ProviderRegistry& Instance();

  void Register(IGSProvider* provider);
  void Unregister(IGSProvider* provider) noexcept;

  HRESULT Lookup(const wchar_t* section, const wchar_t* key, std::wstring& value);
  HRESULT LookupDWord(const wchar_t* section, const wchar_t* key, std::uint32_t& value);

 private:
  template <typename Ask>
  HRESULT Walk(Ask&& ask);

  // Providers are asked under it, and one may read settings again.
  std::recursive_mutex m_cs;
  std::vector<IGSProvider*> m_aProviders;
};

// A provider that registers itself for its lifetime.
template <typename T>
class AutoRegGSProvider : public T {
 public:
  explicit AutoRegGSProvider(ProviderRegistry& registry) : m_pRegistry(&registry) { registry.Register(this); }
  ~AutoRegGSProvider() override { m_pRegistry->Unregister(this); }
  AutoRegGSProvider(const AutoRegGSProvider&) = delete;
  AutoRegGSProvider& operator=(const AutoRegGSProvider&) = delete;

 private:
  ProviderRegistry* m_pRegistry;
};

// Hashes keys as views, so a lookup by a literal key builds no string.
struct KeyHash {
  using is_transparent = void;
  std::size_t operator()(std::wstring_view key) const noexcept { return std::hash<std::wstring_view>{}(key); }
};

// A cached reader of one section. Found values and absent keys are both
// remembered until the next flush: on expiry of a non-zero refresh interval,
// or on an explicit Flush.
class SettingsSection {
 public:
  using StringMap = std::unordered_map<std::wstring, std::wstring, KeyHash, std::equal_to<>>;
  using NumberMap = std::unordered_map<std::wstring, std::uint32_t, KeyHash, std::equal_to<>>;
  using KeySet = std::unordered_set<std::wstring, KeyHash, std::equal_to<>>;

  SettingsSection(std::wstring name, DWORD refreshIntervalMs);
  SettingsSection(const SettingsSection&) = delete;
  SettingsSection& operator=(const SettingsSection&) = delete;

  // With a cache map the answer (found or absent) is cached; without one the
  // registry is asked directly.
  bool Get(const wchar_t* key, std::wstring& value, StringMap* cache);
  bool Get(const wchar_t* key, std::wstring& value) { return Get(key, value, &m_mapStrings); }
  // A value that is present but not a number counts as absent.
  bool GetDWord(const wchar_t* key, std::uint32_t& value, NumberMap* cache);
  bool GetDWord(const wchar_t* key, std::uint32_t& value) { return GetDWord(key, value, &m_mapNumbers); }

  // Empties the caches, stamps the tick count and starts a new generation.
  void Flush() noexcept;

  const std::wstring& Name() const noexcept { return m_sName; }
  DWORD Generation() noexcept;

 private:
  template <typename Map, typename Value, typename Ask>
  bool CachedGet(const wchar_t* key, Value& value, Map* cache, Ask&& ask);
  void ExpireLocked() noexcept;
  void FlushLocked() noexcept;

  std::wstring m_sName;
  DWORD m_nRefreshInterval;
  std::mutex m_cs;
  DWORD m_nGeneration = 0;
  DWORD m_nLastFlush = 0;
  StringMap m_mapStrings;
  NumberMap m_mapNumbers;
  KeySet m_setAbsent;
};

}  // namespace Detail
}  // namespace GlobalSettings
