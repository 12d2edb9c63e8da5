#include "runner/PackRun.h"

#include "config/Config.h"
#include "module/Nodes.h"
#include "rules/Paths.h"

namespace Host {

namespace {

// The result of a PackLogs request that asked for a report.
PackRunResult ReadPackReport(HRESULT hr, const Node& response) {
  PackRunResult run;
  run.finished = std::chrono::system_clock::now();
  run.hr = hr;
  if (FAILED(hr) || !response) return run;
  run.archive = response.GetString(L"ArchivePath").value_or(L"");
  const auto archives = response.GetInteger(L"Archives"), archivesBytes = response.GetInteger(L"ArchivesBytes");
  if (archives && archivesBytes) {
    run.archives = static_cast<std::uint64_t>(*archives);
    run.archivesBytes = static_cast<std::uint64_t>(*archivesBytes);
  }
  for (std::uint32_t i = 0, count = response.ChildCount(); i < count; ++i) {
    const Node child = response.Child(i);
    const std::wstring type = child.Type();
    if (type == L"PackedFile") {
      ++run.files;
      run.bytes += static_cast<std::uint64_t>(child.GetInteger(L"Bytes").value_or(0));
    } else if (type == L"SkippedFile") {
      ++run.skipped;
    } else if (type == L"DeletedArchive") {
      ++run.deletedArchives;
    }
  }
  return run;
}

}  // namespace

PackTarget PackTargetOf(const Config& config) {
  PackTarget target;
  if (!config.packer) return target;
  const Section& settings = config.packer->settings;
  if (const Value* value = settings.Find(L"LogsDirectoryPath")) target.folder = Kestrel::Rules::ExpandEnvironment(value->text);
  if (const Value* value = settings.Find(L"LogFileMask")) target.mask = Kestrel::Rules::ExpandEnvironment(value->text);
  return target;
}

std::wstring DescribePackRun(const PackRunResult& run) {
  std::wstring text;
  if (run.archive.empty()) {
    text = L"nothing to pack";
  } else {
    text = L"packed " + std::to_wstring(run.files) + (run.files == 1 ? L" file, " : L" files, ") +
           std::to_wstring(run.bytes) + L" bytes into " + run.archive.substr(run.archive.find_last_of(L'\\') + 1);
  }
  if (run.skipped > 0) {
    text += L"; " + std::to_wstring(run.skipped) + (run.skipped == 1 ? L" file" : L" files") +
            L" due for packing left on disk (in use?)";
  }
  return text;
}

PackRunResult RunPack(IVHRequestProcessor* packer) {
  Node request;
  request.SetName(L"PackLogs");
  request.SetInt32(L"Report", 1);
  HVHNODE response = nullptr;
  const HRESULT hr = packer->ProcessRequest(request.Get(), &response);
  return ReadPackReport(hr, Node(response));
}

}  // namespace Host
