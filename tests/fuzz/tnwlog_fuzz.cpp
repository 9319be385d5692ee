/* A log's lines, for tnwlog. What it makes of a line to be shared can be read like the line. */
#include "fuzz.h"
#include "redactor.h"
#include "report.h"

using namespace tnwlog;

namespace {

void redact(Redactor* redactor, const std::string& line) {
  const std::optional<std::string> copy = redactor->redact(line);
  if (copy.has_value() && copy->find('\n') == std::string::npos) {
    require(Redactor().redact(*copy).has_value());
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view rest = text_of(data, size);
  Trace trace;
  Redactor redactor;
  while (!rest.empty()) {
    const std::string line = take_line(&rest);
    trace.add(line);
    redact(&redactor, line);
  }
  Report report(3);
  for (const Request& request : trace.take_all()) {
    require(request_text(request).ends_with('\n') && request_json(request).ends_with('\n'));
    report.add(request);
  }
  for (const std::string& text : {table_text(report, trace), table_json(report, trace),
                                  slowest_text(report, trace), slowest_json(report, trace)}) {
    require(text.ends_with('\n'));
  }
  return 0;
}
