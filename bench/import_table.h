/*
 * Puts another function into the place of one that a DLL imports.
 */
#ifndef IMPORT_TABLE_H
#define IMPORT_TABLE_H

#include <windows.h>

/* Gives what stood there, or null where the DLL does not import it. */
void* replace_import(HMODULE dll, const char* function, void* by);

#endif
