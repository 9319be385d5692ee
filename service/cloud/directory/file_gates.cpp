#include "cloud/directory/file_gates.h"

#include "wide_text.h"

namespace tarnd {

FileGates::Gate FileGates::of(const std::string& path) {
  std::wstring key;
  wide_from_utf8(path, &key);
  CharUpperBuffW(key.data(), static_cast<DWORD>(key.size()));
  const std::lock_guard guard(lock_);
  Gate gate = gates_[key].lock();
  if (gate == nullptr) {
    std::erase_if(gates_, [](const auto& item) { return item.second.expired(); });
    gate = std::make_shared<FileGate>();
    gates_[key] = gate;
  }
  return gate;
}

}  // namespace tarnd
