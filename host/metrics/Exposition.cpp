#include "metrics/Exposition.h"

#include <windows.h>

#include <chrono>
#include <cstdio>

#include "metrics/Metrics.h"
#include "text/Text.h"

namespace Host {

namespace {

double UnixSeconds(std::chrono::system_clock::time_point time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

std::string Seconds(double value) {
  char text[64];
  std::snprintf(text, sizeof text, "%.3f", value);
  return text;
}

// One file's text, family by family, with HELP and TYPE before the samples.
class Exposition {
 public:
  void Family(const char* name, const char* type, const char* help) {
    m_text += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
  }
  using Labels = std::vector<std::pair<const char*, std::wstring>>;
  void Sample(const char* name, const Labels& labels, const std::string& value) {
    m_text += name;
    if (!labels.empty()) {
      m_text += '{';
      for (std::size_t i = 0; i < labels.size(); ++i) {
        if (i > 0) m_text += ',';
        m_text += std::string(labels[i].first) + "=\"" + EscapeLabelValue(labels[i].second) + "\"";
      }
      m_text += '}';
    }
    m_text += " " + value + "\n";
  }
  void Sample(const char* name, const Labels& labels, std::uint64_t value) {
    Sample(name, labels, std::to_string(value));
  }
  const std::string& Text() const noexcept { return m_text; }

 private:
  std::string m_text;
};

}  // namespace

std::string EscapeLabelValue(const std::wstring& value) {
  std::string escaped;
  for (char c : Narrow(value)) {
    switch (c) {
      case '\\':
        escaped += "\\\\";
        break;
      case '"':
        escaped += "\\\"";
        break;
      case '\n':
        escaped += "\\n";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

namespace Detail {

std::string RenderMetrics(const std::vector<GroupSample>& groups, const PackTotals& totals, double startTime,
                          const std::string& version) {
  Exposition out;
  out.Family("wd64_free_bytes", "gauge",
             "Free bytes of the volume of a watched path; no sample when it cannot be read.");
  for (const GroupSample& group : groups) {
    for (const PathSample& path : group.paths) {
      if (path.freeBytes) out.Sample("wd64_free_bytes", {{"group", group.label}, {"path", path.path}}, *path.freeBytes);
    }
  }
  out.Family("wd64_path_readable", "gauge", "1 when the free space of a watched path could be read, else 0.");
  for (const GroupSample& group : groups) {
    for (const PathSample& path : group.paths) {
      out.Sample("wd64_path_readable", {{"group", group.label}, {"path", path.path}}, path.freeBytes ? 1u : 0u);
    }
  }
  out.Family("wd64_bound_bytes", "gauge", "Free-space bounds of a watch group in bytes.");
  for (const GroupSample& group : groups) {
    const std::pair<const wchar_t*, std::int64_t> bounds[] = {
        {L"recommended", group.bounds.recommendedBytes},
        {L"warning", group.bounds.warningBytes},
        {L"stop", group.bounds.stopBytes}};
    for (const auto& [name, bytes] : bounds) {
      out.Sample("wd64_bound_bytes", {{"group", group.label}, {"bound", name}}, std::to_string(bytes));
    }
  }
  out.Family("wd64_group_level", "gauge",
             "Worst readable path of a watch group: 0 normal, 1 below the recommended minimum, 2 below the warning "
             "bound, 3 below the stop bound.");
  for (const GroupSample& group : groups) {
    std::vector<std::optional<std::uint64_t>> free;
    for (const PathSample& path : group.paths) free.push_back(path.freeBytes);
    out.Sample("wd64_group_level", {{"group", group.label}},
               static_cast<std::uint64_t>(GroupLevel(free, group.bounds)));
  }
  out.Family("wd64_group_services_stopped", "gauge",
             "1 while the watcher holds the services it stopped for a watch group, else 0; no sample without a "
             "running watcher.");
  for (const GroupSample& group : groups) {
    if (group.servicesStopped)
      out.Sample("wd64_group_services_stopped", {{"group", group.label}}, *group.servicesStopped ? 1u : 0u);
  }
  out.Family("wd64_group_recoveries_total", "counter",
             "Recovery events the watcher sent for a watch group since it was configured.");
  for (const GroupSample& group : groups) {
    if (group.recoveries)
      out.Sample("wd64_group_recoveries_total", {{"group", group.label}}, static_cast<std::uint64_t>(*group.recoveries));
  }
  out.Family("wd64_service_up", "gauge", "1 when a configured service is running, else 0.");
  for (const GroupSample& group : groups) {
    if (!group.servicesKnown) continue;
    for (const ServiceSample& service : group.services) {
      out.Sample("wd64_service_up", {{"group", group.label}, {"service", service.name}}, service.running ? 1u : 0u);
    }
  }
  out.Family("wd64_service_exists", "gauge", "0 when the service manager does not know a configured service name.");
  for (const GroupSample& group : groups) {
    if (!group.servicesKnown) continue;
    for (const ServiceSample& service : group.services) {
      out.Sample("wd64_service_exists", {{"group", group.label}, {"service", service.name}}, service.exists ? 1u : 0u);
    }
  }
  out.Family("wd64_logpacker_runs_total", "counter", "Pack runs since the host started.");
  out.Sample("wd64_logpacker_runs_total", {}, totals.runs);
  out.Family("wd64_logpacker_failures_total", "counter", "Pack runs that failed since the host started.");
  out.Sample("wd64_logpacker_failures_total", {}, totals.failures);
  out.Family("wd64_logpacker_files_packed_total", "counter", "Log files packed and deleted since the host started.");
  out.Sample("wd64_logpacker_files_packed_total", {}, totals.files);
  out.Family("wd64_logpacker_bytes_packed_total", "counter", "Bytes of the packed log files before packing.");
  out.Sample("wd64_logpacker_bytes_packed_total", {}, totals.bytes);
  out.Family("wd64_logpacker_files_skipped_total", "counter",
             "Selected log files left on disk for a later run since the host started.");
  out.Sample("wd64_logpacker_files_skipped_total", {}, totals.skipped);
  out.Family("wd64_logpacker_archives", "gauge",
             "The packer's archives in the logs folder as of the last pack run; no sample before the first.");
  if (totals.archives) out.Sample("wd64_logpacker_archives", {}, *totals.archives);
  out.Family("wd64_logpacker_archive_bytes", "gauge",
             "Bytes of the packer's archives in the logs folder as of the last pack run; no sample before the first.");
  if (totals.archivesBytes) out.Sample("wd64_logpacker_archive_bytes", {}, *totals.archivesBytes);
  out.Family("wd64_logpacker_archives_deleted_total", "counter",
             "Archives the retention limits deleted since the host started.");
  out.Sample("wd64_logpacker_archives_deleted_total", {}, totals.deletedArchives);
  out.Family("wd64_logpacker_last_run_timestamp_seconds", "gauge",
             "When the last pack run finished, in Unix seconds; no sample before the first run.");
  if (totals.last)
    out.Sample("wd64_logpacker_last_run_timestamp_seconds", {}, Seconds(UnixSeconds(totals.last->finished)));
  out.Family("wd64_logpacker_last_run_success", "gauge",
             "1 when the last pack run succeeded, 0 when it failed; no sample before the first run.");
  if (totals.last) out.Sample("wd64_logpacker_last_run_success", {}, SUCCEEDED(totals.last->hr) ? 1u : 0u);
  out.Family("wd64_host_start_time_seconds", "gauge", "When the host process started, in Unix seconds.");
  out.Sample("wd64_host_start_time_seconds", {}, Seconds(startTime));
  // Last on purpose: a file that ends in this line is whole.
  out.Family("wd64_build_info", "gauge", "Always 1; the version label is the module's product version.");
  out.Sample("wd64_build_info", {{"version", Widen(version)}}, 1u);
  return out.Text();
}

}  // namespace Detail

}  // namespace Host
