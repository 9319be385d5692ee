/* What digest authentication is made of. Not for secrets that must last. */
#ifndef TNWDAV_MD5_H
#define TNWDAV_MD5_H

#include <string>

namespace tnwdav {

/* 32 hexadecimal digits. */
std::string md5_text(std::string text);

}  // namespace tnwdav

#endif
