/*
 * How names of the cloud that Windows cannot hold are shown there, so that nothing in the cloud is
 * invisible.
 *
 * A byte that a name may not have is shown as the character U+F000 plus the byte: "a:b" as "a",
 * then U+F03A, then "b". These bytes are: control characters and one of "*:<>?|\" and the quote; a
 * dot or a blank at the end; the first letter of a device's name ("aux"); each byte of what is not
 * UTF-8; and, so that every spelling has one meaning, each byte of the characters U+F000 to U+F0FF
 * themselves. Of names that differ in case only, the listing shows the later ones with their first
 * byte spelled so.
 */
#ifndef SERVICE_NAME_SPELLING_H
#define SERVICE_NAME_SPELLING_H

#include <string>
#include <string_view>

namespace tarnd {

/* The cloud's name, as Windows sees it. */
std::string spelled_for_windows(std::string_view cloud_name);
/* The same with the first byte spelled out: a second name for the same item. */
std::string spelled_apart(std::string_view cloud_name);
/* Back: the cloud's path or name. */
std::string spelled_for_cloud(std::string_view windows_path);
/*
 * Whether a new item may have this name: its spelling for the cloud comes back as the same name.
 * Otherwise it would show under another one.
 */
bool is_spelling_of_new_name(std::string_view windows_name);

}  // namespace tarnd

#endif
