#include "Requests.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "Config.h"
#include "ModuleHost.h"
#include "Nodes.h"

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

// Builds the request node from KEY=VALUE arguments. "DirectoryPaths" takes a
// ';'-separated list; "Service" (repeatable) adds one "ServiceInfo" child,
// written NAME or NAME|DISPLAY NAME. Any other key is a string attribute.
Node BuildRequest(const RequestOptions& options) {
  Node request;
  request.SetName(options.name);
  for (const std::wstring& argument : options.arguments) {
    const auto equals = argument.find(L'=');
    if (equals == std::wstring::npos || equals == 0) {
      throw ConfigError(L"command line", argument, L"expected KEY=VALUE");
    }
    const std::wstring key = argument.substr(0, equals);
    const std::wstring value = argument.substr(equals + 1);
    if (key == L"DirectoryPaths") {
      // One string whose items each end in a zero.
      std::wstring raw;
      for (const std::wstring& path : Split(value, L';')) {
        raw += path;
        raw.push_back(L'\0');
      }
      request.SetString(key.c_str(), raw);
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
  return request;
}

std::wstring CellText(const Node& item, const wchar_t* column) {
  if (auto text = item.GetString(column)) return *text;
  if (auto number = item.GetInteger(column)) return std::to_wstring(*number);
  return L"";
}

void PrintTable(const std::vector<std::wstring>& header, const std::vector<std::vector<std::wstring>>& rows) {
  std::vector<std::size_t> widths(header.size());
  for (std::size_t c = 0; c < header.size(); ++c) widths[c] = header[c].size();
  for (const auto& row : rows) {
    for (std::size_t c = 0; c < row.size(); ++c) widths[c] = std::max(widths[c], row[c].size());
  }
  auto printRow = [&](const std::vector<std::wstring>& row) {
    std::wstring line;
    for (std::size_t c = 0; c < row.size(); ++c) {
      std::wstring cell = row[c];
      if (c + 1 < row.size()) cell.resize(widths[c] + 2, L' ');
      line += cell;
    }
    std::printf("%s\n", Narrow(line).c_str());
  };
  printRow(header);
  std::vector<std::wstring> rule;
  for (std::size_t width : widths) rule.push_back(std::wstring(width, L'-'));
  printRow(rule);
  for (const auto& row : rows) printRow(row);
}

int PrintItems(const RequestKind& kind, const Node& response, bool json) {
  std::vector<std::wstring> header{L"Node"};
  for (const wchar_t* column : kind.columns) header.push_back(column);
  std::vector<std::vector<std::wstring>> rows;
  nlohmann::json items = nlohmann::json::array();
  const std::uint32_t count = response ? response.ChildCount() : 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    const Node item = response.Child(i);
    std::vector<std::wstring> row{item.Name()};
    nlohmann::json object{{"name", Narrow(item.Name())}, {"type", Narrow(item.Type())}};
    for (const wchar_t* column : kind.columns) {
      row.push_back(CellText(item, column));
      if (auto number = item.GetInteger(column)) {
        object[Narrow(column)] = *number;
      } else {
        object[Narrow(column)] = Narrow(CellText(item, column));
      }
    }
    rows.push_back(std::move(row));
    items.push_back(std::move(object));
  }
  if (json) {
    nlohmann::json out{{"request", Narrow(kind.name)}, {"items", items}};
    std::printf("%s\n", out.dump(2).c_str());
  } else {
    PrintTable(header, rows);
    std::printf("%u item(s)\n", count);
  }
  return 0;
}

int PrintFreeSpace(const RequestOptions& options, const Node& response, bool json) {
  std::vector<std::wstring> paths;
  for (const std::wstring& argument : options.arguments) {
    if (argument.rfind(L"DirectoryPaths=", 0) == 0) paths = Split(argument.substr(15), L';');
  }
  const std::vector<std::int64_t> values = response ? response.GetInt64Array(L"FreeSpace").value_or(
                                                           std::vector<std::int64_t>{})
                                                     : std::vector<std::int64_t>{};
  nlohmann::json items = nlohmann::json::array();
  std::vector<std::vector<std::wstring>> rows;
  for (std::size_t i = 0; i < values.size(); ++i) {
    const std::wstring path = i < paths.size() ? paths[i] : L"";
    rows.push_back({path, std::to_wstring(values[i]), std::to_wstring(values[i] >> 20)});
    items.push_back({{"path", Narrow(path)}, {"freeBytes", values[i]}});
  }
  if (json) {
    std::printf("%s\n", nlohmann::json{{"request", "QueryFreeSpace"}, {"FreeSpace", items}}.dump(2).c_str());
  } else {
    PrintTable({L"Path", L"FreeBytes", L"FreeMB"}, rows);
  }
  return 0;
}

}  // namespace

std::wstring KnownRequestNames() {
  std::wstring names;
  for (const RequestKind& kind : kRequests) names += (names.empty() ? L"" : L", ") + std::wstring(kind.name);
  return names;
}

int RunRequest(ModuleHost& host, const Config& config, const RequestOptions& options) {
  const RequestKind* kind = nullptr;
  for (const RequestKind& candidate : kRequests) {
    if (options.name == candidate.name) kind = &candidate;
  }
  if (kind == nullptr) {
    std::fprintf(stderr, "unknown request '%s'; known: %s\n", Narrow(options.name).c_str(),
                 Narrow(KnownRequestNames()).c_str());
    return 2;
  }
  const Node request = BuildRequest(options);
  ComponentRef<IVHRequestProcessor> processor;
  ComponentRef<IVHConfigurable> packer;
  switch (kind->target) {
    case Target::DiskManager:
      processor = host.Create<IVHRequestProcessor>(WatchDog64::CLSID_DiskManager, L"disk manager");
      break;
    case Target::ProcessManager:
      processor = host.Create<IVHRequestProcessor>(WatchDog64::CLSID_ProcessManager, L"process manager");
      break;
    case Target::LogPacker:
      packer = host.Create<IVHConfigurable>(WatchDog64::CLSID_LogPacker, L"log packer");
      if (config.packer) {
        const Node settings = config.PackerNode();
        Check(packer->Configure(settings.Get()), L"configuring the log packer");
      }
      processor = packer.As<IVHRequestProcessor>();
      break;
  }
  HVHNODE raw = nullptr;
  Check(processor->ProcessRequest(request.Get(), &raw), options.name);
  const Node response(raw);
  if (!kind->columns.empty()) return PrintItems(*kind, response, options.json);
  if (options.name == L"QueryFreeSpace") return PrintFreeSpace(options, response, options.json);
  if (options.json) {
    std::printf("%s\n", nlohmann::json{{"request", Narrow(options.name)}, {"result", "ok"}}.dump(2).c_str());
  } else {
    std::printf("%s: ok\n", Narrow(options.name).c_str());
  }
  return 0;
}

}  // namespace Host
