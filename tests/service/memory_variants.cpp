#include "cloud_variants.h"
#include "memory_cloud.h"

std::vector<CloudVariant> cloud_variants() {
  return {
      {"Memory", []() -> std::shared_ptr<tarnd::Cloud> { return std::make_shared<MemoryCloud>(); }},
      {"FaultsAndMemory",
       []() -> std::shared_ptr<tarnd::Cloud> {
         return with_faults(std::make_unique<MemoryCloud>(), PASSING_FAULTS);
       },
       true}};
}
