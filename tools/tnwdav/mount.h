/* Windows' own client of WebDAV, which gives the drive a letter. */
#ifndef TNWDAV_MOUNT_H
#define TNWDAV_MOUNT_H

#include <string>

namespace tnwdav {

/* A drive letter of Windows that leads to the address; the destructor takes it away. */
class Mount {
 public:
  /* `letter`: "X:". Throws a tools::Failure. */
  Mount(const std::string& letter, const std::string& address, const std::string& user,
        const std::string& password);
  ~Mount();
  Mount(const Mount&) = delete;
  Mount& operator=(const Mount&) = delete;

 private:
  const std::wstring letter_;
};

}  // namespace tnwdav

#endif
