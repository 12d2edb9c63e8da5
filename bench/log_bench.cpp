// Lines per second through the module's log with the default settings, next
// to a bare loop of DuplicateHandle + WriteFile + CloseHandle on an append
// handle (the least a line costs with the file kept open), for 1 and 8
// threads. The machine is shared, so each figure comes from several rounds.
//
//   log_bench [lines-per-round]

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "platform/ModulePath.h"
#include "logger/Logger.h"

namespace {

constexpr int kRounds = 9;

double Seconds(LARGE_INTEGER start, LARGE_INTEGER end) {
  LARGE_INTEGER frequency;
  ::QueryPerformanceFrequency(&frequency);
  return static_cast<double>(end.QuadPart - start.QuadPart) / static_cast<double>(frequency.QuadPart);
}

// Runs `body(thread, lines)` on `threads` threads sharing `total` lines;
// returns lines per second.
template <typename Body>
double Rate(unsigned threads, unsigned total, Body body) {
  std::vector<std::thread> workers;
  LARGE_INTEGER start, end;
  ::QueryPerformanceCounter(&start);
  for (unsigned t = 0; t < threads; ++t) workers.emplace_back([&, t] { body(t, total / threads); });
  for (auto& worker : workers) worker.join();
  ::QueryPerformanceCounter(&end);
  return (total / threads) * threads / Seconds(start, end);
}

// A line as long as the module's own lines.
const std::wstring kLine =
    L"2024-03-05 14:07:09.042 | INFO | 4464  1234 | LogBench:42                    | benchmark line 12345\r\n";

double BareLoop(HANDLE file, unsigned threads, unsigned total) {
  return Rate(threads, total, [&](unsigned, unsigned lines) {
    const HANDLE process = ::GetCurrentProcess();
    for (unsigned i = 0; i < lines; ++i) {
      HANDLE duplicate = nullptr;
      ::DuplicateHandle(process, file, process, &duplicate, 0, FALSE, DUPLICATE_SAME_ACCESS);
      DWORD written = 0;
      ::WriteFile(duplicate, kLine.data(), static_cast<DWORD>(kLine.size() * sizeof(wchar_t)), &written, nullptr);
      ::CloseHandle(duplicate);
    }
  });
}

double Logger(unsigned threads, unsigned total) {
  return Rate(threads, total, [&](unsigned thread, unsigned lines) {
    for (unsigned i = 0; i < lines; ++i)
      VH_LOG(VHLogger::SEV_INFO, L"LogBench", L"benchmark line " << thread << L" " << i);
  });
}

}  // namespace

int main(int argc, char** argv) {
  const unsigned total = argc > 1 ? static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10)) : 2000;

  wchar_t temp[MAX_PATH];
  ::GetTempPathW(MAX_PATH, temp);
  const std::wstring barePath = std::wstring(temp) + L"log_bench_bare.log";
  ::DeleteFileW(barePath.c_str());
  HANDLE file =
      ::CreateFileW(barePath.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    std::printf("cannot open %ls\n", barePath.c_str());
    return 1;
  }
  if (!VHLogger::IsEnabled(VHLogger::SEV_INFO)) {
    std::printf("INFO lines are not logged with the current settings\n");
    return 1;
  }
  // Each run starts its own log rather than growing the last one's.
  const std::wstring logPath =
      VHLogger::GetLogDirectory() + Kestrel::BaseNameOf(Kestrel::ExecutableFilePath()) + L".log";
  ::DeleteFileW(logPath.c_str());
  std::printf("log file: %ls\n", logPath.c_str());
  std::printf(
      "%u lines per round, %d rounds; rates are the best round, the ratio the median of the\n"
      "rounds (each round runs both loops back to back)\n\n",
      total, kRounds);
  std::printf("threads   bare lines/s   logger lines/s   logger/bare\n");
  for (unsigned threads : {1u, 8u}) {
    double bare = 0, logged = 0;
    std::vector<double> ratios;
    for (int round = 0; round < kRounds; ++round) {
      const double bareRate = BareLoop(file, threads, total);
      const double loggerRate = Logger(threads, total);
      bare = std::max(bare, bareRate);
      logged = std::max(logged, loggerRate);
      ratios.push_back(loggerRate / bareRate);
    }
    std::sort(ratios.begin(), ratios.end());
    std::printf("%7u   %12.0f   %14.0f   %11.2f\n", threads, bare, logged, ratios[ratios.size() / 2]);
  }
  ::CloseHandle(file);
  ::DeleteFileW(barePath.c_str());
  return 0;
}
