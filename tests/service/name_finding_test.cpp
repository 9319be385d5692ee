/* Names in any case over a cloud that tells cases apart: it answers like one that does not. */
#include "names/name_finding_cloud.h"

#include "cloud_walk.h"
#include "names/name_caching_cloud.h"

using namespace tarnd;

TEST(AnyCase, AnswersLikeACloudThatTakesAllCasesForOne) {
  const auto any_case = [](const std::string& path, std::mt19937& random) {
    std::string out = path;
    std::transform(path.begin(), path.end(), out.begin(),
                   [&](char c) { return random() % 2 == 0 ? toupper(c) : c; });
    return out;
  };
  const auto itself = [](const std::string& name) { return name; };
  NameFindingCloud cloud(std::make_unique<NameCachingCloud>(std::make_unique<MemoryCloud>(),
                                                            std::chrono::hours(1), lower),
                         lower, itself);
  CloudWalk(cloud, {"a1", "b2", "dir", "dir/a1", "dir/b2"}, any_case).walk(5000);
}
