/* What the commands' operations may answer: for their failures, and for the end of their help. */
#ifndef TNWSH_ANSWERS_H
#define TNWSH_ANSWERS_H

#include "failure.h"

namespace tnwsh {

/* Of every operation on the drive; an operation's own meaning of a code goes before. */
inline constexpr Answer DRIVE_ANSWERS[] = {{UNAUTHORISED, nullptr}, {CONNECTION_BROKEN, nullptr}};
/* Of every operation on a path. */
inline constexpr Answer PATH_ANSWERS[] = {
    {2, "there is no such file or folder"},
    {5, "the path leads out of the drive's folder, or the cloud denies access"},
    {13, nullptr},
};

inline constexpr Answer LIST_ANSWERS[] = {{267, nullptr}};
inline constexpr Answer READ_ANSWERS[] = {
    {30, "a part of the file could not be fetched from the cloud"},
    {32, nullptr},
    {1117, nullptr},
};
inline constexpr Answer WRITE_ANSWERS[] = {
    {5, "the file is read-only, or is a folder, or the path leads out of the drive's folder"},
    {32, nullptr},
    {112, nullptr},
    {1117, nullptr},
};
inline constexpr Answer RENAME_ANSWERS[] = {
    {2, "there is no such file or folder, or no folder to put it into"},
    {13, "the service refuses a path, or a folder would go below itself"},
    {32, "it is open elsewhere"},
    {80, "the target exists; nothing is replaced"},
    {170, "a file below the folder is open or not yet written back"},
};
inline constexpr Answer DELETE_ANSWERS[] = {
    {5, "it is read-only, or the drive's top folder, or out of the drive's folder"},
    {32, "it is open elsewhere"},
    {145, nullptr},
};
inline constexpr Answer MAKE_FOLDER_ANSWERS[] = {
    {2, "there is no folder to make it in"},
    {80, nullptr},
};
inline constexpr Answer LOCK_ANSWERS[] = {
    {32, "another lock overlaps the range, or the file is open elsewhere and not shared"},
};
inline constexpr Answer UNLOCK_ANSWERS[] = {
    {13, "the cache service has no such lock"},
};
inline constexpr Answer TOKEN_ANSWERS[] = {
    {5, "the cache service refuses the token"},
};
inline constexpr Answer PROXY_ANSWERS[] = {
    {13, nullptr},
    {160, "the proxy is empty"},
};
inline constexpr Answer PURGE_ANSWERS[] = {
    {5, "a file of the cache cannot be deleted"}, {13, "the domain or the user is no plain name"},
    {32, "a file of the cache is in use"},        {38, "the cache directory's path is too long"},
    {170, "a cache service runs on it"},
};

}  // namespace tnwsh

#endif
