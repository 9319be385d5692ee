/*
 * Start-up records for tests of the whole client.
 */
#ifndef DRIVE_FILES_H
#define DRIVE_FILES_H

#include <string>

#include "test_folder.h"
#include "tnw.h"

/* A start-up record on `folder`: no retry, two threads, user and drive id, `program` to serve. */
tnw_tninit start_record(const TestFolder& folder, const std::string& program);
template <size_t N>
void set_field(char (&field)[N], const std::string& text) {
  for (size_t i = 0; i < N; i++) {
    field[i] = i < text.size() ? text[i] : '\0';
  }
}

/* tnw_init, and once more where Wine failed to create the service's process for a reason of its
 * own: under load it does so once in some thousand times, with "internal error" (1359). */
void* init_drive(tnw_tninit* record, int* error);

/* Where the service of such a record keeps its things. */
std::string cache_dir(const tnw_tninit& record);
std::string socket_path(const tnw_tninit& record);
/* A path as the names of events have it: lower case, with slashes. */
std::string event_name(std::string path);

void replace_all(std::string& text, const std::string& what, const std::string& by);

#endif
