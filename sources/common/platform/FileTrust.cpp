#include "FileTrust.h"

#include <aclapi.h>
#include <sddl.h>

#include <vector>

#include "ErrorHandling.h"
#include "Handle.h"

namespace Kestrel {

namespace {

// NT SERVICE\TrustedInstaller owns the system's own folders.
constexpr wchar_t kTrustedInstallerSid[] = L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";

std::wstring SidString(PSID sid) {
  LocalMemory text;
  LPWSTR raw = nullptr;
  if (!::ConvertSidToStringSidW(sid, &raw)) return L"(unreadable SID)";
  text.Reset(raw);
  return raw;
}

// "BUILTIN\Users (S-1-5-32-545)", or the SID string alone for an account the
// system cannot name.
std::wstring Describe(PSID sid) {
  const std::wstring sidText = SidString(sid);
  wchar_t name[256];
  wchar_t domain[256];
  DWORD nameLength = 256;
  DWORD domainLength = 256;
  SID_NAME_USE use;
  if (!::LookupAccountSidW(nullptr, sid, name, &nameLength, domain, &domainLength, &use)) return sidText;
  std::wstring text = domainLength > 0 ? std::wstring(domain) + L"\\" + name : std::wstring(name);
  return text + L" (" + sidText + L")";
}

bool IsWellKnown(PSID sid, WELL_KNOWN_SID_TYPE type) noexcept { return ::IsWellKnownSid(sid, type) != FALSE; }

class CTrustedSids {
 public:
  explicit CTrustedSids(PSID self) : m_self(self) {
    PSID raw = nullptr;
    if (::ConvertStringSidToSidW(kTrustedInstallerSid, &raw)) m_trustedInstaller.Reset(raw);
  }

  bool IsTrusted(PSID sid) const noexcept {
    return IsWellKnown(sid, WinLocalSystemSid) || IsWellKnown(sid, WinBuiltinAdministratorsSid) ||
           (m_self != nullptr && ::EqualSid(sid, m_self)) ||
           (m_trustedInstaller && ::EqualSid(sid, m_trustedInstaller.Get()));
  }

 private:
  PSID m_self;
  LocalMemory m_trustedInstaller;
};

LocalMemory ToSid(const std::wstring& text) {
  PSID raw = nullptr;
  ThrowLastErrorIf(!::ConvertStringSidToSidW(text.c_str(), &raw));
  return LocalMemory(raw);
}

TrustVerdict Untrusted(PSID sid, const wchar_t* what) { return {false, Describe(sid), what}; }

// The SID and the mask of an entry that grants access; null for the others.
PSID AllowedSid(void* ace, ACCESS_MASK& mask) noexcept {
  const auto* header = static_cast<ACE_HEADER*>(ace);
  switch (header->AceType) {
    case ACCESS_ALLOWED_ACE_TYPE:
    case ACCESS_ALLOWED_CALLBACK_ACE_TYPE: {
      auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(ace);
      mask = allowed->Mask;
      return &allowed->SidStart;
    }
    case ACCESS_ALLOWED_OBJECT_ACE_TYPE:
    case ACCESS_ALLOWED_CALLBACK_OBJECT_ACE_TYPE: {
      // The SID follows whichever of the two GUIDs the flags say are there.
      auto* allowed = static_cast<ACCESS_ALLOWED_OBJECT_ACE*>(ace);
      mask = allowed->Mask;
      auto* sid = reinterpret_cast<unsigned char*>(&allowed->ObjectType);
      if (allowed->Flags & ACE_OBJECT_TYPE_PRESENT) sid += sizeof(GUID);
      if (allowed->Flags & ACE_INHERITED_OBJECT_TYPE_PRESENT) sid += sizeof(GUID);
      return sid;
    }
    default:
      return nullptr;
  }
}

}  // namespace

std::wstring TrustVerdict::Text() const { return bTrusted ? std::wstring() : sPrincipal + L" " + sWhat; }

TrustVerdict JudgeSecurityDescriptor(PSECURITY_DESCRIPTOR descriptor, PSID self) {
  const CTrustedSids trusted(self);
  PSID owner = nullptr;
  BOOL bDefaulted = FALSE;
  ThrowLastErrorIf(!::GetSecurityDescriptorOwner(descriptor, &owner, &bDefaulted));
  if (owner == nullptr) return {false, L"(no owner)", L"owns it: the file has no owner"};
  if (!trusted.IsTrusted(owner)) return Untrusted(owner, L"owns it");

  BOOL bPresent = FALSE;
  PACL dacl = nullptr;
  ThrowLastErrorIf(!::GetSecurityDescriptorDacl(descriptor, &bPresent, &dacl, &bDefaulted));
  if (!bPresent || dacl == nullptr) {
    return {false, L"Everyone (S-1-1-0)", L"may write to it: it has no access control list"};
  }
  for (DWORD index = 0; index < dacl->AceCount; ++index) {
    void* ace = nullptr;
    ThrowLastErrorIf(!::GetAce(dacl, index, &ace));
    if (static_cast<ACE_HEADER*>(ace)->AceFlags & INHERIT_ONLY_ACE) continue;
    ACCESS_MASK mask = 0;
    PSID sid = AllowedSid(ace, mask);
    if (sid == nullptr || (mask & kWriteRights) == 0) continue;
    // "Creator owner" grants nobody on the object itself; "owner rights"
    // grants the owner, who is trusted by now.
    if (IsWellKnown(sid, WinCreatorOwnerSid) || IsWellKnown(sid, WinCreatorOwnerRightsSid)) continue;
    if (!trusted.IsTrusted(sid)) return Untrusted(sid, L"may write to it");
  }
  return {};
}

TrustVerdict JudgeSddl(const std::wstring& sddl, const std::wstring& selfSid) {
  PSECURITY_DESCRIPTOR raw = nullptr;
  ThrowLastErrorIf(
      !::ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl.c_str(), SDDL_REVISION_1, &raw, nullptr));
  LocalMemory descriptor(raw);
  return JudgeSecurityDescriptor(descriptor.Get(), ToSid(selfSid).Get());
}

