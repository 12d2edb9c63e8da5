#pragma once
// Whom a privileged process may trust with a file or folder it reads as its
// instructions or writes into: the owner must be SYSTEM, Administrators,
// TrustedInstaller or the process's own account, and nobody else may write
// to it, create files in it, or replace it. Whoever could would decide what
// SYSTEM does.

#include <windows.h>

#include <string>

namespace Kestrel {

struct TrustVerdict {
  bool bTrusted = true;
  // The principal that makes it untrusted, as "BUILTIN\Users (S-1-5-32-545)"
  // where its name can be looked up, else its SID string.
  std::wstring sPrincipal;
  // What that principal may do: "owns it", "may write to it", ...
  std::wstring sWhat;

  // "BUILTIN\Users (S-1-5-32-545) may write to it"; empty when trusted.
  std::wstring Text() const;
};

// Access rights that let a principal change a file, add to a folder or
// replace either.
constexpr ACCESS_MASK kWriteRights = FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_WRITE_EA | FILE_DELETE_CHILD |
                                     FILE_WRITE_ATTRIBUTES | DELETE | WRITE_DAC | WRITE_OWNER | GENERIC_WRITE |
                                     GENERIC_ALL;

// Judges a security descriptor with its owner and DACL. `self` is the
// account of the process that would trust the file. Inherit-only entries do
// not apply to the object itself and are passed over; deny entries never
// widen access and are passed over too. A missing DACL lets everyone write.
// Pure: only the descriptor decides, so crafted SDDL tests the rule.
TrustVerdict JudgeSecurityDescriptor(PSECURITY_DESCRIPTOR descriptor, PSID self);

// The same for a descriptor in SDDL form, with the account as a SID string.
TrustVerdict JudgeSddl(const std::wstring& sddl, const std::wstring& selfSid);

// Reads the owner and DACL of a file or folder and judges them for this
// process's account. Raises HRX when the descriptor cannot be read.
TrustVerdict JudgeFile(const std::wstring& path);

// The SID string of this process's account ("S-1-5-18" for LocalSystem).
std::wstring ProcessAccountSid();

// The DACL a folder made by a privileged process gets: SYSTEM and
// Administrators full control, Users read, nothing inherited from above.
inline constexpr wchar_t kAdministratorsOnlySddl[] =
    L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)";

// Creates a folder with that DACL, its missing parents too. An existing
// folder is kept, and its owner must be trusted: whoever owns a folder
// decides who may plant files in it. Raises HRX with 0x80070005 (access
// denied) naming the owner when it is not trusted.
void CreateAdministratorsFolder(const std::wstring& path);

}  // namespace Kestrel
