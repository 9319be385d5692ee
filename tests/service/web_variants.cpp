#include <cstdlib>

#include "cloud/cloud_address.h"
#include "cloud_variants.h"

namespace {

/* A new folder of the server whose address the variable has. */
std::shared_ptr<tarnd::Cloud> open_web(const char* variable) {
  static int folders = 0;
  const std::string name = "case" + std::to_string(folders++);
  std::string error;
  tarnd::CloudSettings settings;
  settings.counts = &test_counts;
  const std::string server = getenv(variable);
  auto whole = tarnd::open_cloud(server, settings, &error);
  tarnd::CloudEntry made;
  if (whole == nullptr || !whole->make_folder({}, name, &made).ok()) {
    throw std::runtime_error("no server at " + server + ": " + error);
  }
  return tarnd::open_cloud(server + name + '/', settings, &error);
}

}  // namespace

std::vector<CloudVariant> web_variants() {
  return {{"Rclone", [] { return open_web("TNW_RCLONE"); }, false, CloudVariant::NONE, 80},
          {"Apache", [] { return open_web("TNW_APACHE"); }, false, CloudVariant::GROWING, 80}};
}
