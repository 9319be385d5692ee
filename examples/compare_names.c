/*
 * Shows which of several names stand for the same file of a drive as the first one does.
 */
#include <windows.h>

#include <shellapi.h>
#include <stdio.h>

#include "ox_text.h"

/*
 * Windows hands out names in UTF-16, and the library takes UTF-8. A name with half a character in
 * it has no UTF-8. It is refused, since a replacement character would make another name of it.
 */
static int to_utf8(const wchar_t* name, char* text, int size) {
  return WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, name, -1, text, size, NULL, NULL) > 0;
}

int main(void) {
  int count;
  wchar_t** args = CommandLineToArgvW(GetCommandLineW(), &count);
  char name[1024], other[1024];
  if (args == NULL || count < 3) {
    return puts("usage: compare_names NAME OTHER..."), 2;
  }
  if (!to_utf8(args[1], name, sizeof name)) {
    return puts("NAME is no file name"), 2;
  }

  SetConsoleOutputCP(CP_UTF8);
  for (int i = 2; i < count; i++) {
    if (!to_utf8(args[i], other, sizeof other)) {
      puts("no file name");
    } else if (ox_utf8_strcmp(name, other) == 0) {
      printf("%s: the same name\n", other);
    } else if (ox_utf8_strcasecmp(name, other) == 0) {
      printf("%s: the same file, in other letters\n", other);
    } else {
      printf("%s: another file\n", other);
    }
  }
  LocalFree(args);
  return 0;
}
