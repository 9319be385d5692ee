#include "console.h"

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <shellapi.h>

#include <algorithm>
#include <atomic>
#include <iostream>

#include "service/wide_text.h"

namespace tnwsh {
namespace {

std::atomic<bool> interrupted = false;

BOOL WINAPI OnControl(DWORD type) {
  return type == CTRL_C_EVENT && !interrupted.exchange(true) ? TRUE : FALSE;
}

UINT console_code_page = 0;

void RestoreConsole() {
  fflush(stdout);
  SetConsoleOutputCP(console_code_page);
}

HANDLE HandleOf(FILE* stream) { return reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream))); }

/* A console's input is read as UTF-16: its UTF-8 mode loses all but ASCII on some versions. */
bool ReadConsoleLine(std::string* line) {
  std::wstring text;
  while (!text.ends_with(L'\n')) {
    wchar_t part[512];
    DWORD count = 0;
    if ((ReadConsoleW(HandleOf(stdin), part, static_cast<DWORD>(std::size(part)), &count,
                      nullptr) == 0) ||
        count == 0 || part[0] == L'\x1a') { /* Ctrl-Z */
      return false;
    }
    text.append(part, count);
  }
  return tarnd::utf8_from_wide(text, line);
}

}  // namespace

void SetUpConsole() {
  for (FILE* stream : {stdin, stdout, stderr}) {
    _setmode(_fileno(stream), _O_BINARY);
  }
  setvbuf(stdout, nullptr, _IOFBF, 1 << 16);
  setvbuf(stderr, nullptr, _IONBF, 0);
  console_code_page = GetConsoleOutputCP();
  if (console_code_page != 0) {
    SetConsoleOutputCP(CP_UTF8);
    atexit(RestoreConsole);
  }
  SetConsoleCtrlHandler(OnControl, TRUE);
}

std::vector<std::string> ProgramArguments() {
  int count = 0;
  wchar_t** words = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> arguments;
  for (int i = 1; i < count; i++) {
    tarnd::utf8_from_wide(words[i], &arguments.emplace_back());
  }
  LocalFree(words);
  return arguments;
}

std::string ProgramFolder() {
  wchar_t path[4096];
  const DWORD length = GetModuleFileNameW(nullptr, path, static_cast<DWORD>(std::size(path)));
  std::string folder;
  tarnd::utf8_from_wide(std::wstring_view(path, length), &folder);
  return folder.substr(0, folder.rfind('\\') + 1);
}

bool IsTerminal(FILE* stream) {
  DWORD mode = 0;
  return GetConsoleMode(HandleOf(stream), &mode) != 0;
}

int TerminalWidth() {
  CONSOLE_SCREEN_BUFFER_INFO info;
  if (GetConsoleScreenBufferInfo(HandleOf(stderr), &info) == 0) {
    return 80;
  }
  return std::clamp(info.srWindow.Right - info.srWindow.Left + 1, 40, 200);
}

bool ReadLine(std::string* line) {
  if (IsTerminal(stdin) ? !ReadConsoleLine(line) : !std::getline(std::cin, *line)) {
    return false;
  }
  line->erase(line->find_last_not_of("\r\n") + 1);
  return true;
}

bool ReadSecret(std::string* line) {
  const HANDLE input = HandleOf(stdin);
  DWORD mode = 0;
  const bool terminal = GetConsoleMode(input, &mode) != 0;
  if (terminal) {
    fputs("(not shown) ", stderr);
    SetConsoleMode(input, mode & ~static_cast<DWORD>(ENABLE_ECHO_INPUT));
  }
  const bool read = ReadLine(line);
  if (terminal) {
    SetConsoleMode(input, mode);
    fputc('\n', stderr);
  }
  return read;
}

bool Confirm(const std::string& question) {
  if (!IsTerminal(stdin)) {
    return false;
  }
  fprintf(stderr, "%s [y/N] ", question.c_str());
  std::string answer;
  return ReadLine(&answer) && (answer == "y" || answer == "Y" || answer == "yes");
}

bool Interrupted() { return interrupted; }
void ForgetInterrupt() { interrupted = false; }

}  // namespace tnwsh
