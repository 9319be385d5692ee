#include "files/sent_content.h"

#include <algorithm>

#include "sha256.h"

namespace tarnd {
namespace {

constexpr uint64_t READ_AT_ONCE = uint64_t{1} << 20;

std::string text_of(const Sha256::Digest& digest) {
  constexpr const char* DIGITS = "0123456789abcdef";
  std::string text;
  for (const uint8_t byte : digest) {
    text += {DIGITS[byte / 16], DIGITS[byte % 16]};
  }
  return text;
}

}  // namespace

int describe_sent(Snapshot& content, SentContent* sent) {
  Sha256 hash;
  std::vector<char> buffer(READ_AT_ONCE);
  *sent = {content.size(), content.held(), ""};
  for (const ByteRange& range : sent->held) {
    for (uint64_t offset = range.offset; offset < range.end();) {
      const size_t size = static_cast<size_t>(std::min(READ_AT_ONCE, range.end() - offset));
      if (const int err = content.read(offset, buffer.data(), size)) {
        return err;
      }
      hash.add(buffer.data(), size);
      offset += size;
    }
  }
  sent->digest = text_of(hash.digest());
  return 0;
}

CloudResult is_sent_content(Cloud& cloud, const CloudContext& context, const CloudEntry& entry,
                            const SentContent& sent, bool* is_same) {
  *is_same = false;
  if (entry.folder || entry.size != sent.size) {
    return {};
  }
  Sha256 hash;
  const auto add = [&](const char* data, size_t size) {
    hash.add(data, size);
    return 0;
  };
  for (const ByteRange& range : sent.held) {
    const CloudResult result = cloud.read(context, entry.path, entry.version, range, add);
    if (!result.ok()) {
      return result;
    }
  }
  *is_same = text_of(hash.digest()) == sent.digest;
  return {};
}

}  // namespace tarnd
