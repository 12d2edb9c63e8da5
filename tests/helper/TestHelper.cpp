// A second process for tests that need one. Each subcommand is one entry in
// the table below:
//
//   test_helper hold FILE MS          holds FILE open without write sharing
//   test_helper lock FILE MS          holds FILE open with no sharing at all
//   test_helper sleep MS              sleeps, then exits with 0
//   test_helper append FILE PREFIX COUNT keep|line
//                                     appends "PREFIX N" lines 0..COUNT-1, a
//                                     millisecond apart: "keep" holds one
//                                     handle (read/write/delete sharing) and
//                                     reopens it every 5 s, "line" opens the
//                                     file for every line; a refused open is
//                                     retried, so no line is dropped
//
// Exit code 0 on success, 2 on bad arguments, 1 when the work failed.

#include <windows.h>
// After windows.h, which it needs.
#include <shellapi.h>

#include <cstdio>
#include <cwchar>

namespace {

struct Arguments {
  int count;
  wchar_t** values;
};

bool ParseUnsigned(const wchar_t* text, unsigned long& value) {
  wchar_t* end = nullptr;
  value = std::wcstoul(text, &end, 10);
  return end != text && *end == L'\0';
}

int HoldShared(const Arguments& args, DWORD share) {
  unsigned long ms = 0;
  if (args.count < 2 || !ParseUnsigned(args.values[1], ms)) return 2;
  HANDLE file = ::CreateFileW(args.values[0], GENERIC_READ, share, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return 1;
  ::Sleep(ms);
  ::CloseHandle(file);
  return 0;
}

int Hold(const Arguments& args) { return HoldShared(args, FILE_SHARE_READ); }
int Lock(const Arguments& args) { return HoldShared(args, 0); }

int SleepFor(const Arguments& args) {
  unsigned long ms = 0;
  if (args.count < 1 || !ParseUnsigned(args.values[0], ms)) return 2;
  ::Sleep(ms);
  return 0;
}

HANDLE OpenForAppend(const wchar_t* path) {
  for (;;) {
    HANDLE file = ::CreateFileW(path, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file != INVALID_HANDLE_VALUE) return file;
    if (::GetLastError() != ERROR_SHARING_VIOLATION && ::GetLastError() != ERROR_ACCESS_DENIED) return file;
    ::Sleep(1);
  }
}

int Append(const Arguments& args) {
  unsigned long count = 0;
  if (args.count < 4 || !ParseUnsigned(args.values[2], count)) return 2;
  const bool keep = std::wcscmp(args.values[3], L"keep") == 0;
  if (!keep && std::wcscmp(args.values[3], L"line") != 0) return 2;
  HANDLE file = INVALID_HANDLE_VALUE;
  DWORD opened = 0;
  for (unsigned long i = 0; i < count; ++i) {
    if (file == INVALID_HANDLE_VALUE || !keep || ::GetTickCount() - opened >= 5000) {
      if (file != INVALID_HANDLE_VALUE) ::CloseHandle(file);
      file = OpenForAppend(args.values[0]);
      if (file == INVALID_HANDLE_VALUE) return 1;
      opened = ::GetTickCount();
    }
    char line[160];
    const int length = std::snprintf(line, sizeof(line), "%ls %lu\r\n", args.values[1], i);
    DWORD written = 0;
    if (!::WriteFile(file, line, static_cast<DWORD>(length), &written, nullptr) || written != DWORD(length)) return 1;
    if (!keep) {
      ::CloseHandle(file);
      file = INVALID_HANDLE_VALUE;
    }
    ::Sleep(1);
  }
  if (file != INVALID_HANDLE_VALUE) ::CloseHandle(file);
  return 0;
}

struct Command {
  const wchar_t* name;
  const wchar_t* usage;
  int (*run)(const Arguments& args);
};

const Command kCommands[] = {
    {L"hold", L"hold FILE MS", &Hold},
    {L"lock", L"lock FILE MS", &Lock},
    {L"sleep", L"sleep MS", &SleepFor},
    {L"append", L"append FILE PREFIX COUNT keep|line", &Append},
};

int Usage() {
  std::fwprintf(stderr, L"usage:\n");
  for (const Command& command : kCommands) std::fwprintf(stderr, L"  test_helper %ls\n", command.usage);
  return 2;
}

}  // namespace

int main() {
  int argc = 0;
  wchar_t** argv = ::CommandLineToArgvW(::GetCommandLineW(), &argc);
  if (argv == nullptr || argc < 2) return Usage();
  int result = -1;
  for (const Command& command : kCommands) {
    if (std::wcscmp(argv[1], command.name) == 0) {
      result = command.run(Arguments{argc - 2, argv + 2});
      break;
    }
  }
  ::LocalFree(argv);
  return result == -1 ? Usage() : result;
}
