#include "requests/Requests.h"

#include <algorithm>
#include <cstdio>

#include "config/Config.h"
#include "module/ModuleHost.h"
#include "module/Nodes.h"
#include "runner/PackRun.h"

namespace Host {

namespace {

enum class Target { DiskManager, ProcessManager, LogPacker };

struct RequestKind {
  const wchar_t* name;
  Target target;
  std::vector<const wchar_t*> columns;  // attributes of each item in the response
};

const RequestKind kRequests[] = {
    {L"ListDisks", Target::DiskManager, {L"Path", L"NtPath"}},
    {L"QueryFreeSpace", Target::DiskManager, {}},
    {L"ListProcesses", Target::ProcessManager, {L"Id", L"ExecutablePath"}},
    {L"ListServices", Target::ProcessManager, {L"Name", L"PrettyName"}},
    {L"StartServices", Target::ProcessManager, {}},
    {L"StopServices", Target::ProcessManager, {}},
    {L"RestartServices", Target::ProcessManager, {}},
    {L"PackLogs", Target::LogPacker, {}},
};

std::vector<std::wstring> Split(const std::wstring& text, wchar_t separator) {
  std::vector<std::wstring> pieces;
  std::size_t start = 0;
  for (;;) {
    const auto end = text.find(separator, start);
    pieces.push_back(text.substr(start, end - start));
    if (end == std::wstring::npos) return pieces;
    start = end + 1;
  }
}

// The folders of DirectoryPaths. cmd.exe users who write "...D:\" get the
// closing quote as a character (the runtime reads \" as a quote): such a
// path ends in '"' and means the backslash.
std::vector<std::wstring> DirectoryPaths(const RequestOptions& options) {
  std::vector<std::wstring> paths;
  for (const std::wstring& argument : options.arguments) {
    if (argument.rfind(L"DirectoryPaths=", 0) != 0) continue;
    for (std::wstring path : Split(argument.substr(15), L';')) {
      if (!path.empty() && path.back() == L'"') path.back() = L'\\';
      if (!path.empty()) paths.push_back(path);
    }
  }
  return paths;
}

// Builds the request node from KEY=VALUE arguments. "DirectoryPaths" takes a
// ';'-separated list; "Service" (repeatable) adds one "ServiceInfo" child,
// written NAME or NAME|DISPLAY NAME. Any other key is a string attribute.
Node BuildRequest(const RequestOptions& options) {
  Node request;
  request.SetName(options.name);
  std::wstring raw;
  for (const std::wstring& argument : options.arguments) {
    const auto equals = argument.find(L'=');
    if (equals == std::wstring::npos || equals == 0) {
      throw ConfigError(L"command line", argument, L"expected KEY=VALUE");
    }
    const std::wstring key = argument.substr(0, equals);
    const std::wstring value = argument.substr(equals + 1);
    if (key == L"DirectoryPaths") {
      continue;
    } else if (key == L"Service") {
      const auto bar = value.find(L'|');
      Node service;
      service.SetName(value.substr(0, bar)).SetType(L"ServiceInfo");
      service.SetString(L"Name", value.substr(0, bar));
      service.SetString(L"PrettyName", bar == std::wstring::npos ? std::wstring() : value.substr(bar + 1));
      request.AddChild(service);
    } else {
      request.SetString(key.c_str(), value);
    }
  }
  const std::vector<std::wstring> paths = DirectoryPaths(options);
  if (!paths.empty()) {
    // One string whose items each end in a zero.
    for (const std::wstring& path : paths) {
      raw += path;
      raw.push_back(L'\0');
    }
    request.SetString(L"DirectoryPaths", raw);
  }
  return request;
}

std::string CellText(const nlohmann::ordered_json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_null()) return "";
  return value.dump();
}

void PrintTable(const RequestResult& result) {
  std::vector<std::vector<std::string>> rows;
  std::vector<std::string> header;
  for (const auto& [title, key] : result.columns) header.push_back(title);
  for (const auto& item : result.items) {
    std::vector<std::string> row;
    for (const auto& [title, key] : result.columns) row.push_back(item.contains(key) ? CellText(item[key]) : "");
    rows.push_back(std::move(row));
  }
  std::vector<std::size_t> widths(header.size());
  auto width = [](const std::string& text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
  };
  for (std::size_t c = 0; c < header.size(); ++c) widths[c] = width(header[c]);
  for (const auto& row : rows) {
    for (std::size_t c = 0; c < row.size(); ++c) widths[c] = std::max(widths[c], width(row[c]));
  }
  auto printRow = [&](const std::vector<std::string>& row) {
    std::string line;
    for (std::size_t c = 0; c < row.size(); ++c) {
      line += row[c];
      if (c + 1 < row.size()) line += std::string(widths[c] + 2 - width(row[c]), ' ');
    }
    std::printf("%s\n", line.c_str());
  };
  if (!header.empty()) {
    printRow(header);
    std::vector<std::string> rule;
    for (std::size_t w : widths) rule.push_back(std::string(w, '-'));
    printRow(rule);
    for (const auto& row : rows) printRow(row);
  }
  if (!result.summary.empty()) std::printf("%s\n", result.summary.c_str());
}

void FillItems(const RequestKind& kind, const Node& response, RequestResult& result) {
  result.columns = {{"Node", "node"}};
  for (const wchar_t* column : kind.columns) result.columns.emplace_back(Narrow(column), Narrow(column));
  const std::uint32_t count = response ? response.ChildCount() : 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    const Node item = response.Child(i);
    nlohmann::ordered_json object{{"node", Narrow(item.Name())}, {"type", Narrow(item.Type())}};
    for (const wchar_t* column : kind.columns) {
      if (auto number = item.GetInteger(column)) {
        object[Narrow(column)] = *number;
      } else if (auto text = item.GetString(column)) {
        object[Narrow(column)] = Narrow(*text);
      } else {
        object[Narrow(column)] = nullptr;
      }
    }
    result.items.push_back(std::move(object));
  }
  result.summary = std::to_string(count) + " item(s)";
}

