// Packs 1.2 GiB of log text, one file of 1 GiB among them, through the log
// packer and sets its throughput beside zlib's own deflate of the same bytes
// at the same level (the packer's ceiling), plus its peak working set above
// the baseline, which streaming keeps far below the largest file.

#include <windows.h>
#include <psapi.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "DataLayer/NodePtr.h"
#include "LogPackerConfiguration.h"

namespace {

constexpr std::uint64_t kMiB = 1ull << 20;
constexpr std::uint64_t kFileSizesMiB[] = {1024, 128, 48};  // 1200 MiB

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// CPU seconds of the calling thread: on a shared machine the wall clock
// measures the neighbours as much as the code.
double ThreadCpuSeconds() {
  FILETIME creation, exit, kernel, user;
  ::GetThreadTimes(::GetCurrentThread(), &creation, &exit, &kernel, &user);
  auto ticks = [](const FILETIME& time) {
    return (static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
  };
  return static_cast<double>(ticks(kernel) + ticks(user)) / 1e7;
}

// Log lines with the variety of a real service log: timestamps, threads,
// severities, request ids and a handful of message shapes.
template <typename Sink>
void GenerateLog(std::uint64_t size, std::uint32_t salt, Sink&& sink) {
  static const char* const kSeverities[] = {"INFO ", "DBG  ", "DBG  ", "DBG2 ", "WARN ", "ERR  "};
  static const char* const kMessages[] = {
      "Request %u from 10.%u.%u.%u handled in %u ms",
      "Entering: CProcessManager::ProcessRequest",
      "Exiting: CProcessManager::ProcessRequest [%u ms]",
      "Free space in \"D:\\\\AuditData\\\\Store%u\": %u MB",
      "Session %08x opened for user DOMAIN\\\\svc_audit%u",
      "Failed to open \"C:\\\\ProgramData\\\\Kestrel\\\\queue\\\\%u.dat\": 0x80070020 The process cannot access the file",
  };
  std::string chunk;
  chunk.reserve(4 * kMiB + 512);
  std::uint64_t written = 0;
  std::uint32_t state = salt;
  auto next = [&state] { return state = state * 1664525u + 1013904223u; };
  std::uint64_t millis = 0;
  char line[512];
  char message[384];
  while (written < size) {
    chunk.clear();
    while (chunk.size() < 4 * kMiB) {
      millis += next() % 40;
      const std::uint32_t pick = next();
      std::snprintf(message, sizeof(message), kMessages[(pick >> 8) % 6], next() % 100000, next() % 256,
                    next() % 256, next() % 256, next() % 2000);
      const int length = std::snprintf(line, sizeof(line), "2026-01-%02u %02u:%02u:%02u.%03u %5u %s %-28s: %s\r\n",
                                       static_cast<unsigned>(2 + millis / 86400000 % 27),
                                       static_cast<unsigned>(millis / 3600000 % 24),
                                       static_cast<unsigned>(millis / 60000 % 60),
                                       static_cast<unsigned>(millis / 1000 % 60), static_cast<unsigned>(millis % 1000),
                                       1000 + next() % 24, kSeverities[pick % 6],
                                       (pick >> 16) % 2 ? "ProcessManagerComponent" : "FreeSpaceWatcher", message);
      chunk.append(line, static_cast<std::size_t>(length));
    }
    const std::uint64_t take = std::min<std::uint64_t>(chunk.size(), size - written);
    sink(chunk.data(), take);
    written += take;
  }
}

void WriteLogFile(const std::filesystem::path& path, std::uint64_t size, std::uint32_t salt) {
  std::ofstream stream(path, std::ios::binary | std::ios::trunc);
  GenerateLog(size, salt, [&](const char* data, std::uint64_t length) {
    stream.write(data, static_cast<std::streamsize>(length));
  });
}

// Raw deflate with the zip writer's settings (default level, 15-bit window,
// memory level 8), fed the same chunks as the files hold and timed around
// the deflate calls only.
struct DeflateFigures {
  double seconds = 0;
  double cpuSeconds = 0;
  std::uint64_t compressed = 0;
};

void DeflateStreamed(std::uint64_t size, std::uint32_t salt, DeflateFigures& figures) {
  z_stream stream{};
  deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
  std::vector<unsigned char> output(1 << 20);
  auto run = [&](const char* data, std::uint64_t length, int flush) {
    const auto start = Clock::now();
    const double cpuStart = ThreadCpuSeconds();
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data));
    stream.avail_in = static_cast<uInt>(length);
    do {
      stream.next_out = output.data();
      stream.avail_out = static_cast<uInt>(output.size());
      deflate(&stream, flush);
    } while (stream.avail_out == 0);
    figures.cpuSeconds += ThreadCpuSeconds() - cpuStart;
    figures.seconds += Seconds(start);
  };
  GenerateLog(size, salt, [&](const char* data, std::uint64_t length) { run(data, length, Z_NO_FLUSH); });
  run(nullptr, 0, Z_FINISH);
  figures.compressed += stream.total_out;
  deflateEnd(&stream);
}

