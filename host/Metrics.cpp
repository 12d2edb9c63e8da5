#include "Metrics.h"

#include "Config.h"
#include "ModuleHost.h"

namespace Host {

struct MetricsWriter::State {
  std::wstring path;
};

MetricsWriter::MetricsWriter(std::wstring path, const Config&, ModuleHost&) : m_state(std::make_unique<State>()) {
  m_state->path = std::move(path);
}

MetricsWriter::~MetricsWriter() = default;

const std::wstring& MetricsWriter::Path() const noexcept { return m_state->path; }

void MetricsWriter::RecordPackRun(const PackRunResult&) {}

bool MetricsWriter::Write(std::wstring*) { return true; }

}  // namespace Host