std::wstring ProcessAccountSid() {
  Handle token;
  ThrowLastErrorIf(!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, token.Put()));
  DWORD needed = 0;
  ::GetTokenInformation(token.Get(), TokenUser, nullptr, 0, &needed);
  std::vector<unsigned char> buffer(needed == 0 ? sizeof(TOKEN_USER) : needed);
  ThrowLastErrorIf(
      !::GetTokenInformation(token.Get(), TokenUser, buffer.data(), static_cast<DWORD>(buffer.size()), &needed));
  return SidString(reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid);
}

TrustVerdict JudgeFile(const std::wstring& path) {
  PSECURITY_DESCRIPTOR raw = nullptr;
  const DWORD error =
      ::GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                              nullptr, nullptr, nullptr, nullptr, &raw);
  if (error != ERROR_SUCCESS) ThrowWin32(error);
  LocalMemory descriptor(raw);
  return JudgeSecurityDescriptor(descriptor.Get(), ToSid(ProcessAccountSid()).Get());
}

void CreateAdministratorsFolder(const std::wstring& path) {
  std::wstring folder = path;
  while (folder.size() > 3 && (folder.back() == L'\\' || folder.back() == L'/')) folder.pop_back();
  const DWORD attributes = ::GetFileAttributesW(folder.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    const DWORD error = ::GetLastError();
    if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND) ThrowWin32(error);
    const std::size_t separator = folder.find_last_of(L"\\/");
    if (separator != std::wstring::npos && separator > 0 && folder[separator - 1] != L':' &&
        folder[separator - 1] != L'\\') {
      CreateAdministratorsFolder(folder.substr(0, separator));
    }
    PSECURITY_DESCRIPTOR raw = nullptr;
    ThrowLastErrorIf(!::ConvertStringSecurityDescriptorToSecurityDescriptorW(kAdministratorsOnlySddl,
                                                                              SDDL_REVISION_1, &raw, nullptr));
    LocalMemory descriptor(raw);
    SECURITY_ATTRIBUTES security{sizeof(security), descriptor.Get(), FALSE};
    if (::CreateDirectoryW(folder.c_str(), &security)) return;
    // Made meanwhile by someone else: judged below like any existing folder.
    if (::GetLastError() != ERROR_ALREADY_EXISTS) ThrowLastError();
  } else if (!(attributes & FILE_ATTRIBUTE_DIRECTORY)) {
    ThrowWin32(ERROR_DIRECTORY);
  }
  // An existing folder must belong to a trusted account; whoever owns it
  // decides who may plant files in it.
  PSECURITY_DESCRIPTOR raw = nullptr;
  const DWORD error = ::GetNamedSecurityInfoW(folder.c_str(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, nullptr,
                                              nullptr, nullptr, nullptr, &raw);
  if (error != ERROR_SUCCESS) ThrowWin32(error);
  LocalMemory descriptor(raw);
  PSID owner = nullptr;
  BOOL bDefaulted = FALSE;
  ThrowLastErrorIf(!::GetSecurityDescriptorOwner(descriptor.Get(), &owner, &bDefaulted));
  const LocalMemory self = ToSid(ProcessAccountSid());
  if (owner == nullptr || !CTrustedSids(self.Get()).IsTrusted(owner)) {
    ThrowHr(E_ACCESSDENIED, L"The folder \"" + folder + L"\" is owned by " +
                                (owner != nullptr ? Describe(owner) : std::wstring(L"nobody")) +
                                L", not by SYSTEM, Administrators or this service's account");
  }
}

}  // namespace Kestrel
