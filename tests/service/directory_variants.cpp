#include "cloud/directory/directory_cloud.h"
#include "cloud_variants.h"
#include "test_folder.h"

namespace {

/* Its folder goes with it. */
class TemporaryCloud {
 public:
  std::unique_ptr<tarnd::Cloud> open() {
    std::string error;
    auto cloud = tarnd::DirectoryCloud::open(folder_.path().generic_string(), &error);
    return cloud != nullptr ? std::move(cloud) : throw std::runtime_error(error);
  }

 private:
  TestFolder folder_;
};

/* Open after what it stands on, and gone before. */
struct Opened {
  TemporaryCloud folder;
  std::unique_ptr<tarnd::Cloud> cloud;
};

std::shared_ptr<tarnd::Cloud> open_directory(const char* faults) {
  auto opened = std::make_shared<Opened>();
  opened->cloud = opened->folder.open();
  if (faults != nullptr) {
    opened->cloud = with_faults(std::move(opened->cloud), faults);
  }
  return {opened, opened->cloud.get()};
}

}  // namespace

std::vector<CloudVariant> cloud_variants() {
  std::vector<CloudVariant> all = web_variants();
  all.push_back({"Directory", [] { return open_directory(nullptr); }});
  all.push_back({"FaultsAndDirectory", [] { return open_directory(PASSING_FAULTS); }, true});
  return all;
}
