/*
 * Stands in for the cache service's process where a scripted peer in the test answers for it: says
 * that it is ready and ends. What it is to do comes from its environment:
 *   STAND_IN_READY    the ready event's name; empty: it never says so
 *   STAND_IN_COMMAND  a file that gets the whole command line
 */
#include <windows.h>

#include <cstdio>
#include <cstdlib>

int main() {
  const char* command_file = getenv("STAND_IN_COMMAND");
  if (command_file != nullptr && (*command_file != 0)) {
    FILE* file = fopen(command_file, "wb");
    if (file == nullptr) {
      return 1;
    }
    fputs(GetCommandLineA(), file);
    fclose(file);
  }
  const char* ready = getenv("STAND_IN_READY");
  if (ready == nullptr || (*ready == 0)) {
    return 0;
  }
  HANDLE event = OpenEventA(EVENT_MODIFY_STATE, FALSE, ready);
  return event != nullptr && SetEvent(event) != 0 ? 0 : 1;
}
