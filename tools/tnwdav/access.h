/* Who may come in: programs of this machine that know the password. */
#ifndef TNWDAV_ACCESS_H
#define TNWDAV_ACCESS_H

#include <cstdint>
#include <string>

#include "exchange.h"

namespace tnwdav {

inline constexpr char USER[] = "drive";

/* Twenty letters and digits, by the system's random numbers. */
std::string random_password();

class Access {
 public:
  /* An empty password: everyone on this machine may come in. */
  Access(uint16_t port, std::string password);

  /*
   * Throws an HttpError for a request that is not for us (another Host: a page of the web may have
   * made a name lead here) or comes from a page of the web (another Origin). False: the answer now
   * asks for the password, and the caller sends it with the status 401.
   */
  bool admit(Exchange& exchange) const;

 private:
  bool is_own_host(std::string_view host) const;
  bool knows_password(const Exchange& exchange) const;
  bool is_basic(std::string_view credentials) const;
  bool is_digest(std::string_view credentials, const Exchange& exchange) const;

  const std::string port_;
  const std::string password_;
  const std::string nonce_; /* for all digests until the end of the program */
};

}  // namespace tnwdav

#endif