PROCESS_MEMORY_COUNTERS Memory() {
  PROCESS_MEMORY_COUNTERS counters{};
  counters.cb = sizeof(counters);
  ::GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof(counters));
  return counters;
}

}  // namespace

int main() {
  wchar_t temp[MAX_PATH];
  const DWORD length = ::GetTempPathW(MAX_PATH, temp);
  const std::filesystem::path folder = std::filesystem::path(std::wstring(temp, length)) / L"wd64-packer-bench";
  std::filesystem::remove_all(folder);
  std::filesystem::create_directories(folder);

  std::uint64_t total = 0;
  std::uint64_t largest = 0;
  auto start = Clock::now();
  std::uint32_t salt = 12345;
  int index = 0;
  for (const std::uint64_t sizeMiB : kFileSizesMiB) {
    const std::uint64_t size = sizeMiB * kMiB;
    WriteLogFile(folder / (L"service" + std::to_wstring(index++) + L".log"), size, salt += 7919);
    total += size;
    largest = std::max(largest, size);
  }
  std::printf("generated %d files, %.0f MiB, largest %.0f MiB, in %.1f s\n", index, total / double(kMiB),
              largest / double(kMiB), Seconds(start));

  // The packer first, from a working set that holds no file yet.
  const PROCESS_MEMORY_COUNTERS before = Memory();
  NodePtr node;
  const std::int64_t hours = 24, megabytes = 1;
  node.SetAttribute(L"MaxLogFileAgeInHours", VHN_TYPE_INT64, &hours, sizeof(hours));
  node.SetAttribute(L"MaxLogFileSizeInMegabytes", VHN_TYPE_INT64, &megabytes, sizeof(megabytes));
  node.SetAttribute(L"LogsDirectoryPath", folder.wstring());
  node.SetAttribute(L"LogFileMask", std::wstring(L"*.log"));
  Kestrel::CLogPackerConfiguration packer;
  packer.Configure(node.Get());

  // The process peak also holds the generation above; a sampler sees the
  // run's own peak.
  std::atomic<bool> packing{true};
  std::size_t runPeak = before.WorkingSetSize;
  std::thread sampler([&] {
    while (packing) {
      runPeak = std::max(runPeak, static_cast<std::size_t>(Memory().WorkingSetSize));
      ::Sleep(5);
    }
  });
  start = Clock::now();
  const double cpuStart = ThreadCpuSeconds();
  const std::wstring archive = packer.PackLogs().archivePath;
  const double packSeconds = Seconds(start);
  const double packCpu = ThreadCpuSeconds() - cpuStart;
  packing = false;
  sampler.join();
  const PROCESS_MEMORY_COUNTERS after = Memory();
  const std::uint64_t archiveSize = std::filesystem::file_size(archive);

  // zlib alone: the same bytes, made again chunk by chunk.
  DeflateFigures zlib;
  std::uint32_t again = 12345;
  for (const std::uint64_t sizeMiB : kFileSizesMiB) DeflateStreamed(sizeMiB * kMiB, again += 7919, zlib);
  const double zlibSeconds = zlib.seconds, zlibCpu = zlib.cpuSeconds;
  const std::uint64_t zlibCompressed = zlib.compressed;

  const double mib = total / double(kMiB);
  std::printf("                          wall MiB/s   CPU MiB/s   (wall s / CPU s)\n");
  std::printf("zlib deflate, streamed : %10.1f  %10.1f   (%.1f / %.1f)  %.0f MiB -> %.1f MiB, %.1f:1\n",
              mib / zlibSeconds, mib / zlibCpu, zlibSeconds, zlibCpu, mib, zlibCompressed / double(kMiB),
              total / double(zlibCompressed));
  std::printf("log packer, files->zip : %10.1f  %10.1f   (%.1f / %.1f)  %zu files, archive %.1f MiB\n",
              mib / packSeconds, mib / packCpu, packSeconds, packCpu, std::size(kFileSizesMiB),
              archiveSize / double(kMiB));
  std::printf("packer / zlib          : %10.2f  %10.2f\n", zlibSeconds / packSeconds, zlibCpu / packCpu);
  const double baseline = static_cast<double>(before.WorkingSetSize);
  const double peakAbove = static_cast<double>(std::max(runPeak, after.WorkingSetSize)) - baseline;
  std::printf("working set before run : %7.1f MiB, sampled peak during the run %.1f MiB (process peak %.1f MiB)\n",
              baseline / kMiB, runPeak / double(kMiB), after.PeakWorkingSetSize / double(kMiB));
  std::printf("peak above baseline    : %7.1f MiB = %.2f x the largest file (%.0f MiB)\n", peakAbove / kMiB,
              peakAbove / largest, largest / double(kMiB));

  std::filesystem::remove_all(folder);
  return 0;
}
