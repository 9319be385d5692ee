/*
 * The test of a whole region map, against a comparison of as many bytes.
 */
#include <cstring>

#include "parts.h"
#include "vfstnw_bits.h"

void regions_rows(Bench& bench) {
  constexpr int SHIFT = 20;
  constexpr ox_u64 LENGTH = ox_u64{1} << 40;
  const std::vector<ox_u8> map((LENGTH >> SHIFT) / 8, 0xff), all_set(map);
  bench.pair(
      "region test, 1 TiB of 1 MiB regions",
      [&](benchmark::State& state) {
        for (auto _ : state) {
          if (!vfstnw_is_region_set(map.data(), SHIFT, 0, LENGTH)) {
            state.SkipWithError("a region is missing");
            break;
          }
        }
      },
      [&](benchmark::State& state) {
        for (auto _ : state) {
          benchmark::DoNotOptimize(memcmp(map.data(), all_set.data(), map.size()));
          benchmark::ClobberMemory();
        }
      });
}
