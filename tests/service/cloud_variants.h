/* The clouds that all keep the same contract (cloud_contract_test.cpp). */
#ifndef CLOUD_VARIANTS_H
#define CLOUD_VARIANTS_H

#include <memory>
#include <stdexcept>
#include <vector>

#include "cloud/cloud_retry.h"
#include "cloud/fault/fault_cloud.h"

struct CloudVariant {
  const char* name;
  std::shared_ptr<tarnd::Cloud> (*open)(); /* an empty one */
  /*
   * Its answers get lost: then nobody knows whether this call deleted what is gone now, and a
   * delete of what was never there may be OK.
   */
  bool loses_answers = false;
  /* What a patch can do: nothing, change and add bytes, or cut as well. */
  enum Patches { NONE, GROWING, ALL } patches = ALL;
  int model_steps = 300; /* fewer where each takes long */
};

/* Those of this platform; defined beside each test program's main source. */
std::vector<CloudVariant> cloud_variants();

/* The servers that web_servers has started. */
std::vector<CloudVariant> web_variants();

inline tarnd::CloudCounts test_counts;

/* What a caller sees of a cloud that fails as the script says. */
inline std::unique_ptr<tarnd::Cloud> with_faults(std::unique_ptr<tarnd::Cloud> below,
                                                 const std::string& script,
                                                 tarnd::CloudCounts* counts = &test_counts,
                                                 unsigned tries = 100) {
  std::string error;
  auto faulty = tarnd::FaultCloud::open(std::move(below), script, &error);
  if (faulty == nullptr) {
    throw std::runtime_error(error);
  }
  using std::chrono::milliseconds;
  return std::make_unique<tarnd::RetryingCloud>(
      std::move(faulty), counts, tarnd::RetryPolicy{tries, milliseconds(1), milliseconds(2)});
}

/* All that a wrapper can mend. */
inline constexpr const char* PASSING_FAULTS =
    "busy all 0.1 1; error all 0.1; lost all 0.1; short read 0.2; offline all 0.02 5";

#endif