void FillFreeSpace(const RequestOptions& options, const Node& response, RequestResult& result) {
  const std::vector<std::wstring> paths = DirectoryPaths(options);
  const std::vector<std::int64_t> values =
      response ? response.GetInt64Array(L"FreeSpace").value_or(std::vector<std::int64_t>{}) : std::vector<std::int64_t>{};
  result.columns = {{"Path", "path"}, {"FreeBytes", "freeBytes"}, {"FreeMB", "freeMB"}};
  for (std::size_t i = 0; i < values.size(); ++i) {
    result.items.push_back({{"path", Narrow(i < paths.size() ? paths[i] : L"")},
                            {"freeBytes", values[i]},
                            {"freeMB", values[i] >> 20}});
  }
}

}  // namespace

std::wstring KnownRequestNames() {
  std::wstring names;
  for (const RequestKind& kind : kRequests) names += (names.empty() ? L"" : L", ") + std::wstring(kind.name);
  return names;
}

RequestResult FailedRequest(const std::wstring& name, HRESULT hr, const std::wstring& message, int exitCode) {
  RequestResult result;
  result.request = Narrow(name);
  result.ok = false;
  result.hresult = hr;
  result.message = Narrow(message);
  result.exitCode = exitCode;
  return result;
}

RequestResult RunRequest(ModuleHost& host, const Config& config, const RequestOptions& options) {
  const RequestKind* kind = nullptr;
  for (const RequestKind& candidate : kRequests) {
    if (options.name == candidate.name) kind = &candidate;
  }
  if (kind == nullptr) {
    return FailedRequest(options.name, E_INVALIDARG,
                         L"unknown request '" + options.name + L"'; known: " + KnownRequestNames(), 2);
  }
  try {
    if (options.name == L"QueryFreeSpace" && DirectoryPaths(options).empty()) {
      throw ConfigError(L"command line", L"QueryFreeSpace", L"needs DirectoryPaths=FOLDER[;FOLDER...]");
    }
    const Node request = BuildRequest(options);
    ComponentRef<IVHRequestProcessor> processor;
    ComponentRef<IVHConfigurable> packer;
    RequestResult result;
    result.request = Narrow(options.name);
    switch (kind->target) {
      case Target::DiskManager:
        processor = host.Create<IVHRequestProcessor>(WatchDog64::CLSID_DiskManager, L"disk manager");
        break;
      case Target::ProcessManager:
        processor = host.Create<IVHRequestProcessor>(WatchDog64::CLSID_ProcessManager, L"process manager");
        break;
      case Target::LogPacker:
        packer = host.Create<IVHConfigurable>(WatchDog64::CLSID_LogPacker, L"log packer");
        if (!config.packer) {
          throw ConfigError(config.source, L"/logPacker", L"PackLogs needs a logPacker section");
        }
        if (const HRESULT hr = packer->Configure(config.PackerNode().Get()); FAILED(hr)) {
          const HostError error(hr, L"configuring the log packer (" + config.source + L")");
          return FailedRequest(options.name, hr, error.Text(), 2);
        }
        processor = packer.As<IVHRequestProcessor>();
        break;
    }
    if (kind->target == Target::LogPacker) {
      const PackRunResult run = RunPack(processor.Get());
      if (FAILED(run.hr)) {
        const HostError error(run.hr, L"PackLogs in " + PackTargetOf(config).folder);
        return FailedRequest(options.name, run.hr, error.Text(), 1);
      }
      result.columns = {{"Archive", "archive"}, {"Files", "files"}, {"Bytes", "bytes"}, {"Skipped", "skipped"}};
      if (!run.archive.empty()) {
        result.items.push_back({{"archive", Narrow(run.archive)},
                                {"files", run.files},
                                {"bytes", run.bytes},
                                {"skipped", run.skipped}});
      }
      result.summary = Narrow(DescribePackRun(run));
      return result;
    }
    HVHNODE raw = nullptr;
    const HRESULT hr = processor->ProcessRequest(request.Get(), &raw);
    const Node response(raw);
    if (FAILED(hr)) {
      std::wstring what = options.name;
      const std::vector<std::wstring> paths = DirectoryPaths(options);
      for (std::size_t i = 0; i < paths.size(); ++i) what += (i ? L", \"" : L" of \"") + paths[i] + L"\"";
      return FailedRequest(options.name, hr, HostError(hr, what).Text(), 1);
    }
    if (!kind->columns.empty()) {
      FillItems(*kind, response, result);
    } else if (options.name == L"QueryFreeSpace") {
      FillFreeSpace(options, response, result);
    } else {
      result.summary = result.request + ": ok";
    }
    return result;
  } catch (const ConfigError& error) {
    return FailedRequest(options.name, E_INVALIDARG, error.Text(), 2);
  } catch (const HostError& error) {
    return FailedRequest(options.name, error.Code(), error.Text(), 1);
  }
}

int PrintRequest(const RequestResult& result, bool json) {
  if (json) {
    nlohmann::ordered_json out{{"request", result.request}, {"ok", result.ok}};
    if (result.ok) {
      out["items"] = result.items;
    } else {
      out["error"] = {{"hresult", static_cast<std::uint32_t>(result.hresult)}, {"message", result.message}};
    }
    std::printf("%s\n", out.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
  } else if (result.ok) {
    PrintTable(result);
  } else {
    std::fprintf(stderr, "%s\n", result.message.c_str());
  }
  std::fflush(stdout);
  return result.exitCode;
}

}  // namespace Host
