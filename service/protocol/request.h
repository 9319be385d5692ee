/* A request as it arrived, and the answer that grows for it. */
#ifndef SERVICE_REQUEST_H
#define SERVICE_REQUEST_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "cloud/cloud.h"
#include "tnv_proto.h"

namespace tarnd {

/* The longest request: two paths of 32767 UTF-16 units in UTF-8, and some room. */
inline constexpr size_t MAX_REQUEST = TNV_MSG_FIXED + 256 * 1024;

/*
 * A request in the memory into which it is received: its header first, and once there is room for
 * it, the rest. From then on it has hdr_len bytes, between TNV_MSG_FIXED and MAX_REQUEST.
 */
class Request {
 public:
  explicit Request(std::vector<uint64_t>* storage) : storage_(storage) {}

  /* Forgets an earlier request: the fixed part is zero. */
  void clear();
  /* Makes room for all that the header tells of. False when no request has this length. */
  bool make_room();

  tnv_msg* msg() const { return reinterpret_cast<tnv_msg*>(storage_->data()); }
  const tnv_msg& operator*() const { return *msg(); }
  const tnv_msg* operator->() const { return msg(); }
  /* What follows the header. */
  char* rest() const { return reinterpret_cast<char*>(msg()) + sizeof(tnv_msghdr); }
  size_t rest_size() const { return msg()->hdr.hdr_len - sizeof(tnv_msghdr); }

  /*
   * The trailing texts, whose lengths without their NULs are given: each must end where it says,
   * hold no NUL, and all must fill the request. Otherwise false.
   */
  bool texts(std::initializer_list<int64_t> lengths, std::vector<std::string>* texts) const;
  /* The same for one text. */
  bool text(int64_t length, std::string* text) const;

  /* Whether it brings a token or a password, which no log may show. */
  bool has_secret() const;
  /* Overwrites that, once it has been read. */
  void wipe_secret() const;

 private:
  std::vector<uint64_t>* storage_; /* aligned as the records are */
};

struct Reply {
  tnv_resp resp = {};
  std::vector<uint8_t> bulk; /* follows the response */
  /*
   * They follow, too, in this order. Their records take much more room, so they are made while they
   * are sent.
   */
  std::vector<CloudEntry> listing;
  std::vector<const CloudEntry*> order;
  std::string target; /* the file that it is about, for the trace */
};

}  // namespace tarnd

#endif
