/* What the commands' operations may answer: for their failures, and for the end of their help. */
#ifndef TNWSH_ANSWERS_H
#define TNWSH_ANSWERS_H

#include "failure.h"

namespace tnwsh {

/* Of every operation on the drive; an operation's own meaning of a code goes before. */
inline constexpr Answer kDriveAnswers[] = {{kUnauthorised, nullptr}, {kConnectionBroken, nullptr}};
/* Of every operation on a path. */
inline constexpr Answer kPathAnswers[] = {
    {2, "there is no such file or folder"},
    {5, "the path leads out of the drive's folder, or the cloud denies access"},
    {13, nullptr},
};

inline constexpr Answer kListAnswers[] = {{267, nullptr}};
inline constexpr Answer kReadAnswers[] = {
    {30, "a part of the file could not be fetched from the cloud"},
    {32, nullptr},
    {1117, nullptr},
};
inline constexpr Answer kWriteAnswers[] = {
    {5, "the file is read-only, or is a folder, or the path leads out of the drive's folder"},
    {32, nullptr},
    {112, nullptr},
    {1117, nullptr},
};
inline constexpr Answer kRenameAnswers[] = {
    {2, "there is no such file or folder, or no folder to put it into"},
    {13, "the service refuses a path, or a folder would go below itself"},
    {32, "it is open elsewhere"},
    {80, "the target exists; nothing is replaced"},
    {170, "a file below the folder is open or not yet written back"},
};
inline constexpr Answer kDeleteAnswers[] = {
    {5, "it is read-only, or the drive's top folder, or out of the drive's folder"},
    {32, "it is open elsewhere"},
    {145, nullptr},
};
inline constexpr Answer kMakeFolderAnswers[] = {
    {2, "there is no folder to make it in"},
    {80, nullptr},
};
inline constexpr Answer kLockAnswers[] = {
    {32, "another lock overlaps the range, or the file is open elsewhere and not shared"},
};
inline constexpr Answer kUnlockAnswers[] = {
    {13, "the cache service has no such lock"},
};
inline constexpr Answer kTokenAnswers[] = {
    {5, "the cache service refuses the token"},
};
inline constexpr Answer kProxyAnswers[] = {
    {13, nullptr},
    {160, "the proxy is empty"},
};
inline constexpr Answer kPurgeAnswers[] = {
    {5, "a file of the cache cannot be deleted"}, {13, "the domain or the user is no plain name"},
    {32, "a file of the cache is in use"},        {38, "the cache directory's path is too long"},
    {170, "a cache service runs on it"},
};

}  // namespace tnwsh

#endif
